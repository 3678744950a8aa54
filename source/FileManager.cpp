#include "source/FileManager.hpp"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <random>

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "base/glib_glue.hpp"

namespace fs = std::filesystem;

namespace vt {

namespace {

    std::string homeFolder()
    {
        if (const char* home = std::getenv("HOME"); home && *home)
            return home;
        if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir)
            return entry->pw_dir;
        return "/";
    }

    // Read from the environment at each call rather than through GLib's
    // cached getters, so that a change of the environment is seen.
    std::string dataHome()
    {
        if (const char* data = std::getenv("XDG_DATA_HOME"); data && data[0] == '/')
            return data;
        return homeFolder() + "/.local/share";
    }

    std::string cacheHome()
    {
        if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache && cache[0] == '/')
            return cache;
        return homeFolder() + "/.cache";
    }

    // An absolute path without "." and ".." components and without a
    // trailing separator.
    fs::path normalized(const fs::path& path)
    {
        std::error_code ignored;
        fs::path result = fs::absolute(path, ignored).lexically_normal();
        std::string text = result.string();
        while (text.size() > 1 && text.back() == '/')
            text.pop_back();
        return text;
    }

    // The identity of an item: GIO's file id, its device and inode. Links are
    // resolved when `followLinks` is set; `isLink` tells whether the path
    // itself is a symbolic link.
    std::optional<std::string> fileIdentifier(const std::string& path, bool followLinks, bool* isLink = nullptr)
    {
        GPtr<GFile> file = adopt(g_file_new_for_path(path.c_str()));
        const char* attributes = G_FILE_ATTRIBUTE_ID_FILE "," G_FILE_ATTRIBUTE_STANDARD_IS_SYMLINK;
        GPtr<GFileInfo> info = adopt(g_file_query_info(file.get(), attributes,
                                                       followLinks ? G_FILE_QUERY_INFO_NONE
                                                                   : G_FILE_QUERY_INFO_NOFOLLOW_SYMLINKS,
                                                       nullptr, nullptr));
        if (!info)
            return std::nullopt;
        const char* id = g_file_info_get_attribute_string(info.get(), G_FILE_ATTRIBUTE_ID_FILE);
        if (!id || !*id)
            return std::nullopt;
        if (isLink)
            *isLink = g_file_info_get_attribute_boolean(info.get(), G_FILE_ATTRIBUTE_STANDARD_IS_SYMLINK);
        return std::string(id);
    }

    // The names in `folder` but "." and ".."; nothing when it cannot be listed.
    std::optional<std::vector<std::string>> entryNames(const std::string& folder)
    {
        DIR* directory = opendir(folder.c_str());
        if (!directory)
            return std::nullopt;
        std::vector<std::string> names;
        while (dirent* entry = readdir(directory)) {
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
                names.emplace_back(entry->d_name);
        }
        closedir(directory);
        return names;
    }

    // Every item below `root`, a folder before what it holds, without
    // descending into symbolic links to folders. Folders that cannot be
    // read are passed over.
    void forEachBelow(const std::string& root, const std::function<void(const std::string&)>& visit)
    {
        std::optional<std::vector<std::string>> names = entryNames(root);
        if (!names)
            return;
        for (const std::string& name : *names) {
            std::string path = root + "/" + name;
            visit(path);
            struct stat info;
            if (lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
                forEachBelow(path, visit);
        }
    }

    std::set<std::string> buildSystemPaths()
    {
        std::set<std::string> paths;
        const std::string home = homeFolder();
        auto add = [&](const std::string& path) {
            if (!path.empty() && path != home)
                paths.insert(normalized(path).string());
        };
        auto addSpecial = [&](GUserDirectory kind) {
            if (const char* path = g_get_user_special_dir(kind))
                add(path);
        };
        const std::string data = dataHome();
        // applications and all applications
        add(data + "/applications");
        add("/usr/local/share/applications");
        add("/usr/share/applications");
        // library, all libraries and application support
        add(data);
        add("/usr/local/share");
        add("/usr/share");
        // user home folders
        add(normalized(home).parent_path().string());
        // documentation
        add("/usr/local/share/doc");
        add("/usr/share/doc");
        addSpecial(G_USER_DIRECTORY_DOCUMENTS);
        addSpecial(G_USER_DIRECTORY_DESKTOP);
        // caches
        add(cacheHome());
        add("/var/cache");
        addSpecial(G_USER_DIRECTORY_DOWNLOAD);
        return paths;
    }

    // The method's name as the product logs it on every platform, so that one
    // search of a log finds these messages wherever they came from.
    constexpr const char* kMakeWritable = "-[NSFileManager(VantorAdditions) makeWritableAtPath:recursively:]";

    bool isDotDSStore(const char* name) { return g_ascii_strcasecmp(name, ".DS_Store") == 0; }

    // The trash folder for items on the device of `path`, created if needed.
    std::optional<std::string> trashFolderFor(const std::string& path);

    struct Bookmark {
        dev_t device = 0;
        ino_t inode = 0;
        std::string path;
    };

    std::vector<uint8_t> encodeBookmark(const Bookmark& bookmark)
    {
        std::string text = "vt-bookmark 1\n" + std::to_string(static_cast<unsigned long long>(bookmark.device))
                           + " " + std::to_string(static_cast<unsigned long long>(bookmark.inode)) + "\n"
                           + bookmark.path;
        return std::vector<uint8_t>(text.begin(), text.end());
    }

    std::optional<Bookmark> decodeBookmark(const std::vector<uint8_t>& data)
    {
        std::string text(data.begin(), data.end());
        const std::string magic = "vt-bookmark 1\n";
        if (text.compare(0, magic.size(), magic) != 0)
            return std::nullopt;
        size_t lineEnd = text.find('\n', magic.size());
        if (lineEnd == std::string::npos || lineEnd + 1 >= text.size())
            return std::nullopt;
        unsigned long long device = 0, inode = 0;
        if (std::sscanf(text.c_str() + magic.size(), "%llu %llu", &device, &inode) != 2)
            return std::nullopt;
        return Bookmark { static_cast<dev_t>(device), static_cast<ino_t>(inode), text.substr(lineEnd + 1) };
    }

    bool holds(const std::string& path, const Bookmark& bookmark)
    {
        struct stat info;
        return stat(path.c_str(), &info) == 0 && info.st_dev == bookmark.device && info.st_ino == bookmark.inode;
    }

    // The entry of `folder` (not below it) that is the bookmarked item.
    std::optional<std::string> findIn(const std::string& folder, const Bookmark& bookmark)
    {
        DIR* directory = opendir(folder.c_str());
        if (!directory)
            return std::nullopt;
        std::optional<std::string> found;
        while (dirent* entry = readdir(directory)) {
            if (entry->d_ino != bookmark.inode || std::strcmp(entry->d_name, ".") == 0
                || std::strcmp(entry->d_name, "..") == 0)
                continue;
            std::string candidate = folder + "/" + entry->d_name;
            if (holds(candidate, bookmark)) {
                found = candidate;
                break;
            }
        }
        closedir(directory);
        return found;
    }

    // Copies one item and what is below it, with its extended attributes
    // and permissions, links as links; the destination must not exist.
    bool copyTree(GFile* source, GFile* destination, GError** error)
    {
        GFileType type = g_file_query_file_type(source, G_FILE_QUERY_INFO_NOFOLLOW_SYMLINKS, nullptr);
        if (type != G_FILE_TYPE_DIRECTORY)
            return g_file_copy(source, destination,
                               static_cast<GFileCopyFlags>(G_FILE_COPY_NOFOLLOW_SYMLINKS | G_FILE_COPY_ALL_METADATA),
                               nullptr, nullptr, nullptr, error);
        if (!g_file_make_directory(destination, nullptr, error))
            return false;
        std::unique_ptr<GFileEnumerator, decltype(&g_object_unref)> children(
            g_file_enumerate_children(source, G_FILE_ATTRIBUTE_STANDARD_NAME, G_FILE_QUERY_INFO_NOFOLLOW_SYMLINKS,
                                      nullptr, error),
            &g_object_unref);
        if (!children)
            return false;
        for (;;) {
            GFileInfo* info = nullptr;
            GFile* child = nullptr;
            if (!g_file_enumerator_iterate(children.get(), &info, &child, nullptr, error))
                return false;
            if (!info)
                break;
            GPtr<GFile> target = adopt(g_file_get_child(destination, g_file_info_get_name(info)));
            if (!copyTree(child, target.get(), error))
                return false;
        }
        // The folder's own attributes last, so that a read-only folder is
        // filled before it becomes read-only.
        return g_file_copy_attributes(source, destination,
                                      static_cast<GFileCopyFlags>(G_FILE_COPY_NOFOLLOW_SYMLINKS
                                                                  | G_FILE_COPY_ALL_METADATA),
                                      nullptr, error);
    }

} // namespace

