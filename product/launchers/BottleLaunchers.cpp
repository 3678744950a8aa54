#include "product/launchers/BottleLaunchers.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "base/glib_glue.hpp"
#include "product/common/AsciiText.hpp"
#include "product/common/ProductPaths.hpp"
#include "product/common/StartMenu.hpp"
#include "product/launchers/ProgramIcon.hpp"
#include "product/launchers/ShellLink.hpp"
#include "product/launchers/WineRegistry.hpp"
#include "shell/Pixbuf.hpp"
#include "source/PropertyList.hpp"
#include "source/VantorNames.hpp"

namespace vt::product {

namespace fs = std::filesystem;

namespace {
    // The hicolor sizes an entry's icon is given in, as far as the icon's
    // largest image reaches (48, the theme's fallback size, always).
    constexpr int kIconSizes[] = { 16, 24, 32, 48, 64, 128, 256 };
    constexpr int kAlwaysMadeSize = 48;
    const char* const kBundleIcon = "AppIcon.png";
    const char* const kBottleKey = "X-Vantor-Bottle";
    const char* const kEntryKey = "X-Vantor-StartMenuEntry";

    // One element of an application id: ASCII letters and digits as they
    // are, every other byte (the escape's own '_' included) as _xx, so that
    // different texts never meet; a leading digit is escaped too.
    std::string idElement(const std::string& text)
    {
        static const char* const kHex = "0123456789abcdef";
        std::string out;
        for (size_t i = 0; i < text.size(); ++i) {
            auto c = static_cast<unsigned char>(text[i]);
            bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (i > 0 && c >= '0' && c <= '9');
            if (plain) {
                out += static_cast<char>(c);
            } else {
                out += '_';
                out += kHex[c >> 4];
                out += kHex[c & 0xF];
            }
        }
        return out.empty() ? "_" : out;
    }

    std::string withoutLnk(const std::string& entry)
    {
        return lowerAscii(entry).ends_with(".lnk") ? entry.substr(0, entry.size() - 4) : entry;
    }

    std::string hex64(uint64_t value)
    {
        static const char* const kHex = "0123456789abcdef";
        std::string out(16, '0');
        for (int i = 15; i >= 0; --i, value >>= 4)
            out[static_cast<size_t>(i)] = kHex[value & 0xF];
        return out;
    }

    // The last component of a Windows path (either separator).
    std::string windowsFileName(const std::string& path)
    {
        size_t slash = path.find_last_of("\\/");
        return slash == std::string::npos ? path.substr(path.find(':') + 1) : path.substr(slash + 1);
    }

    // A menu's main category from the words of the shortcut's folders;
    // Utility where none fits.
    std::string categoryOf(const std::string& entry)
    {
        std::string folders = lowerAscii(entry.substr(0, entry.find_last_of('/') + 1));
        const std::pair<const char*, const char*> kinds[] = {
            { "game", "Game" },          { "office", "Office" },         { "graphic", "Graphics" },
            { "internet", "Network" },   { "develop", "Development" },
        };
        // "Programs/" starts almost every entry: only the folders below it count.
        if (folders.starts_with("programs/"))
            folders = folders.substr(9);
        for (const auto& [word, category] : kinds)
            if (folders.find(word) != std::string::npos)
                return category;
        return "Utility";
    }

    // A value of a desktop entry's string or localestring key.
    std::string entryValue(const std::string& text)
    {
        std::string out;
        for (size_t i = 0; i < text.size(); ++i) {
            char c = text[i];
            if (c == '\\')
                out += "\\\\";
            else if (c == '\n')
                out += "\\n";
            else if (c == '\t')
                out += "\\t";
            else if (c == '\r')
                out += "\\r";
            else if (c == ' ' && i == 0)
                out += "\\s";
            else
                out += c;
        }
        return out;
    }

    // One argument of an Exec line: quoted when it holds a reserved
    // character, with ", `, $ and \ escaped inside the quotes; a literal %
    // doubled, since the line's field codes start with one.
    std::string execArgument(const std::string& argument)
    {
        bool quote = argument.empty() || argument.find_first_of(" \t\n\"'\\><~|&;$*?#()`=") != std::string::npos;
        std::string out;
        for (char c : argument) {
            if (c == '%')
                out += "%%";
            else if (quote && (c == '"' || c == '`' || c == '$' || c == '\\'))
                out += std::string("\\") + c;
            else
                out += c;
        }
        return quote ? "\"" + out + "\"" : out;
    }

