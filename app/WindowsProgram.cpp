#include "app/WindowsProgram.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include <glib.h>

#include "base/PlatformLog.hpp"
#include "base/posix_glue.hpp"
#include "base/VTLog.hpp"
#include "integration/WindowCommandChannel.hpp"
#include "shell/HelperServerClient.hpp"

namespace vt {

namespace {
    // What making one process takes at once: the descriptor a call on the
    // bus waits on, and a pipe with room to spare.
    constexpr size_t kDescriptorsForAProcess = 4;

    std::vector<std::string> withFile(std::vector<std::string> arguments, const std::string& path)
    {
        arguments.push_back(path);
        return arguments;
    }

    std::string joined(const std::vector<std::string>& arguments)
    {
        std::string text;
        for (const auto& argument : arguments)
            text += (text.empty() ? "" : " ") + argument;
        return text;
    }
} // namespace

namespace programArguments {

    std::vector<std::string> untitled(const LauncherSettings& s)
    {
        return argumentsUpToFirstMissing(
            { "--bottle", s.bottleName, "--wait-children", "--enable-alt-loader", "macdrv", "--start", s.menuPath });
    }

    std::vector<std::string> document(const LauncherSettings& s, const std::string& path)
    {
        return withFile(argumentsUpToFirstMissing(
                            { "--bottle", s.bottleName, "--wait-children", "--enable-alt-loader", "macdrv", "--" }),
                        path);
    }

    std::vector<std::string> menuEntryWithFile(const LauncherSettings& s, const std::string& path)
    {
        return withFile(untitled(s), path);
    }

    std::vector<std::string> url(const LauncherSettings& s, const std::string& url)
    {
        // Deliberately unlike the other lists: no "--wait-children", and the
        // single argument "macdrv--"; the product's vtstart expects it so.
        return argumentsUpToFirstMissing({ "--bottle", s.bottleName, "--enable-alt-loader", "macdrv--", url });
    }

