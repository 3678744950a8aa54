// The product's vtlaunchers on a bottle-shaped tree, without Wine: the
// shortcuts, the registry with its classes and scratchpad.exe (cross-built,
// with its icon resource) lie where Wine puts them; the bundles, icons and
// desktop entries are read back as the launcher and the desktop read them.
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "base/glib_glue.hpp"
#include "product/launchers/BottleLaunchers.hpp"
#include "product/launchers/ShellLink.hpp"
#include "product/windows/scratchpad-icon.h"
#include "shell/Pixbuf.hpp"
#include "source/PropertyList.hpp"
#include "standin/kit/TestSupport.hpp"

namespace fs = std::filesystem;
using namespace vt::product;

namespace {

const char* const kCommand = VT_PRODUCT_ROOT "/bin/vtlaunchers";
const char* const kLauncher = VT_PRODUCT_ROOT "/lib/wine/vtlauncher";
const char* const kScratchpad = VT_PRODUCT_ROOT "/windows/scratchpad.exe";
const char* const kScratchpadId = "com.tallowmere.Vantor.Bottle_20T.Programs.Scratchpad.Scratchpad";

// The registry as Wine's server saves it: .md is a Scratchpad document,
// .txt opens in Notepad.
const char* const kSystemReg = R"(WINE REGISTRY Version 2
;; All keys relative to \\Machine

[Software\\Classes\\.md] 1700000000
@="Scratchpad.Document"

[Software\\Classes\\.txt] 1700000000
@="txtfile"

[Software\\Classes\\Scratchpad.Document\\shell\\open\\command] 1700000000
@="\"C:\\Program Files\\Scratchpad\\scratchpad.exe\" \"%1\""

[Software\\Classes\\txtfile\\shell\\open\\command] 1700000000
@=str(2):"%SystemRoot%\\system32\\notepad.exe %1"
)";

struct CommandRun {
    int status = -1;
    std::string output;
};

class BottleLaunchersTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(kScratchpad))
            GTEST_SKIP() << "scratchpad.exe is not built (MinGW-w64 is not installed)";
        fs::create_directories(menu / "Programs/Scratchpad");
        fs::create_directories(prefix / "dosdevices");
        fs::create_directories(prefix / "drive_c/Program Files/Scratchpad");
        fs::create_directories(prefix / "drive_c/users/Public");
        fs::create_symlink("../drive_c", prefix / "dosdevices/c:");
        fs::copy_file(kScratchpad, prefix / "drive_c/Program Files/Scratchpad/scratchpad.exe");
        vt::test::writeFile(prefix / "system.reg", kSystemReg);
        vt::test::writeFile(prefix / "user.reg", "WINE REGISTRY Version 2\n");
        vt::test::writeFile(prefix / ".vt-bottle-ready", "");
        shortcut("Programs/Scratchpad/Scratchpad.lnk", "C:\\Program Files\\Scratchpad\\scratchpad.exe",
                 "Write down what comes to mind");
    }

    void shortcut(const std::string& entry, const std::string& target, const std::string& description = {})
    {
        ShellLink link;
        link.target = target;
        link.description = description;
        std::vector<uint8_t> bytes = writeShellLink(link);
        fs::create_directories((menu / entry).parent_path());
        vt::test::writeFile(menu / entry, std::string(bytes.begin(), bytes.end()));
    }

    CommandRun vtlaunchers()
    {
        std::map<std::string, std::optional<std::string>> changes { { "XDG_DATA_HOME", data.string() } };
        std::vector<std::string> environment;
        for (const auto& [name, value] : vt::test::environmentWith(changes))
            environment.push_back(name + "=" + value);
        std::vector<char*> envp, argv { const_cast<char*>(kCommand), const_cast<char*>("--bottle"),
                                        const_cast<char*>(bottle.c_str()), nullptr };
        for (std::string& variable : environment)
            envp.push_back(variable.data());
        envp.push_back(nullptr);
        char* out = nullptr;
        CommandRun run;
        vt::GErrorHolder error;
        EXPECT_TRUE(g_spawn_sync(nullptr, argv.data(), envp.data(), G_SPAWN_STDERR_TO_DEV_NULL, nullptr, nullptr, &out,
                                 nullptr, &run.status, error))
            << error.message();
        vt::GCharPtr owned(out);
        run.output = out ? out : "";
        run.status = WIFEXITED(run.status) ? WEXITSTATUS(run.status) : -1;
        return run;
    }

    // Every file and link the command made, with what could change about it.
    std::map<std::string, std::string> made() const
    {
        std::map<std::string, std::string> files;
        for (const auto& item : fs::recursive_directory_iterator(data)) {
            if (item.path().string().starts_with(prefix.string()))
                continue;
            struct stat info {};
            lstat(item.path().c_str(), &info);
            files[item.path().lexically_relative(data).string()]
                = std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec) + " "
                + std::to_string(info.st_ino);
        }
        return files;
    }

    fs::path entryFile() const { return data / "applications" / (std::string(kScratchpadId) + ".desktop"); }
    fs::path bundle() const { return data / "Vantor/Launchers" / bottle / "Programs/Scratchpad/Scratchpad.app"; }
    fs::path hicolor(int size) const
    {
        return data / "icons/hicolor" / (std::to_string(size) + "x" + std::to_string(size)) / "apps"
            / (std::string(kScratchpadId) + ".png");
    }

    vt::test::TempDir dir;
    // Folders with a space and a '%', as a user's may have: the entry's
    // Exec line must quote and escape them.
    fs::path data = dir / "my data %u";
    std::string bottle = "Bottle T";
    fs::path prefix = data / "Vantor/Bottles" / bottle;
    fs::path menu = prefix / "drive_c/ProgramData/Microsoft/Windows/Start Menu";
};

