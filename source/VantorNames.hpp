// The names by which the launcher finds the Vantor main application: its
// bundle identifier (also its session-bus name and the domain of its user
// defaults) and the private URL scheme that only it registers.
#pragma once

namespace vt {

inline constexpr const char* kVantorBundleIdentifier = "com.tallowmere.Vantor";
inline constexpr const char* kVantorURLScheme = "com.tallowmere.private-Vantor-app-scheme";

} // namespace vt
