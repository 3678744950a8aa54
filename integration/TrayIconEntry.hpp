// One tray icon of the Windows program, as the launcher lists it: which
// window owns it, its identifier there, and the message that window expects
// when the icon is clicked.
#pragma once

#include <cstdint>

namespace vt {

struct TrayIconEntry {
    uint64_t hwnd = 0;
    uint32_t id = 0;
    uint32_t callbackmessage = 0;
};

} // namespace vt
