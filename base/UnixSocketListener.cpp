#include "base/UnixSocketListener.hpp"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include <fcntl.h>

namespace vt {

namespace {
    // A source that is ready when its descriptor is (readable, or at its end
    // or in error) and calls a plain GSourceFunc, so that OwnedSource owns it
    // like any other; GLib's own descriptor source would call its callback
    // with the descriptor and the condition instead.
    gboolean dispatchDescriptor(GSource*, GSourceFunc callback, gpointer data) noexcept
    {
        return callback ? callback(data) : G_SOURCE_REMOVE;
    }

    GSourceFuncs descriptorSourceFuncs = { nullptr, nullptr, dispatchDescriptor, nullptr, nullptr, nullptr };

    GPtr<GSource> readableSource(int fd)
    {
        GSource* source = g_source_new(&descriptorSourceFuncs, sizeof(GSource));
        g_source_add_unix_fd(source, fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR));
        return adopt(source);
    }

    // Errors after which the listening socket can never accept again;
    // everything else (descriptors or memory running out above all) may pass.
    bool isListeningSocketGone(int error)
    {
        return error == EBADF || error == EINVAL || error == ENOTSOCK || error == EOPNOTSUPP || error == EFAULT;
    }

    // A connection that went between the wait and the accept, or an
    // interruption: the next one in the backlog is taken at once.
    bool isForThisConnectionOnly(int error) { return error == EINTR || error == ECONNABORTED || error == EPROTO; }
} // namespace

struct UnixSocketListener::Shared : std::enable_shared_from_this<Shared> {
    Shared(Fd fd, const char* sourceName, Limits givenLimits, Handlers givenHandlers)
        : listening(std::move(fd))
        , name(sourceName ? sourceName : "vt socket listener")
        , limits(givenLimits)
        , handlers(std::move(givenHandlers))
    {
        limits.maxOpenConnections = std::max<size_t>(limits.maxOpenConnections, 1);
    }

    // Watched while there is room and no retry is due; called after
    // anything that changes either.
    void updateWatching() noexcept
    {
        if (accepting)
            return;
        const bool wanted = listening && open < limits.maxOpenConnections && !retry.isActive();
        if (wanted && !watch.isActive()) {
            try {
                watch = OwnedSource(readableSource(listening.get()), name.c_str(), [weak = weak_from_this()] {
                    if (auto self = weak.lock())
                        self->acceptAllCatching();
                    return true;
                });
            } catch (const std::exception& error) {
                // Out of memory: the next connection to close tries again.
                g_warning("%s: cannot watch the socket: %s", name.c_str(), error.what());
            }
        } else if (!wanted && watch.isActive()) {
            watch.stop();
        }
    }

    // An exception (memory for one connection, or an owner's callback) is
    // no reason to stop listening: the next turn may fare better.
    void acceptAllCatching() noexcept
    {
        try {
            acceptAll();
        } catch (const std::exception& error) {
            g_warning("%s: accepting failed: %s", name.c_str(), error.what());
        } catch (...) {
            g_warning("%s: accepting failed", name.c_str());
        }
    }

