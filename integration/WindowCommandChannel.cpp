#include "integration/WindowCommandChannel.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "base/posix_glue.hpp"

namespace vt {

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
} // namespace

int windowTag() { return static_cast<int>(getpid()); }

std::vector<std::string> windowCommandToolArguments(const std::optional<std::string>& bottleName)
{
    return argumentsUpToFirstMissing({ "--bottle", bottleName, "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" });
}

std::string windowCommandRequest(int tag, std::string_view identifier, std::string_view text)
{
    return formatMessage("-t %d -c %@ -a %@\n", tag, identifier, text);
}

std::optional<bool> parseWindowCommandAnswer(std::string_view answer, std::string_view identifier)
{
    size_t colon = answer.find(':');
    if (colon == std::string_view::npos || answer.substr(0, colon) != identifier)
        return std::nullopt;
    std::string result(answer.substr(colon + 1));
    if (result.find(':') != std::string::npos)
        return std::nullopt;
    // Leading blanks and digits; anything after them does not count.
    return std::strtoll(result.c_str(), nullptr, 10) != 0;
}

std::string activateSystrayCommand(const TrayIconEntry& icon)
{
    return formatMessage("activatesystray -h %@ -m %@ -s %@", std::to_string(icon.hwnd),
                         std::to_string(icon.callbackmessage), std::to_string(icon.id));
}

WindowCommandChannel::WindowCommandChannel(std::function<void()> toolEnded) : m_toolEnded(std::move(toolEnded)) {}

bool WindowCommandChannel::start(std::unique_ptr<VTTask> task)
{
    m_taskEnded.reset();
    m_task = std::move(task);
    if (!m_task)
        return false;
    // Pipes instead of the null device; our ends are close-on-exec, so the
    // Windows program and later processes never inherit them.
    m_task->setStandardInput(VTTask::Stream::Pipe);
    m_task->setStandardOutput(VTTask::Stream::Pipe);
    try {
        m_task->launch();
    } catch (const VTTaskLaunchError& error) {
        platformLog("Cannot start the window-command tool: %s.", error.what());
        m_task.reset();
        return false;
    }
    m_taskEnded = NotificationCenter::defaultCenter().addObserver(
        VTTaskDidTerminateNotification, m_task.get(), [this](const Notification&) {
            VTLog("a process of the Windows program ended: the window-command tool");
            // From then on every command is refused. The task goes when this
            // handler is done with it.
            std::unique_ptr<VTTask> ended = std::move(m_task);
            m_taskEnded.reset();
            m_toolEnded();
        });
    return true;
}

bool WindowCommandChannel::sendMessageToTaggedWindows(const std::string& text)
{
    if (!m_task || !m_task->standardInputWriter() || !m_task->standardOutputReader())
        return false;

    std::string identifier = formatMessage("helperDelegateCommand%d", m_commandID++);
    std::string request = windowCommandRequest(windowTag(), identifier, text);
    // A tool that has gone, or closed its input, takes no request (EPIPE;
    // the launcher ignores SIGPIPE) and will send no answer: waiting for one
    // could last for ever if it still holds its output open.
    if (!writeAll(m_task->standardInputWriter().get(), request.data(), request.size())) {
        platformLog("The window-command tool did not take %@ (%@): %s.\n", identifier, text, std::strerror(errno));
        return false;
    }

    std::string answer = readOnce(m_task->standardOutputReader().get());
    if (auto result = parseWindowCommandAnswer(answer, identifier))
        return *result;
    platformLog("Message mismatch.  Expected %@ and got %@.\n", identifier, answer);
    return false;
}

} // namespace vt
