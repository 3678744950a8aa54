#include "product/tools/TrayForwarder.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/posix_glue.hpp"
#include "product/tools/WineProcess.hpp"

namespace vt::product {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {
    constexpr const char* kBridgeProgram = "traybridge.exe";
    // The launcher gives a connection 2 s to deliver its message; one that
    // takes longer has stopped reading, and waiting on would only hold up
    // the messages behind.
    constexpr auto kSendTimeout = 3s;
    // The bridge holds none of the user's work: after the session it gets
    // this long to see the end of its input, then it is killed.
    constexpr auto kBridgeGrace = 5s;

    // The program's own variables: the tag marks the program's processes,
    // and the sockets are for the program's Wine; the bridge talks to the
    // launcher only through the forwarder.
    constexpr std::string_view kProgramVariables[] = {
        "VT_WINDOW_TAG=",
        "VT_SYSTRAY_SOCKET=",
        "VT_APPRUNNER_ALT_LOADER_SOCKET=",
    };

    std::vector<std::string> bridgeEnvironment(const std::vector<std::string>& environment)
    {
        std::vector<std::string> kept;
        for (const std::string& variable : environment) {
            bool program = false;
            for (std::string_view name : kProgramVariables)
                program = program || variable.starts_with(name);
            if (!program)
                kept.push_back(variable);
        }
        return kept;
    }

    // Debian 12's <sys/pidfd.h> declares pidfd_open without C linkage.
    int pidfdOpen(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }

    uint32_t littleEndian32(const uint8_t* bytes)
    {
        return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
    }

    std::string describeWait(int status)
    {
        if (WIFSIGNALED(status))
            return "killed by signal " + std::to_string(WTERMSIG(status));
        return "status " + std::to_string(WEXITSTATUS(status));
    }

    bool hasEnded(const Fd& process)
    {
        pollfd watched { process.get(), POLLIN, 0 };
        return ::poll(&watched, 1, 0) == 1;
    }

    // Cuts the bridge's output into whole tray messages, which stay valid
    // until the next append().
    class TrayMessageStream {
    public:
        void append(const uint8_t* bytes, size_t length)
        {
            m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<ptrdiff_t>(m_start));
            m_start = 0;
            m_buffer.insert(m_buffer.end(), bytes, bytes + length);
        }

        // The next whole message; nothing while it has not all come in, or
        // for good once fault() says the bytes are not tray messages.
        std::optional<std::span<const uint8_t>> next()
        {
            size_t available = m_buffer.size() - m_start;
            if (!m_fault.empty() || available < kTrayMessageHeaderSize)
                return std::nullopt;
            const uint8_t* header = m_buffer.data() + m_start;
            uint32_t code = littleEndian32(header);
            uint32_t length = littleEndian32(header + 4 + 8); // after the code and the operation
            if (code != kTrayMessageCode || length > kTrayPayloadLimit) {
                m_fault = "code " + std::to_string(code) + ", length " + std::to_string(length);
                return std::nullopt;
            }
            size_t size = kTrayMessageHeaderSize + length;
            if (available < size)
                return std::nullopt;
            m_start += size;
            return std::span<const uint8_t>(header, size);
        }

        const std::string& fault() const { return m_fault; }

    private:
        std::vector<uint8_t> m_buffer;
        size_t m_start = 0;
        std::string m_fault;
    };