// Whether `file` is the icon's image at `size`, pixel for pixel (the colour
// of transparent pixels aside).
::testing::AssertionResult isScratchpadIcon(const fs::path& file, int size)
{
    vt::GErrorHolder error;
    vt::GPtr<GdkPixbuf> image = vt::adopt(gdk_pixbuf_new_from_file(file.c_str(), error));
    if (!image)
        return ::testing::AssertionFailure() << file << ": " << error.message();
    if (gdk_pixbuf_get_width(image.get()) != size || gdk_pixbuf_get_height(image.get()) != size
        || !gdk_pixbuf_get_has_alpha(image.get()))
        return ::testing::AssertionFailure() << file << " is " << gdk_pixbuf_get_width(image.get()) << " wide";
    const guchar* pixels = gdk_pixbuf_read_pixels(image.get());
    int stride = gdk_pixbuf_get_rowstride(image.get());
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            const guchar* p = pixels + y * stride + x * 4;
            uint32_t wanted = scratchpad_icon_pixel(size, x, y);
            uint32_t got = (uint32_t { p[3] } << 24) | (uint32_t { p[0] } << 16) | (uint32_t { p[1] } << 8) | p[2];
            if ((wanted >> 24) == 0 ? (got >> 24) != 0 : got != wanted)
                return ::testing::AssertionFailure() << file << " at " << x << "," << y << ": " << std::hex << got
                                                     << " instead of " << wanted;
        }
    }
    return ::testing::AssertionSuccess();
}

std::string keyOf(const fs::path& entry, const char* key)
{
    vt::GPtr<GKeyFile> file = vt::adopt(g_key_file_new());
    vt::GErrorHolder error;
    if (!g_key_file_load_from_file(file.get(), entry.c_str(), G_KEY_FILE_NONE, error))
        return "(unreadable: " + std::string(error.message()) + ")";
    vt::GCharPtr value(g_key_file_get_string(file.get(), "Desktop Entry", key, nullptr));
    return value ? value.get() : "(none)";
}

} // namespace

