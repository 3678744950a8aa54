// The product's main application as the launcher meets it: a real process on
// a private session bus, asked through the launcher's own helper-server
// client, with a fake Wine whose every call is written down.
#include <csignal>
#include <map>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "product/common/ProductPaths.hpp"
#include "product/launchers/BottleLaunchers.hpp"
#include "product/launchers/ShellLink.hpp"
#include "shell/HelperServerClient.hpp"
#include "source/VantorNames.hpp"
#include "standin/kit/TestSupport.hpp"

#include <sys/stat.h>

using namespace std::chrono_literals;
using vt::test::waitUntil;

namespace {

const char* const kMainApplication = VT_PRODUCT_BUNDLE "/Contents/MacOS/Vantor";

// How many lines of `text` hold `part`.
size_t linesWith(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, text.find('\n', at)))
        ++count;
    return count;
}

// Each call is one line in `calls` beside the fake, with the number of its
// arguments, since one of them holds a space. wineboot takes a moment, as the
// real one takes many, and fails while `wineboot-fails` exists there.
const char* const kFakeWine = R"(#!/bin/sh
here=$(dirname "$0")
echo "wine $* ($#) WINEPREFIX=$WINEPREFIX WINEDEBUG=$WINEDEBUG WINEDLLOVERRIDES=$WINEDLLOVERRIDES" >>"$here/calls"
[ "$1" = reg ] && exit 0
[ "$1 $2" = "wineboot --init" ] || exit 2
sleep 1
[ -e "$here/wineboot-fails" ] && exit 1
echo WINE REGISTRY >"$WINEPREFIX/system.reg"
)";
const char* const kFakeWineServer = R"(#!/bin/sh
echo "wineserver $* WINEPREFIX=$WINEPREFIX" >>"$(dirname "$0")/calls"
)";

class MainAppTest : public ::testing::Test {
protected:
    // A fake Wine beside its fake wineserver, as Debian lays them out.
    MainAppTest()
    {
        vt::test::writeFile(dir / "wine", kFakeWine);
        vt::test::writeFile(dir / "wineserver", kFakeWineServer);
        chmod((dir / "wine").c_str(), 0755);
        chmod((dir / "wineserver").c_str(), 0755);
    }

    void startMainApp(std::map<std::string, std::optional<std::string>> changes = {})
    {
        changes.emplace("XDG_DATA_HOME", (dir / "data").string());
        changes.emplace("VT_PRODUCT_WINE", (dir / "wine").string());
        app = std::make_unique<vt::test::TestProcess>(std::vector<std::string> { kMainApplication },
                                                      vt::test::environmentWith(changes),
                                                      vt::test::ProcessSetup { .keepStandardError = true });
        ASSERT_TRUE(waitUntil([this] { return bus.hasOwner(vt::kHelperServerBusName); }));
    }

    bool isReady(const std::string& bottle)
    {
        auto client = vt::HelperServerClient::lookUp();
        if (!client)
            throw std::runtime_error("no helper server");
        return client->isServerReadyForBottle(bottle);
    }

    std::string calls() const { return vt::test::readFile(dir / "calls"); }
    std::string log() const { return app->standardError(); }
    std::filesystem::path prefix(const std::string& bottle) const { return dir / "data/Vantor/Bottles" / bottle; }

    vt::test::PrivateBus bus;
    vt::test::TempDir dir;
    std::unique_ptr<vt::test::TestProcess> app;
};

// The same process, seen as the helper server it hosts.
using HelperServerTest = MainAppTest;

} // namespace

TEST_F(MainAppTest, OwnsBothNamesUntilSigterm)
{
    startMainApp();
    EXPECT_TRUE(bus.hasOwner(vt::kVantorBundleIdentifier));
    EXPECT_EQ(vt::test::busNameOwnerProcess(bus.address(), vt::kHelperServerBusName), app->pid());
    EXPECT_TRUE(vt::HelperServerClient::lookUp()->isServerReady());

    app->signal(SIGTERM);
    EXPECT_EQ(app->waitForExit(), 0);
    EXPECT_FALSE(bus.hasOwner(vt::kVantorBundleIdentifier));
    EXPECT_FALSE(bus.hasOwner(vt::kHelperServerBusName));
}

