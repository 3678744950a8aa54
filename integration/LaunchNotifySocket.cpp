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
#include "base/posix_glue.hpp"
#include "shell/PrivateDirectory.hpp"

namespace vt {

namespace {
    constexpr int kBacklog = 5;
    // Out of descriptors on accept: the connection stays in the backlog, and
    // the watcher tries again after this instead of spinning on it.
    constexpr std::chrono::milliseconds kAcceptRetryInterval { 100 };
    // The most one read takes in; a record is a few hundred KiB at most.
    constexpr size_t kReadChunk = 64 * 1024;

    int milliseconds(std::chrono::steady_clock::duration duration)
    {
        // Rounded up, so a wait for a deadline does not end just before it.
        auto ms = std::chrono::ceil<std::chrono::milliseconds>(duration).count();
        return static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX));
    }

    void logShortRead(ssize_t count, int error)
    {
        platformLog("Got an unexpected response from the launchnotifysocket.  Not enough data.  readbytes: %d  "
                    "errno: %d\n",
                    static_cast<int>(count), error);
    }

    void wake(const Fd& eventFd)
    {
        if (eventFd) {
            uint64_t one = 1;
            [[maybe_unused]] ssize_t written = ::write(eventFd.get(), &one, sizeof one);
        }
    }

    // What a connection delivered, taken field by field as a reader that
    // waits for each field would take it: whole, or what came before the
    // sender's end (count and errno 0) or before the read failed or timed
    // out (the count, -1 when nothing came, and the read's errno).
    class Delivered {
    public:
        struct Read {
            ssize_t count;
            int error;
        };

        Delivered(const std::vector<uint8_t>& bytes, bool cutShort, bool endOfStream, int error)
            : m_bytes(bytes), m_cutShort(cutShort), m_endOfStream(endOfStream), m_error(error)
        {
        }

        Read take(void* into, size_t length)
        {
            size_t count = std::min(length, m_bytes.size() - m_at);
            if (count > 0)
                std::memcpy(into, m_bytes.data() + m_at, count);
            m_at += count;
            if (count == length || !m_cutShort || m_endOfStream)
                return { static_cast<ssize_t>(count), 0 };
            return { count > 0 ? static_cast<ssize_t>(count) : -1, m_error };
        }

    private:
        const std::vector<uint8_t>& m_bytes;
        size_t m_at = 0;
        bool m_cutShort;
        bool m_endOfStream;
        int m_error;
    };

    uint32_t wordAt(const std::vector<uint8_t>& bytes, size_t offset)
    {
        uint32_t word = 0;
        std::memcpy(&word, bytes.data() + offset, sizeof word);
        return word;
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
    std::optional<std::string> bound = bindFreshSocket(attempt.get(), directory, "systray");
    if (!bound) {
        const int error = errno;
        platformLog("Cannot bind.  errno = %d.\n", error);
        errno = error;
        return false;
    }
    const std::string& path = *bound;
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
    const Clock::time_point end = Clock::now() + std::chrono::seconds(timeout.tv_sec)
        + std::chrono::microseconds(timeout.tv_usec);
    for (;;) {
        bool listening;
        {
            std::lock_guard lock(m_mutex);
            listening = static_cast<bool>(m_launchnotifysocket);
        }
        // Nothing to wait for: no socket yet, and no watcher to wake.
        if (m_stopping || (!listening && !m_wake && m_connections.empty()))
            return false;
        const Clock::time_point now = Clock::now();
        if (watchOnce(std::chrono::duration_cast<std::chrono::milliseconds>(std::max(end - now, Clock::duration(0))))
            > 0)
            return true;
        if (Clock::now() >= end)
            return false;
    }
}