// MARK: Managers and system paths

std::unique_ptr<FileManager> FileManager::vt_fileManagerWithDelegate(FileManagerDelegate* delegate)
{
    return std::unique_ptr<FileManager>(new FileManager(delegate));
}

std::unique_ptr<FileManager> FileManager::vt_fileManager() { return vt_fileManagerWithDelegate(nullptr); }

std::unique_ptr<FileManager> FileManager::fileManagerWithSystemPaths(std::set<std::string> paths)
{
    auto manager = vt_fileManager();
    manager->m_systemPaths = std::move(paths);
    return manager;
}

const std::set<std::string>& FileManager::systemPaths()
{
    static std::mutex lock;
    static std::optional<std::set<std::string>> paths;
    std::lock_guard<std::mutex> guard(lock);
    if (!paths)
        paths = buildSystemPaths();
    return *paths;
}

const std::set<std::string>& FileManager::currentSystemPaths() const
{
    return m_systemPaths ? *m_systemPaths : systemPaths();
}

// MARK: Directories

bool FileManager::createDirectoryAtPath(const std::string& path, std::optional<FileAttributes> attributes,
                                        bool recursively)
{
    const bool isSystemPath = currentSystemPaths().contains(path);
    if (isSystemPath && !(attributes && attributes->posixPermissions)) {
        if (!attributes)
            attributes = FileAttributes {};
        attributes->posixPermissions = fs::perms::owner_all;
    }
    if (recursively) {
        struct stat info;
        if (stat(path.c_str(), &info) == 0)
            return S_ISDIR(info.st_mode);
        std::string parent = fs::path(path).parent_path().string();
        while (parent.size() > 1 && parent.back() == '/')
            parent.pop_back();
        if (!parent.empty() && parent != path && !createDirectoryAtPath(parent, attributes, true))
            return false;
    }
    if (mkdir(path.c_str(), 0777) != 0)
        return false;
    if (attributes && attributes->posixPermissions
        && chmod(path.c_str(), static_cast<mode_t>(*attributes->posixPermissions) & 07777) != 0)
        return false;
    if (isSystemPath) {
        int fd = open((path + "/.localized").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0)
            close(fd);
    }
    return true;
}

