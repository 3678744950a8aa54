// The application delegate: it brings the launcher up (the main application,
// its helper server, the bottle, the product's tools) and then coordinates
// the collaborators that do the work: the Windows program's processes, the
// window-command channel, the loader, the tray socket and icon list, and the
// status-notifier item that shows the tile in the desktop's status area. It
// answers the application's questions about opening, activation and quitting.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/EndOfSession.hpp"
#include "app/LauncherSettings.hpp"
#include "app/StartUpSequence.hpp"
#include "app/WindowsProgram.hpp"
#include "base/MainLoop.hpp"
#include "base/NotificationCenter.hpp"
#include "integration/LaunchNotifySocket.hpp"
#include "integration/TrayIconList.hpp"
#include "integration/WindowCommandChannel.hpp"
#include "shell/Application.hpp"
#include "shell/HelperServerClient.hpp"
#include "shell/PrivateDirectory.hpp"
#include "shell/StatusNotifierItem.hpp"

namespace vt {

class VTFBHelperApp;
class WineLoader;

class VTFBHelperDelegate : public ApplicationDelegate {
public:
    explicit VTFBHelperDelegate(VTFBHelperApp& application);
    ~VTFBHelperDelegate() override;

    // Start-up: holds the opening events back until the helper server has
    // been found and the bottle is ready, waiting on the main loop.
    void applicationWillFinishLaunching() override;
    void applicationDidFinishLaunching() override;

    // Starting the Windows program.
    bool applicationShouldOpenUntitledFile(Application& application) override;
    bool applicationOpenUntitledFile(Application& application) override;
    void openFiles(Application& application, const std::vector<std::string>& paths) override;
    void handleGetURLEvent(const std::string& url);
    bool applicationShouldHandleReopen(Application& application, bool hasVisibleWindows) override;

    // Activation raises the program's windows, or clicks its oldest tray icon.
    void applicationDidBecomeActive() override;

    // Quitting: an end of session with the Windows program, never a kill.
    TerminateReply applicationShouldTerminate(Application& application) override;
    void applicationWillTerminate() override;
    // The desktop's logout: the same conversation with the program.
    void applicationSessionMayEnd(Application& application) override;
    void applicationSessionWillEnd(Application& application) override;
    void applicationSessionEndCancelled(Application& application) override;

    // Sets up the launch-notify socket on first use; answers whether it is usable.
    bool startLaunchNotify();
    // The tray icons as the Windows side has announced them; empty before start-up.
    const std::vector<TrayIconEntry>& iconList() const;

    // Replaces every "%@" in the titles of `menu`, at every depth, with the
    // bundle's name. Separators are left alone.
    void formatMenuItemsWithBundleName(Menu& menu);

    const LauncherSettings& settings() const { return m_settings; }
    // A loader has handed its program over: Wine runs inside the launcher.
    bool wineRunsInside() const;
    WindowsProgram& program() { return m_program; }

private:
    std::optional<std::string> infoString(const char* key) const;
    void readBundleSettings();
    // Carries out what the start-up sequence decided.
    void perform(const std::vector<StartUpSequence::Action>& actions);
    void finishStartUp();
    // The program runs: a tracked process, or Wine inside the launcher.
    bool programIsRunning() const;
    // A loader's hand-over failed after it was decided.
    void wineHandOverFailed();
    // The reason a refusal gives the session manager.
    std::string unsavedWorkReason() const;
    // Carries out what the end of session decided.
    void perform(const EndOfSession::Actions& actions);
    void findProductTools();
    void startSendWndCmd();
    // The variables other parts of the launcher give each new process.
    WindowsProgram::Environment launcherVariables();
    // The loader's socket path for a new process, making the loader on first
    // need; empty when Wine integration is off or the loader has taken a
    // program in.
    std::string wineLoaderSocketPath();
    // The last process of the program, or the window-command tool after it,
    // has ended: quit, unless the loader has taken the program into this
    // very process.
    void programEnded();
    void activateMainApplication();
    // The tray icons' list and socket, from the first moment of start-up.
    void makeTrayIcons();
    // The status-notifier item, with the tray icons painted on it: before
    // start-up first waits, so that a long wait is not silence, or else
    // once the program has been started.
    enum class StatusItemMoment { BeforeWaiting, Launched };
    void showStatusItem(StatusItemMoment moment);

    VTFBHelperApp& m_application;

    // Written once during start-up.
    StartUpSequence m_startUp;
    TimeoutSource m_startUpTimer;
    GPtr<GCancellable> m_startUpCancellable;
    std::unique_ptr<HelperServerClient> m_helperServerProxy;
    LauncherSettings m_settings;

    // Where the loader's and the launch-notify sockets live; it goes at the end.
    PrivateDirectory m_privateDirectory;
    std::unique_ptr<TrayIconList> m_trayIcons;
    std::unique_ptr<StatusNotifierItem> m_statusItem;
    std::string m_statusTitle;
    bool m_statusItemShown = false;
    // Gives messages to m_trayIcons, so it goes first.
    std::unique_ptr<LaunchNotifySocket> m_launchNotify;
    std::shared_ptr<WineLoader> m_wineLoader;

    WindowsProgram m_program;
    WindowCommandChannel m_windowCommands;
    EndOfSession m_endOfSession;
};

} // namespace vt