    // Takes what the backlog holds, up to the bound. The owner's callbacks
    // may destroy the listener: then the socket is closed, and the loop ends.
    void acceptAll()
    {
        const std::shared_ptr<Shared> keep = shared_from_this();
        accepting = true;
        // However the loop ends, watching follows what it leaves.
        struct Done {
            Shared& shared;
            ~Done()
            {
                shared.accepting = false;
                shared.updateWatching();
            }
        } done { *this };
        while (listening && open < limits.maxOpenConnections) {
            Fd connection(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (!connection) {
                const int error = errno;
                if (isForThisConnectionOnly(error))
                    continue;
                if (error == EAGAIN || error == EWOULDBLOCK) {
                    // Caught up with the backlog: a shortage is over. Not at
                    // the first accept that works: a descriptor freed now
                    // and then does not end it, and it is said once.
                    if (failing) {
                        failing = false;
                        const unsigned failed = std::exchange(failures, 0u);
                        if (handlers.acceptRecovered)
                            handlers.acceptRecovered(failed);
                    }
                    break;
                }
                if (isListeningSocketGone(error)) {
                    // Closed at once: later senders are refused rather than
                    // left waiting in a backlog nobody takes.
                    watch.stop();
                    retry.stop();
                    listening.reset();
                    if (handlers.ended)
                        handlers.ended(error);
                    break;
                }
                // Out of descriptors or memory: the sender waits in the
                // backlog and the socket is tried again later, not spun on.
                ++failures;
                retry = TimeoutSource(name.c_str(), kAcceptRetryInterval, [weak = weak_from_this()] {
                    if (auto self = weak.lock()) {
                        self->retry.stop();
                        self->acceptAllCatching();
                    }
                    return false;
                });
                if (!failing) {
                    failing = true;
                    if (handlers.acceptFailing)
                        handlers.acceptFailing(error);
                }
                break;
            }

            std::optional<ucred> peer = peerCredentials(connection.get());
            if (!peer || !isThisUser(*peer)) {
                const int error = peer ? 0 : errno;
                connection.reset();
                if (handlers.refused)
                    handlers.refused(peer, error);
                continue;
            }
            ++open;
            std::optional<std::chrono::steady_clock::time_point> deadline;
            if (limits.deadline.count() > 0)
                deadline = std::chrono::steady_clock::now() + limits.deadline;
            std::unique_ptr<Connection> accepted(
                new Connection(weak_from_this(), std::move(connection), *peer, name, deadline));
            handlers.accepted(std::move(accepted));
        }
    }

    void shutDown() noexcept
    {
        watch.stop();
        retry.stop();
        listening.reset();
    }

    Fd listening;
    std::string name;
    Limits limits;
    Handlers handlers;
    size_t open = 0;
    bool accepting = false;
    bool failing = false;
    unsigned failures = 0;
    OwnedSource watch;
    TimeoutSource retry;
};

UnixSocketListener::UnixSocketListener(Fd listening, const char* name, Limits limits, Handlers handlers)
    : m_shared(std::make_shared<Shared>(std::move(listening), name, limits, std::move(handlers)))
{
    if (m_shared->listening) {
        const int flags = ::fcntl(m_shared->listening.get(), F_GETFL);
        if (flags >= 0 && !(flags & O_NONBLOCK))
            ::fcntl(m_shared->listening.get(), F_SETFL, flags | O_NONBLOCK);
    }
    m_shared->updateWatching();
}

UnixSocketListener::~UnixSocketListener()
{
    // The shared part may live on for a moment inside one of its own
    // callbacks; it has nothing left to watch.
    m_shared->shutDown();
}

size_t UnixSocketListener::openConnections() const noexcept { return m_shared->open; }

bool UnixSocketListener::isListening() const noexcept { return static_cast<bool>(m_shared->listening); }

UnixSocketListener::Connection::Connection(std::weak_ptr<Shared> listener, Fd fd, const ucred& peer,
                                           const std::string& name,
                                           std::optional<std::chrono::steady_clock::time_point> deadline)
    : m_listener(std::move(listener))
    , m_fd(std::move(fd))
    , m_peer(peer)
    , m_name(name + " connection")
    , m_deadline(deadline)
{
}

UnixSocketListener::Connection::~Connection() { close(); }

void UnixSocketListener::Connection::watch(std::function<void()> readable, std::function<void()> deadlinePassed)
{
    if (!m_fd)
        return;
    m_readable = OwnedSource(readableSource(m_fd.get()), m_name.c_str(), [readable = std::move(readable)] {
        // May destroy this connection, and with it this source: GLib keeps
        // the callback alive until it returns, and nothing else is touched.
        if (readable)
            readable();
        return true;
    });
    if (!m_deadline)
        return;
    if (!deadlinePassed)
        deadlinePassed = [this] { close(); };
    // Rounded up, so that the deadline never fires before its time.
    const auto left = std::max(std::chrono::ceil<std::chrono::milliseconds>(*m_deadline - std::chrono::steady_clock::now()),
                               std::chrono::milliseconds(0));
    m_deadlineSource = TimeoutSource(m_name.c_str(), left, [deadlinePassed = std::move(deadlinePassed)] {
        deadlinePassed();
        return false;
    });
}

void UnixSocketListener::Connection::close() noexcept
{
    // The sources go before the descriptor: a source left watching a
    // closed descriptor would be woken for ever.
    m_readable.stop();
    m_deadlineSource.stop();
    m_fd.reset();
    releasePlace();
}

Fd UnixSocketListener::Connection::takeFd() noexcept
{
    m_readable.stop();
    m_deadlineSource.stop();
    Fd fd = std::move(m_fd);
    releasePlace();
    return fd;
}

void UnixSocketListener::Connection::releasePlace() noexcept
{
    if (!std::exchange(m_counted, false))
        return;
    if (auto listener = m_listener.lock()) {
        --listener->open;
        listener->updateWatching();
    }
}

} // namespace vt
