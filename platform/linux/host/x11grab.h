// Screen grab of the default host services.
#pragma once
#include "kestrelyn/Types.h"

namespace kestrelyn {

// The pixels of a window (0: the whole screen) as a host bitmap, or 0 when no
// X11 display can be reached or the window is unknown.
HBITMAP GrabX11Window(HWND hWnd);

} // namespace kestrelyn
