// The real launcher starting, tracking and ending the Windows program through
// the stand-in product's tools: argument lists, environment, window commands,
// activation and the end of session.
#include <csignal>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/StandinWorld.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

using Strings = std::vector<std::string>;

class LauncherProgram : public ::testing::Test {
protected:
    void SetUp() override
    {
        w.launcherInfo["CFBundleDocumentTypes"] = vt::PlistArray {
            vt::PlistDict { { "CFBundleTypeExtensions", vt::PlistArray { "txt", "doc" } } },
            vt::PlistDict { { "CFBundleTypeExtensions", vt::PlistArray { "txt" } } },
        };
        // The server's own VT_WINDOW_TAG must lose against the launcher's.
        w.serverDictionary["SERVER_ONLY"] = "from the helper server";
        w.serverDictionary["VT_WINDOW_TAG"] = "server value";
        // Wine runs in processes of its own here: the loader refuses the
        // tools' requests without Wine's library (LoaderHandOverTest takes
        // the program in).
        std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor"
                                / vt::kNativeWineLoaderLayout.libraryDirectory / vt::kWineLibraryName);
        w.startHelperServer();
    }

    // Starts the launcher and waits until the window-command tool and
    // `programs` processes of the Windows program run.
    TestProcess& launch(const Strings& arguments = {}, size_t programs = 1)
    {
        TestProcess& launcher = w.startLauncher(arguments);
        EXPECT_TRUE(w.records.waitForTools(1 + programs)) << w.launcherLog();
        return launcher;
    }

    // How often the main application was brought to the front.
    long mainAppActivations() const
    {
        auto events = w.records.texts("main-app");
        return std::count(events.begin(), events.end(), "activate");
    }

    Strings commandsAfter(size_t skip) const
    {
        Strings texts = w.records.commandTexts();
        return Strings(texts.begin() + std::min(skip, texts.size()), texts.end());
    }

    // Quits the launcher that has answered its first window command and
    // waits until the program has been asked `commands` more of them.
    void quitAfterFirstCommand(TestProcess& launcher, size_t commands)
    {
        ASSERT_TRUE(w.records.waitFor("request", 1));
        launcher.signal(SIGTERM);
        ASSERT_TRUE(w.records.waitFor("request", 1 + commands)) << w.launcherLog();
    }

    StandinWorld w;
};

} // namespace

TEST_F(LauncherProgram, UntitledStartRunsTheMenuEntryWithExactArgumentsAndEnvironment)
{
    auto& launcher = launch();

    auto wine = w.records.tools("wine").at(0);
    EXPECT_EQ(wine.arguments(), (Strings { "--bottle", "Office", "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" }));
    EXPECT_EQ(wine.standardInput, "pipe");
    EXPECT_EQ(wine.standardOutput, "pipe");

    auto menu = w.records.tools("vtmenu").at(0);
    EXPECT_EQ(menu.argv.at(0), (w.mainApp / "Contents/SharedSupport/Vantor/bin/vtmenu").string());
    EXPECT_EQ(menu.arguments(), (Strings { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv",
                                           "--start", "Programs/Notepad.lnk" }));
    // The loader's and the tray's sockets, in one directory only this user can enter.
    std::filesystem::path loaderSocket = menu.environment["VT_APPRUNNER_ALT_LOADER_SOCKET"];
    std::filesystem::path traySocket = menu.environment["VT_SYSTRAY_SOCKET"];
    EXPECT_EQ(std::filesystem::status(loaderSocket.parent_path()).permissions(), std::filesystem::perms::owner_all);
    EXPECT_EQ(traySocket.parent_path(), loaderSocket.parent_path());
    EXPECT_TRUE(std::filesystem::is_socket(traySocket));
    auto expected = w.serverDictionary;
    expected["VT_WINDOW_TAG"] = std::to_string(launcher.pid());
    expected["VT_LAUNCHER_BUNDLE_NAME"] = "Notepad";
    expected["VT_APPRUNNER_ALT_LOADER_SOCKET"] = loaderSocket;
    expected["VT_SYSTRAY_SOCKET"] = traySocket;
    EXPECT_EQ(menu.environment, expected);
    EXPECT_EQ(wine.environment, expected);
    EXPECT_EQ(menu.standardInput, "null");
    EXPECT_EQ(menu.standardOutput, "null");
    EXPECT_EQ(std::filesystem::path(menu.directory), std::filesystem::canonical(g_get_home_dir()));
}