TEST_F(BottleLaunchersTest, MakesTheBundleTheIconsAndTheEntryOfEachProgram)
{
    // Shortcuts that make no launcher: a document, a program the bottle does
    // not hold, one started with the session, one that is no shortcut.
    shortcut("Programs/Scratchpad/Read me.lnk", "C:\\Program Files\\Scratchpad\\readme.txt");
    shortcut("Programs/Gone.lnk", "D:\\setup.exe");
    shortcut("Programs/StartUp/Scratchpad.lnk", "C:\\Program Files\\Scratchpad\\scratchpad.exe");
    vt::test::writeFile(menu / "Programs/Broken.lnk", "not a shortcut");

    CommandRun run = vtlaunchers();
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("made Scratchpad (Programs/Scratchpad/Scratchpad.lnk)\n"), std::string::npos)
        << run.output;
    for (const char* leftOut : { "left out Programs/Scratchpad/Read me.lnk: it opens C:\\Program Files\\Scratchpad\\readme.txt, not a program",
                                 "left out Programs/Gone.lnk: its program D:\\setup.exe is not in the bottle",
                                 "left out Programs/Broken.lnk: not a shortcut" })
        EXPECT_NE(run.output.find(leftOut), std::string::npos) << leftOut << "\n" << run.output;
    EXPECT_NE(run.output.find("bottle \"Bottle T\": 1 launcher, 1 made, 0 updated, 0 removed"), std::string::npos)
        << run.output;

    // The bundle, as the launcher reads it.
    auto info = vt::readPropertyListFile(bundle() / "Contents/Info.plist");
    ASSERT_TRUE(info);
    auto text = [&](const char* key) {
        const vt::PlistValue* value = info->find(key);
        return value && value->asString() ? *value->asString() : std::string("(none)");
    };
    EXPECT_EQ(text("CFBundleName"), "Scratchpad");
    EXPECT_EQ(text("CFBundleIdentifier"), kScratchpadId);
    EXPECT_TRUE(g_application_id_is_valid(kScratchpadId));
    EXPECT_EQ(text("VTHelperAppBottleName"), "Bottle T");
    EXPECT_EQ(text("VantorHelperMenuPath"), "Programs/Scratchpad/Scratchpad.lnk");
    EXPECT_EQ(text("CFBundleIconFile"), "AppIcon.png");
    vt::PlistValue types = vt::PlistArray { vt::PlistDict {
        { "CFBundleTypeExtensions", vt::PlistArray { "md" } }, { "CFBundleTypeRole", "Editor" } } };
    ASSERT_TRUE(info->find("CFBundleDocumentTypes"));
    EXPECT_EQ(*info->find("CFBundleDocumentTypes"), types);
    EXPECT_EQ(fs::read_symlink(bundle() / "Contents/MacOS/Scratchpad"), kLauncher);

    // The icon: the largest image in the bundle, and the theme's sizes,
    // the icon's own images where it has them.
    EXPECT_TRUE(isScratchpadIcon(bundle() / "Contents/Resources/AppIcon.png", 256));
    for (int size : { 16, 32, 48, 256 })
        EXPECT_TRUE(isScratchpadIcon(hicolor(size), size));
    for (int size : { 24, 64, 128 }) {
        vt::GPtr<GdkPixbuf> scaled = vt::adopt(gdk_pixbuf_new_from_file(hicolor(size).c_str(), nullptr));
        ASSERT_TRUE(scaled) << size;
        EXPECT_EQ(gdk_pixbuf_get_width(scaled.get()), size);
    }

    // The entry, as the desktop reads it; the document type is offered,
    // never taken as a default.
    gchar* validated = nullptr;
    int status = 0;
    std::string validate = "desktop-file-validate '" + entryFile().string() + "'";
    ASSERT_TRUE(g_spawn_command_line_sync(validate.c_str(), &validated, nullptr, &status, nullptr));
    vt::GCharPtr said(validated);
    EXPECT_TRUE(g_spawn_check_wait_status(status, nullptr)) << validated;
    EXPECT_EQ(keyOf(entryFile(), "Name"), "Scratchpad");
    EXPECT_EQ(keyOf(entryFile(), "Comment"), "Write down what comes to mind");
    EXPECT_EQ(keyOf(entryFile(), "Icon"), kScratchpadId);
    EXPECT_EQ(keyOf(entryFile(), "StartupWMClass"), "scratchpad.exe");
    EXPECT_EQ(keyOf(entryFile(), "MimeType"), "text/markdown;");
    EXPECT_EQ(keyOf(entryFile(), "StartupNotify"), "true");
    // Exec quoted as a shell would read it, a literal '%' doubled.
    std::string exec = keyOf(entryFile(), "Exec");
    ASSERT_TRUE(exec.ends_with(" %U")) << exec;
    std::string command = exec.substr(0, exec.size() - 3);
    for (size_t at = command.find("%%"); at != std::string::npos; at = command.find("%%", at + 1))
        command.erase(at, 1);
    gchar** words = nullptr;
    ASSERT_TRUE(g_shell_parse_argv(command.c_str(), nullptr, &words, nullptr)) << exec;
    EXPECT_EQ(std::string(words[0]), (bundle() / "Contents/MacOS/Scratchpad").string());
    EXPECT_EQ(words[1], nullptr);
    g_strfreev(words);
    EXPECT_NE(vt::test::readFile(data / "applications/mimeinfo.cache").find("text/markdown=" + std::string(kScratchpadId)),
              std::string::npos);
    EXPECT_FALSE(fs::exists(data / "applications/mimeapps.list"));
    EXPECT_FALSE(fs::exists(data / "Vantor/Launchers" / bottle / "Programs/StartUp"));
}