    std::optional<std::string> readBytes(const fs::path& file)
    {
        std::ifstream in(file, std::ios::binary);
        if (!in)
            return std::nullopt;
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // Writes `bytes` to `file` (whole or not at all) unless it already holds
    // them; whether it wrote.
    bool writeIfChanged(const fs::path& file, const std::string& bytes)
    {
        if (readBytes(file) == bytes)
            return false;
        fs::create_directories(file.parent_path());
        GErrorHolder error;
        if (!g_file_set_contents(file.c_str(), bytes.data(), static_cast<gssize>(bytes.size()), error))
            throw fs::filesystem_error(error.message(), file, std::make_error_code(std::errc::io_error));
        return true;
    }

    // A link at `file` to `target` unless there is one; whether it made it.
    bool linkIfChanged(const fs::path& file, const fs::path& target)
    {
        std::error_code error;
        if (fs::is_symlink(fs::symlink_status(file, error)) && fs::read_symlink(file, error) == target)
            return false;
        fs::create_directories(file.parent_path());
        fs::remove(file, error);
        fs::create_symlink(target, file);
        return true;
    }

    std::string pngBytes(GdkPixbuf* pixbuf)
    {
        gchar* buffer = nullptr;
        gsize size = 0;
        GErrorHolder error;
        if (!gdk_pixbuf_save_to_buffer(pixbuf, &buffer, &size, "png", error, nullptr))
            throw std::runtime_error(std::string("cannot encode an icon as PNG: ") + error.message());
        GCharPtr owned(buffer);
        return std::string(buffer, size);
    }

    // The shared-mime-info types of files with these extensions, sorted;
    // an extension the database does not know gives none.
    std::vector<std::string> mimeTypesOf(const std::vector<std::string>& extensions)
    {
        std::set<std::string> types;
        for (const std::string& extension : extensions) {
            gboolean uncertain = FALSE;
            GCharPtr type(g_content_type_guess(("document." + extension).c_str(), nullptr, 0, &uncertain));
            if (!type || uncertain || g_content_type_is_unknown(type.get()))
                continue;
            GCharPtr mime(g_content_type_get_mime_type(type.get()));
            if (mime)
                types.insert(mime.get());
        }
        return { types.begin(), types.end() };
    }

    std::string infoPlistFor(const ProgramLauncher& program, bool hasIcon)
    {
        PlistDict info {
            { "CFBundleName", program.name },
            { "CFBundleIdentifier", program.identifier },
            { "CFBundleExecutable", program.name },
            { "CFBundlePackageType", "APPL" },
            { "VTHelperAppBottleName", program.bottle },
            { "VantorHelperMenuPath", program.entry },
        };
        if (hasIcon)
            info.emplace("CFBundleIconFile", kBundleIcon);
        if (!program.extensions.empty()) {
            PlistArray extensions(program.extensions.begin(), program.extensions.end());
            info.emplace("CFBundleDocumentTypes",
                         PlistArray { PlistDict { { "CFBundleTypeExtensions", std::move(extensions) },
                                                  { "CFBundleTypeRole", "Editor" } } });
        }
        return toXmlPropertyList(info);
    }

    // The hicolor files of `identifier` that exist now, by size folder.
    std::vector<fs::path> iconFilesOf(const fs::path& icons, const std::string& identifier)
    {
        std::vector<fs::path> files;
        std::error_code error;
        for (const auto& size : fs::directory_iterator(icons, error)) {
            fs::path file = size.path() / "apps" / (identifier + ".png");
            if (fs::exists(fs::symlink_status(file, error)))
                files.push_back(file);
        }
        return files;
    }

    // Removes `folder` and the empty folders above it, up to `top`.
    void removeUpTo(const fs::path& folder, const fs::path& top)
    {
        std::error_code error;
        fs::remove_all(folder, error);
        for (fs::path up = folder.parent_path(); up != top && up.string().starts_with(top.string());
             up = up.parent_path()) {
            if (!fs::is_empty(up, error) || error || !fs::remove(up, error))
                break;
        }
    }

    // The value of `key` in a desktop entry's text, as written.
    std::string keyOf(const std::string& entry, const std::string& key)
    {
        std::istringstream lines(entry);
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with(key + "="))
                return line.substr(key.size() + 1);
        return {};
    }
} // namespace

LauncherPlaces LauncherPlaces::forBottle(const std::string& bottle, const fs::path& launcher)
{
    // The bottles' folder is <data>/Vantor/Bottles.
    fs::path data = bottlesDirectory().parent_path().parent_path();
    return { data / "Vantor/Launchers" / bottle, data / "applications", data / "icons/hicolor", launcher };
}

std::string launcherIdentifier(const std::string& bottle, const std::string& entry)
{
    std::string identifier = std::string(kVantorBundleIdentifier) + "." + idElement(bottle);
    std::string path = withoutLnk(entry);
    for (size_t start = 0; start <= path.size();) {
        size_t end = std::min(path.find('/', start), path.size());
        if (end > start)
            identifier += "." + idElement(path.substr(start, end - start));
        start = end + 1;
    }
    // An application id holds at most 255 bytes: a longer one is named by
    // a digest of what it stands for (FNV-1a), still the same every time.
    if (identifier.size() > 255) {
        uint64_t hash = 0xcbf29ce484222325ULL;
        for (unsigned char c : bottle + '\0' + entry)
            hash = (hash ^ c) * 0x100000001b3ULL;
        identifier = std::string(kVantorBundleIdentifier) + ".launcher_" + hex64(hash);
    }
    return identifier;
}

std::vector<ProgramLauncher> programsInBottle(const std::string& bottle, const fs::path& prefix,
                                              const std::function<void(const std::string&)>& skipped)
{
    auto readRegistry = [&](const char* name) {
        try {
            return RegistryFile::read(prefix / name);
        } catch (const RegistryError& error) {
            skipped(std::string("the bottle's ") + name + " is not read (" + error.what()
                    + "): no document types");
            return RegistryFile::parse("WINE REGISTRY Version 2\n");
        }
    };
    RegistryFile machine = readRegistry("system.reg");
    RegistryFile user = readRegistry("user.reg");

    std::vector<fs::path> folders = startMenuFolders(prefix);
    std::vector<ProgramLauncher> programs;
    for (const std::string& entry : startMenuEntries(folders)) {
        std::string lower = lowerAscii(entry);
        if (lower.starts_with("programs/startup/") || lower.find("/startup/") != std::string::npos)
            continue; // started with the session, not by the user
        std::optional<fs::path> file = findStartMenuEntry(folders, entry);
        ShellLink link;
        try {
            std::optional<std::string> bytes = file ? readBytes(*file) : std::nullopt;
            if (!bytes)
                throw ShellLinkError("it cannot be read");
            link = readShellLink(std::span(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size()));
        } catch (const ShellLinkError& error) {
            skipped(entry + ": " + error.what());
            continue;
        }
        if (!lowerAscii(link.target).ends_with(".exe")) {
            skipped(entry + ": it opens " + (link.target.empty() ? "nothing" : link.target) + ", not a program");
            continue;
        }
        std::optional<fs::path> programFile = unixPathInBottle(prefix, link.target);
        if (!programFile) {
            skipped(entry + ": its program " + link.target + " is not in the bottle");
            continue;
        }
        ProgramLauncher program;
        program.bottle = bottle;
        program.entry = entry;
        program.name = fs::path(withoutLnk(entry)).filename().string();
        program.identifier = launcherIdentifier(bottle, entry);
        program.description = link.description;
        program.program = link.target;
        program.windowClass = lowerAscii(windowsFileName(link.target));
        for (std::string extension : extensionsOpenedBy(machine, user, link.target))
            program.extensions.push_back(extension.substr(1));
        program.iconFile = *programFile;
        program.iconIndex = 0;
        if (!link.iconLocation.empty()) {
            if (auto iconFile = unixPathInBottle(prefix, link.iconLocation)) {
                program.iconFile = *iconFile;
                program.iconIndex = link.iconIndex;
            }
        }
        programs.push_back(std::move(program));
    }
    return programs;
}

std::string desktopEntryFor(const ProgramLauncher& program, const fs::path& executable, bool hasIcon)
{
    std::string text = "[Desktop Entry]\n"
                       "Type=Application\n"
                       "Version=1.4\n"
                       "Name=" + entryValue(program.name) + "\n";
    if (!program.description.empty() && program.description != program.name)
        text += "Comment=" + entryValue(program.description) + "\n";
    text += "Icon=" + entryValue(hasIcon ? program.identifier : "application-x-executable") + "\n";
    text += "TryExec=" + entryValue(executable.string()) + "\n";
    text += "Exec=" + entryValue(execArgument(executable.string()) + " %U") + "\n";
    text += "StartupNotify=true\n";
    text += "StartupWMClass=" + entryValue(program.windowClass) + "\n";
    std::vector<std::string> types = mimeTypesOf(program.extensions);
    if (!types.empty()) {
        text += "MimeType=";
        for (const std::string& type : types)
            text += entryValue(type) + ";";
        text += "\n";
    }
    text += "Categories=" + categoryOf(program.entry) + ";\n";
    text += std::string(kBottleKey) + "=" + entryValue(program.bottle) + "\n";
    text += std::string(kEntryKey) + "=" + entryValue(program.entry) + "\n";
    return text;
}

LauncherChanges updateLaunchers(const std::string& bottle, const std::vector<ProgramLauncher>& programs,
                                const LauncherPlaces& places, const std::function<void(const std::string&)>& say)
{
    LauncherChanges changes;
    std::set<std::string> wanted;
    for (const ProgramLauncher& program : programs) {
        wanted.insert(program.identifier);
        fs::path bundle = places.bundles / (withoutLnk(program.entry) + ".app");
        fs::path executable = bundle / "Contents/MacOS" / program.name;
        fs::path desktopFile = places.applications / (program.identifier + ".desktop");
        bool existed = fs::exists(desktopFile);

        std::vector<IconImage> images;
        {
            GCharPtr scratch(g_dir_make_tmp("vtlaunchers-XXXXXX", nullptr));
            try {
                if (!scratch)
                    throw IconError("no temporary folder for the icon tools");
                images = readProgramIcon(program.iconFile, program.iconIndex, scratch.get());
            } catch (const IconError& error) {
                say(program.name + " has no icon of its own: " + error.what());
            }
            std::error_code error;
            if (scratch)
                fs::remove_all(scratch.get(), error);
        }
        bool hasIcon = !images.empty();

        bool changed = false;
        changed |= linkIfChanged(executable, places.launcher);
        changed |= writeIfChanged(bundle / "Contents/Info.plist", infoPlistFor(program, hasIcon));
        std::set<fs::path> iconFiles;
        if (hasIcon) {
            changed |= writeIfChanged(bundle / "Contents/Resources" / kBundleIcon, pngBytes(images.front().pixbuf.get()));
            int largest = gdk_pixbuf_get_width(images.front().pixbuf.get());
            for (int size : kIconSizes) {
                if (size > largest && size != kAlwaysMadeSize)
                    continue;
                fs::path file = places.icons / (std::to_string(size) + "x" + std::to_string(size)) / "apps"
                    / (program.identifier + ".png");
                changed |= writeIfChanged(file, pngBytes(iconAtSize(images, size).get()));
                iconFiles.insert(file);
            }
        } else {
            std::error_code error;
            changed |= fs::remove(bundle / "Contents/Resources" / kBundleIcon, error);
        }
        // Sizes an earlier icon had and this one has not.
        for (const fs::path& file : iconFilesOf(places.icons, program.identifier)) {
            std::error_code error;
            if (!iconFiles.contains(file))
                changed |= fs::remove(file, error);
        }
        changed |= writeIfChanged(desktopFile, desktopEntryFor(program, executable, hasIcon));
        if (!existed) {
            changes.made.push_back(program.name);
            say("made " + program.name + " (" + program.entry + ")");
        } else if (changed) {
            changes.updated.push_back(program.name);
            say("updated " + program.name + " (" + program.entry + ")");
        }
    }

    // The launchers of this bottle whose shortcut has gone: known by their
    // entries, which name the bottle, and by the bundles left in its folder.
    std::error_code error;
    std::string ownPrefix = std::string(kVantorBundleIdentifier) + ".";
    for (const auto& item : fs::directory_iterator(places.applications, error)) {
        std::string file = item.path().filename().string();
        if (!file.starts_with(ownPrefix) || !file.ends_with(".desktop"))
            continue;
        std::string identifier = file.substr(0, file.size() - 8);
        std::optional<std::string> text = readBytes(item.path());
        if (wanted.contains(identifier) || !text || keyOf(*text, kBottleKey) != entryValue(bottle))
            continue;
        std::string entry = keyOf(*text, kEntryKey);
        std::string name = keyOf(*text, "Name");
        std::error_code removeError;
        fs::remove(item.path(), removeError);
        for (const fs::path& icon : iconFilesOf(places.icons, identifier))
            fs::remove(icon, removeError);
        changes.removed.push_back(name);
        say("removed " + name + (entry.empty() ? "" : " (" + entry + ")"));
    }
    std::set<fs::path> bundles;
    for (const ProgramLauncher& program : programs)
        bundles.insert(places.bundles / (withoutLnk(program.entry) + ".app"));
    std::vector<fs::path> gone;
    for (auto item = fs::recursive_directory_iterator(places.bundles, error); !error && item != fs::end(item);
         item.increment(error)) {
        if (item->path().extension() == ".app") {
            if (!bundles.contains(item->path()))
                gone.push_back(item->path());
            item.disable_recursion_pending();
        }
    }
    for (const fs::path& bundle : gone)
        removeUpTo(bundle, places.bundles);
    return changes;
}

} // namespace vt::product
