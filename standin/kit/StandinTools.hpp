// The stand-in product's tools for end-to-end tests: vtmenu, vtstart and wine
// installed into a main application bundle, the window-command tool that wine
// runs, and what they all recorded (formats: standin/tools/*.cpp).
//
// Typical use with the launcher harness:
//
//   LauncherHarness h;
//   StandinTools tools(h.dir / "tools");
//   tools.install(h.mainApp);
//   h.startHelperServer({ { "VT_STANDIN_SERVER_ENV",
//                           tools.writeServerEnvironment(h.dir / "server.env").string() } });
//   tools.setAnswer("close", "0");
//   auto launcher = h.startLauncher();
//   ASSERT_TRUE(tools.waitForRecords(2));          // wine (window commands), vtmenu
//   auto menu = tools.records("vtmenu").at(0);
//   EXPECT_EQ(menu.arguments(), (std::vector<std::string> { "--bottle", "Office", ... }));
//   tools.end(menu.pid);                            // the Windows program ends
//
// Every tool still running is told to end when this goes away.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace vt::test {

using namespace std::chrono_literals;

// What one tool recorded about its start.
struct ToolRecord {
    std::string role;            // vtmenu, vtstart or wine
    pid_t pid = 0;
    pid_t parent = 0;
    int64_t monotonicNs = 0;     // CLOCK_MONOTONIC at start
    int64_t realtimeMs = 0;      // CLOCK_REALTIME at start, comparable with launcher log times
    std::vector<std::string> argv; // argv[0] (the path it was started by) first
    std::map<std::string, std::string> environment; // the whole environment
    std::string directory;       // working directory
    std::string standardInput;   // null, pipe, other or closed
    std::string standardOutput;
    std::string standardError;

    // The arguments without argv[0].
    std::vector<std::string> arguments() const { return { argv.begin() + (argv.empty() ? 0 : 1), argv.end() }; }
};

class StandinTools {
public:
    // Makes `directory` (VT_STANDIN_TOOLS_DIR), where the tools report.
    explicit StandinTools(std::filesystem::path directory);
    // Ends every tool (endAll) and waits a little for them to go.
    ~StandinTools();
    StandinTools(const StandinTools&) = delete;
    StandinTools& operator=(const StandinTools&) = delete;

    const std::filesystem::path& directory() const { return m_directory; }

    // The program behind vtmenu, vtstart and wine.
    static std::filesystem::path toolBinary();

    // Makes mainAppBundle/Contents/SharedSupport/Vantor/bin/{vtmenu,vtstart,wine}
    // as symbolic links to toolBinary(); answers that bin directory.
    std::filesystem::path install(const std::filesystem::path& mainAppBundle) const;

    // What the helper server's environment dictionary must hold for the
    // tools: VT_STANDIN_TOOLS_DIR, PATH, LANG, and the sanitizers' options of
    // this process, if any. The tools see nothing else but the launcher's
    // own VT_* variables.
    std::map<std::string, std::string> variables() const;
    // Writes variables() and `extra` as the KEY=VALUE lines that
    // VT_STANDIN_SERVER_ENV names; answers `file`.
    std::filesystem::path writeServerEnvironment(const std::filesystem::path& file,
                                                 const std::map<std::string, std::string>& extra = {}) const;

    // Every record so far, in the order the tools started.
    std::vector<ToolRecord> records() const;
    std::vector<ToolRecord> records(const std::string& role) const;
    // Runs the main loop until there are at least `count` records (of `role`).
    bool waitForRecords(size_t count, std::chrono::milliseconds timeout = 20s) const;
    bool waitForRecords(const std::string& role, size_t count, std::chrono::milliseconds timeout = 20s) const;

    // Tells the tool with this pid to exit with `status`.
    void end(pid_t pid, int status = 0) const;
    // Tells every tool to exit with `status`, those started later too.
    void endAll(int status = 0) const;
    // How the tool ended, as it wrote it: "exit <status>" or "signal 15";
    // empty while it runs (or when it could not say, killed by SIGKILL).
    std::optional<std::string> ending(pid_t pid) const;
    bool waitForEnding(pid_t pid, std::chrono::milliseconds timeout = 20s) const;

    // The window-command tool's answer to commands whose first word is
    // `command`: a number, "raw:<text>", "exit" or "silent" (see
    // sendwndcmd_main.cpp). Takes effect with the next request.
    void setAnswer(const std::string& command, const std::string& answer);
    void clearAnswers();

    // The request lines the window-command tool received, each as it arrived,
    // line end included.
    std::vector<std::string> commands() const;
    // Just their command texts (after "-a "), without the line end.
    std::vector<std::string> commandTexts() const;
    bool waitForCommands(size_t count, std::chrono::milliseconds timeout = 20s) const;

private:
    std::filesystem::path recordOf(pid_t pid, const std::string& suffix) const;
    void writeAnswers() const;

    std::filesystem::path m_directory;
    std::map<std::string, std::string> m_answers;
};

} // namespace vt::test
