#include "integration/LaunchNotifySocket.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "base/posix_glue.hpp"
#include "shell/PrivateDirectory.hpp"

namespace vt {

namespace {
    constexpr int kBacklog = 5;
    // The most one read takes in; a record is a few hundred KiB at most.
    constexpr size_t kReadChunk = 64 * 1024;

    void logShortRead(ssize_t count, int error)
    {
        platformLog("Got an unexpected response from the launchnotifysocket.  Not enough data.  readbytes: %d  "
                    "errno: %d\n",
                    static_cast<int>(count), error);
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
    // accept leaves the main loop free instead of stuck in accept.
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
    m_launchnotifysocket = std::move(attempt);
    m_launchNotifySocketName = path;
    // Watching asked for before the socket existed begins now.
    if (m_monitoring)
        startWatching();
    return true;
}

void LaunchNotifySocket::monitorFeedbackSocket()
{
    if (m_monitoring || m_stopped)
        return;
    m_monitoring = true;
    if (m_launchnotifysocket)
        startWatching();
}

void LaunchNotifySocket::startWatching()
{
    UnixSocketListener::Handlers handlers;
    handlers.accepted = [this](std::unique_ptr<Connection> connection) { accepted(std::move(connection)); };
    handlers.refused = [](const std::optional<ucred>& peer, int error) {
        if (!peer) {
            platformLog("Got an unexpected connection to the launchnotifysocket.  Cannot tell who connected.  "
                        "errno = %d.\n",
                        error);
            return;
        }
        platformLog("Refused a connection to the launchnotifysocket from uid %u (pid %d): only this user may "
                    "change the tray icons.\n",
                    static_cast<unsigned>(peer->uid), static_cast<int>(peer->pid));
    };
    // Said once until the backlog has been emptied again; the open
    // connections are served meanwhile.
    handlers.acceptFailing = [](int error) {
        platformLog("Cannot accept a connection on the launchnotifysocket.  errno = %d.\n", error);
    };
    handlers.ended = [](int error) {
        platformLog("Cannot accept a connection on the launchnotifysocket.  errno = %d.  No more tray messages are "
                    "taken.\n",
                    error);
    };
    m_listener = std::make_unique<UnixSocketListener>(
        std::move(m_launchnotifysocket), "vt launchnotifysocket",
        UnixSocketListener::Limits { kMaxOpenConnections, kReceiveTimeout }, std::move(handlers));
}

void LaunchNotifySocket::accepted(std::unique_ptr<Connection> connection)
{
    auto reading = m_connections.insert(m_connections.end(), Reading { std::move(connection), {} });
    // A list position stays valid while other connections come and go.
    reading->connection->watch([this, reading] { readFrom(reading, false); },
                               [this, reading] { readFrom(reading, true); });
}

void LaunchNotifySocket::readFrom(std::list<Reading>::iterator reading, bool deadlinePassed)
{
    std::optional<Message> message;
    bool done = true;
    try {
        done = read(*reading, deadlinePassed, message);
    } catch (const std::exception& error) {
        // Out of memory for one message: the next may fare better.
        platformLog("Cannot take a message from the launchnotifysocket: %s.\n", error.what());
    }
    if (!done)
        return;
    // Closed before the message takes effect, as the sender would see it.
    m_connections.erase(reading);
    if (message)
        apply(message->operation, message->payload);
}

bool LaunchNotifySocket::read(Reading& reading, bool deadlinePassed, std::optional<Message>& message)
{
    const size_t header = m_layout.messageHeaderSize();
    std::vector<uint8_t>& bytes = reading.bytes;
    for (;;) {
        // Whole, or refused as soon as its code or its length is known.
        const size_t size = bytes.size();
        size_t wanted = header;
        if (size >= sizeof(uint32_t) && wordAt(bytes, 0) != kTrayMessageCode) {
            message = finish(bytes, nullptr);
            return true;
        }
        if (size >= header) {
            uint32_t length = wordAt(bytes, header - sizeof(uint32_t));
            if (length > m_layout.payloadLimit()) {
                message = finish(bytes, nullptr);
                return true;
            }
            wanted = header + length;
            bytes.reserve(wanted);
        }
        if (size >= wanted) {
            message = finish(bytes, nullptr);
            return true;
        }

        // Never past the message: what a sender writes after it is not read.
        const size_t chunk = std::min(wanted - size, kReadChunk);
        bytes.resize(size + chunk);
        ssize_t count = ::recv(reading.connection->fd(), bytes.data() + size, chunk, MSG_DONTWAIT);
        const int error = errno;
        bytes.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count > 0)
            continue;
        if (count < 0 && error == EINTR)
            continue;
        // All that has come is read; the rest may come before the deadline.
        if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK) && !deadlinePassed)
            return false;
        const Ending ending { count == 0, count == 0 ? 0 : error };
        message = finish(bytes, &ending);
        return true;
    }
}

std::optional<LaunchNotifySocket::Message> LaunchNotifySocket::finish(const std::vector<uint8_t>& bytes,
                                                                     const Ending* ending)
{
    Delivered delivered(bytes, ending != nullptr, ending && ending->endOfStream, ending ? ending->error : 0);

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

void LaunchNotifySocket::apply(uint64_t operation, std::vector<uint8_t>& payload)
{
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

void LaunchNotifySocket::stop()
{
    m_stopped = true;
    m_listener.reset();
    m_connections.clear();
    m_launchnotifysocket.reset();
    if (!m_launchNotifySocketName.empty()) {
        ::unlink(m_launchNotifySocketName.c_str());
        m_launchNotifySocketName.clear();
    }
}

} // namespace vt
