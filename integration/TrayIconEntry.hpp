// One tray icon of the Windows program, as the launcher lists it: its
// decoded image, which window owns it, its identifier there, and the message
// that window expects when the icon is clicked.
#pragma once

#include <cstdint>

#include "integration/TrayIconDecoder.hpp"

namespace vt {

struct TrayIconEntry {
    TrayIcon icon;
    int32_t id = 0;
    int32_t hwnd = 0;
    int32_t callbackmessage = 0;
};

} // namespace vt
