#include "standin/tools/ToolSupport.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <sys/signalfd.h>

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

void endWithReason(const std::string& role, const std::string& reason)
{
    send(Record("tool-end").add("role", role).add("reason", reason));
    std::exit(0);
}

} // namespace vt::standin
