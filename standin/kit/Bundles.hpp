// Test fixtures for bundles and the desktop around them: launcher bundles,
// copies of the main application with their desktop entries, and a private
// set of XDG directories (StandinWorld.hpp puts them together for a launcher).
//
// GIO reads the desktop entries once per process, so lookups that depend on
// them belong in child processes started with desktop.variables().
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "source/PropertyList.hpp"
#include "source/VantorNames.hpp"

namespace vt::test {

// The stand-in main application as built.
std::filesystem::path standinMainAppBinary();
// The stand-in Wine library as built (libwine.so.1).
std::filesystem::path standinWineLibrary();

// Writes bundle/Contents/Info.plist as an XML property list, making the
// directories on the way.
void writeInfoPlist(const std::filesystem::path& bundle, const PlistDict& info);

// Copies `source` to bundle/Contents/MacOS/<name> with mode 0755 and answers
// that path.
std::filesystem::path installExecutable(const std::filesystem::path& bundle, const std::string& name,
                                        const std::filesystem::path& source);

// Writes `text` as an executable script bundle/Contents/MacOS/<name>.
std::filesystem::path installScript(const std::filesystem::path& bundle, const std::string& name,
                                    const std::string& text);

// One installed copy of the main application.
struct MainAppCopy {
    std::filesystem::path bundle {};                   // where it goes (required)
    std::string identifier = kVantorBundleIdentifier;        // CFBundleIdentifier
    std::optional<std::string> version = "4.1.0";      // CFBundleVersion; empty: none
    std::string executableName = "Vantor";             // CFBundleExecutable
    std::filesystem::path binary = standinMainAppBinary(); // copied to Contents/MacOS/<executableName>
    bool executable = true;                            // false: the copy lacks execute permission
    // The desktop entry's Exec names Contents/MacOS/<execName>; when it
    // differs from the bundle executable it is made as a small script, so
    // that GIO (which hides entries without a runnable program) still lists
    // a copy whose bundle executable is not executable.
    std::optional<std::string> execName = std::nullopt;
    std::optional<std::string> desktopId = std::nullopt; // default: vantor-<n>.desktop
    bool registersScheme = true;                         // MimeType=x-scheme-handler/<kVantorURLScheme>
    std::optional<int64_t> modified = std::nullopt;      // the bundle directory's mtime, seconds since the epoch
    // The stand-in Wine library, linked at Contents/SharedSupport/Vantor/
    // lib64/libwine.so.1 (lib on a 32-bit build), where the launcher loads it.
    bool installsWine = true;
};

// A private desktop under `root`: XDG data home (with applications/), an
// empty XDG data dir (so no system entry takes part) and a config home.
// Desktop entries that register the scheme are listed in mimeinfo.cache in
// the order they were added, which is the order GIO then reports them in.
class Desktop {
public:
    explicit Desktop(std::filesystem::path root);

    std::filesystem::path dataHome() const { return m_root / "data"; }
    std::filesystem::path dataDir() const { return m_root / "data-dirs"; }
    std::filesystem::path configHome() const { return m_root / "config"; }
    std::filesystem::path applicationsDirectory() const { return dataHome() / "applications"; }

    // XDG_DATA_HOME, XDG_DATA_DIRS and XDG_CONFIG_HOME for environmentWith().
    std::map<std::string, std::optional<std::string>> variables() const;

    // Makes the copy's bundle and its desktop entry; answers the bundle path.
    std::filesystem::path addMainApp(const MainAppCopy& copy);

    // A desktop entry <desktopId> whose Exec is `executable` (%U appended).
    void addDesktopEntry(const std::string& desktopId, const std::filesystem::path& executable,
                         bool registersScheme);

    // The main application's user defaults: configHome()/com.tallowmere.Vantor.plist.
    void writeVantorDefaults(const PlistDict& defaults) const;

private:
    void writeMimeCache() const;

    std::filesystem::path m_root;
    std::vector<std::string> m_schemeHandlers;
    int m_copies = 0;
};

// The lines of a file; none when it does not exist.
std::vector<std::string> readLines(const std::filesystem::path& path);

} // namespace vt::test
