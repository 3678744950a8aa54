// The processes that stand for the Windows program: started through the
// product's tools (vtmenu, vtstart) with argument lists that name the bottle,
// and an environment that leads the Windows side back to this launcher. The
// launcher never runs the program itself and never ends it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/LauncherSettings.hpp"
#include "base/NotificationCenter.hpp"
#include "source/VTTask.hpp"

namespace vt {

class HelperServerClient;

// The argument lists, each ending at the first missing setting.
namespace programArguments {
    // Launched without documents, or reopened: the menu entry's program.
    std::vector<std::string> untitled(const LauncherSettings& settings);
    // A file of a declared document type, opened by vtstart after "--".
    std::vector<std::string> document(const LauncherSettings& settings, const std::string& path);
    // Any other file, handed to the menu entry's program through vtmenu.
    std::vector<std::string> menuEntryWithFile(const LauncherSettings& settings, const std::string& path);
    // A URL, for vtstart.
    std::vector<std::string> url(const LauncherSettings& settings, const std::string& url);
    // The menu entry handed back to vtmenu for another architecture; empty
    // unless every element is there.
    std::optional<std::vector<std::string>> otherArchitecture(const LauncherSettings& settings,
                                                              const std::string& architecture);
} // namespace programArguments

// The text after the last dot of the last path component, case kept.
std::optional<std::string> pathExtension(const std::string& path);

class WindowsProgram {
public:
    using Environment = std::map<std::string, std::string>;
    // The variables of other parts of the launcher (the launch-notify and
    // loader sockets) for one new process; asked once per process made.
    using LauncherVariables = std::function<Environment()>;

    // `lastProcessEnded` runs on the main thread when the last tracked
    // process has ended.
    WindowsProgram(const LauncherSettings& settings, LauncherVariables launcherVariables,
                   std::function<void()> lastProcessEnded);
    WindowsProgram(const WindowsProgram&) = delete;
    WindowsProgram& operator=(const WindowsProgram&) = delete;

    // The server whose environment every process starts from; none until
    // start-up has found it (no process can be made before).
    void setHelperServer(HelperServerClient* server) { m_helperServer = server; }

    // A new, not yet launched process for the bottle: the helper server's
    // environment, fetched anew for each process, with the launcher's
    // variables laid over it;
    // the home directory; standard input and output on the null device. Null,
    // logged, when there is no tool path or no environment.
    std::unique_ptr<VTTask> createWineTaskWithLaunchPath(const std::optional<std::string>& launchPath,
                                                         const std::optional<std::vector<std::string>>& arguments);

    // The ways of starting; each started process is tracked until it ends.
    void openUntitled();
    // One process per file; false when a process could not be made for
    // every file (one that fails to start still counts as made).
    bool openFiles(const std::vector<std::string>& paths);
    void openURL(const std::string& url);
    // An untracked vtmenu that installs the entry for `architecture`, with the
    // helper server's environment only. One at a time: a loader of the other
    // architecture that asks again while one runs starts nothing more.
    void handBackForArchitecture(const std::string& architecture);

    // Whether a tracked process still runs.
    bool isRunning() const { return !m_taskArray.empty(); }
    // Ends are no longer reported (the launcher is ending).
    void stopObservingEnds();

private:
    struct TrackedTask {
        std::unique_ptr<VTTask> task;
        Observation ended;
    };

    // Launches a task and keeps it; false, logged, when it cannot run.
    bool launchAndTrack(std::unique_ptr<VTTask> task);
    void wineAppExited(const VTTask* task);

    const LauncherSettings& m_settings;
    LauncherVariables m_launcherVariables;
    std::function<void()> m_lastProcessEnded;
    HelperServerClient* m_helperServer = nullptr;
    // In the order started.
    std::vector<TrackedTask> m_taskArray;
    // Processes could not be made for want of descriptors, which has been said.
    bool m_outOfDescriptors = false;
    // The hand-back to vtmenu for another architecture, while it runs.
    std::unique_ptr<VTTask> m_handBack;
};

} // namespace vt
