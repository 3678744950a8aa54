#include "source/VTBundle.hpp"

#include <cstring>
#include <system_error>


namespace vt {

std::unique_ptr<VTBundle> VTBundle::bundleWithPath(const std::filesystem::path& path, std::string* problem)
{
    // readPropertyListFile refuses what is missing, unreadable or not a
    // regular file (a directory named Info.plist) by itself.
    auto info = readPropertyListFile(path / "Contents" / "Info.plist", problem);
    if (!info)
        return nullptr;
    if (!info->asDict()) {
        if (problem)
            *problem = "it holds no dictionary";
        return nullptr;
    }
    return std::unique_ptr<VTBundle>(new VTBundle(path, std::move(std::get<PlistDict>(info->storage))));
}

std::optional<std::filesystem::path> VTBundle::bundlePathForExecutable(const std::filesystem::path& executable)
{
    if (!executable.has_filename())
        return std::nullopt;
    std::filesystem::path programs = executable.parent_path();
    std::filesystem::path contents = programs.parent_path();
    if (programs.filename() != "MacOS" || contents.filename() != "Contents")
        return std::nullopt;
    std::filesystem::path bundle = contents.parent_path();
    if (bundle.empty())
        return std::nullopt;
    return bundle;
}

std::optional<std::filesystem::path> VTBundle::mainBundlePathFromExecutable(const char* argv0)
{
    std::filesystem::path executable;
    std::error_code error;
    if (argv0 && std::strchr(argv0, '/')) {
        executable = std::filesystem::absolute(argv0, error);
        if (error)
            return std::nullopt;
        // "." and empty components go; ".." stays, because what it means
        // depends on the symbolic links on the way, which the kernel follows
        // when the path is used.
        std::filesystem::path cleaned;
        for (const auto& part : executable) {
            if (part != "." && !part.empty())
                cleaned /= part;
        }
        executable = cleaned;
    } else {
        executable = std::filesystem::read_symlink("/proc/self/exe", error);
        if (error)
            return std::nullopt;
    }
    return bundlePathForExecutable(executable);
}

const PlistValue* VTBundle::objectForInfoDictionaryKey(std::string_view key) const
{
    auto found = m_info.find(key);
    return found == m_info.end() ? nullptr : &found->second;
}

std::optional<std::string> VTBundle::stringForInfoDictionaryKey(std::string_view key) const
{
    const PlistValue* value = objectForInfoDictionaryKey(key);
    if (!value || !value->asString())
        return std::nullopt;
    return *value->asString();
}

std::optional<std::string> VTBundle::bundleIdentifier() const
{
    return stringForInfoDictionaryKey("CFBundleIdentifier");
}

std::optional<std::filesystem::path> VTBundle::executablePath() const
{
    // A file name, nothing more: an absolute name or one with a '/' would
    // reach out of the bundle's MacOS folder.
    auto name = stringForInfoDictionaryKey("CFBundleExecutable");
    if (!name || name->empty() || *name == "." || *name == ".." || name->find('/') != std::string::npos)
        return std::nullopt;
    return m_path / "Contents" / "MacOS" / *name;
}

} // namespace vt