    // Hands one message to the launcher on a connection of its own; why not
    // when it could not.
    std::optional<std::string> deliver(const std::string& socketPath, std::span<const uint8_t> message)
    {
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        if (socketPath.size() >= sizeof address.sun_path)
            return socketPath + " is too long for a socket's path";
        std::memcpy(address.sun_path, socketPath.data(), socketPath.size());

        Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!socket)
            return std::string("no socket: ") + std::strerror(errno);
        auto why = [&](const char* step) {
            std::string reason = errno == EAGAIN || errno == EWOULDBLOCK
                ? "the launcher did not take the message within " + std::to_string(kSendTimeout.count()) + " s"
                : std::strerror(errno);
            return std::string(step) + " " + socketPath + ": " + reason;
        };
        // One deadline for the whole message, connect included (a launcher
        // that stopped accepting fills its backlog), as the launcher gives
        // a connection one deadline to deliver it.
        auto deadline = std::chrono::steady_clock::now() + kSendTimeout;
        auto waitAtMostUntilDeadline = [&] {
            auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
            if (left <= 0us) {
                errno = EAGAIN;
                return false;
            }
            timeval timeout { static_cast<time_t>(left.count() / 1000000),
                              static_cast<suseconds_t>(left.count() % 1000000) };
            return ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) == 0;
        };
        // A connect on a Unix socket interrupted while the backlog is full
        // has not connected; it starts over.
        for (;;) {
            if (!waitAtMostUntilDeadline())
                return why("connect to");
            if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
                break;
            if (errno != EINTR)
                return why("connect to");
        }
        for (size_t sent = 0; sent < message.size();) {
            if (!waitAtMostUntilDeadline())
                return why("write to");
            ssize_t n = ::send(socket.get(), message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno != EINTR)
                return why("write to");
            if (n > 0)
                sent += static_cast<size_t>(n);
        }
        return std::nullopt;
    }

    // The forwarder once the bridge runs: one poll loop over the bridge's
    // output, the bridge's end and the end of the process that became the
    // window-command tool.
    class Forwarder {
    public:
        Forwarder(std::string role, std::string socketPath, Fd tool, pid_t bridge, Fd bridgeProcess, Fd toBridge,
                  Fd fromBridge)
            : m_role(std::move(role)), m_socketPath(std::move(socketPath)), m_tool(std::move(tool)), m_bridge(bridge),
              m_bridgeProcess(std::move(bridgeProcess)), m_toBridge(std::move(toBridge)),
              m_fromBridge(std::move(fromBridge))
        {
        }

        void run()
        {
            bool bridgeEnded = forward();
            int status = endBridge();
            if (bridgeEnded)
                std::fprintf(stderr, "%s: the tray bridge ended (%s): tray icons no longer reach the launcher\n",
                             m_role.c_str(), describeWait(status).c_str());
        }

    private:
        enum class Read { Some, NothingYet, End };

        // Forwards until the window-command tool has ended or the bridge's
        // output stopped being tray messages (false, and that is said), or
        // until the bridge has ended or closed its output (true).
        bool forward()
        {
            for (;;) {
                std::array<pollfd, 3> watched { {
                    { m_tool.get(), POLLIN, 0 },
                    { m_fromBridge.get(), POLLIN, 0 },
                    { m_bridgeProcess.get(), POLLIN, 0 },
                } };
                if (::poll(watched.data(), watched.size(), -1) < 0) {
                    if (errno == EINTR)
                        continue;
                    std::fprintf(stderr, "%s: tray icons no longer reach the launcher: poll: %s\n", m_role.c_str(),
                                 std::strerror(errno));
                    return false;
                }
                if (watched[0].revents)
                    return false;
                Read read = Read::NothingYet;
                if (watched[1].revents)
                    read = readAndForward();
                // What the bridge wrote before it ended still goes out.
                if (watched[2].revents)
                    while ((read = readAndForward()) == Read::Some) {
                    }
                if (!m_stream.fault().empty()) {
                    std::fprintf(stderr,
                                 "%s: the tray bridge wrote something that is not a tray message (%s): its icons "
                                 "are no longer forwarded\n",
                                 m_role.c_str(), m_stream.fault().c_str());
                    return false;
                }
                if (hasEnded(m_tool))
                    return false;
                if (read == Read::End || watched[2].revents)
                    return true;
            }
        }

        Read readAndForward()
        {
            Read read = readBridge();
            if (read != Read::Some)
                return read;
            m_stream.append(m_chunk.data(), m_lastRead);
            while (auto message = m_stream.next()) {
                // Messages behind a slow launcher belong to a session that
                // may be over by now.
                if (hasEnded(m_tool))
                    return Read::NothingYet;
                if (auto problem = deliver(m_socketPath, *message)) {
                    // Said once while the launcher is away, not once per icon.
                    if (!m_dropping)
                        std::fprintf(stderr,
                                     "%s: tray icon changes are dropped until the launcher takes one again: %s\n",
                                     m_role.c_str(), problem->c_str());
                    m_dropping = true;
                } else {
                    m_dropping = false;
                }
            }
            return Read::Some;
        }

        Read readBridge()
        {
            if (!m_fromBridge)
                return Read::End;
            for (;;) {
                ssize_t n = ::read(m_fromBridge.get(), m_chunk.data(), m_chunk.size());
                if (n > 0) {
                    m_lastRead = static_cast<size_t>(n);
                    return Read::Some;
                }
                if (n < 0 && errno == EINTR)
                    continue;
                if (n < 0 && errno == EAGAIN)
                    return Read::NothingYet;
                return Read::End;
            }
        }

        // Tells the bridge to go by the end of its input, reads and drops
        // what it writes meanwhile so that it never blocks on a full pipe,
        // kills it when it takes too long, and reaps it. Its status.
        int endBridge()
        {
            m_toBridge.reset();
            auto deadline = std::chrono::steady_clock::now() + kBridgeGrace;
            while (!hasEnded(m_bridgeProcess)) {
                auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
                if (left <= 0ms) {
                    ::kill(m_bridge, SIGKILL);
                    break;
                }
                std::array<pollfd, 2> watched { {
                    { m_fromBridge.get(), POLLIN, 0 },
                    { m_bridgeProcess.get(), POLLIN, 0 },
                } };
                if (::poll(watched.data(), watched.size(), static_cast<int>(left.count())) > 0 && watched[0].revents
                    && readBridge() == Read::End)
                    m_fromBridge.reset();
            }
            int status = 0;
            while (::waitpid(m_bridge, &status, 0) < 0 && errno == EINTR) {
            }
            return status;
        }

        std::string m_role;
        std::string m_socketPath;
        Fd m_tool;
        pid_t m_bridge;
        Fd m_bridgeProcess;
        Fd m_toBridge;
        Fd m_fromBridge;
        TrayMessageStream m_stream;
        std::array<uint8_t, 64 * 1024> m_chunk {};
        size_t m_lastRead = 0;
        bool m_dropping = false;
    };

    // Standard input and output become the null device: they are the
    // launcher's pipes to the window-command tool, and while the forwarder
    // held them the launcher would not see that tool end. Standard error
    // stays for the forwarder's own messages; everything else it had from
    // the tool goes, but `keep`.
    bool letGoOfTheToolsDescriptors(int keep)
    {
        int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (null < 0 || ::dup2(null, 0) < 0 || ::dup2(null, 1) < 0)
            return false;
        if (keep > 3)
            ::close_range(3, static_cast<unsigned>(keep) - 1, 0);
        ::close_range(static_cast<unsigned>(keep) + 1, ~0U, 0);
        return true;
    }

    struct Pipe {
        Fd reader;
        Fd writer;
    };

    std::optional<Pipe> makePipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            return std::nullopt;
        return Pipe { Fd(ends[0]), Fd(ends[1]) };
    }

    // Runs in the forwarder's own process, which this never returns from.
    void runForwarder(const std::string& role, Fd tool, const fs::path& loader, const fs::path& bridgeProgram,
                 const std::string& tag, const std::string& socketPath, const std::vector<std::string>& environment)
    {
        auto fail = [&](const char* step) {
            std::fprintf(stderr, "%s: tray icons stay in Wine: %s: %s\n", role.c_str(), step, std::strerror(errno));
        };
        if (!letGoOfTheToolsDescriptors(tool.get()))
            return fail("/dev/null");
        // The tool may have inherited SIGCHLD ignored, and the bridge would
        // then be gone without its status. A standard error that has gone
        // costs the messages, not the forwarder.
        ::signal(SIGCHLD, SIG_DFL);
        ::signal(SIGPIPE, SIG_IGN);

        auto input = makePipe();
        auto output = makePipe();
        if (!input || !output)
            return fail("pipe");
        // Only the forwarder reads it, when poll says so.
        ::fcntl(output->reader.get(), F_SETFL, ::fcntl(output->reader.get(), F_GETFL) | O_NONBLOCK);

        std::vector<std::string> arguments { loader.string(), bridgeProgram.string(), "-t", tag };
        std::vector<char*> argv = pointersInto(arguments);
        std::vector<std::string> variables = bridgeEnvironment(environment);
        std::vector<char*> envp = pointersInto(variables);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, input->reader.get(), 0);
        ::posix_spawn_file_actions_adddup2(&actions, output->writer.get(), 1);
        // The bridge starts with SIGPIPE at its default, not ignored as the
        // forwarder has it.
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        ::posix_spawnattr_setsigdefault(&attributes, &defaults);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        pid_t bridge = 0;
        int error = ::posix_spawn(&bridge, loader.c_str(), &actions, &attributes, argv.data(), envp.data());
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            errno = error;
            return fail(loader.c_str());
        }
        input->reader.reset();
        output->writer.reset();

        // Not reaped yet, so the pid is still the bridge's.
        Fd bridgeProcess(pidfdOpen(bridge));
        if (!bridgeProcess) {
            fail("pidfd_open");
            ::kill(bridge, SIGKILL);
            while (::waitpid(bridge, nullptr, 0) < 0 && errno == EINTR) {
            }
            return;
        }
        Forwarder(role, socketPath, std::move(tool), bridge, std::move(bridgeProcess), std::move(input->writer),
                  std::move(output->reader))
            .run();
    }
} // namespace

