// The whole setting for end-to-end runs of the real launcher: a private
// session bus, a private desktop with the stand-in main application
// registered, a launcher bundle, and the stand-in helper server on demand.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "standin/kit/Bundles.hpp"
#include "standin/kit/TestSupport.hpp"

namespace vt::test {

using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

class LauncherHarness {
public:
    LauncherHarness();
    ~LauncherHarness();

    TempDir dir;
    PrivateBus bus;
    Desktop desktop { dir / "desktop" };
    std::filesystem::path mainApp;   // the registered copy of the main application
    std::filesystem::path launcher;  // the launcher bundle, once made
    PlistDict launcherInfo {
        { "CFBundleIdentifier", "com.example.Notepad" },
        { "CFBundleName", "Notepad" },
        { "VTHelperAppBottleName", "Office" },
        { "VantorHelperMenuPath", "Programs/Notepad.lnk" },
    };

    std::filesystem::path mainAppRecord() const { return dir / "main-app.record"; }
    std::filesystem::path serverRecord() const { return dir / "server.record"; }

    // Starts the stand-in helper server; `settings` are its VT_STANDIN_* variables.
    void startHelperServer(const EnvironmentChanges& settings = {});

    // Makes the launcher bundle from launcherInfo (once) and starts it with
    // `arguments`; standard error goes to a log file of its own per run.
    std::unique_ptr<TestProcess> startLauncher(const std::vector<std::string>& arguments = {},
                                               const EnvironmentChanges& extra = {});
    // What the n-th launcher run (0-based) has written to standard error so far.
    std::string launcherLog(int run = 0) const;
    // Runs the main loop until the n-th run's log holds `text`.
    bool waitForLog(const std::string& text, int run = 0, std::chrono::milliseconds timeout = 20s) const;

    // The environment every program of the setting runs with.
    std::map<std::string, std::string> environment(const EnvironmentChanges& extra = {}) const;

private:
    std::unique_ptr<TestProcess> m_helperServer;
    int m_runs = 0;
};

// The millisecond time stamps of the log lines that contain `text`.
std::vector<int64_t> logLineTimes(const std::string& log, const std::string& text);

} // namespace vt::test
