// The launcher's private directory: where its sockets live (the loader's and
// the launch-notify socket). One per launcher process, made with mkdtemp
// (mode 0700) under $XDG_RUNTIME_DIR, else $TMPDIR, else /tmp, so that only
// this user can reach the sockets by path; it goes when the launcher ends.
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

    // The directory, made on first call; empty (logged once) when it cannot
    // be made or is not this user's own, mode 0700.
    std::optional<std::filesystem::path> path();

    // Removes the directory and whatever its owners left in it; the next
    // path() makes a new one.
    void remove() noexcept;

    // Where a new directory goes, from the environment.
    static std::filesystem::path parentDirectory();

private:
    std::optional<std::filesystem::path> m_path;
    bool m_failed = false;
};

} // namespace vt
