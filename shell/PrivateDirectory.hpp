// The launcher's private directory: where its sockets live (the loader's and
// the launch-notify socket). One per launcher process, made with mkdtemp
// (mode 0700) under $XDG_RUNTIME_DIR, else $TMPDIR, else /tmp, so that only
// this user can reach the sockets by path; it goes when the launcher ends,
// however it ends short of being killed.
//
// mkdtemp makes a fresh directory, so the danger is not in what it makes but
// in where: in a directory that another user may write to (and that has no
// sticky bit), or below one, that user can move ours aside and put one of
// their own, or a symbolic link, in its place. Such a place is refused before
// anything is made there, and what was made is checked once more through a
// descriptor of its own.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vt {

class PrivateDirectory {
public:
    PrivateDirectory() = default;
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;
    ~PrivateDirectory() { remove(); }

    // The directory, made on first call; empty when it cannot be made or
    // used, which is logged once (the path and what is wrong) and final:
    // the launcher then runs without its sockets.
    std::optional<std::filesystem::path> path();

    // Removes the directory and whatever its owners left in it; the next
    // path() makes a new one.
    void remove() noexcept;

    // Removes every directory this process made and still has, for an end
    // that may not reach the exit handler (Wine ends its process with
    // _exit() when its server tells it to).
    static void removeAllOfThisProcess() noexcept;

    // Where a new directory goes, from the environment.
    static std::filesystem::path parentDirectory();

    // What makes `parent` no safe place for a private directory: it, or a
    // directory above it, is not a directory, belongs to another user than
    // this one or root, or may be written by others without a sticky bit.
    // Names the path and the fault; empty when it is safe.
    static std::optional<std::string> unsafeParent(const std::filesystem::path& parent);

    // What keeps `directory` from being this user's private directory: a
    // symbolic link, not a directory, another owner, any permission for the
    // group or others. Empty when it is one.
    static std::optional<std::string> notPrivate(const std::filesystem::path& directory);

private:
    std::optional<std::filesystem::path> m_path;
    bool m_failed = false;
};

// Binds `socket` to a fresh name "<prefix>-XXXXXX" in `directory`, a
// private directory, where nobody else can make or reach one. The path, or
// nothing with errno set; a name that does not fit a socket address is
// refused (ENAMETOOLONG): cut short, it would be advertised to the Windows
// side but never exist.
std::optional<std::string> bindFreshSocket(int socket, const std::filesystem::path& directory, const char* prefix);

} // namespace vt