void FileManager::removeFolderIfEmpty(const std::string& folder, const std::string& limit)
{
    std::string current = folder;
    while (isFile(current, limit) && !isSameFile(current, limit)) {
        std::optional<std::vector<std::string>> listed = entryNames(current);
        if (!listed)
            return;
        const std::vector<std::string>& names = *listed;
        if (names.size() > 1 || (names.size() == 1 && !isDotDSStore(names[0].c_str())))
            return;
        if (names.size() == 1 && unlink((current + "/" + names[0]).c_str()) != 0)
            return;
        if (rmdir(current.c_str()) != 0)
            return;
        current = normalized(current).parent_path().string();
    }
}

// MARK: Identity

bool FileManager::isSameFile(const std::optional<std::string>& path, const std::optional<std::string>& other)
{
    if (!path || !other)
        return false;
    auto first = fileIdentifier(*path, true);
    auto second = fileIdentifier(*other, true);
    return first && second && *first == *second;
}

bool FileManager::isFile(const std::optional<std::string>& file, const std::optional<std::string>& directory)
{
    if (!file || !directory)
        return false;
    bool isLink = false;
    auto directoryId = fileIdentifier(*directory, false, &isLink);
    if (!directoryId)
        return false;
    std::optional<std::string> targetId;
    if (isLink)
        targetId = fileIdentifier(*directory, true);
    fs::path current = normalized(*file);
    for (;;) {
        auto id = fileIdentifier(current.string(), false);
        if (!id)
            return false;
        if (*id == *directoryId || (targetId && *id == *targetId))
            return true;
        if (current == "/")
            return false;
        current = current.parent_path();
    }
}

// MARK: Writable trees

