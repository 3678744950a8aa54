#include "shell/PrivateDirectory.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"

namespace vt {

std::filesystem::path PrivateDirectory::parentDirectory()
{
    for (const char* variable : { "XDG_RUNTIME_DIR", "TMPDIR" }) {
        const char* value = std::getenv(variable);
        if (value && *value == '/')
            return value;
    }
    return "/tmp";
}

std::optional<std::filesystem::path> PrivateDirectory::path()
{
    if (m_path || m_failed)
        return m_path;
    std::string name = (parentDirectory() / "vtlauncher-XXXXXX").string();
    if (!::mkdtemp(name.data())) {
        m_failed = true;
        platformLog("Cannot make the launcher's private directory %@: %s", name, std::strerror(errno));
        return std::nullopt;
    }
    // mkdtemp makes it 0700 and ours; a directory that is not (a parent
    // that is not what it seems) is not used.
    struct stat status {};
    if (::lstat(name.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != ::getuid()
        || (status.st_mode & 0777) != 0700) {
        m_failed = true;
        platformLog("The launcher's private directory %@ is not private to this user; its sockets are not made.",
                    name);
        ::rmdir(name.c_str());
        return std::nullopt;
    }
    m_path = name;
    return m_path;
}

void PrivateDirectory::remove() noexcept
{
    if (!m_path)
        return;
    std::error_code error;
    std::filesystem::remove_all(*m_path, error);
    m_path.reset();
}

} // namespace vt
