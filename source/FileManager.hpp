// The product's file operations beyond the standard library's: a private
// file manager per caller, directory creation that treats the well-known
// system folders specially, same-file and containment tests that see through
// symbolic links (device and inode, as GIO's file id gives them), the XDG
// trash, bookmarks, making a tree writable, pruning empty folders, and
// clearing what a desktop records about where a download came from.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vt {

// What a caller may be asked while the file manager works; every answer
// defaults to going on. A caller's delegate concerns only its own manager.
class FileManagerDelegate {
public:
    virtual ~FileManagerDelegate() = default;
};

// Attributes of a directory to create; POSIX permissions when set.
struct FileAttributes {
    std::optional<std::filesystem::perms> posixPermissions;
};

class FileManager {
public:
    // A new manager each call, never a shared one.
    static std::unique_ptr<FileManager> vt_fileManagerWithDelegate(FileManagerDelegate* delegate);
    static std::unique_ptr<FileManager> vt_fileManager();

    // The well-known folders of the user and the system, built once per
    // process. The sixteen kinds of folder the set is made of, each in the
    // user's, the local and the system's domain, are on Linux:
    //   applications, all applications:  $XDG_DATA_HOME/applications,
    //       /usr/local/share/applications, /usr/share/applications
    //   library, all libraries, application support:  $XDG_DATA_HOME,
    //       /usr/local/share, /usr/share
    //   documentation:  /usr/local/share/doc, /usr/share/doc
    //   user home folders:  the folder that holds the home folder (/home)
    //   documents, desktop, downloads:  the XDG user directories, when set
    //       and not the home folder itself
    //   caches:  $XDG_CACHE_HOME, /var/cache
    //   demo, developer and administration applications, developer, core
    //       services:  nothing; Linux has no such folders.
    static const std::set<std::string>& systemPaths();

    FileManagerDelegate* delegate() const { return m_delegate; }

    // Bookmark data on Linux is the item's path with its device and inode.
    // Resolving it answers the path while it still holds that inode; an item
    // renamed within its folder is found there again by its inode (stale is
    // then set), an item replaced by another at the same path gives the path
    // with stale set, and an item gone gives nil. An item in the trash,
    // including one moved there after the bookmark was made, gives nil.

    bool createDirectoryAtPath(const std::string& path, std::optional<FileAttributes> attributes, bool recursively);
    bool isSameFile(const std::optional<std::string>& path, const std::optional<std::string>& other);
    bool isFile(const std::optional<std::string>& file, const std::optional<std::string>& directory);
    std::string getDisplayStringForPath(const std::string& path);
    std::optional<std::string> temporaryPathFromTemplate(const std::string& templateName);
    std::optional<std::vector<uint8_t>> bookmarkDataFromPath(const std::string& path);
    std::optional<std::string> pathFromBookmarkData(const std::vector<uint8_t>& data, bool* stale);
    bool makeWritableAtPath(const std::string& path, bool recursively);
    void removeFolderIfEmpty(const std::string& folder, const std::string& limit);
    bool isFileInTrash(const std::string& path);
    std::optional<std::string> trashForFile(const std::optional<std::string>& path);
    bool copyAndClearQuarantineItemAtPath(const std::string& source, const std::string& destination,
                                          std::string* error);
    void clearQuarantine(const std::string& path);

    // A manager that takes `paths` for the system paths instead of the
    // process's own folders, so that their rules can be tried in a scratch
    // tree.
    static std::unique_ptr<FileManager> fileManagerWithSystemPaths(std::set<std::string> paths);

private:
    explicit FileManager(FileManagerDelegate* delegate) : m_delegate(delegate) {}
    const std::set<std::string>& currentSystemPaths() const;

    FileManagerDelegate* m_delegate = nullptr;
    std::optional<std::set<std::string>> m_systemPaths;
};

} // namespace vt
