#include "product/common/ProductPaths.hpp"

#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace vt::product {

namespace {
    std::optional<std::filesystem::path> onPath(const std::string& name)
    {
        const char* path = std::getenv("PATH");
        std::string folders = path ? path : "/usr/local/bin:/usr/bin:/bin";
        size_t start = 0;
        while (start <= folders.size()) {
            size_t end = folders.find(':', start);
            if (end == std::string::npos)
                end = folders.size();
            std::filesystem::path candidate = std::filesystem::path(folders.substr(start, end - start)) / name;
            if (end > start && ::access(candidate.c_str(), X_OK) == 0)
                return candidate;
            start = end + 1;
        }
        return std::nullopt;
    }
} // namespace

std::optional<std::string> bottleNameProblem(const std::string& bottle)
{
    if (bottle.empty())
        return "a bottle needs a name";
    if (bottle.size() > 255)
        return "the bottle's name is longer than 255 bytes";
    if (bottle == "." || bottle == "..")
        return "\"" + bottle + "\" cannot name a bottle";
    for (unsigned char c : bottle) {
        if (c == '/')
            return "the bottle's name \"" + bottle + "\" holds a '/'";
        if (c < 0x20 || c == 0x7F)
            return "the bottle's name holds a control character";
    }
    return std::nullopt;
}

std::filesystem::path bottlesDirectory()
{
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    std::filesystem::path base;
    if (dataHome && dataHome[0] == '/') {
        base = dataHome;
    } else {
        const char* home = std::getenv("HOME");
        base = std::filesystem::path(home && *home ? home : "/") / ".local/share";
    }
    return base / "Vantor" / "Bottles";
}

std::filesystem::path bottlePrefix(const std::string& bottle)
{
    if (auto problem = bottleNameProblem(bottle))
        throw std::invalid_argument(*problem);
    return bottlesDirectory() / bottle;
}

bool prefixIsReady(const std::filesystem::path& prefix)
{
    std::error_code error;
    return std::filesystem::is_regular_file(prefix / kReadyMarker, error);
}

std::optional<std::filesystem::path> wineLoader()
{
    if (const char* chosen = std::getenv("VT_PRODUCT_WINE"); chosen && *chosen)
        return std::filesystem::path(chosen);
    if (::access("/usr/lib/wine/wine64", X_OK) == 0)
        return std::filesystem::path("/usr/lib/wine/wine64");
    for (const char* name : { "wine64", "wine" })
        if (auto found = onPath(name))
            return found;
    return std::nullopt;
}

std::optional<std::filesystem::path> handOverLoader(const std::filesystem::path& tool)
{
    if (const char* chosen = std::getenv("VT_PRODUCT_WINE"); chosen && *chosen)
        return std::nullopt;
    std::filesystem::path loader = tool.parent_path() / "wineloader64";
    if (::access(loader.c_str(), X_OK) != 0)
        return std::nullopt;
    return loader;
}

std::filesystem::path wineServer(const std::filesystem::path& loader)
{
    std::filesystem::path beside = loader.parent_path() / "wineserver";
    if (::access(beside.c_str(), X_OK) == 0)
        return beside;
    return onPath("wineserver").value_or("wineserver");
}

std::filesystem::path windowsProgramsDirectory(const std::filesystem::path& tool)
{
    return tool.parent_path().parent_path() / "windows";
}

} // namespace vt::product