size_t LaunchNotifySocket::watchOnce(std::optional<std::chrono::milliseconds> timeout)
{
    int listening = -1;
    {
        // Once made, the socket stays until stop(), which ends the watcher first.
        std::lock_guard lock(m_mutex);
        if (m_launchnotifysocket)
            listening = m_launchnotifysocket.get();
    }
    // Without a time-out or a deadline the wait has no end: an idle
    // launcher does not wake until a message, a stop or a new socket comes
    // (the last two through the wake-up).
    const Clock::time_point now = Clock::now();
    std::optional<Clock::time_point> until;
    if (timeout)
        until = now + *timeout;
    auto deadline = [&until](Clock::time_point at) { until = until ? std::min(*until, at) : at; };
    const bool room = listening >= 0 && m_connections.size() < kMaxOpenConnections;
    const bool mayAccept = room && (!m_acceptFailing || now >= m_acceptAgainAt);
    if (room && !mayAccept)
        deadline(m_acceptAgainAt);
    for (const auto& connection : m_connections)
        deadline(connection.deadline);

    // The wake-up, the listening socket while there is room, every open connection.
    std::vector<pollfd> watched;
    watched.reserve(2 + m_connections.size());
    if (m_wake)
        watched.push_back({ m_wake.get(), POLLIN, 0 });
    const size_t listeningAt = watched.size();
    if (mayAccept)
        watched.push_back({ listening, POLLIN, 0 });
    for (const auto& connection : m_connections)
        watched.push_back({ connection.fd.get(), POLLIN, 0 });
    if (watched.empty())
        return 0;
    if (::poll(watched.data(), watched.size(), until ? milliseconds(*until - now) : -1) < 0)
        return 0;
    if (m_wake && watched[0].revents) {
        // Stopping, or the socket has just been made.
        uint64_t ignored;
        [[maybe_unused]] ssize_t drained = ::read(m_wake.get(), &ignored, sizeof ignored);
        if (m_stopping)
            return 0;
    }

    size_t done = 0;
    if (mayAccept && watched[listeningAt].revents)
        done += acceptConnections(listening);
    // Every open connection, in accept order, whether or not the wait saw it
    // readable: a sender's next message, accepted just now, must not
    // overtake the rest of its previous one, which is all there by now.
    for (auto it = m_connections.begin(); it != m_connections.end() && !m_stopping;) {
        std::optional<Message> message;
        if (!readFrom(*it, message)) {
            ++it;
            continue;
        }
        // Closed before the message takes effect, as the sender would see it.
        it = m_connections.erase(it);
        ++done;
        if (message)
            handOn(message->operation, std::move(message->payload));
    }
    return done;
}

size_t LaunchNotifySocket::acceptConnections(int listening)
{
    size_t refused = 0;
    while (m_connections.size() < kMaxOpenConnections) {
        Fd connection(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!connection) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                // Caught up with the backlog: a shortage is over.
                m_acceptFailing = false;
            } else {
                // Out of descriptors or memory: said once until the backlog
                // has been caught up with (a descriptor freed now and then
                // does not end the shortage); the connections wait there,
                // and the open ones are served meanwhile.
                if (!m_acceptFailing)
                    platformLog("Cannot accept a connection on the launchnotifysocket.  errno = %d.\n", errno);
                m_acceptFailing = true;
                m_acceptAgainAt = Clock::now() + kAcceptRetryInterval;
            }
            return refused;
        }

        std::optional<ucred> peer = peerCredentials(connection.get());
        if (!peer) {
            platformLog("Got an unexpected connection to the launchnotifysocket.  Cannot tell who connected.  "
                        "errno = %d.\n",
                        errno);
            ++refused;
            continue;
        }
        if (!isThisUser(*peer)) {
            platformLog("Refused a connection to the launchnotifysocket from uid %u (pid %d): only this user may "
                        "change the tray icons.\n",
                        static_cast<unsigned>(peer->uid), static_cast<int>(peer->pid));
            ++refused;
            continue;
        }
        m_connections.push_back({ std::move(connection), {}, Clock::now() + kReceiveTimeout });
    }
    return refused;
}

