// The real launcher, started from a bundle on a private bus beside the
// stand-in product: how it comes up, waits, gives up, and hands over to a
// running copy of itself.
#include <csignal>
#include <ctime>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/StandinWorld.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

const char* kStartupDone = "start-up done";

// The times (ms) of the log lines ("YYYY-MM-DD HH:MM:SS.mmm name[pid] ...") that hold `text`.
std::vector<int64_t> logLineTimes(const std::string& log, const std::string& text)
{
    std::vector<int64_t> times;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        std::tm parts {};
        const char* rest = strptime(line.c_str(), "%Y-%m-%d %H:%M:%S.", &parts);
        parts.tm_isdst = -1;
        if (rest && line.find(text) != std::string::npos)
            times.push_back(static_cast<int64_t>(mktime(&parts)) * 1000 + std::atoi(rest));
    }
    return times;
}

// Attempts are a second apart at the least; the upper bound only catches a
// launcher that stopped trying, so a loaded machine cannot break it.
void expectAboutOneSecondApart(const std::vector<int64_t>& times)
{
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - times[i - 1], 900) << "between attempts " << i << " and " << i + 1;
        EXPECT_LE(times[i] - times[i - 1], 5000) << "between attempts " << i << " and " << i + 1;
    }
}

bool contains(const std::vector<std::string>& lines, const std::string& line)
{
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The launcher with the helper server up, once it has started up.
TestProcess& startedLauncher(StandinWorld& w)
{
    w.startHelperServer();
    TestProcess& launcher = w.startLauncher();
    EXPECT_TRUE(w.waitForLog(kStartupDone)) << w.launcherLog();
    return launcher;
}

} // namespace

TEST(LauncherStartup, GivesUpAfterTenAttemptsWithoutHelperServer)
{
    StandinWorld w;
    ASSERT_EQ(w.startLauncher().waitForExit(60s), 0);

    std::string log = w.launcherLog();
    auto attempts = logLineTimes(log, "looking for the helper server, attempt");
    EXPECT_EQ(attempts.size(), 10u) << log;
    expectAboutOneSecondApart(attempts);
    EXPECT_NE(log.find("] Unable to locate a Vantor helper server.  We should really tell someone about this.\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find(kStartupDone), std::string::npos);

    // The main application was started in the background with this bundle to open.
    std::string bundleURI = "file://" + (w.dir / "Notepad.app").string() + "/";
    auto events = w.records.texts("main-app");
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events[0], "started " + (w.mainApp / "Contents/MacOS/Vantor").string() + " " + bundleURI);
    // The stand-in records URIs the way GIO gives them back: without the final slash.
    ASSERT_TRUE(waitUntil([&] { return contains(w.records.texts("main-app"), "open file://" + (w.dir / "Notepad.app").string()); }))
        << testing::PrintToString(w.records.texts("main-app"));
    EXPECT_FALSE(contains(w.records.texts("main-app"), "activate")) << "it must not take the focus";
}

TEST(LauncherStartup, WaitsForTheBottleThenGoesOn)
{
    StandinWorld w;
    w.startHelperServer({ { "VT_STANDIN_NOT_READY", "3" } });
    auto& launcher = w.startLauncher();
    ASSERT_TRUE(w.waitForLog(kStartupDone));

    auto polls = w.records.times("call", "IsServerReadyForBottle Office");
    EXPECT_EQ(polls.size(), 4u);
    // Each process of start-up (the window-command tool, vtmenu) was given
    // an environment asked for it alone.
    ASSERT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
    auto calls = w.records.texts("call");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "GetEnvironmentForXConnection"), 2) << testing::PrintToString(calls);
    expectAboutOneSecondApart(polls);
    // The tools are those of the registered main application.
    EXPECT_NE(w.launcherLog().find("tools in " + (w.mainApp / "Contents/SharedSupport/Vantor").string()),
              std::string::npos)
        << w.launcherLog();

    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
}

TEST(LauncherStartup, QuitSignalEndsItEvenWhileWaitingForTheBottle)
{
    StandinWorld w;
    w.startHelperServer({ { "VT_STANDIN_NOT_READY", "1000" } });
    auto& launcher = w.startLauncher();
    ASSERT_TRUE(w.waitForLog("is not ready yet"));
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
}

