#include "fuzz/FuzzSupport.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <dirent.h>

namespace vt::fuzz {

void fail(const char* what, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", file, line, what);
    std::fflush(stderr);
    std::abort();
}

size_t openDescriptorCount()
{
    DIR* directory = ::opendir("/proc/self/fd");
    if (!directory)
        fail("/proc/self/fd can be listed", __FILE__, __LINE__);
    size_t count = 0;
    while (dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.')
            ++count;
    }
    ::closedir(directory);
    // The listing's own descriptor was open while it was read.
    return count - 1;
}

const std::string& privateDirectory()
{
    static const std::string path = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "vt-fuzz-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            fail("a private directory can be made", __FILE__, __LINE__);
        return pattern;
    }();
    static const struct Remover {
        ~Remover()
        {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    } remover;
    return path;
}

} // namespace vt::fuzz
