// The in-process Wine loader: a Unix-domain socket server through which the
// Wine loader hands its start request over to the launcher, so that Wine runs
// inside the launcher process.
//
// Only the interface the delegate relies on exists so far: the socket server
// itself comes with the loader work, and until then the launcher never makes
// a loader.
#pragma once

#include <string>

namespace vt {

inline constexpr const char* WineLoaderRejectedRequestForWrongArchitectureNotification =
    "WineLoaderRejectedRequestForWrongArchitectureNotification";
inline constexpr const char* WineLoaderRequestedArchitectureKey = "WineLoaderRequestedArchitectureKey";

class WineLoader {
public:
    virtual ~WineLoader() = default;
    // The listening socket's path; empty once a request has been accepted.
    virtual std::string socketPath() const = 0;
};

} // namespace vt
