#include "standin/tools/ToolSupport.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "standin/record/Record.hpp"

namespace vt::standin {

namespace {
    sigset_t endSignals()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        return set;
    }
} // namespace

EndSignals::EndSignals()
{
    sigset_t set = endSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    m_fd.reset(signalfd(-1, &set, SFD_CLOEXEC));
    if (!m_fd)
        throw std::runtime_error("no signal descriptor");
}

void EndSignals::endWithSignal(const std::string& role) const
{
    signalfd_siginfo info {};
    while (read(m_fd.get(), &info, sizeof info) < 0 && errno == EINTR) {
    }
    int number = static_cast<int>(info.ssi_signo);
    send(Record("tool-end")
             .add("role", role)
             .add("signal", std::to_string(number))
             .add("sender", std::to_string(info.ssi_pid)));
    std::signal(number, SIG_DFL);
    sigset_t set = endSignals();
    raise(number);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    std::_Exit(128 + number);
}

void EndSignals::endWithSignalOrEndOfInput(const std::string& role) const
{
    // The null device or a terminal never ends; only a peer can close a pipe or a socket.
    struct stat input {};
    const bool hasInput = fstat(STDIN_FILENO, &input) == 0 && (S_ISFIFO(input.st_mode) || S_ISSOCK(input.st_mode));
    // A negative descriptor is left out by poll.
    pollfd descriptors[] = { { m_fd.get(), POLLIN, 0 }, { hasInput ? STDIN_FILENO : -1, POLLIN, 0 } };
    for (;;) {
        if (poll(descriptors, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            endWithReason(role, "cannot wait: " + std::string(std::strerror(errno)));
        }
        // A signal first: a launcher that ends us and goes also closes our input.
        if (descriptors[0].revents)
            endWithSignal(role);
        if (descriptors[1].revents) {
            char bytes[4096];
            ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
            if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN))
                endWithReason(role, "end of input");
        }
    }
}

void endWithReason(const std::string& role, const std::string& reason)
{
    send(Record("tool-end").add("role", role).add("reason", reason));
    std::exit(0);
}

} // namespace vt::standin
