// Debug logging: silent unless VT_LOG, VT_DEBUGMSG or DEBUG is present in the
// environment (an empty value counts). The environment is consulted at every
// call, so switching it on mid-run takes effect at the next message.
#pragma once

#include "base/PlatformLog.hpp"

namespace vt {

bool debugLoggingEnabled();

template <typename... Args> void VTLog(LogFormat<std::type_identity_t<Args>...> format, const Args&... args)
{
    if (!debugLoggingEnabled())
        return;
    writeLogLine(formatMessage<Args...>(format, args...));
}

} // namespace vt
