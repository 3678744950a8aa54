#include "shell/PrivateDirectory.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "base/posix_glue.hpp"

namespace vt {

namespace {
    // The directories that exist now, each with the process that made it.
    // A launcher that ends through exit() without its quit (once Wine runs
    // inside it, Wine ends the process so when the Windows program ends)
    // still leaves none behind: they go at exit, but only in the process
    // that made them, never in a child that exits without exec.
    struct LiveDirectories {
        std::mutex mutex;
        std::vector<std::pair<pid_t, std::filesystem::path>> entries;
    };

    // Never destroyed: the exit handler may run after static destructors
    // have begun.
    LiveDirectories& liveDirectories()
    {
        static LiveDirectories* live = new LiveDirectories;
        return *live;
    }

    void removeLiveDirectoriesAtExit() noexcept
    {
        LiveDirectories& live = liveDirectories();
        std::lock_guard lock(live.mutex);
        pid_t self = ::getpid();
        for (const auto& [owner, path] : live.entries) {
            std::error_code ignored;
            if (owner == self)
                std::filesystem::remove_all(path, ignored);
        }
        live.entries.clear();
    }

    void addLiveDirectory(const std::filesystem::path& path)
    {
        static const bool registered = std::atexit(removeLiveDirectoriesAtExit) == 0;
        if (!registered)
            return;
        LiveDirectories& live = liveDirectories();
        std::lock_guard lock(live.mutex);
        live.entries.emplace_back(::getpid(), path);
    }

    // Removes `path` and its entry. Under the lock, like the removal at
    // exit: run side by side (the main thread's quit and Wine's exit() on
    // its own thread), each would find the other's half-removed directory
    // and give up on it, and the directory would stay.
    void removeLiveDirectory(const std::filesystem::path& path) noexcept
    {
        LiveDirectories& live = liveDirectories();
        std::lock_guard lock(live.mutex);
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
        std::erase_if(live.entries, [&](const auto& entry) { return entry.second == path; });
    }

    std::string octalMode(mode_t mode)
    {
        char text[8];
        std::snprintf(text, sizeof text, "0%o", static_cast<unsigned>(mode & 07777));
        return text;
    }

    std::string ownerText(uid_t uid) { return "belongs to uid " + std::to_string(uid); }

    const char* kWithoutSockets = "the launcher runs without its sockets";
} // namespace

std::filesystem::path PrivateDirectory::parentDirectory()
{
    for (const char* variable : { "XDG_RUNTIME_DIR", "TMPDIR" }) {
        const char* value = std::getenv(variable);
        if (value && *value == '/')
            return value;
    }
    return "/tmp";
}

std::optional<std::string> PrivateDirectory::unsafeParent(const std::filesystem::path& parent)
{
    // Every directory up to the root counts: whoever may rename one of them
    // can put another tree in its place.
    std::error_code error;
    std::filesystem::path real = std::filesystem::canonical(parent, error);
    if (error)
        return parent.string() + " cannot be used: " + error.message();
    const uid_t self = ::getuid();
    for (std::filesystem::path at = real;; at = at.parent_path()) {
        struct stat status {};
        if (::lstat(at.c_str(), &status) != 0)
            return at.string() + " cannot be used: " + std::strerror(errno);
        if (!S_ISDIR(status.st_mode))
            return at.string() + " is not a directory";
        if (status.st_uid != self && status.st_uid != 0)
            return at.string() + " " + ownerText(status.st_uid);
        if ((status.st_mode & (S_IWGRP | S_IWOTH)) && !(status.st_mode & S_ISVTX))
            return at.string() + " may be written by other users and has no sticky bit (mode "
                + octalMode(status.st_mode) + ")";
        if (at == at.root_path())
            return std::nullopt;
    }
}

std::optional<std::string> PrivateDirectory::notPrivate(const std::filesystem::path& directory)
{
    // Through a descriptor, never following a link: what is checked is the
    // very directory at that path.
    Fd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
        int error = errno;
        struct stat link {};
        if (::lstat(directory.c_str(), &link) == 0 && S_ISLNK(link.st_mode))
            return std::string("it is a symbolic link");
        if (error == ENOTDIR)
            return std::string("it is not a directory");
        return std::string("it cannot be opened: ") + std::strerror(error);
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0)
        return std::string("it cannot be examined: ") + std::strerror(errno);
    if (status.st_uid != ::getuid())
        return "it " + ownerText(status.st_uid);
    if ((status.st_mode & 0777) != 0700)
        return "its mode is " + octalMode(status.st_mode) + ", not 0700";
    return std::nullopt;
}

std::optional<std::filesystem::path> PrivateDirectory::path()
{
    if (m_path || m_failed)
        return m_path;
    // Made where the checked path leads, links resolved: a link on the way
    // could be changed by whoever owns the directory that holds it.
    std::error_code error;
    std::filesystem::path parent = std::filesystem::canonical(parentDirectory(), error);
    if (error)
        parent = parentDirectory();
    if (auto problem = unsafeParent(parent)) {
        m_failed = true;
        platformLog("Cannot make the launcher's private directory in %@: %@; %s.", parent, *problem, kWithoutSockets);
        return std::nullopt;
    }
    std::string name = (parent / "vtlauncher-XXXXXX").string();
    if (!::mkdtemp(name.data())) {
        m_failed = true;
        platformLog("Cannot make the launcher's private directory %@: %s; %s.", name, std::strerror(errno),
                    kWithoutSockets);
        return std::nullopt;
    }
    if (auto problem = notPrivate(name)) {
        m_failed = true;
        platformLog("The launcher's private directory %@ is not private to this user: %@; %s.", name, *problem,
                    kWithoutSockets);
        // Only an empty directory goes, and never through a link: what
        // stands there now is not ours to clear.
        ::rmdir(name.c_str());
        return std::nullopt;
    }
    m_path = name;
    addLiveDirectory(*m_path);
    return m_path;
}

void PrivateDirectory::remove() noexcept
{
    if (!m_path)
        return;
    removeLiveDirectory(*m_path);
    m_path.reset();
}

void PrivateDirectory::removeAllOfThisProcess() noexcept { removeLiveDirectoriesAtExit(); }

std::optional<std::string> bindFreshSocket(int socket, const std::filesystem::path& directory, const char* prefix)
{
    std::string path = (directory / (std::string(prefix) + "-XXXXXX")).string();
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    // The name is taken as a file first so that it is unique, then given
    // to the socket.
    int probe = ::mkostemp(path.data(), O_CLOEXEC);
    if (probe < 0)
        return std::nullopt;
    ::close(probe);
    ::unlink(path.c_str());
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return std::nullopt;
    return path;
}

} // namespace vt
