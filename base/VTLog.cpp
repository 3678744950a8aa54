#include "base/VTLog.hpp"

#include <cstdlib>

namespace vt {

bool debugLoggingEnabled()
{
    return std::getenv("VT_LOG") || std::getenv("VT_DEBUGMSG") || std::getenv("DEBUG");
}

} // namespace vt
