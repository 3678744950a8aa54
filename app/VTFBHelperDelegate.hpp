// The application delegate: owner of the launcher's state. It brings the
// launcher up (the main application, its helper server, the bottle, the
// product's tools), starts the Windows program for each opening, and runs the
// end of session when the user quits.
#pragma once

#include <memory>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "shell/Application.hpp"
#include "shell/HelperServerClient.hpp"
#include "source/VTTask.hpp"
#include "source/VantorNames.hpp"

namespace vt {

class VTFBHelperApp;
class WineLoader;
struct Notification;
struct TrayIconEntry;


class VTFBHelperDelegate : public ApplicationDelegate {
public:
    explicit VTFBHelperDelegate(VTFBHelperApp& application);
    ~VTFBHelperDelegate() override;

    // Start-up: runs before the first opening event, blocking the main loop.
    void applicationWillFinishLaunching() override;
    void applicationDidFinishLaunching() override;

    // Starting the Windows program.
    bool applicationShouldOpenUntitledFile(Application& application) override;
    bool applicationOpenUntitledFile(Application& application) override;
    void openFiles(Application& application, const std::vector<std::string>& paths) override;
    void handleGetURLEvent(const std::string& url);
    bool applicationShouldHandleReopen(Application& application, bool hasVisibleWindows) override;

    // A new, not yet launched process for the Windows program's bottle, with
    // the environment that leads the Windows side back to this launcher and
    // the exit observer; null when none can be made.
    std::unique_ptr<VTTask> createWineTaskWithLaunchPath(const std::optional<std::string>& launchPath,
                                                         const std::optional<std::vector<std::string>>& arguments);
    void wineAppExited(const Notification& notification);
    // Runs on the loader's connection thread.
    void wineLoaderRejectedRequestForWrongArchitecture(const Notification& notification);

    // Activation and the window commands.
    void applicationDidBecomeActive() override;
    // Sends one command to the windows tagged with this launcher's tag;
    // true when the window-command tool confirms it.
    bool sendMessageToTaggedWindows(const std::string& text);

    // Quitting: an end of session with the Windows program, never a kill.
    TerminateReply applicationShouldTerminate(Application& application) override;
    void applicationWillTerminate() override;

    // Sets up the launch-notify socket on first use; answers whether it is usable.
    bool startLaunchNotify();

    // Replaces every "%@" in the titles of `menu`, at every depth, with the
    // bundle's name. Separators are left alone.
    void formatMenuItemsWithBundleName(Menu& menu);

    // The window-command channel; starts the tool that answers window commands.
    void startSendWndCmd();


    // Read-only after start-up.
    const std::optional<std::string>& bottleName() const { return m_bottleName; }
    const std::optional<std::string>& menuPath() const { return m_menuPath; }
    const std::optional<std::string>& vantorRoot() const { return m_vantorRoot; }
    const std::optional<std::string>& vtmenuPath() const { return m_vtmenuPath; }
    const std::optional<std::string>& vtstartPath() const { return m_vtstartPath; }
    const std::optional<std::string>& winePath() const { return m_winePath; }

    const std::vector<std::unique_ptr<VTTask>>& taskArray() const { return m_taskArray; }
    const VTTask* wndCmdTask() const { return m_wndCmdTask.get(); }

private:
    // An argument list that ends at its first missing element, as the
    // product's tools expect when the bundle lacks a key.
    static std::vector<std::string> argumentsUpToFirstMissing(
        std::initializer_list<std::optional<std::string>> elements);
    std::optional<std::string> infoString(const char* key) const;
    // Launches a task and keeps it in taskArray; false when it cannot run.
    bool launchAndTrack(std::unique_ptr<VTTask> task);
    void activateMainApplication();
    bool connectToHelperServer();
    bool waitForBottle();
    void findProductTools();

    VTFBHelperApp& m_application;

    // Written once during start-up.
    std::unique_ptr<HelperServerClient> m_helperServerProxy;
    std::optional<std::string> m_bottleName;
    std::optional<std::string> m_menuPath;
    std::optional<std::string> m_vantorRoot;
    std::optional<std::string> m_vtmenuPath;
    std::optional<std::string> m_vtstartPath;
    std::optional<std::string> m_winePath;

    // The launch-notify socket: its descriptor and path (empty until it listens).
    int m_launchnotifysocket = -1;
    std::string m_launchNotifySocketName;

    std::vector<std::shared_ptr<TrayIconEntry>> m_iconList;
    // The processes that stand for the Windows program, in the order started.
    std::vector<std::unique_ptr<VTTask>> m_taskArray;
    std::unique_ptr<VTTask> m_wndCmdTask;
    std::unique_ptr<WineLoader> m_wineLoader;
    // Identifies window commands; only grows.
    int32_t m_commandID = 0;
};

} // namespace vt
