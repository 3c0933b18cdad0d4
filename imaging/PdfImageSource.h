// The image registry as the PDF writer's image source: registry images, and
// files loaded into the registry for the occasion, read as PdfAddImage needs
// them.
#pragma once
#include "pdf/cPDF.h"

namespace kestrelyn {

// The registry's image source; it keeps no state, so every writer shares it.
PdfImageSource& RegistryPdfImageSource();

} // namespace kestrelyn
