// The real launcher starting, tracking and ending the Windows program through
// the stand-in product's tools: argument lists, environment, window commands,
// activation and the end of session.
#include <csignal>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "standin/kit/LauncherHarness.hpp"
#include "standin/kit/StandinTools.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

using Strings = std::vector<std::string>;

class LauncherProgram : public ::testing::Test {
protected:
    void SetUp() override
    {
        tools.install(h.mainApp);
        h.launcherInfo["CFBundleDocumentTypes"] = vt::PlistArray {
            vt::PlistDict { { "CFBundleTypeExtensions", vt::PlistArray { "txt", "doc" } } },
            vt::PlistDict { { "CFBundleTypeExtensions", vt::PlistArray { "txt" } } },
        };
        // The server's own VT_WINDOW_TAG must lose against the launcher's.
        serverEnvironment = tools.variables();
        serverEnvironment["SERVER_ONLY"] = "from the helper server";
        serverEnvironment["VT_WINDOW_TAG"] = "server value";
        tools.writeServerEnvironment(h.dir / "server.env", serverEnvironment);
    }

    void startServer(const EnvironmentChanges& extra = {})
    {
        EnvironmentChanges settings = extra;
        settings["VT_STANDIN_SERVER_ENV"] = (h.dir / "server.env").string();
        h.startHelperServer(settings);
    }

    // Starts the launcher and waits until the window-command tool runs.
    std::unique_ptr<TestProcess> launch(const Strings& arguments = {}, size_t programs = 1)
    {
        auto launcher = h.startLauncher(arguments);
        EXPECT_TRUE(tools.waitForRecords(1 + programs)) << h.launcherLog();
        return launcher;
    }

    // How often the main application was brought to the front.
    long mainAppActivations() const
    {
        auto record = readLines(h.mainAppRecord());
        return std::count(record.begin(), record.end(), "activate");
    }

    Strings commandsAfter(size_t skip) const
    {
        Strings texts = tools.commandTexts();
        return Strings(texts.begin() + std::min(skip, texts.size()), texts.end());
    }

    LauncherHarness h;
    StandinTools tools { h.dir / "tools" };
    std::map<std::string, std::string> serverEnvironment;
};

} // namespace

TEST_F(LauncherProgram, UntitledStartRunsTheMenuEntryWithExactArgumentsAndEnvironment)
{
    startServer();
    auto launcher = launch();

    auto wine = tools.records("wine").at(0);
    EXPECT_EQ(wine.arguments(), (Strings { "--bottle", "Office", "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" }));
    EXPECT_EQ(wine.standardInput, "pipe");
    EXPECT_EQ(wine.standardOutput, "pipe");

    auto menu = tools.records("vtmenu").at(0);
    EXPECT_EQ(menu.argv.at(0), (h.mainApp / "Contents/SharedSupport/Vantor/bin/vtmenu").string());
    EXPECT_EQ(menu.arguments(), (Strings { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv",
                                           "--start", "Programs/Notepad.lnk" }));
    auto expected = serverEnvironment;
    expected["VT_WINDOW_TAG"] = std::to_string(launcher->pid());
    expected["VT_LAUNCHER_BUNDLE_NAME"] = "Notepad";
    EXPECT_EQ(menu.environment, expected);
    EXPECT_EQ(wine.environment, expected);
    EXPECT_EQ(menu.standardInput, "null");
    EXPECT_EQ(menu.standardOutput, "null");
    EXPECT_EQ(std::filesystem::path(menu.directory), std::filesystem::canonical(g_get_home_dir()));
}

TEST_F(LauncherProgram, EachFileGetsItsOwnProcess)
{
    startServer();
    auto a = (h.dir / "a.txt").string(), b = (h.dir / "b.doc").string(), c = (h.dir / "c.pdf").string(),
         upper = (h.dir / "X.TXT").string();
    auto launcher = launch({ a, b, c, upper }, 4);

    auto starts = tools.records("vtstart");
    auto menus = tools.records("vtmenu");
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
    EXPECT_TRUE(h.waitForLog("open reply 0"));
}

