#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include "source/FileManager.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;
using namespace vt::test;
namespace fs = std::filesystem;

namespace {

mode_t modeOf(const fs::path& path)
{
    struct stat info {};
    EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

// A tmpfs mounted for the scope: a second device for the trash rules.
class ScratchVolume {
public:
    explicit ScratchVolume(const fs::path& at) : m_path(at)
    {
        fs::create_directory(at);
        m_mounted = mount("vt-test", at.c_str(), "tmpfs", 0, "mode=0755") == 0;
    }
    ~ScratchVolume()
    {
        if (m_mounted)
            umount2(m_path.c_str(), MNT_DETACH);
    }
    bool mounted() const { return m_mounted; }

private:
    fs::path m_path;
    bool m_mounted = false;
};

bool supportsUserXattrs(const fs::path& file)
{
    return setxattr(file.c_str(), "user.vt-probe", "1", 1, 0) == 0 && removexattr(file.c_str(), "user.vt-probe") == 0;
}

bool hasXattr(const fs::path& path, const char* name) { return lgetxattr(path.c_str(), name, nullptr, 0) >= 0; }

} // namespace

TEST(FileManager, CreateDirectoryRecursivelyLeavesWhatExists)
{
    TempDir tmp;
    auto manager = FileManager::vt_fileManager();
    fs::create_directory(tmp / "existing");
    chmod((tmp / "existing").c_str(), 0751);
    writeFile(tmp / "file", "x");

    EXPECT_TRUE(manager->createDirectoryAtPath(tmp / "existing", FileAttributes { fs::perms::owner_all }, true));
    EXPECT_EQ(modeOf(tmp / "existing"), 0751u);
    EXPECT_FALSE(manager->createDirectoryAtPath(tmp / "existing", std::nullopt, false));
    EXPECT_FALSE(manager->createDirectoryAtPath(tmp / "file", std::nullopt, true));
    EXPECT_FALSE(manager->createDirectoryAtPath(tmp / "missing/child", std::nullopt, false));

    // Parents take the child's attributes.
    auto perms = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec;
    EXPECT_TRUE(manager->createDirectoryAtPath(tmp / "a/b/c", FileAttributes { perms }, true));
    EXPECT_EQ(modeOf(tmp / "a"), 0750u);
    EXPECT_EQ(modeOf(tmp / "a/b/c"), 0750u);
    EXPECT_FALSE(fs::exists(tmp / "a/b/c/.localized"));
}

TEST(FileManager, ASystemPathIsOwnerOnlyAndLocalized)
{
    TempDir tmp;
    const std::string documents = tmp / "home/Documents";
    const std::string downloads = tmp / "home/Downloads";
    auto manager = FileManager::fileManagerWithSystemPaths({ documents, downloads });

    EXPECT_TRUE(manager->createDirectoryAtPath(documents, std::nullopt, true));
    EXPECT_EQ(modeOf(documents), 0700u);
    EXPECT_EQ(modeOf(tmp / "home"), 0700u); // the parent created for it too
    ASSERT_TRUE(fs::is_regular_file(documents + "/.localized"));
    EXPECT_EQ(fs::file_size(documents + "/.localized"), 0u);
    EXPECT_FALSE(fs::exists(tmp / "home/.localized"));

    // Permissions given win over owner-only.
    auto open = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec | fs::perms::others_read
                | fs::perms::others_exec;
    EXPECT_TRUE(manager->createDirectoryAtPath(downloads, FileAttributes { open }, false));
    EXPECT_EQ(modeOf(downloads), 0755u);
    EXPECT_TRUE(fs::exists(downloads + "/.localized"));
}

TEST(FileManager, SameFileAndContainmentSeeThroughLinks)
{
    TempDir tmp;
    auto manager = FileManager::vt_fileManager();
    fs::create_directories(tmp / "real/sub");
    writeFile(tmp / "real/sub/file", "x");
    writeFile(tmp / "other", "y");
    fs::create_directory_symlink(tmp / "real", tmp / "link");

    EXPECT_TRUE(manager->isSameFile((tmp / "link").string(), (tmp / "real").string()));
    EXPECT_TRUE(manager->isSameFile((tmp / "link/sub/file").string(), (tmp / "real/sub/file").string()));
    EXPECT_FALSE(manager->isSameFile((tmp / "real/sub/file").string(), (tmp / "other").string()));
    EXPECT_FALSE(manager->isSameFile((tmp / "missing").string(), (tmp / "missing").string()));
    EXPECT_FALSE(manager->isSameFile(std::nullopt, (tmp / "other").string()));

    // A directory given as a link to it holds what is in its target.
    EXPECT_TRUE(manager->isFile((tmp / "real/sub/file").string(), (tmp / "link").string()));
    EXPECT_TRUE(manager->isFile((tmp / "link/sub/file").string(), (tmp / "link").string()));
    EXPECT_TRUE(manager->isFile((tmp / "real/sub").string(), (tmp / "real/sub").string()));
    EXPECT_TRUE(manager->isFile((tmp / "real/sub/../sub/file").string(), (tmp / "real").string()));
    EXPECT_FALSE(manager->isFile((tmp / "other").string(), (tmp / "real").string()));
    EXPECT_FALSE(manager->isFile((tmp / "real").string(), (tmp / "real/sub").string()));
    EXPECT_FALSE(manager->isFile((tmp / "real/missing").string(), (tmp / "real").string()));
    EXPECT_FALSE(manager->isFile((tmp / "other").string(), std::nullopt));
}

TEST(FileManager, RemoveFolderIfEmptyPrunesUpToButNeverTheLimit)
{
    TempDir tmp;
    auto manager = FileManager::vt_fileManager();
    fs::create_directories(tmp / "limit/a/b/c");
    writeFile(tmp / "limit/a/b/.ds_store", "");
    writeFile(tmp / "limit/a/b/c/.DS_Store", "");
    writeFile(tmp / "limit/keep", "");

    manager->removeFolderIfEmpty(tmp / "limit/a/b/c", tmp / "limit");
    EXPECT_FALSE(fs::exists(tmp / "limit/a"));
    EXPECT_TRUE(fs::exists(tmp / "limit/keep"));

    // The limit itself stays however empty it is.
    fs::create_directories(tmp / "empty/x");
    manager->removeFolderIfEmpty(tmp / "empty/x", tmp / "empty");
    EXPECT_FALSE(fs::exists(tmp / "empty/x"));
    EXPECT_TRUE(fs::exists(tmp / "empty"));

    // A folder outside the limit, and one holding something else, stay.
    fs::create_directories(tmp / "outside");
    manager->removeFolderIfEmpty(tmp / "outside", tmp / "empty");
    EXPECT_TRUE(fs::exists(tmp / "outside"));
    fs::create_directories(tmp / "limit/d");
    writeFile(tmp / "limit/d/.DS_Store", "");
    writeFile(tmp / "limit/d/note", "");
    manager->removeFolderIfEmpty(tmp / "limit/d", tmp / "limit");
    EXPECT_TRUE(fs::exists(tmp / "limit/d/.DS_Store"));
}

TEST(FileManager, MakeWritableAddsOnlyTheOwnerWriteBit)
{
    TempDir tmp;
    auto manager = FileManager::vt_fileManager();
    fs::create_directories(tmp / "tree/sub");
    writeFile(tmp / "tree/sub/file", "x");
    chmod((tmp / "tree/sub/file").c_str(), 04444);
    chmod((tmp / "tree/sub").c_str(), 0555);

    EXPECT_TRUE(manager->makeWritableAtPath(tmp / "tree/sub", false));
    EXPECT_EQ(modeOf(tmp / "tree/sub"), 0755u);
    EXPECT_EQ(modeOf(tmp / "tree/sub/file"), 04444u);
    EXPECT_TRUE(manager->makeWritableAtPath(tmp / "tree", true));
    EXPECT_EQ(modeOf(tmp / "tree/sub/file"), 04644u);

    StderrCapture captured;
    EXPECT_FALSE(manager->makeWritableAtPath(tmp / "missing", true));
    EXPECT_NE(captured.text().find("-[NSFileManager(VantorAdditions) makeWritableAtPath:recursively:]: "
                                   "Could not obtain file attributes for "
                                   + (tmp / "missing").string() + ": No such file or directory\n"),
              std::string::npos)
        << captured.text();
}

// Root may change any file, so the failures come from a child that gives up
// root for an unprivileged user over a tree it owns, where two entries
// belong to root.
TEST(FileManager, MakeWritableReportsOnlyTheFirstFailureAndGoesOn)
{
    if (getuid() != 0)
        GTEST_SKIP() << "needs root to hand the tree to another user";
    TempDir tmp;
    const uid_t nobody = 65534;
    chmod(tmp.path().c_str(), 0755);
    fs::create_directories(tmp / "tree/sub");
    writeFile(tmp / "tree/a-root", "");
    writeFile(tmp / "tree/sub/b-root", "");
    writeFile(tmp / "tree/sub/mine", "");
    for (const char* name : { "tree", "tree/sub", "tree/sub/mine" })
        ASSERT_EQ(chown((tmp / name).c_str(), nobody, nobody), 0);
    for (const char* name : { "tree/a-root", "tree/sub/b-root", "tree/sub/mine" })
        chmod((tmp / name).c_str(), 0444);

    StderrCapture captured;
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(nobody) != 0 || setuid(nobody) != 0)
            _exit(2);
        _exit(FileManager::vt_fileManager()->makeWritableAtPath(tmp / "tree", true) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1); // answered NO
    std::string text = captured.text();
    const std::string failure = "-[NSFileManager(VantorAdditions) makeWritableAtPath:recursively:]: "
                                "Could not change file attributes for ";
    size_t first = text.find(failure);
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_EQ(text.find("Could not change file attributes", first + failure.size()), std::string::npos) << text;
    EXPECT_NE(text.find(": Operation not permitted\n"), std::string::npos) << text;
    EXPECT_EQ(modeOf(tmp / "tree/sub/mine"), 0644u); // the walk went on
}

