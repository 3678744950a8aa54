// Serving a listening Unix-domain stream socket on the main loop (GLib's
// default context): the one place where the launcher's sockets accept, check
// who connected, bound how many connections are open at once, give each a
// deadline and ride out a shortage of descriptors. What a connection carries
// is the owner's business: it reads when told the socket is readable.
//
// Accepting: the listening socket is watched while fewer than
// Limits::maxOpenConnections connections are open; at the bound it is no
// longer watched, so further senders wait in the listen backlog (they are
// not turned away) until a connection closes. Each turn takes what the
// backlog holds, up to the bound, in order. Connections are non-blocking and
// close-on-exec.
//
// Peers: a connection from another user, or one whose peer cannot be told
// (SO_PEERCRED), is closed at once, before the owner sees it, and reported
// through Handlers::refused so that the owner says so in its own words.
//
// Running out: an accept that fails for want of descriptors or memory
// (EMFILE, ENFILE, ENOBUFS, ENOMEM, or anything else that may pass) leaves
// the connection in the backlog; the socket is tried again every 100 ms
// (a timeout, never a busy loop) while open connections are served. The
// shortage is reported once when it begins (acceptFailing) and once when the
// backlog has been emptied again (acceptRecovered). An error that means the
// listening socket itself is gone (EBADF, EINVAL, ENOTSOCK, EOPNOTSUPP,
// EFAULT) ends listening for good: the socket is closed at once, so later
// senders are refused instead of left waiting, and `ended` is reported.
//
// Ownership: every source (the listening socket's, the retry timeout, each
// connection's readable watch and deadline) is owned by the object it serves
// and removed with it. The listener and any Connection may be destroyed from
// inside any of their callbacks; nothing of theirs is touched after the
// callback that destroyed them returns. A Connection may outlive its
// listener: it is then simply no longer counted. Main thread only.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <sys/socket.h>

#include "base/MainLoop.hpp"
#include "base/posix_glue.hpp"

namespace vt {

class UnixSocketListener {
public:
    struct Limits {
        // Connections open at once (accepted and not yet destroyed, closed or
        // taken); more wait in the backlog. At least 1.
        size_t maxOpenConnections = 32;
        // From accept to Connection's deadline callback; zero for none.
        std::chrono::milliseconds deadline { 0 };
    };

private:
    struct Shared;

public:
    // One accepted connection of this user. Destroying it (or close()) closes
    // the socket, removes its sources and frees its place under the bound.
    class Connection {
    public:
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;
        ~Connection();

        // The connected socket (non-blocking); -1 once closed or taken.
        int fd() const noexcept { return m_fd.get(); }
        // The peer as it was when it connected (this user, by construction).
        const ucred& peer() const noexcept { return m_peer; }

        // From now on `readable` runs on the main loop whenever the socket
        // has something for a read (data, end of stream or an error), and
        // `deadlinePassed` once when the listener's deadline for this
        // connection passes (counted from its accept), readable or not. Without a deadline callback a
        // connection whose deadline passes is closed. A later call replaces
        // both. Either may destroy this Connection.
        void watch(std::function<void()> readable, std::function<void()> deadlinePassed = {});

        // Closes the socket now, stops its sources, frees its place; the
        // object stays as an empty shell. Idempotent.
        void close() noexcept;

        // The socket itself, no longer watched and without a deadline, for
        // the owner to use as it likes (a thread that must block, say); the
        // place under the bound is freed as by close().
        Fd takeFd() noexcept;

    private:
        friend class UnixSocketListener;
        Connection(std::weak_ptr<Shared> listener, Fd fd, const ucred& peer, const std::string& name,
                   std::optional<std::chrono::steady_clock::time_point> deadline);
        void releasePlace() noexcept;

        std::weak_ptr<Shared> m_listener;
        Fd m_fd;
        ucred m_peer;
        std::string m_name;
        std::optional<std::chrono::steady_clock::time_point> m_deadline;
        OwnedSource m_readable;
        TimeoutSource m_deadlineSource;
        bool m_counted = true;
    };

    // What the owner hears. Only `accepted` is required.
    struct Handlers {
        // A connection of this user, in accept order. Keep it (and watch() it)
        // to read from it; dropping it closes it at once.
        std::function<void(std::unique_ptr<Connection>)> accepted;
        // A connection refused and already closed: `peer` is who connected
        // (another user), or empty when that could not be told, `error` then
        // being the errno of SO_PEERCRED.
        std::function<void(const std::optional<ucred>& peer, int error)> refused;
        // Accepting began to fail for want of resources (`error` the errno);
        // said once until acceptRecovered.
        std::function<void(int error)> acceptFailing;
        // The backlog has been emptied again after `failedAttempts` failed
        // accepts.
        std::function<void(unsigned failedAttempts)> acceptRecovered;
        // The listening socket is gone (`error` the accept's errno); the
        // listener has closed it and accepts no more.
        std::function<void(int error)> ended;
    };

    // How long a failed accept waits before it is tried again.
    static constexpr std::chrono::milliseconds kAcceptRetryInterval { 100 };

    // Serves `listening` (a bound, listening SOCK_STREAM socket; made
    // non-blocking here) from now on, owning it: it is closed when this
    // object goes. `name` names the sources (for debuggers and profilers).
    UnixSocketListener(Fd listening, const char* name, Limits limits, Handlers handlers);
    ~UnixSocketListener();
    UnixSocketListener(const UnixSocketListener&) = delete;
    UnixSocketListener& operator=(const UnixSocketListener&) = delete;

    // Connections accepted and still counted against the bound.
    size_t openConnections() const noexcept;
    // False once listening has ended for good (see Handlers::ended).
    bool isListening() const noexcept;

private:
    std::shared_ptr<Shared> m_shared;
};

} // namespace vt
