#include "base/VTLog.hpp"

#include <atomic>
#include <cstdlib>

namespace vt {

namespace {
    enum Switch : int { Unread, Off, On };
    std::atomic<int> debugSwitch { Unread };
} // namespace

void readDebugLoggingSwitch()
{
    bool on = std::getenv("VT_LOG") || std::getenv("VT_DEBUGMSG") || std::getenv("DEBUG");
    debugSwitch.store(on ? On : Off, std::memory_order_relaxed);
}

bool debugLoggingEnabled()
{
    if (debugSwitch.load(std::memory_order_relaxed) == Unread)
        readDebugLoggingSwitch();
    return debugSwitch.load(std::memory_order_relaxed) == On;
}

} // namespace vt
