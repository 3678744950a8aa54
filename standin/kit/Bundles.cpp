#include "standin/kit/Bundles.hpp"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>

#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/TestSupport.hpp"

namespace vt::test {

namespace {

    // One argument of an Exec line: as it is when it can be, else
    // double-quoted with the desktop entry escapes, then with the key file's
    // own escaping of backslashes.
    std::string execArgument(const std::string& text)
    {
        if (text.find_first_of(" \t\n\"'\\><~|&;$*?#()`%") == std::string::npos)
            return text;
        std::string quoted = "\"";
        for (char c : text) {
            if (c == '"' || c == '`' || c == '$' || c == '\\')
                quoted += '\\';
            quoted += c == '%' ? std::string("%%") : std::string(1, c);
        }
        quoted += '"';
        std::string escaped;
        for (char c : quoted)
            escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
        return escaped;
    }

    // Behind any symbolic link.
    void setModificationTime(const std::filesystem::path& path, int64_t secondsSinceEpoch)
    {
        const timespec times[2] = { { 0, UTIME_OMIT }, { static_cast<time_t>(secondsSinceEpoch), 0 } };
        if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
            throw std::runtime_error("cannot set the modification time of " + path.string());
    }

} // namespace

std::filesystem::path standinMainAppBinary() { return std::filesystem::path(VT_STANDIN_DIR) / "vt-standin-main-app"; }

std::filesystem::path standinWineLibrary() { return std::filesystem::path(VT_STANDIN_DIR) / kWineLibraryName; }

void writeInfoPlist(const std::filesystem::path& bundle, const PlistDict& info)
{
    std::filesystem::create_directories(bundle / "Contents");
    writeFile(bundle / "Contents" / "Info.plist", toXmlPropertyList(info));
}

std::filesystem::path installExecutable(const std::filesystem::path& bundle, const std::string& name,
                                        const std::filesystem::path& source)
{
    std::filesystem::path target = bundle / "Contents" / "MacOS" / name;
    std::filesystem::create_directories(target.parent_path());
    std::filesystem::copy_file(source, target, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::permissions(target, std::filesystem::perms(0755));
    return target;
}

std::filesystem::path installScript(const std::filesystem::path& bundle, const std::string& name,
                                    const std::string& text)
{
    std::filesystem::path target = bundle / "Contents" / "MacOS" / name;
    std::filesystem::create_directories(target.parent_path());
    writeFile(target, text);
    std::filesystem::permissions(target, std::filesystem::perms(0755));
    return target;
}

Desktop::Desktop(std::filesystem::path root) : m_root(std::move(root))
{
    std::filesystem::create_directories(applicationsDirectory());
    std::filesystem::create_directories(dataDir());
    std::filesystem::create_directories(configHome());
}

std::map<std::string, std::optional<std::string>> Desktop::variables() const
{
    return {
        { "XDG_DATA_HOME", dataHome().string() },
        { "XDG_DATA_DIRS", dataDir().string() },
        { "XDG_CONFIG_HOME", configHome().string() },
    };
}

std::filesystem::path Desktop::addMainApp(const MainAppCopy& copy)
{
    ++m_copies;
    PlistDict info {
        { "CFBundleIdentifier", copy.identifier },
        { "CFBundleExecutable", copy.executableName },
        { "CFBundleName", "Vantor" },
    };
    if (copy.version)
        info["CFBundleVersion"] = *copy.version;
    writeInfoPlist(copy.bundle, info);
    std::filesystem::path executable = installExecutable(copy.bundle, copy.executableName, copy.binary);
    if (!copy.executable)
        std::filesystem::permissions(executable, std::filesystem::perms(0644));

    std::filesystem::path launched = executable;
    if (copy.execName && *copy.execName != copy.executableName)
        launched = installScript(copy.bundle, *copy.execName, "#!/bin/sh\nexit 0\n");

    if (copy.installsWine) {
        std::filesystem::path library = copy.bundle / "Contents/SharedSupport/Vantor"
            / kNativeWineLoaderLayout.libraryDirectory / kWineLibraryName;
        std::filesystem::create_directories(library.parent_path());
        std::filesystem::create_symlink(standinWineLibrary(), library);
    }

    addDesktopEntry(copy.desktopId.value_or("vantor-" + std::to_string(m_copies) + ".desktop"), launched,
                    copy.registersScheme);
    // Last, since adding entries to the bundle directory changes its date.
    if (copy.modified)
        setModificationTime(copy.bundle, *copy.modified);
    return copy.bundle;
}

void Desktop::addDesktopEntry(const std::string& desktopId, const std::filesystem::path& executable,
                              bool registersScheme)
{
    std::string entry = "[Desktop Entry]\n"
                        "Type=Application\n"
                        "Name=Vantor\n"
                        "Exec="
        + execArgument(executable.string()) + " %U\n";
    if (registersScheme)
        entry += std::string("MimeType=x-scheme-handler/") + kVantorURLScheme + ";\n";
    writeFile(applicationsDirectory() / desktopId, entry);
    if (registersScheme) {
        m_schemeHandlers.push_back(desktopId);
        writeMimeCache();
    }
}

void Desktop::writeMimeCache() const
{
    // GIO takes the handlers of a type from this cache, in its order.
    std::string cache = std::string("[MIME Cache]\nx-scheme-handler/") + kVantorURLScheme + "=";
    for (const auto& desktopId : m_schemeHandlers)
        cache += desktopId + ";";
    writeFile(applicationsDirectory() / "mimeinfo.cache", cache + "\n");
}

void Desktop::writeVantorDefaults(const PlistDict& defaults) const
{
    writeFile(configHome() / (std::string(kVantorBundleIdentifier) + ".plist"), toXmlPropertyList(defaults));
}

std::vector<std::string> readLines(const std::filesystem::path& path)
{
    std::vector<std::string> lines;
    std::istringstream in(readFile(path));
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

} // namespace vt::test