TEST_F(LauncherProgram, AURLGoesToVtstartWithItsOwnList)
{
    startServer();
    std::string url = "https://example.com/caf\xC3\xA9?q=a b";
    auto launcher = launch({ url });
    auto start = tools.records("vtstart").at(0);
    EXPECT_EQ(start.arguments(), (Strings { "--bottle", "Office", "--enable-alt-loader", "macdrv--", url }));
    EXPECT_TRUE(tools.records("vtmenu").empty());
}

TEST_F(LauncherProgram, ASecondClickRaisesTheWindowsInsteadOfStartingAgain)
{
    startServer();
    tools.setAnswer("haswindows", "1");
    auto launcher = launch();
    auto count = [](const Strings& lines, const std::string& text) {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.ends_with(text); });
    };
    auto unhides = [&] {
        std::istringstream log(h.launcherLog());
        Strings lines;
        for (std::string line; std::getline(log, line);)
            lines.push_back(line);
        return count(lines, "unhide without activation");
    };
    // The launch's own activation has run its course, and the main
    // application is up.
    ASSERT_TRUE(waitUntil([&] { return unhides() == 1 && h.bus.hasOwner(vt::kVantorBundleIdentifier); }));
    auto before = mainAppActivations();

    auto again = h.startLauncher();
    EXPECT_EQ(again->waitForExit(), 0);
    ASSERT_TRUE(waitUntil([&] { return unhides() == 2; }));
    EXPECT_EQ(tools.records("vtmenu").size(), 1u) << "no second copy of the program";
    // With windows to show, the main application comes forward and the
    // launcher steps back.
    EXPECT_EQ(mainAppActivations(), before + 1);

    std::string tag = std::to_string(launcher->pid());
    auto requests = tools.commands();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], "-t " + tag + " -c helperDelegateCommand0 -a haswindows\n");
    EXPECT_EQ(requests[1], "-t " + tag + " -c helperDelegateCommand1 -a haswindows\n");
    EXPECT_TRUE(waitUntil([&] { return count(readLines(h.serverRecord()), " RaiseWindowsWithTag " + tag) == 2; }));
}

TEST_F(LauncherProgram, QuitWhileTheProgramAgreesEndsTheSessionAndExits)
{
    startServer();
    tools.setAnswer("haswindows", "0");
    auto launcher = launch();
    ASSERT_TRUE(tools.waitForCommands(1));
    auto menu = tools.records("vtmenu").at(0);

    launcher->signal(SIGTERM);
    EXPECT_EQ(launcher->waitForExit(), 0);
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    EXPECT_FALSE(tools.ending(menu.pid)) << "the launcher never ends the program by force";
    EXPECT_EQ(kill(menu.pid, 0), 0);
}

TEST_F(LauncherProgram, QuitActivatesTheMainApplicationBeforeAskingTheWindows)
{
    startServer();
    tools.setAnswer("haswindows", "0");
    tools.setAnswer("close", "silent");
    auto launcher = launch();
    ASSERT_TRUE(tools.waitForCommands(1));
    EXPECT_EQ(mainAppActivations(), 0);
    // The launcher started the main application in the background; once it is up...
    ASSERT_TRUE(waitUntil([&] { return h.bus.hasOwner(vt::kVantorBundleIdentifier); }));
    launcher->signal(SIGTERM);
    ASSERT_TRUE(tools.waitForCommands(2));
    EXPECT_EQ(mainAppActivations(), 1) << testing::PrintToString(readLines(h.mainAppRecord())) << h.launcherLog();
}

TEST_F(LauncherProgram, QuitRefusedByTheProgramKeepsEverythingRunning)
{
    startServer();
    tools.setAnswer("haswindows", "0");
    tools.setAnswer("queryendsession", "0");
    auto launcher = launch();
    ASSERT_TRUE(tools.waitForCommands(1));

    launcher->signal(SIGTERM);
    ASSERT_TRUE(tools.waitForCommands(4));
    ASSERT_TRUE(h.waitForLog("quit cancelled"));
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsessioncancel" }));
    EXPECT_TRUE(h.waitForLog("] hide"));

    // A failing "close" stops the sequence at once.
    tools.setAnswer("close", "0");
    launcher->signal(SIGTERM);
    ASSERT_TRUE(tools.waitForCommands(5));
    ASSERT_TRUE(waitUntil([&] { return h.launcherLog().find("quit cancelled") != h.launcherLog().rfind("quit cancelled"); }));
    EXPECT_EQ(commandsAfter(4), (Strings { "close" }));
    EXPECT_TRUE(launcher->running());
}

