// Owning wrappers for POSIX resources.
#pragma once

#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vt {

// A move-only file descriptor. reset() closes without clobbering errno, so a
// failing call's error survives the clean-up that follows it.
class Fd {
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : m_fd(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& other) noexcept : m_fd(other.release()) {}
    Fd& operator=(Fd&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~Fd() { reset(); }

    int get() const noexcept { return m_fd; }
    explicit operator bool() const noexcept { return m_fd >= 0; }

    int release() noexcept { return std::exchange(m_fd, -1); }

    void reset(int fd = -1) noexcept
    {
        int old = std::exchange(m_fd, fd);
        if (old >= 0) {
            int saved = errno;
            ::close(old);
            errno = saved;
        }
    }

private:
    int m_fd = -1;
};

// Hands a unique_ptr to a C function that reports a new object through an
// out-parameter (T**): the object is owned from the moment the call returns,
// whatever the caller does next. Use as a temporary: f(outPtr(owner)).
template <typename Owner> class OutPtr {
public:
    explicit OutPtr(Owner& owner) noexcept : m_owner(owner) {}
    OutPtr(const OutPtr&) = delete;
    OutPtr& operator=(const OutPtr&) = delete;
    ~OutPtr() { m_owner.reset(m_raw); }
    operator typename Owner::pointer*() noexcept { return &m_raw; }

private:
    Owner& m_owner;
    typename Owner::pointer m_raw = nullptr;
};

template <typename Owner> OutPtr<Owner> outPtr(Owner& owner) noexcept { return OutPtr<Owner>(owner); }

// Names the calling thread as `top -H`, ps and debuggers show it (at
// most 15 characters), so that the launcher's threads can be told apart.
inline void nameThisThread(const char* name) noexcept { ::pthread_setname_np(::pthread_self(), name); }

// Whether `count` more descriptors can be made now: a probe, which makes
// them and closes them again (errno tells why not). GLib ends the process
// when it cannot make the descriptor that a blocking call waits on, so work
// that must not fail half-way asks first whether the process has run out.
inline bool descriptorsAreFree(size_t count)
{
    std::vector<Fd> probes;
    probes.reserve(count);
    while (probes.size() < count) {
        Fd probe(::eventfd(0, EFD_CLOEXEC));
        if (!probe)
            return false;
        probes.push_back(std::move(probe));
    }
    return true;
}

// Writes all of `length` bytes, going on after interruptions and partial
// writes; false (with errno set) when a write fails. To a socket (`toSocket`)
// it writes with send(MSG_NOSIGNAL): a peer that has gone is a failed write,
// not a SIGPIPE.
inline bool writeAll(int fd, const void* bytes, size_t length, bool toSocket = false)
{
    const char* p = static_cast<const char*>(bytes);
    while (length > 0) {
        ssize_t n = toSocket ? ::send(fd, p, length, MSG_NOSIGNAL) : ::write(fd, p, length);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// The process at the other end of a connected Unix-domain socket, as it was
// when it connected; empty (errno set) when the system cannot tell.
inline std::optional<ucred> peerCredentials(int fd)
{
    ucred peer {};
    socklen_t length = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return std::nullopt;
    return peer;
}

// Whether a peer runs as this process's user. The launcher's sockets take
// no one else: what a peer sends acts on the launcher, that is as this user.
inline bool isThisUser(const ucred& peer) noexcept { return peer.uid == ::getuid(); }

} // namespace vt
