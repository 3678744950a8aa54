// Debug logging: silent unless VT_LOG, VT_DEBUGMSG or DEBUG is present in the
// environment (an empty value counts). The environment is read once, when the
// launcher starts (or at the first message), not at every call: once Wine runs
// inside the launcher it changes the environment from its own thread, and a
// getenv on another thread may then read a string that is being freed.
#pragma once

#include "base/PlatformLog.hpp"

namespace vt {

bool debugLoggingEnabled();
// Reads the switch from the environment again; the launcher calls it first
// thing, tests when they change the variables.
void readDebugLoggingSwitch();

template <typename... Args> void VTLog(LogFormat<std::type_identity_t<Args>...> format, const Args&... args)
{
    if (!debugLoggingEnabled())
        return;
    writeLogLine(formatMessage<Args...>(format, args...));
}

} // namespace vt
