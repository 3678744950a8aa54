// Starting the Windows program: the processes that stand for it, their
// argument lists and environment, and the decision to quit when the last one
// has ended.
#include <algorithm>
#include <set>

#include <glib.h>
#include <unistd.h>

#include "app/VTFBHelperApp.hpp"
#include "app/VTFBHelperDelegate.hpp"
#include "loader/WineLoader.hpp"
#include "base/NotificationCenter.hpp"
#include "base/PlatformLog.hpp"
#include "source/UserDefaults.hpp"
#include "source/VTBundle.hpp"
#include "base/VTLog.hpp"

namespace vt {

namespace {
    // The text after the last dot of the last path component.
    std::optional<std::string> pathExtension(const std::string& path)
    {
        std::string name = std::filesystem::path(path).filename().string();
        auto dot = name.rfind('.');
        if (dot == std::string::npos)
            return std::nullopt;
        return name.substr(dot + 1);
    }

    std::string joined(const std::vector<std::string>& arguments)
    {
        std::string text;
        for (const auto& argument : arguments)
            text += (text.empty() ? "" : " ") + argument;
        return text;
    }
} // namespace

std::vector<std::string> VTFBHelperDelegate::argumentsUpToFirstMissing(
    std::initializer_list<std::optional<std::string>> elements)
{
    std::vector<std::string> arguments;
    for (const auto& element : elements) {
        if (!element)
            break;
        arguments.push_back(*element);
    }
    return arguments;
}

std::unique_ptr<VTTask> VTFBHelperDelegate::createWineTaskWithLaunchPath(
    const std::optional<std::string>& launchPath, const std::optional<std::vector<std::string>>& arguments)
{
    if (!launchPath) {
        platformLog("Cannot start a program for bottle %@: the Vantor tools were not found.",
                    m_bottleName.value_or("(none)"));
        return nullptr;
    }
    if (!m_helperServerProxy)
        return nullptr;

    std::map<std::string, std::string> environment;
    try {
        environment = m_helperServerProxy->getEnvironmentForXConnection();
    } catch (const HelperServerError& error) {
        platformLog("Cannot start %@: the Vantor helper server gave no environment (%s).", *launchPath, error.what());
        return nullptr;
    }
    // Our own variables come last, so they win over the server's.
    if (startLaunchNotify())
        environment["VT_SYSTRAY_SOCKET"] = m_launchNotifySocketName;
    environment["VT_WINDOW_TAG"] = std::to_string(getpid());
    environment["VT_LAUNCHER_BUNDLE_NAME"] = infoString("CFBundleName").value_or("");
    if (!vantorDisableWineIntegration() && m_wineLoader) {
        std::string socketPath = m_wineLoader->socketPath();
        if (!socketPath.empty())
            environment["VT_APPRUNNER_ALT_LOADER_SOCKET"] = socketPath;
    }

    auto task = std::make_unique<VTTask>();
    task->setLaunchPath(*launchPath);
    if (arguments)
        task->setArguments(*arguments);
    task->setCurrentDirectoryPath(g_get_home_dir());
    task->setStandardInput(VTTask::Stream::NullDevice);
    task->setStandardOutput(VTTask::Stream::NullDevice);
    task->setEnvironment(std::move(environment));
    NotificationCenter::defaultCenter().addObserver(this, VTTaskDidTerminateNotification, task.get(),
                                                    [this](const Notification& n) { wineAppExited(n); });
    return task;
}

bool VTFBHelperDelegate::launchAndTrack(std::unique_ptr<VTTask> task)
{
    try {
        task->launch();
    } catch (const VTTaskLaunchError& error) {
        platformLog("Cannot start the Windows program: %s.", error.what());
        NotificationCenter::defaultCenter().removeObserver(this, {}, task.get());
        return false;
    }
    VTLog("started %@ %@ (pid %d)", task->launchPath(), joined(task->arguments()),
          static_cast<int>(task->processIdentifier()));
    m_taskArray.push_back(std::move(task));
    return true;
}

bool VTFBHelperDelegate::applicationShouldOpenUntitledFile(Application&)
{
    // While the program runs, clicking the launcher again starts no second copy.
    return m_taskArray.empty();
}

bool VTFBHelperDelegate::applicationOpenUntitledFile(Application&)
{
    auto arguments = argumentsUpToFirstMissing(
        { "--bottle", m_bottleName, "--wait-children", "--enable-alt-loader", "macdrv", "--start", m_menuPath });
    if (auto task = createWineTaskWithLaunchPath(m_vtmenuPath, arguments))
        launchAndTrack(std::move(task));
    return true;
}

void VTFBHelperDelegate::openFiles(Application& application, const std::vector<std::string>& paths)
{
    std::set<std::string> extensions;
    if (const VTBundle* bundle = m_application.mainBundle()) {
        const PlistValue* types = bundle->objectForInfoDictionaryKey("CFBundleDocumentTypes");
        if (types && types->asArray()) {
            for (const auto& type : *types->asArray()) {
                const PlistValue* list = type.find("CFBundleTypeExtensions");
                if (!list || !list->asArray())
                    continue;
                for (const auto& extension : *list->asArray()) {
                    if (extension.asString())
                        extensions.insert(*extension.asString());
                }
            }
        }
    }

    auto documentArguments = argumentsUpToFirstMissing(
        { "--bottle", m_bottleName, "--wait-children", "--enable-alt-loader", "macdrv", "--" });
    auto menuArguments = argumentsUpToFirstMissing(
        { "--bottle", m_bottleName, "--wait-children", "--enable-alt-loader", "macdrv", "--start", m_menuPath });

    bool allMade = true;
    // One process per file: a declared document type goes to vtstart after
    // "--"; anything else to the menu entry's program through vtmenu.
    for (const auto& path : paths) {
        auto extension = pathExtension(path);
        bool isDocument = extension && extensions.count(*extension);
        auto arguments = isDocument ? documentArguments : menuArguments;
        arguments.push_back(path);
        auto task = createWineTaskWithLaunchPath(isDocument ? m_vtstartPath : m_vtmenuPath, arguments);
        if (!task || !launchAndTrack(std::move(task)))
            allMade = false;
    }
    application.replyToOpenOrPrint(allMade ? OpenReply::Success : OpenReply::Failure);
}

void VTFBHelperDelegate::handleGetURLEvent(const std::string& url)
{
    // Deliberately unlike the other lists: no "--wait-children", and the
    // single argument "macdrv--".
    auto arguments = argumentsUpToFirstMissing({ "--bottle", m_bottleName, "--enable-alt-loader", "macdrv--", url });
    if (auto task = createWineTaskWithLaunchPath(m_vtstartPath, arguments))
        launchAndTrack(std::move(task));
}

bool VTFBHelperDelegate::applicationShouldHandleReopen(Application&, bool hasVisibleWindows)
{
    if (const vt_wine_controller* controller = m_application.wineController()) {
        if (controller->should_handle_reopen)
            return controller->should_handle_reopen(controller->context, hasVisibleWindows);
    }
    return true;
}

void VTFBHelperDelegate::wineAppExited(const Notification& notification)
{
    const void* ended = notification.object;
    NotificationCenter::defaultCenter().removeObserver(this, {}, ended);
    VTLog("a process of the Windows program ended");

    // Keep the object alive until we are done with it: it may be the one
    // whose notice is being delivered.
    std::unique_ptr<VTTask> finished;
    if (m_wndCmdTask.get() == ended)
        finished = std::move(m_wndCmdTask);
    auto it = std::find_if(m_taskArray.begin(), m_taskArray.end(), [&](const auto& t) { return t.get() == ended; });
    if (it != m_taskArray.end()) {
        finished = std::move(*it);
        m_taskArray.erase(it);
    }
    if (!m_taskArray.empty())
        return;
    // A loader without a socket path has taken the program into this very
    // process: the launcher is the program now and must stay.
    if (!m_wineLoader || !m_wineLoader->socketPath().empty())
        m_application.terminate();
}

void VTFBHelperDelegate::wineLoaderRejectedRequestForWrongArchitecture(const Notification& notification)
{
    // Reads only what start-up wrote once, so no lock is needed here.
    std::optional<std::string> architecture;
    auto found = notification.userInfo.find(WineLoaderRequestedArchitectureKey);
    if (found != notification.userInfo.end()) {
        if (const auto* text = std::any_cast<std::string>(&found->second))
            architecture = *text;
    }
    if (!m_vtmenuPath || !m_bottleName || !m_menuPath || !architecture || !m_helperServerProxy) {
        platformLog("Cannot hand the program back to vtmenu for another architecture: its settings are incomplete.");
        return;
    }
    try {
        VTTask task;
        task.setLaunchPath(*m_vtmenuPath);
        task.setArguments({ "--bottle", *m_bottleName, "--arch", *architecture, "--install", "--filter", *m_menuPath });
        task.setStandardInput(VTTask::Stream::NullDevice);
        task.setStandardOutput(VTTask::Stream::NullDevice);
        task.setEnvironment(m_helperServerProxy->getEnvironmentForXConnection());
        // Nobody tracks it: it neither keeps the launcher alive nor ends it.
        task.launch();
    } catch (const std::exception& error) {
        platformLog("Cannot hand the program back to vtmenu for architecture %@: %s", *architecture, error.what());
    }
}

} // namespace vt