    std::optional<std::vector<std::string>> otherArchitecture(const LauncherSettings& s,
                                                              const std::string& architecture)
    {
        if (!s.bottleName || !s.menuPath)
            return std::nullopt;
        return std::vector<std::string> { "--bottle", *s.bottleName, "--arch", architecture, "--install", "--filter",
                                          *s.menuPath };
    }

} // namespace programArguments

std::optional<std::string> pathExtension(const std::string& path)
{
    std::string name = std::filesystem::path(path).filename().string();
    auto dot = name.rfind('.');
    if (dot == std::string::npos)
        return std::nullopt;
    return name.substr(dot + 1);
}

WindowsProgram::WindowsProgram(const LauncherSettings& settings, LauncherVariables launcherVariables,
                               std::function<void()> lastProcessEnded)
    : m_settings(settings)
    , m_launcherVariables(std::move(launcherVariables))
    , m_lastProcessEnded(std::move(lastProcessEnded))
{
    m_taskArray.reserve(2);
}

std::unique_ptr<VTTask> WindowsProgram::createWineTaskWithLaunchPath(
    const std::optional<std::string>& launchPath, const std::optional<std::vector<std::string>>& arguments)
{
    // Nothing is started and nothing reported beyond the debug log: start-up
    // has already said what is missing.
    if (!launchPath) {
        VTLog("no process for bottle %@: the Vantor tools were not found", m_settings.bottleName.value_or("(none)"));
        return nullptr;
    }
    if (!m_helperServer)
        return nullptr;
    // Out of descriptors, the call to the helper server below would end the
    // launcher (GLib cannot make the one it waits on) and the process could
    // not get its streams anyway: nothing is made, and it is said once until
    // processes can be made again.
    if (!descriptorsAreFree(kDescriptorsForAProcess)) {
        if (!std::exchange(m_outOfDescriptors, true))
            platformLog("Cannot start the Windows program: the launcher has no file descriptor left (%s); nothing is "
                        "started until it has.",
                        std::strerror(errno));
        return nullptr;
    }
    if (std::exchange(m_outOfDescriptors, false))
        platformLog("The launcher has file descriptors again; the Windows program's processes start as usual.");

    Environment environment;
    try {
        environment = m_helperServer->getEnvironmentForXConnection();
    } catch (const HelperServerError& error) {
        // After start-up the server may have gone or hung; nothing else
        // says so, and the opening it was made for comes to nothing.
        platformLog("Cannot start %@ for bottle %@: the Vantor helper server gave no environment (%s).", *launchPath,
                    m_settings.bottleName.value_or("(none)"), error.what());
        return nullptr;
    }
    // Our own variables come last, so they win over the server's.
    for (auto& [name, value] : m_launcherVariables())
        environment[name] = value;
    environment["VT_WINDOW_TAG"] = std::to_string(windowTag());
    environment["VT_LAUNCHER_BUNDLE_NAME"] = m_settings.bundleName.value_or("");

    auto task = std::make_unique<VTTask>();
    task->setLaunchPath(*launchPath);
    if (arguments)
        task->setArguments(*arguments);
    task->setCurrentDirectoryPath(g_get_home_dir());
    task->setStandardInput(VTTask::Stream::NullDevice);
    task->setStandardOutput(VTTask::Stream::NullDevice);
    task->setEnvironment(std::move(environment));
    return task;
}

bool WindowsProgram::launchAndTrack(std::unique_ptr<VTTask> task)
{
    if (!task)
        return false;
    try {
        task->launch();
    } catch (const VTTaskLaunchError& error) {
        platformLog("Cannot start the Windows program: %s.", error.what());
        return false;
    }
    VTLog("started %@ %@ (pid %d)", task->launchPath(), joined(task->arguments()),
          static_cast<int>(task->processIdentifier()));
    const VTTask* started = task.get();
    Observation ended = NotificationCenter::defaultCenter().addObserver(
        VTTaskDidTerminateNotification, started, [this, started](const Notification&) { wineAppExited(started); });
    m_taskArray.push_back({ std::move(task), std::move(ended) });
    return true;
}

void WindowsProgram::openUntitled()
{
    launchAndTrack(createWineTaskWithLaunchPath(m_settings.vtmenuPath, programArguments::untitled(m_settings)));
}

bool WindowsProgram::openFiles(const std::vector<std::string>& paths)
{
    bool allMade = true;
    // One process per file: a declared document type goes to vtstart;
    // anything else to the menu entry's program through vtmenu. Extensions
    // are compared with their case.
    for (const auto& path : paths) {
        auto extension = pathExtension(path);
        bool isDocument = extension && m_settings.documentExtensions.count(*extension);
        auto task = isDocument
            ? createWineTaskWithLaunchPath(m_settings.vtstartPath, programArguments::document(m_settings, path))
            : createWineTaskWithLaunchPath(m_settings.vtmenuPath, programArguments::menuEntryWithFile(m_settings, path));
        // A process that was made but fails to start is reported where it
        // fails; the reply only says whether every process could be made.
        if (task)
            launchAndTrack(std::move(task));
        else
            allMade = false;
    }
    return allMade;
}

void WindowsProgram::openURL(const std::string& url)
{
    launchAndTrack(createWineTaskWithLaunchPath(m_settings.vtstartPath, programArguments::url(m_settings, url)));
}

void WindowsProgram::handBackForArchitecture(const std::string& architecture)
{
    auto arguments = programArguments::otherArchitecture(m_settings, architecture);
    if (!m_settings.vtmenuPath || !arguments || !m_helperServer) {
        platformLog("Cannot hand the program back to vtmenu for another architecture: its settings are incomplete.");
        return;
    }
    if (m_handBack && m_handBack->isRunning()) {
        VTLog("vtmenu is already installing the program for another architecture; %@ is not asked again",
              architecture);
        return;
    }
    if (!descriptorsAreFree(kDescriptorsForAProcess)) {
        platformLog("Cannot hand the program back to vtmenu for architecture %@: the launcher has no file descriptor "
                    "left (%s).",
                    architecture, std::strerror(errno));
        return;
    }
    try {
        auto task = std::make_unique<VTTask>();
        task->setLaunchPath(*m_settings.vtmenuPath);
        task->setArguments(*arguments);
        task->setStandardInput(VTTask::Stream::NullDevice);
        task->setStandardOutput(VTTask::Stream::NullDevice);
        task->setEnvironment(m_helperServer->getEnvironmentForXConnection());
        // Nobody waits for it: it neither keeps the launcher alive nor ends it.
        task->launch();
        m_handBack = std::move(task);
    } catch (const std::exception& error) {
        platformLog("Cannot hand the program back to vtmenu for architecture %@: %s", architecture, error.what());
    }
}

void WindowsProgram::wineAppExited(const VTTask* task)
{
    VTLog("a process of the Windows program ended");
    auto it = std::find_if(m_taskArray.begin(), m_taskArray.end(), [&](const auto& t) { return t.task.get() == task; });
    if (it == m_taskArray.end())
        return;
    // Out of the list first; the task and its observation go when this
    // handler (which runs inside that observation) is done.
    TrackedTask finished = std::move(*it);
    m_taskArray.erase(it);
    if (m_taskArray.empty())
        m_lastProcessEnded();
}

void WindowsProgram::stopObservingEnds()
{
    for (auto& tracked : m_taskArray)
        tracked.ended.reset();
}

} // namespace vt