TEST_F(MainAppTest, ASecondStartHandsItsFilesToTheRunningOne)
{
    startMainApp();
    vt::test::TestProcess second({ kMainApplication, (dir / "note one.txt").string() },
                                 vt::test::environmentWith({}));
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_TRUE(waitUntil([this] { return log().find("open file://") != std::string::npos; }));
    EXPECT_EQ(linesWith(log(), " open file://" + (dir / "note%20one.txt").string()), 1u) << log();
    EXPECT_TRUE(app->running());
    EXPECT_EQ(vt::test::busNameOwnerProcess(bus.address(), vt::kVantorBundleIdentifier), app->pid());
}

TEST(MainAppBusTest, EndsWithItsBusAndDoesNotStartWithoutOne)
{
    auto bus = std::make_unique<vt::test::PrivateBus>();
    vt::test::TestProcess app({ kMainApplication }, vt::test::environmentWith({}));
    ASSERT_TRUE(waitUntil([&] { return bus->hasOwner(vt::kVantorBundleIdentifier); }));
    bus.reset();
    EXPECT_EQ(app.waitForExit(), 0);

    vt::test::TestProcess busless(
        { kMainApplication }, vt::test::environmentWith({ { "DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent" } }));
    EXPECT_EQ(busless.waitForExit(), 1);
}