bool FileManager::makeWritableAtPath(const std::string& path, bool recursively)
{
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) {
        platformLog("%s: Could not obtain file attributes for %@: %@\n", kMakeWritable, path, g_strerror(errno));
        return false;
    }
    if (!(info.st_mode & S_IWUSR) && chmod(path.c_str(), (info.st_mode & 07777) | S_IWUSR) != 0) {
        platformLog("%s: Could not change file attributes for %@: %@\n", kMakeWritable, path, g_strerror(errno));
        return false;
    }
    if (!recursively || !S_ISDIR(info.st_mode))
        return true;
    DIR* probe = opendir(path.c_str());
    if (!probe) {
        platformLog("%s: Could not make directory enumerator for %@\n", kMakeWritable, path);
        return false;
    }
    closedir(probe);
    bool failed = false;
    forEachBelow(path, [&](const std::string& entry) {
        struct stat entryInfo;
        if (lstat(entry.c_str(), &entryInfo) != 0 || (entryInfo.st_mode & S_IWUSR))
            return;
        if (chmod(entry.c_str(), (entryInfo.st_mode & 07777) | S_IWUSR) != 0) {
            if (!failed)
                platformLog("%s: Could not change file attributes for %@: %@\n", kMakeWritable, entry,
                            g_strerror(errno));
            failed = true;
        }
    });
    return !failed;
}

// MARK: Trash

namespace {

    bool makeOwnerOnlyFolder(const std::string& path)
    {
        if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
            return false;
        struct stat info;
        return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    }

    // The top folder of the mount that holds `path`: the highest ancestor
    // on the same device.
    std::string topFolder(const std::string& path, dev_t device)
    {
        fs::path current = path;
        while (current != "/") {
            fs::path parent = current.parent_path();
            struct stat info;
            if (stat(parent.c_str(), &info) != 0 || info.st_dev != device)
                break;
            current = parent;
        }
        return current.string();
    }

    std::optional<std::string> trashFolderFor(const std::string& path)
    {
        // The item may be a link or not exist yet; its folder decides.
        fs::path absolute = normalized(path);
        struct stat info;
        if (lstat(absolute.c_str(), &info) != 0 && stat(absolute.parent_path().c_str(), &info) != 0)
            return std::nullopt;
        const std::string home = homeFolder();
        struct stat homeInfo;
        if (stat(home.c_str(), &homeInfo) == 0 && homeInfo.st_dev == info.st_dev) {
            std::string trash = dataHome() + "/Trash";
            if (g_mkdir_with_parents(trash.c_str(), 0700) != 0)
                return std::nullopt;
            g_mkdir_with_parents((trash + "/files").c_str(), 0700);
            g_mkdir_with_parents((trash + "/info").c_str(), 0700);
            return trash;
        }
        char* resolved = realpath(absolute.parent_path().c_str(), nullptr);
        if (!resolved)
            return std::nullopt;
        struct stat folderInfo;
        // An item that is itself a mount point is the top of its own device.
        std::string top = stat(resolved, &folderInfo) == 0 && folderInfo.st_dev == info.st_dev
                              ? topFolder(resolved, info.st_dev)
                              : (fs::path(resolved) / absolute.filename()).string();
        free(resolved);
        if (top == "/")
            top.clear();
        const std::string uid = std::to_string(getuid());
        struct stat shared;
        std::string sharedTrash = top + "/.Trash";
        if (lstat(sharedTrash.c_str(), &shared) == 0 && S_ISDIR(shared.st_mode) && (shared.st_mode & S_ISVTX)) {
            std::string trash = sharedTrash + "/" + uid;
            if (makeOwnerOnlyFolder(trash))
                return trash;
        }
        std::string trash = top + "/.Trash-" + uid;
        if (makeOwnerOnlyFolder(trash))
            return trash;
        return std::nullopt;
    }

} // namespace

std::optional<std::string> FileManager::trashForFile(const std::optional<std::string>& path)
{
    if (!path)
        return std::nullopt;
    return trashFolderFor(*path);
}

bool FileManager::isFileInTrash(const std::string& path) { return isFile(path, trashForFile(path)); }

// MARK: Display and temporary names