TEST_F(LauncherProgram, WithTheWindowCommandToolGoneTheQuitIsRefused)
{
    startServer();
    tools.setAnswer("haswindows", "exit"); // the tool goes away instead of answering
    auto launcher = launch();
    ASSERT_TRUE(h.waitForLog("Message mismatch.  Expected helperDelegateCommand0 and got .\n"));
    ASSERT_TRUE(h.waitForLog("a process of the Windows program ended"));

    launcher->signal(SIGTERM);
    ASSERT_TRUE(h.waitForLog("quit cancelled"));
    EXPECT_EQ(tools.commandTexts(), (Strings { "haswindows" })) << "nothing is written to a tool that has gone";
    EXPECT_TRUE(launcher->running());
}

TEST_F(LauncherProgram, WhenTheLastProcessEndsTheLauncherQuits)
{
    h.desktop.writeVantorDefaults({ { "DisableWineIntegration", true } });
    startServer();
    auto launcher = launch();
    auto menu = tools.records("vtmenu").at(0);
    EXPECT_FALSE(menu.environment.count("VT_APPRUNNER_ALT_LOADER_SOCKET"));
    tools.end(menu.pid);
    EXPECT_EQ(launcher->waitForExit(), 0);
    EXPECT_TRUE(tools.commandTexts().size() <= 1u) << "nothing to end: the program has ended itself";
}

TEST_F(LauncherProgram, AToolThatCannotRunIsReportedAndTheLauncherStays)
{
    startServer();
    std::filesystem::remove(h.mainApp / "Contents/SharedSupport/Vantor/bin/vtstart");
    auto launcher = launch({ (h.dir / "a.txt").string(), (h.dir / "b.pdf").string() }, 1);
    ASSERT_TRUE(h.waitForLog("open reply 2"));
    std::string vtstart = (h.mainApp / "Contents/SharedSupport/Vantor/bin/vtstart").string();
    EXPECT_NE(h.launcherLog().find("Cannot start the Windows program: cannot launch '" + vtstart
                                   + "': No such file or directory."),
              std::string::npos)
        << h.launcherLog();
    EXPECT_EQ(tools.records("vtmenu").size(), 1u) << "the other file still opened";
    EXPECT_TRUE(launcher->running());
}

TEST_F(LauncherProgram, AnswersMustNameTheirCommandExactly)
{
    startServer();
    tools.setAnswer("haswindows", "raw:{id}:1:x\\n");
    auto launcher = launch();
    ASSERT_TRUE(h.waitForLog("Message mismatch.  Expected helperDelegateCommand0 and got helperDelegateCommand0:1:x\n.\n"))
        << h.launcherLog();

    tools.setAnswer("haswindows", "raw:helperDelegateCommand0:1\\n");
    h.startLauncher()->waitForExit();
    ASSERT_TRUE(h.waitForLog("Message mismatch.  Expected helperDelegateCommand1 and got helperDelegateCommand0:1\n.\n"));
    EXPECT_EQ(h.launcherLog().find("unhide without activation"), std::string::npos);

    // Any number but 0 is a yes.
    tools.setAnswer("haswindows", "raw:{id}: 2\\n");
    h.startLauncher()->waitForExit();
    EXPECT_TRUE(h.waitForLog("unhide without activation"));
}

TEST_F(LauncherProgram, AMissingMenuPathEndsTheArgumentListThere)
{
    h.launcherInfo.erase("VantorHelperMenuPath");
    startServer();
    auto launcher = launch();
    EXPECT_EQ(tools.records("vtmenu").at(0).arguments(),
              (Strings { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv", "--start" }));
}
