#include "standin/tools/WineLoaderStandIn.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "standin/loader/LoaderClient.hpp"
#include "standin/record/Record.hpp"

extern char** environ;

namespace vt::standin {

namespace {

    bool hasArgument(char** argv, const char* wanted)
    {
        for (char** argument = argv + 1; *argument; ++argument) {
            if (std::strcmp(*argument, wanted) == 0)
                return true;
        }
        return false;
    }

    // What the real loader would hand over: everything it would have given
    // the Wine it no longer starts.
    struct HandOver {
        Fd serverSocket; // our end of the pair, standing for the Wine server's
        Fd handedSocket; // the end the launcher gets
        Fd waitChildren; // the pipe's read end, kept: it ends when the launcher does
        Fd handedPipe;   // its write end, handed over
    };

    HandOver prepareHandOver(bool waitChildren)
    {
        HandOver handOver;
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0) {
            handOver.serverSocket.reset(pair[0]);
            handOver.handedSocket.reset(pair[1]);
        }
        int ends[2];
        if (waitChildren && pipe2(ends, O_CLOEXEC) == 0) {
            handOver.waitChildren.reset(ends[0]);
            handOver.handedPipe.reset(ends[1]);
        }
        return handOver;
    }

    // What the loader record calls each outcome.
    enum class Outcome { Proceed, Refused, Unreachable };
    const char* outcomeName(Outcome outcome)
    {
        return outcome == Outcome::Proceed ? "proceed" : outcome == Outcome::Refused ? "refused" : "unreachable";
    }

    Outcome sendRequest(const std::string& socketPath, char** argv, const HandOver& handOver)
    {
        Fd connection = connectToLoader(socketPath);
        if (!connection)
            return Outcome::Unreachable;

        std::error_code error;
        std::string directory = std::filesystem::current_path(error).string();
        std::vector<std::string> environment;
        for (char** entry = environ; *entry; ++entry)
            environment.emplace_back(*entry);
        std::vector<std::string> arguments { "" };
        for (char** argument = argv + 1; *argument; ++argument)
            arguments.emplace_back(*argument);

        const char* setting = std::getenv("VT_STANDIN_LOADER");
        uint32_t type = setting && std::strcmp(setting, "other-arch") == 0 ? kNativeWineLoaderLayout.otherRequest
                                                                             : kNativeWineLoaderLayout.ownRequest;
        std::vector<int> descriptors { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, handOver.handedSocket.get() };
        if (handOver.handedPipe)
            descriptors.push_back(handOver.handedPipe.get());

        std::string head = encodeRequestHead(type, directory.empty() ? "" : directory + '\0',
                                             nulTerminated(environment), nulTerminated(arguments));
        // A launcher that refuses early may close before the carrier: that
        // is a refusal too, and the answer below sees it.
        if (sendAll(connection.get(), head.data(), head.size()))
            sendCarrier(connection.get(), descriptors);
        return finishAndReadAnswer(connection.get()) == WineLoaderResponseProceed ? Outcome::Proceed
                                                                                   : Outcome::Refused;
    }

    // Standard streams that were handed over stay usable here, but lead
    // nowhere the launcher could be waiting on.
    void letGoOfStandardStreams()
    {
        Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
        for (int fd : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO })
            dup2(null.get(), fd);
    }

    [[noreturn]] void waitForChildrenOrSignal(const std::string& role, const Fd& waitChildren,
                                              const EndSignals& signals)
    {
        pollfd descriptors[] = { { waitChildren.get(), POLLIN, 0 }, { signals.fd(), POLLIN, 0 } };
        for (;;) {
            if (poll(descriptors, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                endWithReason(role, "cannot wait: " + std::string(std::strerror(errno)));
            }
            if (descriptors[1].revents)
                signals.endWithSignal(role);
            if (descriptors[0].revents) {
                char bytes[64];
                ssize_t count = read(waitChildren.get(), bytes, sizeof bytes);
                if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN))
                    endWithReason(role, "wait-children pipe closed");
            }
        }
    }

} // namespace

bool actsAsWineLoader(const std::string& role, char** argv)
{
    const char* socket = std::getenv(kAltLoaderSocketVariable);
    const char* setting = std::getenv("VT_STANDIN_LOADER");
    return (role == "vtmenu" || role == "vtstart") && socket && *socket && hasArgument(argv, "--enable-alt-loader")
        && !(setting && std::strcmp(setting, "none") == 0);
}

void handOverToLauncher(const std::string& role, char** argv, const EndSignals& signals)
{
    std::string socketPath = std::getenv(kAltLoaderSocketVariable);
    HandOver handOver = prepareHandOver(hasArgument(argv, "--wait-children"));
    Outcome outcome = sendRequest(socketPath, argv, handOver);
    send(Record("loader").add("role", role).add("socket", socketPath).add("outcome", outcomeName(outcome)));
    if (outcome != Outcome::Proceed)
        signals.endWithSignal(role);

    handOver.handedSocket.reset();
    handOver.handedPipe.reset();
    letGoOfStandardStreams();
    if (!handOver.waitChildren)
        endWithReason(role, "handed over");
    waitForChildrenOrSignal(role, handOver.waitChildren, signals);
}

} // namespace vt::standin
