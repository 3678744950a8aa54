#include "integration/WindowCommandChannel.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "base/posix_glue.hpp"

namespace vt {

namespace {
    void setNonBlocking(int fd)
    {
        int flags = ::fcntl(fd, F_GETFL);
        if (flags >= 0)
            ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }

    // One read of what is there: the answer, the end (empty), or nothing yet.
    std::optional<std::string> readOnce(int fd)
    {
        char buffer[65536];
        for (;;) {
            ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n >= 0)
                return std::string(buffer, static_cast<size_t>(n));
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return std::nullopt;
            if (errno != EINTR)
                return std::string();
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
    m_answerWatch.stop();
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
    // Answers are read when they are there; the loop never waits in a read.
    if (Fd& output = m_task->standardOutputReader())
        setNonBlocking(output.get());
    m_taskEnded = NotificationCenter::defaultCenter().addObserver(
        VTTaskDidTerminateNotification, m_task.get(), [this](const Notification&) { toolHasEnded(); });
    sendNext();
    return true;
}

void WindowCommandChannel::toolHasEnded()
{
    VTLog("a process of the Windows program ended: the window-command tool");
    // What the tool wrote before it went is still its answer.
    if (m_inFlight)
        takeAnswer(true);
    // From then on every command is refused. The task goes when this
    // handler is done with it.
    std::unique_ptr<VTTask> ended = std::move(m_task);
    m_taskEnded.reset();
    m_answerWatch.stop();
    while (!m_queue.empty()) {
        answerLater(std::move(m_queue.front()), false);
        m_queue.pop_front();
    }
    m_toolEnded();
}

void WindowCommandChannel::sendMessageToTaggedWindows(const std::string& text, Answered answered)
{
    m_queue.push_back({ text, std::move(answered) });
    sendNext();
}

void WindowCommandChannel::answerLater(Command command, bool confirmed)
{
    if (!command.answered)
        return;
    m_answers.schedule(std::chrono::milliseconds(0),
                       [answered = std::move(command.answered), confirmed] { answered(confirmed); });
}

void WindowCommandChannel::sendNext()
{
    while (!m_inFlight && !m_queue.empty()) {
        Command command = std::move(m_queue.front());
        m_queue.pop_front();
        if (!m_task || !m_task->standardInputWriter() || !m_task->standardOutputReader()) {
            answerLater(std::move(command), false);
            continue;
        }
        std::string identifier = formatMessage("helperDelegateCommand%d", m_commandID++);
        std::string request = windowCommandRequest(windowTag(), identifier, command.text);
        // A tool that has gone, or closed its input, takes no request (EPIPE;
        // the launcher ignores SIGPIPE) and will send no answer: waiting for
        // one could last for ever if it still holds its output open.
        if (!writeAll(m_task->standardInputWriter().get(), request.data(), request.size())) {
            platformLog("The window-command tool did not take %@ (%@): %s.\n", identifier, command.text,
                        std::strerror(errno));
            answerLater(std::move(command), false);
            continue;
        }
        m_inFlight = InFlight { std::move(command), std::move(identifier) };
        int output = m_task->standardOutputReader().get();
        m_answerWatch = UnixFdSource("vt window-command answer", output, [this] {
            takeAnswer(false);
            return m_answerWatch.isActive() && m_inFlight.has_value();
        });
    }
}

void WindowCommandChannel::takeAnswer(bool ended)
{
    if (!m_inFlight || !m_task)
        return;
    std::optional<std::string> answer = readOnce(m_task->standardOutputReader().get());
    if (!answer) {
        if (!ended)
            return; // nothing yet after all
        answer = std::string();
    }
    InFlight done = std::move(*m_inFlight);
    m_inFlight.reset();
    m_answerWatch.stop();
    std::optional<bool> result = parseWindowCommandAnswer(*answer, done.identifier);
    if (!result)
        platformLog("Message mismatch.  Expected %@ and got %@.\n", done.identifier, *answer);
    answerLater(std::move(done.command), result.value_or(false));
    sendNext();
}

} // namespace vt