std::string FileManager::getDisplayStringForPath(const std::string& path)
{
    auto components = [](const std::string& of) {
        std::vector<std::string> result;
        fs::path current = normalized(of);
        while (current != "/" && !current.empty()) {
            GCharPtr name(g_filename_display_basename(current.c_str()));
            result.insert(result.begin(), name.get());
            current = current.parent_path();
        }
        if (result.empty())
            result.emplace_back("/");
        return result;
    };
    std::vector<std::string> home = components(homeFolder());
    std::vector<std::string> shown = components(path);
    if (shown.size() >= home.size() && std::equal(home.begin(), home.end(), shown.begin())) {
        shown.erase(shown.begin(), shown.begin() + static_cast<std::ptrdiff_t>(home.size()));
        shown.insert(shown.begin(), g_get_user_name());
    }
    std::string result;
    for (size_t i = 0; i < shown.size(); ++i)
        result += (i ? " \u25B9 " : "") + shown[i];
    return result;
}

std::optional<std::string> FileManager::temporaryPathFromTemplate(const std::string& templateName)
{
    // mktemp's rule, without mktemp itself (the linker warns about it): the
    // trailing X characters become random letters and digits, giving a name
    // that is free now. Nothing is created.
    std::string path = (fs::path(g_get_tmp_dir()) / templateName).string();
    size_t xs = 0;
    while (xs < path.size() && path[path.size() - 1 - xs] == 'X')
        ++xs;
    if (xs == 0 || templateName.find('\0') != std::string::npos)
        return std::nullopt;
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::random_device seed;
    std::mt19937_64 random(seed());
    for (int attempt = 0; attempt < 1000; ++attempt) {
        for (size_t i = path.size() - xs; i < path.size(); ++i)
            path[i] = letters[random() % (sizeof letters - 1)];
        struct stat info;
        if (lstat(path.c_str(), &info) != 0 && errno == ENOENT)
            return path;
    }
    return std::nullopt;
}

// MARK: Bookmarks

std::optional<std::vector<uint8_t>> FileManager::bookmarkDataFromPath(const std::string& path)
{
    std::string absolute = normalized(path).string();
    struct stat info;
    if (stat(absolute.c_str(), &info) != 0)
        return std::nullopt;
    return encodeBookmark(Bookmark { info.st_dev, info.st_ino, absolute });
}

std::optional<std::string> FileManager::pathFromBookmarkData(const std::vector<uint8_t>& data, bool* stale)
{
    if (data.empty())
        return std::nullopt;
    auto bookmark = decodeBookmark(data);
    if (!bookmark)
        return std::nullopt;
    std::optional<std::string> path;
    bool isStale = false;
    struct stat info;
    if (holds(bookmark->path, *bookmark)) {
        path = bookmark->path;
    } else if (auto renamed = findIn(fs::path(bookmark->path).parent_path().string(), *bookmark)) {
        path = renamed;
        isStale = true;
    } else if (stat(bookmark->path.c_str(), &info) == 0) {
        path = bookmark->path;
        isStale = true;
    } else if (auto trash = trashFolderFor(bookmark->path)) {
        // Moved to the trash: found there only to be refused below.
        path = findIn(*trash + "/files", *bookmark);
        if (!path)
            path = findIn(*trash, *bookmark);
    }
    if (path && isFileInTrash(*path))
        return std::nullopt;
    if (!path)
        return std::nullopt;
    if (stale)
        *stale = isStale;
    return path;
}

// MARK: Quarantine

bool FileManager::copyAndClearQuarantineItemAtPath(const std::string& source, const std::string& destination,
                                                   std::string* error)
{
    GPtr<GFile> from = adopt(g_file_new_for_path(source.c_str()));
    GPtr<GFile> to = adopt(g_file_new_for_path(destination.c_str()));
    GError* failure = nullptr;
    if (!copyTree(from.get(), to.get(), &failure)) {
        if (error)
            *error = failure ? failure->message : "copy failed";
        g_clear_error(&failure);
        return false;
    }
    clearQuarantine(destination);
    return true;
}

void FileManager::clearQuarantine(const std::string& path)
{
    // What Linux desktops record about where a download came from.
    auto clear = [](const std::string& item) {
        lremovexattr(item.c_str(), "user.xdg.origin.url");
        lremovexattr(item.c_str(), "user.xdg.referrer.url");
    };
    clear(path);
    forEachBelow(path, clear);
}

} // namespace vt