TEST_F(LauncherProgram, EachFileGetsItsOwnProcess)
{
    auto a = (w.dir / "a.txt").string(), b = (w.dir / "b.doc").string(), c = (w.dir / "c.pdf").string(),
         upper = (w.dir / "X.TXT").string();
    launch({ a, b, c, upper }, 4);

    auto starts = w.records.tools("vtstart");
    auto menus = w.records.tools("vtmenu");
    ASSERT_EQ(starts.size(), 2u);
    ASSERT_EQ(menus.size(), 2u);
    Strings documentList { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv", "--" };
    Strings menuList { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv", "--start",
                       "Programs/Notepad.lnk" };
    auto with = [](Strings list, const std::string& file) {
        list.push_back(file);
        return list;
    };
    // The processes start in the files' order but may record in any order.
    auto argumentLists = [](const std::vector<ToolRecord>& records) {
        std::set<Strings> lists;
        for (const auto& record : records)
            lists.insert(record.arguments());
        return lists;
    };
    EXPECT_EQ(argumentLists(starts), (std::set<Strings> { with(documentList, a), with(documentList, b) }));
    EXPECT_EQ(argumentLists(menus), (std::set<Strings> { with(menuList, c), with(menuList, upper) }))
        << "extensions are compared with their case";
    EXPECT_TRUE(w.waitForLog("open reply 0"));
}

TEST_F(LauncherProgram, AURLGoesToVtstartWithItsOwnList)
{
    std::string url = "https://example.com/caf\xC3\xA9?q=a b";
    launch({ url });
    auto start = w.records.tools("vtstart").at(0);
    EXPECT_EQ(start.arguments(), (Strings { "--bottle", "Office", "--enable-alt-loader", "macdrv--", url }));
    EXPECT_TRUE(w.records.tools("vtmenu").empty());
}

TEST_F(LauncherProgram, ASecondClickRaisesTheWindowsInsteadOfStartingAgain)
{
    w.setAnswer("haswindows", "1");
    auto& launcher = launch();
    auto count = [](const Strings& lines, const std::string& text) {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.ends_with(text); });
    };
    auto unhides = [&] {
        std::istringstream log(w.launcherLog());
        Strings lines;
        for (std::string line; std::getline(log, line);)
            lines.push_back(line);
        return count(lines, "unhide without activation");
    };
    // The launch's own activation has run its course, and the main
    // application is up.
    ASSERT_TRUE(waitUntil([&] { return unhides() == 1 && w.bus.hasOwner(vt::kVantorBundleIdentifier); }));
    auto before = mainAppActivations();

    EXPECT_EQ(w.startLauncher().waitForExit(), 0);
    ASSERT_TRUE(waitUntil([&] { return unhides() == 2; }));
    EXPECT_EQ(w.records.tools("vtmenu").size(), 1u) << "no second copy of the program";
    // With windows to show, the main application comes forward and the
    // launcher steps back.
    EXPECT_EQ(mainAppActivations(), before + 1);

    std::string tag = std::to_string(launcher.pid());
    auto requests = w.records.texts("request");
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], "-t " + tag + " -c helperDelegateCommand0 -a haswindows\n");
    EXPECT_EQ(requests[1], "-t " + tag + " -c helperDelegateCommand1 -a haswindows\n");
    EXPECT_TRUE(waitUntil([&] { return count(w.records.texts("call"), "RaiseWindowsWithTag " + tag) == 2; }));
}