TEST(LauncherStartup, RunningCopyOfTheMainApplicationProvidesTheTools)
{
    StandinWorld w;
    // A newer copy is installed, but an older one runs: the running one wins.
    w.desktop.addMainApp({ .bundle = w.dir / "Newer.app", .version = "9.0.0" });
    auto older = w.desktop.addMainApp({ .bundle = w.dir / "Older.app", .version = "3.9.1", .registersScheme = false });
    TestProcess running({ (older / "Contents/MacOS/Vantor").string() }, w.environment());
    ASSERT_TRUE(waitUntil([&] { return contains(w.records.texts("main-app"), "activate"); }));

    auto& launcher = startedLauncher(w);
    EXPECT_NE(w.launcherLog().find("tools in " + (older / "Contents/SharedSupport/Vantor").string()),
              std::string::npos)
        << w.launcherLog();
    // The running copy was asked to open the launcher's bundle, not activated.
    ASSERT_TRUE(waitUntil([&] { return contains(w.records.texts("main-app"), "open file://" + (w.dir / "Notepad.app").string()); }))
        << testing::PrintToString(w.records.texts("main-app")) << w.launcherLog();
    auto events = w.records.texts("main-app");
    EXPECT_EQ(std::count(events.begin(), events.end(), "activate"), 1) << "only its own start without arguments";
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
}

TEST(LauncherStartup, SecondLaunchIsHandedToTheFirst)
{
    StandinWorld w;
    auto& first = startedLauncher(w);

    EXPECT_EQ(w.startLauncher().waitForExit(), 0);
    EXPECT_TRUE(w.waitForLog("event: reopen"));
    EXPECT_TRUE(w.waitForLog("event: activate"));

    EXPECT_EQ(w.startLauncher({ "relative name.txt", "https://example.com/a?b" }).waitForExit(), 0);
    EXPECT_TRUE(w.waitForLog("event: open-url https://example.com/a?b"));
    EXPECT_TRUE(w.waitForLog("event: open-files " + (w.dir / "relative name.txt").string()))
        << "relative paths are made absolute against the second launch's directory";

    EXPECT_EQ(w.launcherLog(1).find(kStartupDone), std::string::npos) << "the second launch did not start up";
    first.signal(SIGTERM);
    EXPECT_EQ(first.waitForExit(), 0);
}

TEST(LauncherStartup, QuitActionOnTheBusEndsItAndIsAnswered)
{
    StandinWorld w;
    auto& launcher = startedLauncher(w);
    // GLib's own tool, as a user would try it: it fails unless the launcher
    // answers before it ends.
    TestProcess quit({ "/usr/bin/gapplication", "action", "com.example.Notepad", "quit" }, w.environment());
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_EQ(quit.waitForExit(), 0);
    EXPECT_TRUE(w.waitForLog("event: quit-request"));
}

TEST(LauncherStartup, ABundleWithoutNameOrBottleIsToldPlainly)
{
    StandinWorld w;
    w.launcherInfo.erase("CFBundleName");
    w.launcherInfo.erase("VTHelperAppBottleName");
    w.startHelperServer();
    w.startLauncher();
    std::string plist = (w.dir / "Notepad.app/Contents/Info.plist").string();
    ASSERT_TRUE(w.waitForLog(plist + " has no VTHelperAppBottleName string: the tools are not told which bottle to use."));
    EXPECT_NE(w.launcherLog().find(plist + " has no CFBundleName string"), std::string::npos) << w.launcherLog();
    ASSERT_TRUE(w.records.waitForTools(1, "vtmenu")) << w.launcherLog();
    auto menu = w.records.tools("vtmenu").at(0);
    EXPECT_EQ(menu.arguments(), std::vector<std::string> { "--bottle" }) << "the list ends where the bottle is missing";
    EXPECT_EQ(menu.environment["VT_LAUNCHER_BUNDLE_NAME"], "");
}

TEST(LauncherStartup, AnUnusableBundleIsToldInOneLineAndEndsAtOnce)
{
    StandinWorld w;
    const std::filesystem::path bundle = w.dir / "Broken.app";
    const std::string plist = (bundle / "Contents/Info.plist").string();
    w.launcher = installExecutable(bundle, "Broken", VT_LAUNCHER_PATH);
    struct Case {
        std::function<void()> make;
        std::string problem;
    };
    const Case cases[] = {
        { [] {}, "it does not exist" },
        { [&] { writeFile(plist, "<plist><dict><key>unfinished"); }, "it is not a property list" },
        { [&] { writeFile(plist, vt::toXmlPropertyList(vt::PlistValue { vt::PlistArray { vt::PlistValue { "a" } } })); },
          "it holds no dictionary" },
        { [&] {
             std::filesystem::remove(plist);
             std::filesystem::create_directory(plist);
         },
          "it is not a regular file" },
    };
    for (size_t run = 0; run < std::size(cases); ++run) {
        cases[run].make();
        auto& launcher = w.startLauncher();
        EXPECT_EQ(launcher.waitForExit(2s), 1) << cases[run].problem;
        EXPECT_NE(w.launcherLog(run).find(plist + " cannot be used: " + cases[run].problem
                                          + "; the launcher cannot run without it"),
                  std::string::npos)
            << w.launcherLog(run);
    }

    // A launcher that is not in a bundle at all.
    TestProcess outside({ VT_LAUNCHER_PATH }, w.environment(), { w.dir.path(), true });
    EXPECT_EQ(outside.waitForExit(2s), 1);
    EXPECT_NE(outside.standardError().find("vtlauncher must run from a launcher bundle"), std::string::npos)
        << outside.standardError();
}