TEST(FileManager, TrashOnTheHomeDevice)
{
    TempDir tmp;
    ScopedEnvironment environment;
    environment.set("XDG_DATA_HOME", tmp / "data");
    auto manager = FileManager::vt_fileManager();
    writeFile(tmp / "file", "x");

    auto trash = manager->trashForFile((tmp / "file").string());
    ASSERT_TRUE(trash);
    EXPECT_EQ(*trash, (tmp / "data/Trash").string());
    EXPECT_EQ(modeOf(*trash), 0700u);
    EXPECT_FALSE(manager->isFileInTrash(tmp / "file"));
    fs::rename(tmp / "file", tmp / "data/Trash/files/file");
    EXPECT_TRUE(manager->isFileInTrash(tmp / "data/Trash/files/file"));
    EXPECT_FALSE(manager->trashForFile(std::nullopt));
}

TEST(FileManager, TrashOnAnotherVolume)
{
    TempDir tmp;
    ScratchVolume volume(tmp / "volume");
    if (!volume.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs here: " << g_strerror(errno);
    auto manager = FileManager::vt_fileManager();
    const fs::path top = tmp / "volume";
    const std::string uid = std::to_string(getuid());
    fs::create_directories(top / "dir");
    writeFile(top / "dir/file", "x");

    // No shared trash: the user's own one at the top, made owner-only.
    EXPECT_EQ(manager->trashForFile((top / "dir/file").string()), (top / (".Trash-" + uid)).string());
    EXPECT_EQ(modeOf(top / (".Trash-" + uid)), 0700u);

    // A shared trash counts only when it is a sticky folder, not a link.
    fs::create_directory(tmp / "elsewhere");
    chmod((tmp / "elsewhere").c_str(), 01777);
    fs::create_directory_symlink(tmp / "elsewhere", top / ".Trash");
    EXPECT_EQ(manager->trashForFile((top / "dir/file").string()), (top / (".Trash-" + uid)).string());
    fs::remove(top / ".Trash");
    fs::create_directory(top / ".Trash");
    chmod((top / ".Trash").c_str(), 0777);
    EXPECT_EQ(manager->trashForFile((top / "dir/file").string()), (top / (".Trash-" + uid)).string());
    chmod((top / ".Trash").c_str(), 01777);
    EXPECT_EQ(manager->trashForFile((top / "dir/file").string()), (top / ".Trash" / uid).string());
    EXPECT_EQ(modeOf(top / ".Trash" / uid), 0700u);
    EXPECT_FALSE(manager->isFileInTrash(top / "dir/file"));
    fs::rename(top / "dir/file", top / ".Trash" / uid / "file");
    EXPECT_TRUE(manager->isFileInTrash(top / ".Trash" / uid / "file"));
}

TEST(FileManager, BookmarksFollowARenameAndRefuseTheTrash)
{
    TempDir tmp;
    ScopedEnvironment environment;
    environment.set("XDG_DATA_HOME", tmp / "data");
    auto manager = FileManager::vt_fileManager();
    fs::create_directory(tmp / "docs");
    writeFile(tmp / "docs/a", "a");
    writeFile(tmp / "docs/b", "b");
    auto a = manager->bookmarkDataFromPath(tmp / "docs/a");
    auto b = manager->bookmarkDataFromPath(tmp / "docs/b");
    ASSERT_TRUE(a && b);
    EXPECT_FALSE(manager->bookmarkDataFromPath(tmp / "missing"));
    EXPECT_FALSE(manager->pathFromBookmarkData({}, nullptr));

    bool stale = true;
    EXPECT_EQ(manager->pathFromBookmarkData(*a, &stale), (tmp / "docs/a").string());
    EXPECT_FALSE(stale);

    fs::rename(tmp / "docs/a", tmp / "docs/renamed");
    EXPECT_EQ(manager->pathFromBookmarkData(*a, &stale), (tmp / "docs/renamed").string());
    EXPECT_TRUE(stale);

    // Replaced at its path by another item: the path, marked stale.
    writeFile(tmp / "docs/a", "new");
    fs::rename(tmp / "docs/renamed", tmp / "moved-away");
    stale = false;
    EXPECT_EQ(manager->pathFromBookmarkData(*a, &stale), (tmp / "docs/a").string());
    EXPECT_TRUE(stale);

    // Moved to the trash, or made of an item in it: nil.
    auto trash = manager->trashForFile((tmp / "docs/b").string());
    ASSERT_TRUE(trash);
    fs::rename(tmp / "docs/b", fs::path(*trash) / "files/b");
    EXPECT_FALSE(manager->pathFromBookmarkData(*b, nullptr));
    auto inTrash = manager->bookmarkDataFromPath(fs::path(*trash) / "files/b");
    ASSERT_TRUE(inTrash);
    EXPECT_FALSE(manager->pathFromBookmarkData(*inTrash, nullptr));

    fs::remove(tmp / "moved-away");
    fs::remove(tmp / "docs/a");
    EXPECT_FALSE(manager->pathFromBookmarkData(*a, nullptr));
    EXPECT_FALSE(manager->pathFromBookmarkData({ 'x', 'y' }, nullptr));
}

TEST(FileManager, QuarantineAttributesAreClearedFromATree)
{
    TempDir tmp;
    fs::create_directories(tmp / "download/sub");
    writeFile(tmp / "download/file", "x");
    writeFile(tmp / "download/sub/deep", "y");
    if (!supportsUserXattrs(tmp / "download/file"))
        GTEST_SKIP() << "the file system of " << tmp.path() << " refuses user extended attributes";
    std::vector<fs::path> items { tmp / "download", tmp / "download/file", tmp / "download/sub/deep" };
    for (const fs::path& item : items) {
        ASSERT_EQ(setxattr(item.c_str(), "user.xdg.origin.url", "https://example.org/", 20, 0), 0);
        ASSERT_EQ(setxattr(item.c_str(), "user.xdg.referrer.url", "https://example.org", 19, 0), 0);
        ASSERT_EQ(setxattr(item.c_str(), "user.other", "keep", 4, 0), 0);
    }
    fs::create_symlink("file", tmp / "download/link");
    auto manager = FileManager::vt_fileManager();

    std::string error;
    ASSERT_TRUE(manager->copyAndClearQuarantineItemAtPath(tmp / "download", tmp / "copy", &error)) << error;
    EXPECT_EQ(fs::read_symlink(tmp / "copy/link"), "file");
    EXPECT_EQ(readFile(tmp / "copy/sub/deep"), "y");
    for (const char* name : { "copy", "copy/file", "copy/sub/deep" }) {
        EXPECT_FALSE(hasXattr(tmp / name, "user.xdg.origin.url")) << name;
        EXPECT_FALSE(hasXattr(tmp / name, "user.xdg.referrer.url")) << name;
        EXPECT_TRUE(hasXattr(tmp / name, "user.other")) << name; // copied with the item, and left
    }
    EXPECT_TRUE(hasXattr(tmp / "download/sub/deep", "user.xdg.origin.url")); // the source keeps its own

    EXPECT_FALSE(manager->copyAndClearQuarantineItemAtPath(tmp / "download", tmp / "copy", &error));
    EXPECT_FALSE(error.empty());

    manager->clearQuarantine(tmp / "download");
    for (const fs::path& item : items) {
        EXPECT_FALSE(hasXattr(item, "user.xdg.origin.url")) << item;
        EXPECT_FALSE(hasXattr(item, "user.xdg.referrer.url")) << item;
    }
}

TEST(FileManager, DisplayStringAndTemporaryPath)
{
    TempDir tmp;
    ScopedEnvironment environment;
    environment.set("HOME", tmp / "home");
    auto manager = FileManager::vt_fileManager();
    EXPECT_EQ(manager->getDisplayStringForPath(tmp / "home/Documents/a"),
              std::string(g_get_user_name()) + " \u25B9 Documents \u25B9 a");
    EXPECT_EQ(manager->getDisplayStringForPath(tmp / "home"), g_get_user_name());
    EXPECT_EQ(manager->getDisplayStringForPath("/usr/share"), "usr \u25B9 share");
    EXPECT_EQ(manager->getDisplayStringForPath(tmp / "homely"),
              manager->getDisplayStringForPath(tmp.path()) + " \u25B9 homely");

    auto path = manager->temporaryPathFromTemplate("vt-test.XXXXXX");
    ASSERT_TRUE(path);
    EXPECT_EQ(fs::path(*path).parent_path(), fs::path(g_get_tmp_dir()));
    EXPECT_EQ(fs::path(*path).filename().string().substr(0, 8), "vt-test.");
    EXPECT_EQ(path->find("XXXXXX"), std::string::npos);
    EXPECT_FALSE(fs::exists(*path));
    EXPECT_FALSE(manager->temporaryPathFromTemplate("no-placeholder"));
}