void startTrayForwarder(const std::string& role, const fs::path& loader, const fs::path& windowsPrograms,
                        const std::vector<std::string>& environment)
{
    const char* socketPath = std::getenv("VT_SYSTRAY_SOCKET");
    const char* tag = std::getenv("VT_WINDOW_TAG");
    fs::path bridgeProgram = windowsPrograms / kBridgeProgram;
    std::error_code error;
    if (!socketPath || !*socketPath || !tag || !*tag || !fs::exists(bridgeProgram, error))
        return;

    // Taken while this process surely runs: after the exec it is the
    // window-command tool's, whose end is the end of the session.
    // Above the standard descriptors, which the forwarder replaces.
    Fd pidfd(pidfdOpen(::getpid()));
    Fd tool(pidfd ? ::fcntl(pidfd.get(), F_DUPFD_CLOEXEC, 3) : -1);
    pidfd.reset();
    if (!tool) {
        std::fprintf(stderr, "%s: tray icons stay in Wine: pidfd_open: %s\n", role.c_str(), std::strerror(errno));
        return;
    }
    // Forked twice, so that the forwarder is never a child of the Wine that
    // this process becomes: Wine reaps none of the children it did not
    // start, and a forwarder that ended first would stay a zombie under it
    // for the whole session.
    pid_t middle = ::fork();
    if (middle == 0) {
        pid_t forwarder = ::fork();
        if (forwarder == 0) {
            try {
                runForwarder(role, std::move(tool), loader, bridgeProgram, tag, socketPath, environment);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "%s: tray icons no longer reach the launcher: %s\n", role.c_str(), e.what());
            }
            ::_exit(0);
        }
        if (forwarder < 0)
            std::fprintf(stderr, "%s: tray icons stay in Wine: fork: %s\n", role.c_str(), std::strerror(errno));
        ::_exit(0);
    }
    if (middle < 0) {
        std::fprintf(stderr, "%s: tray icons stay in Wine: fork: %s\n", role.c_str(), std::strerror(errno));
        return;
    }
    while (::waitpid(middle, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace vt::product