bool LaunchNotifySocket::readFrom(Connection& connection, std::optional<Message>& message)
{
    const size_t header = m_layout.messageHeaderSize();
    std::vector<uint8_t>& bytes = connection.bytes;
    for (;;) {
        // Whole, or refused as soon as its code or its length is known.
        const size_t size = bytes.size();
        size_t wanted = header;
        if (size >= sizeof(uint32_t) && wordAt(bytes, 0) != kTrayMessageCode) {
            message = finish(connection, nullptr);
            return true;
        }
        if (size >= header) {
            uint32_t length = wordAt(bytes, header - sizeof(uint32_t));
            if (length > m_layout.payloadLimit()) {
                message = finish(connection, nullptr);
                return true;
            }
            wanted = header + length;
            bytes.reserve(wanted);
        }
        if (size >= wanted) {
            message = finish(connection, nullptr);
            return true;
        }

        // Never past the message: what a sender writes after it is not read.
        const size_t chunk = std::min(wanted - size, kReadChunk);
        bytes.resize(size + chunk);
        ssize_t count = ::recv(connection.fd.get(), bytes.data() + size, chunk, MSG_DONTWAIT);
        const int error = errno;
        bytes.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count > 0)
            continue;
        if (count < 0 && error == EINTR)
            continue;
        if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
            if (Clock::now() < connection.deadline)
                return false;
        }
        const Ending ending { count == 0, count == 0 ? 0 : error };
        message = finish(connection, &ending);
        return true;
    }
}

std::optional<LaunchNotifySocket::Message> LaunchNotifySocket::finish(const Connection& connection,
                                                                     const Ending* ending)
{
    Delivered delivered(connection.bytes, ending != nullptr, ending && ending->endOfStream, ending ? ending->error : 0);

    uint32_t code = 0;
    if (delivered.take(&code, sizeof code).count != sizeof code)
        platformLog("Got an unexpected response from the launchnotifysocket.  Not enough data.\n");
    if (code != kTrayMessageCode) {
        platformLog("Got an unexpected response from the launchnotifysocket.  Read message %x.\n", code);
        return std::nullopt;
    }

    // The sender's unsigned long; a short one is taken as it came.
    uint64_t operation = 0;
    if (m_layout.operationWidth == sizeof(uint32_t)) {
        uint32_t narrow = 0;
        delivered.take(&narrow, sizeof narrow);
        operation = narrow;
    } else {
        delivered.take(&operation, sizeof operation);
    }

    uint32_t length = 0;
    Delivered::Read read = delivered.take(&length, sizeof length);
    if (read.count != sizeof length)
        logShortRead(read.count, read.error);
    // Bounded before anything is allocated: the length is the sender's word.
    if (length > m_layout.payloadLimit()) {
        platformLog("Got an unexpected response from the launchnotifysocket.  Payload of %u bytes is beyond the "
                    "limit of %zu bytes.\n",
                    length, m_layout.payloadLimit());
        return std::nullopt;
    }
    std::vector<uint8_t> payload(length, 0);
    read = delivered.take(payload.data(), payload.size());
    // What did not come stays zero; the decoder judges the record.
    if (read.count < 0 || static_cast<size_t>(read.count) < payload.size())
        logShortRead(read.count, read.error);
    return Message { operation, std::move(payload) };
}

void LaunchNotifySocket::handOn(uint64_t operation, std::vector<uint8_t> payload)
{
    {
        std::unique_lock lock(m_mutex);
        // The main thread applies what is in flight and never waits for the
        // watcher; called there itself (as tests do), it must not wait.
        if (!isMainThread() && m_inFlight >= kMaxInFlight) {
            const Clock::time_point began = Clock::now();
            m_applied.wait(lock, [this] { return m_inFlight < kMaxInFlight || m_stopping; });
            // The main thread held the watcher up, not the senders: their
            // time does not run meanwhile.
            const Clock::duration waited = Clock::now() - began;
            for (auto& connection : m_connections)
                connection.deadline += waited;
        }
        if (m_stopping)
            return;
        ++m_inFlight;
    }
    m_mainQueue.post([this, operation, payload = std::move(payload)]() mutable { apply(operation, payload); });
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
            nameThisThread("vt-tray");
            while (!m_stopping) {
                try {
                    watchOnce(std::nullopt);
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
        // The watcher waits for the main thread only while not stopping, so
        // this is brief.
        m_watcher.join();
    }
    m_connections.clear();
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