TEST_F(BottleLaunchersTest, ChangesNothingTheSecondTimeAndRemovesWhatsShortcutHasGone)
{
    shortcut("Programs/Tools/Second Copy.lnk", "C:\\Program Files\\Scratchpad\\scratchpad.exe");
    ASSERT_EQ(vtlaunchers().status, 0);
    auto before = made();
    CommandRun again = vtlaunchers();
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.output, "bottle \"Bottle T\": 2 launchers, nothing changed\n");
    EXPECT_EQ(made(), before);

    // A launcher whose icon file was spoiled is put right, and only it.
    vt::test::writeFile(hicolor(32), "spoiled");
    CommandRun repaired = vtlaunchers();
    EXPECT_EQ(repaired.output,
              "updated Scratchpad (Programs/Scratchpad/Scratchpad.lnk)\n"
              "bottle \"Bottle T\": 2 launchers, 0 made, 1 updated, 0 removed\n");
    EXPECT_TRUE(isScratchpadIcon(hicolor(32), 32));

    fs::remove(menu / "Programs/Tools/Second Copy.lnk");
    fs::remove(menu / "Programs/Tools");
    CommandRun removed = vtlaunchers();
    EXPECT_EQ(removed.output,
              "removed Second Copy (Programs/Tools/Second Copy.lnk)\n"
              "bottle \"Bottle T\": 1 launcher, 0 made, 0 updated, 1 removed\n");
    std::string secondId = "com.tallowmere.Vantor.Bottle_20T.Programs.Tools.Second_20Copy";
    EXPECT_FALSE(fs::exists(data / "applications" / (secondId + ".desktop")));
    EXPECT_FALSE(fs::exists(data / "Vantor/Launchers" / bottle / "Programs/Tools"));
    for (const auto& item : fs::recursive_directory_iterator(data / "icons"))
        EXPECT_EQ(item.path().filename().string().find(secondId), std::string::npos) << item.path();
    EXPECT_TRUE(fs::exists(entryFile()));
    EXPECT_TRUE(fs::exists(bundle() / "Contents/Info.plist"));
    EXPECT_EQ(vt::test::readFile(data / "applications/mimeinfo.cache").find(secondId), std::string::npos);

    // Launchers of another bottle are none of this one's business.
    fs::remove(menu / "Programs/Scratchpad/Scratchpad.lnk");
    fs::create_directories(data / "Vantor/Launchers/Other/Kept.app");
    vt::test::writeFile(data / "applications/com.tallowmere.Vantor.Other.Kept.desktop",
                        "[Desktop Entry]\nName=Kept\nX-Vantor-Bottle=Other\n");
    CommandRun emptied = vtlaunchers();
    EXPECT_EQ(emptied.output,
              "removed Scratchpad (Programs/Scratchpad/Scratchpad.lnk)\n"
              "bottle \"Bottle T\": 0 launchers, 0 made, 0 updated, 1 removed\n");
    EXPECT_TRUE(fs::exists(data / "applications/com.tallowmere.Vantor.Other.Kept.desktop"));
    EXPECT_TRUE(fs::exists(data / "Vantor/Launchers/Other/Kept.app"));
}

TEST_F(BottleLaunchersTest, RefusesABottleThatIsNotReadyAndABadName)
{
    fs::remove(prefix / ".vt-bottle-ready");
    EXPECT_EQ(vtlaunchers().status, 1);
    EXPECT_FALSE(fs::exists(data / "applications"));
    bottle = "a/b";
    EXPECT_EQ(vtlaunchers().status, 2);
}

TEST(LauncherIdentifier, IsAValidApplicationIdThatNoOtherShortcutGets)
{
    EXPECT_EQ(launcherIdentifier("Demo", "Programs/Accessories/Notepad.lnk"),
              "com.tallowmere.Vantor.Demo.Programs.Accessories.Notepad");
    // Names that differ only where an id cannot hold them stay apart.
    std::set<std::string> seen;
    for (const char* entry : { "Programs/7-Zip/7-Zip File Manager.lnk", "Programs/7_Zip/7-Zip File Manager.lnk",
                               "Programs/7-Zip/7-Zip_File Manager.lnk", "Programs/Été/Café.lnk",
                               "Programs/Ete/Cafe.lnk", "Programs/a.b/c.lnk", "Programs/a/b/c.lnk" }) {
        std::string id = launcherIdentifier("My Games", entry);
        EXPECT_TRUE(g_application_id_is_valid(id.c_str())) << id;
        EXPECT_TRUE(seen.insert(id).second) << id;
        EXPECT_EQ(launcherIdentifier("My Games", entry), id);
    }
    std::string longName(300, 'x');
    std::string id = launcherIdentifier("Demo", "Programs/" + longName + ".lnk");
    EXPECT_TRUE(g_application_id_is_valid(id.c_str())) << id;
    EXPECT_NE(id, launcherIdentifier("Demo", "Programs/" + longName + "y.lnk"));
}
