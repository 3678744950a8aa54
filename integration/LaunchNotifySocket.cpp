#include "integration/LaunchNotifySocket.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"

namespace vt {

namespace {
    constexpr int kBacklog = 5;
    // How long the watcher waits for a connection before it looks again.
    constexpr timeval kWatchInterval { 1, 0 };
    // A sender that connects and then stalls holds the watcher no longer
    // than this: every message is a few writes of a program on this machine.
    constexpr timeval kReceiveTimeout { 2, 0 };
    // Messages read and not yet applied on the main thread: beyond this the
    // watcher waits, so a flood of senders costs bounded memory.
    constexpr size_t kMaxInFlight = 64;

    int milliseconds(timeval timeout)
    {
        long long ms = static_cast<long long>(timeout.tv_sec) * 1000 + (timeout.tv_usec + 999) / 1000;
        return static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX));
    }

    // Reads until `length` bytes are in, the sender has closed, or a read
    // fails (its receive time-out included): a message that arrives in
    // several pieces is read whole. The count, or -1 when the first read
    // failed; errno is 0 after the sender's end.
    ssize_t readUpTo(int fd, void* buffer, size_t length)
    {
        size_t done = 0;
        while (done < length) {
            ssize_t n = ::read(fd, static_cast<char*>(buffer) + done, length - done);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return done > 0 ? static_cast<ssize_t>(done) : -1;
            }
            if (n == 0) {
                errno = 0;
                break;
            }
            done += static_cast<size_t>(n);
        }
        return static_cast<ssize_t>(done);
    }

    void logShortRead(ssize_t count)
    {
        platformLog("Got an unexpected response from the launchnotifysocket.  Not enough data.  readbytes: %d  "
                    "errno: %d\n",
                    static_cast<int>(count), errno);
    }

    void wake(const Fd& eventFd)
    {
        if (eventFd) {
            uint64_t one = 1;
            [[maybe_unused]] ssize_t written = ::write(eventFd.get(), &one, sizeof one);
        }
    }
} // namespace

LaunchNotifySocket::LaunchNotifySocket(TrayMessageReceiver& receiver, const TrayLayout& layout)
    : m_receiver(receiver)
    , m_layout(layout)
{
}

LaunchNotifySocket::~LaunchNotifySocket() { stop(); }

bool LaunchNotifySocket::startLaunchNotify(const std::filesystem::path& directory)
{
    if (!m_launchNotifySocketName.empty())
        return true;

    // Non-blocking, so that a connection that goes between the wait and the
    // accept leaves the watcher free instead of stuck in accept.
    Fd attempt(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!attempt) {
        platformLog("Cannot create the launchnotifysocket.  errno = %d.\n", errno);
        return false;
    }
    // A fresh name in the private directory, where nobody else can make or
    // reach one. A name that does not fit an address is refused: cut short,
    // it would be advertised to the Windows side but never exist.
    std::string path = (directory / "systray-XXXXXX").string();
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        platformLog("Cannot bind.  errno = %d.\n", ENAMETOOLONG);
        errno = ENAMETOOLONG;
        return false;
    }
    int probe = ::mkstemp(path.data());
    if (probe < 0) {
        platformLog("Cannot bind.  errno = %d.\n", errno);
        return false;
    }
    ::close(probe);
    ::unlink(path.c_str());
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::bind(attempt.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        platformLog("Cannot bind.  errno = %d.\n", errno);
        return false;
    }
    if (::listen(attempt.get(), kBacklog) != 0) {
        int error = errno;
        ::unlink(path.c_str());
        platformLog("Cannot listen.  errno = %d.\n", error);
        return false;
    }
    {
        std::lock_guard lock(m_mutex);
        m_launchnotifysocket = std::move(attempt);
    }
    m_launchNotifySocketName = path;
    // A watcher that started before the socket existed takes it up now.
    wake(m_wake);
    return true;
}

