// Built-in resources of PDF/A output: the XMP packet template
// ("PDFA-XMP.4.2.1") and the deflated sRGB profile ("IEC61966-2.1").
#pragma once
#include <string>

namespace kestrelyn {

// The XMP template with its placeholders ("XXX_TITLE_XXX", ...), CR LF line ends.
const std::string& XmpTemplate();

// The sRGB IEC 61966-2.1 profile as a zlib stream: the stream data of the
// output intent's profile object, as they stand.
std::string DeflatedSrgbProfile();

// A random identifier: 8-4-4-4-12 uppercase hexadecimal digits.
std::string MakeGuid();

} // namespace kestrelyn
