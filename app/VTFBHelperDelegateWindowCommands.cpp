// The window-command channel to the Windows side, and what activating the
// launcher does with it.
#include <cerrno>
#include <cstdlib>

#include <unistd.h>

#include "app/VTFBHelperApp.hpp"
#include "app/VTFBHelperDelegate.hpp"
#include "integration/TrayIconEntry.hpp"
#include "base/NotificationCenter.hpp"
#include "base/posix_glue.hpp"
#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "source/WorkspaceAdditions.hpp"

namespace vt {

using namespace std::chrono_literals;

namespace {
    // One read, waiting without limit for some bytes or the end.
    std::string readOnce(int fd)
    {
        char buffer[65536];
        for (;;) {
            ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n >= 0)
                return std::string(buffer, static_cast<size_t>(n));
            if (errno != EINTR)
                return {};
        }
    }

    // The integer a text starts with, after optional blanks; 0 if none.
    long long leadingInteger(const std::string& text)
    {
        return std::strtoll(text.c_str(), nullptr, 10);
    }
} // namespace

void VTFBHelperDelegate::startSendWndCmd()
{
    m_wndCmdTask.reset();
    m_wndCmdTask = createWineTaskWithLaunchPath(
        m_winePath,
        argumentsUpToFirstMissing({ "--bottle", m_bottleName, "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" }));
    if (!m_wndCmdTask)
        return;
    // Pipes instead of the null device; our ends are close-on-exec, so the
    // Windows program and later processes never inherit them.
    m_wndCmdTask->setStandardInput(VTTask::Stream::Pipe);
    m_wndCmdTask->setStandardOutput(VTTask::Stream::Pipe);
    try {
        m_wndCmdTask->launch();
    } catch (const VTTaskLaunchError& error) {
        platformLog("Cannot start the window-command tool: %s.", error.what());
        NotificationCenter::defaultCenter().removeObserver(this, {}, m_wndCmdTask.get());
        m_wndCmdTask.reset();
    }
}

bool VTFBHelperDelegate::sendMessageToTaggedWindows(const std::string& text)
{
    if (!m_wndCmdTask || !m_wndCmdTask->standardInputWriter() || !m_wndCmdTask->standardOutputReader())
        return false;

    std::string identifier = formatMessage("helperDelegateCommand%d", m_commandID++);
    std::string request = formatMessage("-t %d -c %@ -a %@\n", static_cast<int>(getpid()), identifier, text);
    // A failed write (the tool has gone) shows up as a missing answer below.
    writeAll(m_wndCmdTask->standardInputWriter().get(), request.data(), request.size());

    // Commands go strictly one at a time, so one read is the whole answer;
    // anything split or doubled is a mismatch.
    std::string answer = readOnce(m_wndCmdTask->standardOutputReader().get());
    std::vector<std::string> parts;
    for (size_t start = 0;;) {
        size_t colon = answer.find(':', start);
        parts.push_back(answer.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
        if (colon == std::string::npos)
            break;
        start = colon + 1;
    }
    if (parts.size() == 2 && parts[0] == identifier)
        return leadingInteger(parts[1]) != 0;
    platformLog("Message mismatch.  Expected %@ and got %@.\n", identifier, answer);
    return false;
}

void VTFBHelperDelegate::applicationDidBecomeActive()
{
    // With Wine inside the launcher, its driver handles activation itself.
    if (m_application.wineController() || m_taskArray.empty())
        return;

    if (m_helperServerProxy) {
        try {
            m_helperServerProxy->raiseWindowsWithTag(getpid());
        } catch (const HelperServerError& error) {
            VTLog("raising the tagged windows failed: %s", error.what());
        }
    }
    if (sendMessageToTaggedWindows("haswindows")) {
        activateMainApplication();
        m_application.hide();
        m_application.delayedCalls().schedule(50ms, [this] { m_application.unhideWithoutActivation(); });
        return;
    }
    // No window to raise: a click on the oldest tray icon is the next best thing.
    if (!m_iconList.empty()) {
        const TrayIconEntry& icon = *m_iconList.front();
        sendMessageToTaggedWindows(formatMessage("activatesystray -h %@ -m %@ -s %@", std::to_string(icon.hwnd),
                                                 std::to_string(icon.callbackmessage), std::to_string(icon.id)));
    }
}

} // namespace vt
