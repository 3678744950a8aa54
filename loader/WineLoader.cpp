#include "loader/WineLoader.hpp"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "base/posix_glue.hpp"
#include "loader/WineLoaderClientConnection.hpp"
#include "shell/Application.hpp"
#include "shell/PrivateDirectory.hpp"

namespace vt {

namespace {
    constexpr int kBacklog = 5;
    constexpr const char* kAcceptName = "WineLoader::acceptConnections";
    // How long the accept thread waits after an accept that failed for want
    // of descriptors or memory: short enough that a loader hardly notices,
    // long enough not to spin.
    constexpr int kRetryDelayMilliseconds = 100;

    // Errors after which the listening socket can never accept again;
    // everything else may pass.
    bool isListeningSocketGone(int error)
    {
        return error == EBADF || error == EINVAL || error == ENOTSOCK || error == EOPNOTSUPP || error == EFAULT;
    }

    // Only this user may hand a program over: another user's loader would
    // run its program as us.
    bool isPeerThisUser(int fd)
    {
        std::optional<ucred> peer = peerCredentials(fd);
        if (!peer) {
            platformLog("%s: cannot tell who connected; errno %d", kAcceptName, errno);
            return false;
        }
        if (!isThisUser(*peer)) {
            platformLog("%s: refused a connection from uid %u (pid %d): only this user may hand a program over",
                        kAcceptName, static_cast<unsigned>(peer->uid), static_cast<int>(peer->pid));
            return false;
        }
        return true;
    }
} // namespace

WineLoader::WineLoader(std::string vantorRoot, const WineLoaderLayout& layout)
    : m_vantorRoot(std::move(vantorRoot))
    , m_layout(layout)
{
}

std::shared_ptr<WineLoader> WineLoader::create(std::string vantorRoot, const std::filesystem::path& directory,
                                               const WineLoaderLayout& layout)
{
    std::shared_ptr<WineLoader> loader(new WineLoader(std::move(vantorRoot), layout));
    if (!loader->listenAt(directory))
        return nullptr;
    loader->m_acceptThread = std::thread([raw = loader.get()] {
        nameThisThread("vt-loader");
        raw->acceptConnections();
    });
    return loader;
}

bool WineLoader::listenAt(const std::filesystem::path& directory)
{
    m_sock = Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!m_sock || ::fcntl(m_sock.get(), F_SETFL, O_NONBLOCK) != 0)
        return false;

    std::optional<std::string> bound = bindFreshSocket(m_sock.get(), directory, "loader");
    if (!bound)
        return false;
    const std::string path = *bound;
    m_socketPath = path;
    m_bound = true;

    if (Application* application = Application::shared()) {
        m_unlinkingObserver = NotificationCenter::defaultCenter().addObserver(
            ApplicationWillTerminateNotification, application,
            [path](const Notification&) { ::unlink(path.c_str()); });
    }
    if (::listen(m_sock.get(), kBacklog) != 0)
        return false;
    m_wake = Fd(::eventfd(0, EFD_CLOEXEC));
    return static_cast<bool>(m_wake);
}

WineLoader::~WineLoader()
{
    stopListening();
    m_unlinkingObserver.reset();
    unlinkSocketFile();
}

void WineLoader::acceptConnections()
{
    // Failed accepts in a row: the first is logged, the rest of the episode
    // is not, and its end is.
    unsigned failures = 0;
    for (;;) {
        pollfd watched[2] = { { m_sock.get(), POLLIN, 0 }, { m_wake.get(), POLLIN, 0 } };
        if (::poll(watched, 2, -1) < 0) {
            int error = errno;
            if (error == EINTR)
                continue;
            if (error == ENOMEM) {
                if (waitBeforeRetrying())
                    continue;
                break;
            }
            platformLog("%s: poll failed; errno %d; no more loaders are accepted", kAcceptName, error);
            break;
        }
        if (watched[1].revents)
            break;
        if (watched[0].revents & (POLLERR | POLLNVAL)) {
            platformLog("%s: the listening socket failed; no more loaders are accepted", kAcceptName);
            break;
        }
        Fd connection(::accept4(m_sock.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection) {
            int error = errno;
            if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED)
                continue;
            if (isListeningSocketGone(error)) {
                platformLog("%s: accept failed; errno %d; no more loaders are accepted", kAcceptName, error);
                break;
            }
            // Out of descriptors or memory, most likely for a moment: the
            // connection waits in the backlog while this thread waits too,
            // instead of spinning on it or giving up for good.
            if (failures++ == 0)
                platformLog("%s: accept failed; errno %d (%s); trying again until it works", kAcceptName, error,
                            std::strerror(error));
            if (!waitBeforeRetrying())
                break;
            continue;
        }
        if (failures > 0) {
            platformLog("%s: accepting loaders again after %u failed attempts", kAcceptName, failures);
            failures = 0;
        }
        if (!isPeerThisUser(connection.get()))
            continue;
        int fd = connection.get();
        try {
            WineLoaderClientConnection::handleConnectionInBackground(
                std::make_unique<WineLoaderClientConnection>(*this, std::move(connection)));
        } catch (const std::exception&) {
            platformLog("%s: failed to create WineLoaderClientConnection for connection socket %d", kAcceptName, fd);
        }
    }
    // Listening ends for good: a loader that connects now is refused at once
    // instead of waiting in the backlog.
    m_sock.reset();
}

bool WineLoader::waitBeforeRetrying()
{
    pollfd wake { m_wake.get(), POLLIN, 0 };
    int ready;
    do
        ready = ::poll(&wake, 1, kRetryDelayMilliseconds);
    while (ready < 0 && errno == EINTR);
    return ready <= 0 || !wake.revents;
}

bool WineLoader::stopListening()
{
    if (!m_acceptThread.joinable())
        return false;
    uint64_t one = 1;
    [[maybe_unused]] ssize_t written = ::write(m_wake.get(), &one, sizeof one);
    // The accept thread never waits for the main thread, so this is brief.
    m_acceptThread.join();
    return true;
}

void WineLoader::unlinkSocketFile()
{
    if (m_bound) {
        ::unlink(m_socketPath.c_str());
        m_bound = false;
    }
}

bool WineLoader::shouldConnectionProceedWithRequest(const WineLoaderClientConnection&)
{
    if (!stopListening())
        return false;
    m_unlinkingObserver.reset();
    unlinkSocketFile();
    m_socketPath.clear();
    VTLog("a loader's request takes the Windows program into this process");
    return true;
}

} // namespace vt