TEST_F(HelperServerTest, MakesABottleOnceAndThenIsReady)
{
    startMainApp();
    // Asked as often as a waiting launcher asks: one set-up, in the background.
    EXPECT_FALSE(isReady("Steam"));
    EXPECT_FALSE(isReady("Steam"));
    EXPECT_FALSE(isReady("Steam"));
    ASSERT_TRUE(waitUntil([this] { return isReady("Steam"); }, 20s)) << log();
    EXPECT_TRUE(vt::product::prefixIsReady(prefix("Steam")));
    EXPECT_TRUE(std::filesystem::exists(prefix("Steam") / "system.reg"));

    std::string inBottle = " WINEPREFIX=" + prefix("Steam").string()
        + " WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=;winemenubuilder.exe=d\n";
    std::string wanted = "wine wineboot --init (2)" + inBottle
        + "wine reg add HKCR\\.txt /ve /d txtfile /f (7)" + inBottle
        + "wine reg add HKCU\\Software\\Wine\\DllOverrides /v winemenubuilder.exe /t REG_SZ /d  /f (10)" + inBottle
        + "wine reg add HKCU\\Software\\Wine\\X11 Driver /v ShowSystray /t REG_SZ /d N /f (10)" + inBottle
        + "wineserver -w WINEPREFIX=" + prefix("Steam").string() + "\n";
    EXPECT_EQ(calls(), wanted);
    struct stat info {};
    ASSERT_EQ(stat(prefix("Steam").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(linesWith(log(), "bottle \"Steam\" is ready: made in"), 1u) << log();

    // Made ready, the bottle gets Notepad's shortcut and its launchers are
    // made at once (Notepad's program is not there with this Wine).
    EXPECT_TRUE(std::filesystem::exists(
        prefix("Steam") / "drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/Accessories/Notepad.lnk"));
    EXPECT_TRUE(waitUntil([this] {
        return log().find("launchers of bottle \"Steam\": left out Programs/Accessories/Notepad.lnk: its program "
                          "C:\\windows\\system32\\notepad.exe is not in the bottle") != std::string::npos;
    })) << log();

    // A ready bottle is answered from the marker, without Wine.
    EXPECT_TRUE(isReady("Steam"));
    EXPECT_EQ(calls(), wanted);
}

TEST_F(HelperServerTest, TriesAgainAfterAFailedSetUp)
{
    startMainApp();
    vt::test::writeFile(dir / "wineboot-fails", "");
    EXPECT_FALSE(isReady("Office"));
    ASSERT_TRUE(waitUntil([this] { return log().find("cannot make bottle \"Office\" ready") != std::string::npos; }));
    EXPECT_FALSE(vt::product::prefixIsReady(prefix("Office")));
    EXPECT_EQ(linesWith(calls(), "wineserver"), 0u);

    std::filesystem::remove(dir / "wineboot-fails");
    EXPECT_FALSE(isReady("Office"));
    EXPECT_TRUE(waitUntil([this] { return isReady("Office"); }, 20s)) << log();
    EXPECT_EQ(linesWith(calls(), "wine wineboot --init"), 2u);
}

TEST_F(HelperServerTest, RefusesBadBottlesAMissingWineAndAMissingDisplay)
{
    startMainApp({ { "VT_PRODUCT_WINE", (dir / "no-wine-here").string() }, { "DISPLAY", std::nullopt } });
    auto client = vt::HelperServerClient::lookUp();
    client->raiseWindowsWithTag(4242);
    for (int round = 0; round < 2; ++round) {
        for (const char* bad : { "", "a/b", ".." })
            EXPECT_FALSE(isReady(bad)) << '"' << bad << '"';
        EXPECT_FALSE(isReady("Steam"));
    }
    EXPECT_TRUE(waitUntil([this] { return log().find("RaiseWindowsWithTag 4242: no DISPLAY") != std::string::npos; }));
    EXPECT_TRUE(client->isServerReady());
    // Each problem once, however often the launcher asks again.
    EXPECT_EQ(linesWith(log(), "a bottle needs a name"), 1u) << log();
    EXPECT_EQ(linesWith(log(), "holds a '/'"), 1u) << log();
    EXPECT_EQ(linesWith(log(), "\"..\" cannot name a bottle"), 1u) << log();
    EXPECT_EQ(linesWith(log(), "Wine is not installed"), 1u) << log();
    EXPECT_FALSE(std::filesystem::exists(dir / "data/Vantor/Bottles"));
}

TEST_F(HelperServerTest, EnvironmentIsTheSessionsWithoutAPrefix)
{
    startMainApp({
        { "DISPLAY", ":77" },
        { "LC_TIME", "de_DE.UTF-8" },
        { "LANGUAGE", "fr:en" },
        { "XDG_CONFIG_HOME", "/home/user/.config" },
        { "WINEPREFIX", "/home/user/.wine" },
        { "WINEDEBUG", std::nullopt },
        { "WINEDLLOVERRIDES", "winemenubuilder.exe=d" },
        { "LC_PAPER", "caf\xe9" },
        { "SECRET_TOKEN", "hunter2" },
    });
    auto environment = vt::HelperServerClient::lookUp()->getEnvironmentForXConnection();

    EXPECT_EQ(environment["DISPLAY"], ":77");
    EXPECT_EQ(environment["LC_TIME"], "de_DE.UTF-8");
    EXPECT_EQ(environment["LANGUAGE"], "fr:en");
    EXPECT_EQ(environment["XDG_CONFIG_HOME"], "/home/user/.config");
    EXPECT_EQ(environment["XDG_DATA_HOME"], (dir / "data").string());
    EXPECT_EQ(environment["DBUS_SESSION_BUS_ADDRESS"], bus.address());
    EXPECT_EQ(environment["VT_PRODUCT_WINE"], (dir / "wine").string());
    EXPECT_EQ(environment["PATH"], std::getenv("PATH"));
    EXPECT_EQ(environment["WINEDEBUG"], "-all");
    EXPECT_EQ(environment["WINEDLLOVERRIDES"], "winemenubuilder.exe=d");
    // The tools set the prefix from their bottle; a value D-Bus cannot carry
    // stays behind alone; the rest of the main application's environment is
    // not the programs' business.
    EXPECT_FALSE(environment.contains("WINEPREFIX"));
    EXPECT_FALSE(environment.contains("LC_PAPER"));
    EXPECT_FALSE(environment.contains("SECRET_TOKEN"));
}


TEST_F(MainAppTest, KeepsEachBottlesLaunchersInLineWithItsStartMenus)
{
    // A ready bottle with a program and its shortcut, made while the main
    // application was not running.
    std::filesystem::path bottle = prefix("Office");
    std::filesystem::path menu = bottle / "drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs";
    std::filesystem::create_directories(menu);
    std::filesystem::create_directories(bottle / "dosdevices");
    std::filesystem::create_symlink("../drive_c", bottle / "dosdevices/c:");
    vt::test::writeFile(bottle / "drive_c/editor.exe", "MZ");
    vt::test::writeFile(bottle / vt::product::kReadyMarker, "");
    auto shortcut = [&](const std::filesystem::path& file) {
        vt::product::ShellLink link;
        link.target = "C:\\editor.exe";
        std::vector<uint8_t> bytes = vt::product::writeShellLink(link);
        std::filesystem::create_directories(file.parent_path());
        vt::test::writeFile(file, std::string(bytes.begin(), bytes.end()));
    };
    shortcut(menu / "Editor.lnk");
    auto entry = [&](const std::string& path) {
        return dir / "data/applications" / (vt::product::launcherIdentifier("Office", path) + ".desktop");
    };
    auto runs = [this] { return linesWith(log(), "launchers of bottle \"Office\": bottle \"Office\""); };

    startMainApp();
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(entry("Programs/Editor.lnk")); })) << log();
    ASSERT_TRUE(waitUntil([&] { return runs() == 1; })) << log();

    // An installer makes a folder of its own and its shortcuts in it, one
    // by one: one run once the menu has been quiet for a moment.
    shortcut(menu / "Suite/Sheets.lnk");
    shortcut(menu / "Suite/Slides.lnk");
    EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(entry("Programs/Suite/Slides.lnk")); })) << log();
    EXPECT_TRUE(std::filesystem::exists(entry("Programs/Suite/Sheets.lnk")));
    EXPECT_TRUE(waitUntil([&] { return runs() == 2; })) << log();

    // The new folder is watched too: a program removed from it goes.
    std::filesystem::remove(menu / "Suite/Slides.lnk");
    EXPECT_TRUE(waitUntil([&] { return !std::filesystem::exists(entry("Programs/Suite/Slides.lnk")); })) << log();
    // Its lines reach the log once the run has ended, after the files went.
    EXPECT_TRUE(waitUntil([&] {
        return log().find("launchers of bottle \"Office\": removed Slides (Programs/Suite/Slides.lnk)")
            != std::string::npos;
    })) << log();

    ASSERT_TRUE(waitUntil([&] { return runs() == 3; })) << log();

    // Wine's server saves the registry with a document type the program
    // opens, as it does, into a new file renamed over the old one.
    vt::test::writeFile(bottle / "reg1234.tmp", "WINE REGISTRY Version 2\n\n"
                                                "[Software\\\\Classes\\\\.txt] 1\n@=\"txtfile\"\n\n"
                                                "[Software\\\\Classes\\\\txtfile\\\\shell\\\\open\\\\command] 1\n"
                                                "@=\"C:\\\\editor.exe %1\"\n");
    std::filesystem::rename(bottle / "reg1234.tmp", bottle / "system.reg");
    EXPECT_TRUE(waitUntil([&] {
        return vt::test::readFile(entry("Programs/Editor.lnk")).find("MimeType=text/plain;") != std::string::npos;
    })) << log();

    // Nothing changes, nothing runs: the menus are watched, not polled;
    // other files of the bottle are not the launchers' business.
    ASSERT_TRUE(waitUntil([&] { return runs() == 4; })) << log();
    vt::test::writeFile(bottle / "drive_c/notes.txt", "x");
    waitUntil([] { return false; }, 2500ms);
    EXPECT_EQ(runs(), 4u) << log();
}
