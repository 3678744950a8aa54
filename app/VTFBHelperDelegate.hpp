// The application delegate: owner of the launcher's state. It brings the
// launcher up (the main application, its helper server, the bottle, the
// product's tools), starts the Windows program for each opening, and runs the
// end of session when the user quits.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shell/Application.hpp"
#include "shell/HelperServerClient.hpp"
#include "source/VTTask.hpp"

namespace vt {

class VTFBHelperApp;
class WineLoader;
struct TrayIconEntry;

inline constexpr const char* kVantorBundleIdentifier = "com.tallowmere.Vantor";
inline constexpr const char* kVantorURLScheme = "com.tallowmere.private-Vantor-app-scheme";

class VTFBHelperDelegate : public ApplicationDelegate {
public:
    explicit VTFBHelperDelegate(VTFBHelperApp& application);
    ~VTFBHelperDelegate() override;

    // Start-up: runs before the first opening event, blocking the main loop.
    void applicationWillFinishLaunching() override;
    void applicationDidFinishLaunching() override;
    TerminateReply applicationShouldTerminate(Application& application) override;

    // Replaces every "%@" in the titles of `menu`, at every depth, with the
    // bundle's name. Separators are left alone.
    void formatMenuItemsWithBundleName(Menu& menu);

    // The window-command channel; starts the tool that answers window commands.
    void startSendWndCmd();

    // A URL opened with the launcher.
    void handleGetURLEvent(const std::string& url);

    // Read-only after start-up.
    const std::optional<std::string>& bottleName() const { return m_bottleName; }
    const std::optional<std::string>& menuPath() const { return m_menuPath; }
    const std::optional<std::string>& vantorRoot() const { return m_vantorRoot; }
    const std::optional<std::string>& vtmenuPath() const { return m_vtmenuPath; }
    const std::optional<std::string>& vtstartPath() const { return m_vtstartPath; }
    const std::optional<std::string>& winePath() const { return m_winePath; }

private:
    std::optional<std::string> infoString(const char* key) const;
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
};

} // namespace vt