bool LaunchNotifySocket::checkNotificationSocket(timeval timeout)
{
    pollfd watched[2];
    nfds_t count = 0;
    {
        // Until the socket exists only the wake-up is watched (never
        // descriptor 0); once made, the socket stays until stop(), which
        // ends the watcher first.
        std::lock_guard lock(m_mutex);
        if (m_launchnotifysocket)
            watched[count++] = { m_launchnotifysocket.get(), POLLIN, 0 };
    }
    const int listening = count > 0 ? watched[0].fd : -1;
    if (m_wake)
        watched[count++] = { m_wake.get(), POLLIN, 0 };
    if (count == 0 || ::poll(watched, count, milliseconds(timeout)) <= 0)
        return false;
    if (m_wake && watched[count - 1].revents) {
        // Stopping, or the socket has just been made: the caller looks again.
        uint64_t ignored;
        [[maybe_unused]] ssize_t drained = ::read(m_wake.get(), &ignored, sizeof ignored);
        return false;
    }
    if (listening < 0 || !(watched[0].revents & POLLIN))
        return false;

    Fd connection(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ECONNABORTED && errno != EINTR) {
            // Out of descriptors or memory: the connection stays in the
            // backlog, so wait before the next try rather than spin on it.
            platformLog("Cannot accept a connection on the launchnotifysocket.  errno = %d.\n", errno);
            pollfd wakeOnly { m_wake.get(), POLLIN, 0 };
            ::poll(&wakeOnly, m_wake ? 1 : 0, milliseconds(timeout));
        }
        return false;
    }

    std::optional<ucred> peer = peerCredentials(connection.get());
    if (!peer) {
        platformLog("Got an unexpected connection to the launchnotifysocket.  Cannot tell who connected.  errno = "
                    "%d.\n",
                    errno);
        return true;
    }
    if (!isThisUser(*peer)) {
        platformLog("Refused a connection to the launchnotifysocket from uid %u (pid %d): only this user may "
                    "change the tray icons.\n",
                    static_cast<unsigned>(peer->uid), static_cast<int>(peer->pid));
        return true;
    }
    if (::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &kReceiveTimeout, sizeof kReceiveTimeout) != 0) {
        platformLog("Cannot set a receive time-out on the launchnotifysocket's connection.  errno = %d.\n", errno);
        return true;
    }

    uint32_t code = 0;
    if (readUpTo(connection.get(), &code, sizeof code) != sizeof code)
        platformLog("Got an unexpected response from the launchnotifysocket.  Not enough data.\n");
    if (code != kTrayMessageCode) {
        platformLog("Got an unexpected response from the launchnotifysocket.  Read message %x.\n", code);
        return true;
    }

    // The sender's unsigned long; a short one is taken as it came.
    uint64_t operation = 0;
    if (m_layout.operationWidth == sizeof(uint32_t)) {
        uint32_t narrow = 0;
        readUpTo(connection.get(), &narrow, sizeof narrow);
        operation = narrow;
    } else {
        readUpTo(connection.get(), &operation, sizeof operation);
    }

    uint32_t length = 0;
    ssize_t got = readUpTo(connection.get(), &length, sizeof length);
    if (got != sizeof length)
        logShortRead(got);
    // Bounded before anything is allocated: the length is the sender's word.
    if (length > m_layout.payloadLimit()) {
        platformLog("Got an unexpected response from the launchnotifysocket.  Payload of %u bytes is beyond the "
                    "limit of %zu bytes.\n",
                    length, m_layout.payloadLimit());
        return true;
    }
    std::vector<uint8_t> payload(length, 0);
    got = readUpTo(connection.get(), payload.data(), payload.size());
    // What did not come stays zero; the decoder judges the record.
    if (got < 0 || static_cast<size_t>(got) < payload.size())
        logShortRead(got);
    connection.reset();

    {
        std::unique_lock lock(m_mutex);
        // The main thread applies what is in flight and never waits for the
        // watcher; called there itself (as tests do), it must not wait.
        if (!isMainThread())
            m_applied.wait(lock, [this] { return m_inFlight < kMaxInFlight || m_stopping; });
        if (m_stopping)
            return true;
        ++m_inFlight;
    }
    m_mainQueue.post([this, operation, payload = std::move(payload)]() mutable { apply(operation, payload); });
    return true;
}

void LaunchNotifySocket::apply(uint64_t operation, std::vector<uint8_t>& payload)
{
    struct Applied {
        LaunchNotifySocket& self;
        ~Applied()
        {
            {
                std::lock_guard lock(self.m_mutex);
                --self.m_inFlight;
            }
            self.m_applied.notify_one();
        }
    } applied { *this };
    if (m_stopping)
        return;
    switch (operation) {
    case kTrayOperationAdd:
        m_receiver.addIconWithData(payload);
        break;
    case kTrayOperationModify:
        m_receiver.modifyIconWithData(payload);
        break;
    case kTrayOperationDelete:
        m_receiver.deleteIconWithData(payload);
        break;
    default:
        platformLog("Unknown systray message: %lu\n", static_cast<unsigned long>(operation));
        break;
    }
    // Redrawn whatever came, an unknown operation included: the tile then
    // shows the list as it stands.
    m_receiver.updateBadges();
}

void LaunchNotifySocket::monitorFeedbackSocket()
{
    if (m_watcher.joinable() || m_stopping)
        return;
    if (!m_wake)
        m_wake = Fd(::eventfd(0, EFD_CLOEXEC));
    if (!m_wake) {
        platformLog("Cannot watch the launchnotifysocket.  errno = %d.\n", errno);
        return;
    }
    try {
        m_watcher = std::thread([this] {
            while (!m_stopping) {
                try {
                    checkNotificationSocket(kWatchInterval);
                } catch (const std::exception& error) {
                    // Out of memory for one message: the next may fare better.
                    platformLog("Cannot take a message from the launchnotifysocket: %s.\n", error.what());
                }
            }
        });
    } catch (const std::system_error& error) {
        platformLog("Cannot watch the launchnotifysocket: %s.\n", error.what());
    }
}

void LaunchNotifySocket::stop()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_applied.notify_all();
    if (m_watcher.joinable()) {
        wake(m_wake);
        // The watcher never waits for the main thread, so this is brief.
        m_watcher.join();
    }
    m_wake.reset();
    {
        std::lock_guard lock(m_mutex);
        m_launchnotifysocket.reset();
    }
    if (!m_launchNotifySocketName.empty()) {
        ::unlink(m_launchNotifySocketName.c_str());
        m_launchNotifySocketName.clear();
    }
}

} // namespace vt