TEST_F(LauncherProgram, QuitWhileTheProgramAgreesEndsTheSessionAndExits)
{
    w.setAnswer("haswindows", "0");
    auto& launcher = launch();
    auto menu = w.records.tools("vtmenu").at(0);

    quitAfterFirstCommand(launcher, 4);
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    // The program is still there; whoever ends it now is not the launcher.
    EXPECT_FALSE(w.records.endedBy(menu.pid));
    ASSERT_TRUE(terminateAndWait(menu.pid));
    ASSERT_TRUE(waitUntil([&] { return w.records.endedBy(menu.pid).has_value(); }));
    EXPECT_EQ(w.records.endedBy(menu.pid), getpid()) << "the launcher never ends the program by force";
}

TEST_F(LauncherProgram, QuitActivatesTheMainApplicationBeforeAskingTheWindows)
{
    w.setAnswer("haswindows", "0");
    w.setAnswer("close", "silent");
    auto& launcher = launch();
    ASSERT_TRUE(w.records.waitFor("request", 1));
    EXPECT_EQ(mainAppActivations(), 0);
    // The launcher started the main application in the background; once it is up...
    ASSERT_TRUE(waitUntil([&] { return w.bus.hasOwner(vt::kVantorBundleIdentifier); }));
    quitAfterFirstCommand(launcher, 1);
    EXPECT_EQ(mainAppActivations(), 1) << testing::PrintToString(w.records.texts("main-app")) << w.launcherLog();
}

TEST_F(LauncherProgram, QuitRefusedByTheProgramKeepsEverythingRunning)
{
    w.setAnswer("haswindows", "0");
    w.setAnswer("queryendsession", "0");
    auto& launcher = launch();

    quitAfterFirstCommand(launcher, 3);
    ASSERT_TRUE(w.waitForLog("quit cancelled"));
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsessioncancel" }));
    EXPECT_TRUE(w.waitForLog("] hide"));

    // A failing "close" stops the sequence at once.
    w.setAnswer("close", "0");
    launcher.signal(SIGTERM);
    ASSERT_TRUE(w.records.waitFor("request", 5));
    ASSERT_TRUE(waitUntil([&] { return w.launcherLog().find("quit cancelled") != w.launcherLog().rfind("quit cancelled"); }));
    EXPECT_EQ(commandsAfter(4), (Strings { "close" }));
    EXPECT_TRUE(launcher.running());
}

TEST_F(LauncherProgram, WhenTheLastProcessEndsTheLauncherQuits)
{
    w.desktop.writeVantorDefaults({ { "DisableWineIntegration", true } });
    auto& launcher = launch();
    auto menu = w.records.tools("vtmenu").at(0);
    EXPECT_FALSE(menu.environment.count("VT_APPRUNNER_ALT_LOADER_SOCKET"));
    kill(menu.pid, SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_TRUE(w.records.commandTexts().size() <= 1u) << "nothing to end: the program has ended itself";
}

TEST_F(LauncherProgram, AToolThatCannotRunIsReportedAndTheLauncherStays)
{
    std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor/bin/vtstart");
    auto& launcher = launch({ (w.dir / "a.txt").string(), (w.dir / "b.pdf").string() }, 1);
    // Every process was made, so the opening itself succeeded.
    ASSERT_TRUE(w.waitForLog("open reply 0"));
    std::string vtstart = (w.mainApp / "Contents/SharedSupport/Vantor/bin/vtstart").string();
    EXPECT_NE(w.launcherLog().find("Cannot start the Windows program: cannot launch '" + vtstart
                                   + "': No such file or directory."),
              std::string::npos)
        << w.launcherLog();
    EXPECT_EQ(w.records.tools("vtmenu").size(), 1u) << "the other file still opened";
    EXPECT_TRUE(launcher.running());
}
