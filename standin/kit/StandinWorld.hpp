// The whole stand-in world around a launcher, for end-to-end tests and the
// demo: a private session bus, a private desktop with the stand-in main
// application registered and the stand-in tools in it, the socket the
// stand-in programs record to, the helper server on demand, and runs of the
// real launcher in a bundle with their standard error kept.
//
//   StandinWorld w;
//   w.serverDictionary["WINEPREFIX"] = "/bottles/Office"; // what the tools get
//   w.setAnswer("close", "0");                            // the window-command tool's script
//   w.startHelperServer();
//   auto& launcher = w.startLauncher();
//   ASSERT_TRUE(w.records.waitForTools(2));               // wine (window commands), vtmenu
//   auto menu = w.records.tools("vtmenu").at(0);
//   EXPECT_EQ(menu.arguments(), (std::vector<std::string> { "--bottle", "Office", ... }));
//
// When it goes away it ends the main application and every tool it has seen
// (SIGTERM) and waits for them to be gone, then its launchers and helper
// server. Then no stand-in tool of this world may be left: one on a
// window-command channel ends by itself once its launcher is gone, the
// others it has not seen yet are ended too. One still running after that is
// a fault of the launcher or of the tools: the world names it on standard
// error, kills it and, once everything else of it is gone, aborts the
// program.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "standin/kit/Bundles.hpp"
#include "standin/kit/Records.hpp"
#include "standin/kit/TestSupport.hpp"

namespace vt::test {

using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

class StandinWorld {
    // Declared first so that it goes last, after the bus and the folder: what
    // was left behind ends the program there, loudly.
    struct LeftBehind {
        std::string report;
        ~LeftBehind();
    } m_leftBehind;

public:
    StandinWorld();
    ~StandinWorld();

    TempDir dir;
    PrivateBus bus;
    Desktop desktop { dir / "desktop" };
    RecordReader records { dir / "records" };
    std::filesystem::path mainApp;  // the registered copy of the main application, with the tools
    std::filesystem::path launcher; // the launcher bundle's executable, once made
    std::filesystem::path launcherBinary = VT_LAUNCHER_PATH; // what that executable is a copy of
    PlistDict launcherInfo {
        { "CFBundleIdentifier", "com.example.Notepad" },
        { "CFBundleName", "Notepad" },
        { "VTHelperAppBottleName", "Office" },
        { "VantorHelperMenuPath", "Programs/Notepad.lnk" },
    };
    // What the helper server hands the launcher for its tools. It starts as
    // what the tools need (the record socket, their script, PATH, LANG and
    // the sanitizers' options); the tools see nothing else but the
    // launcher's own VT_* variables.
    std::map<std::string, std::string> serverDictionary;

    // The window-command tool's answer to commands whose first word is
    // `command` (see standin/tools/sendwndcmd_main.cpp); it counts from the
    // next request on.
    void setAnswer(const std::string& command, const std::string& answer);

    // The environment every program of the world runs with; `extra` on top.
    std::map<std::string, std::string> environment(const EnvironmentChanges& extra = {}) const;

    // Starts the stand-in helper server with serverDictionary; `settings` are
    // its VT_STANDIN_* variables. Waits until it owns its name, unless it
    // is told to take it late.
    void startHelperServer(const EnvironmentChanges& settings = {});
    // Sends a signal to that server: SIGKILL, or the stand-in's own (SIGUSR1
    // loses the name, SIGUSR2 stops answering).
    void signalHelperServer(int signalNumber);

    // Makes the launcher bundle from launcherInfo and launcherBinary (once) and starts it in
    // dir with `arguments`. Runs are counted from 0 and live as long as the world.
    TestProcess& startLauncher(const std::vector<std::string>& arguments = {}, const EnvironmentChanges& extra = {});
    // What the n-th launcher run has written to standard error so far.
    std::string launcherLog(size_t run = 0) const;
    // Runs the main loop until the n-th run's log holds `text`.
    bool waitForLog(const std::string& text, size_t run = 0, std::chrono::milliseconds timeout = 20s) const;

private:
    void writeServerDictionary() const;

    std::map<std::string, std::string> m_answers;
    std::unique_ptr<TestProcess> m_helperServer;
    std::vector<std::unique_ptr<TestProcess>> m_launcherRuns;
};

} // namespace vt::test