TEST(LauncherStartup, WithoutASessionBusItSaysSoAtOnce)
{
    StandinWorld w;
    for (std::optional<std::string> address : { std::optional<std::string>(), std::optional<std::string>("unix:path=/nonexistent/bus") }) {
        size_t run = address ? 1 : 0;
        auto& launcher = w.startLauncher({}, { { "DBUS_SESSION_BUS_ADDRESS", address } });
        // Said first, before the attempts to find the helper server, and only once.
        ASSERT_TRUE(w.waitForLog("looking for the helper server, attempt 1", run)) << w.launcherLog(run);
        std::string log = w.launcherLog(run);
        EXPECT_LT(log.find("no D-Bus session bus: "), log.find("looking for the helper server")) << log;
        // The launcher's own lines ("Notepad[pid] ..."); the main application
        // it started writes to the same place and may say it cannot register.
        EXPECT_EQ(log.find("] cannot register"), std::string::npos) << log;
        EXPECT_EQ(log.find("The launcher has no icon in the status area"), std::string::npos) << log;
        launcher.signal(SIGTERM);
        EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog(run);
    }
}

TEST(LauncherStartup, WhatComesWhileItWaitsIsDeliveredAfterwardsInOrder)
{
    StandinWorld w;
    auto& launcher = w.startLauncher();
    // While it looks for the helper server: a second launch with a URL and a file.
    ASSERT_TRUE(w.waitForLog("looking for the helper server, attempt 1")) << w.launcherLog();
    EXPECT_EQ(w.startLauncher({ "https://example.com/first", "while looking.txt" }).waitForExit(), 0);
    // While it waits for the bottle: a second launch without arguments.
    w.startHelperServer({ { "VT_STANDIN_NOT_READY", "2" } });
    ASSERT_TRUE(w.waitForLog("is not ready yet")) << w.launcherLog();
    EXPECT_EQ(w.startLauncher().waitForExit(), 0);
    ASSERT_TRUE(w.waitForLog("event: reopen")) << w.launcherLog();

    std::string log = w.launcherLog();
    const std::string inOrder[] = {
        kStartupDone,
        "event: open-untitled",
        "event: activate",
        "event: open-url https://example.com/first",
        "event: open-files " + (w.dir / "while looking.txt").string(),
        "event: reopen",
    };
    size_t at = 0;
    for (const auto& text : inOrder) {
        size_t found = log.find(text, at);
        ASSERT_NE(found, std::string::npos) << "\"" << text << "\" in order in\n" << log;
        at = found;
    }
    // Each reached the program: the untitled start, the URL, the file.
    EXPECT_TRUE(w.records.waitForTools(3, "vtmenu") || w.records.tools("vtstart").size() == 1) << log;
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
}

TEST(LauncherStartup, AnIdleLauncherHasGLibsThreadsAndItsOwnMainThreadOnly)
{
    StandinWorld w;
    // Before any hand-over: without Wine's library vtmenu's request is
    // refused, read whole, and Wine runs in processes of its own.
    std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor" / vt::kNativeWineLoaderLayout.libraryDirectory
                            / vt::kWineLibraryName);
    auto& launcher = startedLauncher(w);
    ASSERT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
    // The loader's, the tray socket's and the item's work are there too by now.
    ASSERT_TRUE(w.waitForLog("Failed to load")) << w.launcherLog();
    ASSERT_TRUE(w.waitForLog("event: activate")) << w.launcherLog();
    std::vector<std::string> names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(launcher.pid()) + "/task"))
        names.push_back(readFile(task.path() / "comm"));
    EXPECT_LE(names.size(), 4u) << testing::PrintToString(names);
    for (const auto& name : names)
        EXPECT_EQ(name.rfind("vt-", 0), std::string::npos) << "a thread of the launcher's own: " << name;
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
}
