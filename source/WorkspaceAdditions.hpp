// Finding and starting the product's main application.
//
// The main application may be installed several times (an old copy in a
// download folder, the current one in the applications folder); the launcher
// must pick the same copy every time: the running one, otherwise the newest.
// It is identified by its bundle identifier and by a private URL scheme that
// only it registers.
//
// - Running copy: the owner of the session-bus name equal to the bundle
//   identifier; its bundle is B for the owner's executable B/Contents/MacOS/<x>.
// - Installed copies: the desktop entries GIO lists for
//   x-scheme-handler/<scheme>, in GIO's order; an entry's Exec program is
//   B/Contents/MacOS/<x> of its bundle B.
// - Lookup by identifier alone: the bundle of the desktop entry <id>.desktop.
//
// Every call takes the session bus anew and drops it before returning; no
// state is kept between calls.
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// A caller broke a function's contract (a required argument missing). The
// failure is logged before it is thrown.
class AssertionFailure : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

// Launch flags, as the product passes them.
inline constexpr uint32_t kLaunchDontAddToRecents = 0x100;
inline constexpr uint32_t kLaunchDontSwitch = 0x200;

// The bundle of the running application that owns the session-bus name
// `bundleIdentifier`; empty when nothing owns it or its executable is not in
// a bundle.
std::optional<std::filesystem::path> VT_findRunningAppBundleWithIdentifier(const std::string& bundleIdentifier);

// The copy to use: a running one whatever its version; else, with a scheme,
// the best installed copy that registers it; else (no scheme, or no copy
// qualifies) the copy found by identifier alone. Throws AssertionFailure
// without an identifier.
std::optional<std::filesystem::path> VT_absolutePathForAppBundleWithIdentifier(
    const std::optional<std::string>& bundleIdentifier, const std::optional<std::string>& scheme);

// True when a copy runs (it is then left alone: not activated, not told
// anything) or one was started. Throws AssertionFailure without an identifier.
bool VT_launchAppWithBundleIdentifier(const std::optional<std::string>& bundleIdentifier,
                                      const std::optional<std::string>& scheme, uint32_t options);

// Opens `urls` (none: just launch) with the chosen copy. A running copy
// receives org.freedesktop.Application.Open, then Activate unless `options`
// has kLaunchDontSwitch; otherwise the chosen bundle's executable is started
// in the background with the URLs as its arguments. True when the request was
// delivered or the copy started: the Open is sent, not waited for (a time-out
// or a refusal is logged from the main loop), so a process that ends right
// after must flush the session bus first, as the launcher's end does. Throws
// AssertionFailure without an identifier.
bool VT_openURLs(const std::vector<std::string>& urls, const std::optional<std::string>& bundleIdentifier,
                 const std::optional<std::string>& scheme, uint32_t options);

// Brings the running copy with this identifier to the front
// (org.freedesktop.Application.Activate); false when none runs.
bool VT_activateRunningAppWithBundleIdentifier(const std::string& bundleIdentifier);

namespace detail {
    // The major and minor numbers of a bundle version that reads, from its
    // start, as <integer> "." <integer> "." (white space before each piece
    // skipped, a sign allowed); empty otherwise.
    struct BundleVersion {
        int majorNumber = 0;
        int minorNumber = 0;
        bool operator==(const BundleVersion&) const = default;
    };
    std::optional<BundleVersion> scanBundleVersion(std::string_view version);

    // One copy that the desktop lists as a handler of the scheme, as read
    // from its bundle.
    struct InstalledCopy {
        std::filesystem::path bundle;
        std::optional<std::string> identifier; // CFBundleIdentifier
        std::optional<std::string> version;    // CFBundleVersion, as written
        bool runnable = false;                 // the bundle executable is a regular file we may run
        std::optional<timespec> modified;      // the bundle directory's, behind links; empty when unknown
    };

    // The newest of `copies` (in the desktop's order) whose identifier is
    // `bundleIdentifier` ignoring case, whose executable runs and whose
    // version is a full release with a major number of at least 1 and a
    // minor number not below 0: the higher major, then minor number wins,
    // then the later date; on a full tie the first listed stays. Empty when
    // none qualifies.
    std::optional<std::filesystem::path> chooseNewestCopy(const std::vector<InstalledCopy>& copies,
                                                          std::string_view bundleIdentifier);

    // The object path at which a GApplication with this id is exported.
    std::string applicationObjectPath(std::string_view applicationId);
} // namespace detail

} // namespace vt
