#include "product/common/StartMenu.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <system_error>

#include "product/common/AsciiText.hpp"

namespace vt::product {

namespace fs = std::filesystem;

namespace {
    const char* const kStartMenu = "Microsoft/Windows/Start Menu";

    bool sameIgnoringAsciiCase(const std::string& a, const std::string& b)
    {
        auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; };
        return a.size() == b.size()
            && std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
    }

    std::optional<std::vector<std::string>> componentsOf(const std::string& entry)
    {
        std::vector<std::string> components;
        size_t start = 0;
        while (start <= entry.size()) {
            size_t end = entry.find_first_of("/\\", start);
            if (end == std::string::npos)
                end = entry.size();
            std::string component = entry.substr(start, end - start);
            if (component == "." || component == "..")
                return std::nullopt;
            if (!component.empty())
                components.push_back(std::move(component));
            start = end + 1;
        }
        if (components.empty())
            return std::nullopt;
        return components;
    }

    // `name` in `folder` as written, else a name that differs only in case.
    std::optional<fs::path> child(const fs::path& folder, const std::string& name)
    {
        std::error_code error;
        fs::path exact = folder / name;
        if (fs::exists(exact, error))
            return exact;
        for (const auto& item : fs::directory_iterator(folder, error)) {
            if (sameIgnoringAsciiCase(item.path().filename().string(), name))
                return item.path();
        }
        return std::nullopt;
    }

    std::vector<fs::path> userFolders(const fs::path& users)
    {
        std::error_code error;
        if (const char* user = std::getenv("USER"); user && *user && std::string(user).find('/') == std::string::npos
            && fs::is_directory(users / user, error))
            return { users / user };
        std::vector<fs::path> folders;
        for (const auto& item : fs::directory_iterator(users, error)) {
            if (item.path().filename() != "Public" && item.is_directory(error))
                folders.push_back(item.path());
        }
        std::sort(folders.begin(), folders.end());
        return folders;
    }
} // namespace

std::vector<fs::path> startMenuFolders(const fs::path& prefix)
{
    std::vector<fs::path> folders { prefix / "drive_c/ProgramData" / kStartMenu };
    for (const fs::path& user : userFolders(prefix / "drive_c/users"))
        folders.push_back(user / "AppData/Roaming" / kStartMenu);
    return folders;
}

namespace {
    // `components` below `folder`, each in any case.
    std::optional<fs::path> below(fs::path folder, const std::vector<std::string>& components)
    {
        std::optional<fs::path> found = std::move(folder);
        for (const std::string& component : components) {
            found = child(*found, component);
            if (!found)
                break;
        }
        return found;
    }
} // namespace

std::vector<std::string> startMenuEntries(const std::vector<fs::path>& folders)
{
    std::map<std::string, std::string> entries; // by lower-case path
    for (const fs::path& folder : folders) {
        std::error_code error;
        // Links are not followed: a Start menu is the bottle's own folders.
        for (auto item = fs::recursive_directory_iterator(folder, error); !error && item != fs::end(item);
             item.increment(error)) {
            std::error_code typeError;
            if (!item->is_regular_file(typeError) || lowerAscii(item->path().extension().string()) != ".lnk")
                continue;
            std::string entry = item->path().lexically_relative(folder).generic_string();
            entries.emplace(lowerAscii(entry), entry);
        }
    }
    std::vector<std::string> sorted;
    for (auto& [key, entry] : entries)
        sorted.push_back(std::move(entry));
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

std::optional<fs::path> unixPathInBottle(const fs::path& prefix, const std::string& windowsPath)
{
    if (windowsPath.size() < 2 || windowsPath[1] != ':' || !std::isalpha(static_cast<unsigned char>(windowsPath[0])))
        return std::nullopt;
    auto components = componentsOf(windowsPath.substr(2));
    if (!components)
        return std::nullopt;
    std::string drive = lowerAscii(windowsPath.substr(0, 2));
    std::error_code error;
    fs::path root = prefix / "dosdevices" / drive;
    if (!fs::is_directory(root, error))
        return std::nullopt;
    auto found = below(root, *components);
    if (!found || !fs::exists(*found, error))
        return std::nullopt;
    return found;
}

std::optional<fs::path> findStartMenuEntry(const std::vector<fs::path>& folders, const std::string& entry)
{
    auto components = componentsOf(entry);
    if (!components)
        return std::nullopt;
    for (const fs::path& folder : folders) {
        auto found = below(folder, *components);
        std::error_code error;
        if (found && fs::is_regular_file(*found, error))
            return found;
    }
    return std::nullopt;
}

} // namespace vt::product
