// The real launcher, started from a bundle on a private bus beside the
// stand-in product: how it comes up, waits, gives up, and hands over to a
// running copy of itself.
#include <csignal>

#include <gtest/gtest.h>

#include "standin/kit/LauncherHarness.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

const char* kStartupDone = "start-up done";

void expectAboutOneSecondApart(const std::vector<int64_t>& times)
{
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - times[i - 1], 900) << "between attempts " << i << " and " << i + 1;
        EXPECT_LE(times[i] - times[i - 1], 3000) << "between attempts " << i << " and " << i + 1;
    }
}

std::vector<int64_t> recordTimes(const std::vector<std::string>& lines, const std::string& text)
{
    std::vector<int64_t> times;
    for (const auto& line : lines) {
        if (line.find(text) != std::string::npos)
            times.push_back(std::stoll(line));
    }
    return times;
}

} // namespace

TEST(LauncherStartup, GivesUpAfterTenAttemptsWithoutHelperServer)
{
    LauncherHarness h;
    auto launcher = h.startLauncher();
    ASSERT_EQ(launcher->waitForExit(30s), 0);

    std::string log = h.launcherLog();
    auto attempts = logLineTimes(log, "looking for the helper server, attempt");
    EXPECT_EQ(attempts.size(), 10u) << log;
    expectAboutOneSecondApart(attempts);
    EXPECT_NE(log.find("] Unable to locate a Vantor helper server.  We should really tell someone about this.\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find(kStartupDone), std::string::npos);

    // The main application was started in the background with this bundle to open.
    std::string bundleURI = "file://" + (h.dir / "Notepad.app").string() + "/";
    auto record = readLines(h.mainAppRecord());
    ASSERT_FALSE(record.empty());
    EXPECT_EQ(record[0], "started " + (h.mainApp / "Contents/MacOS/Vantor").string() + " " + bundleURI);
    // The stand-in writes URIs the way GIO gives them back: without the final slash.
    EXPECT_NE(std::find(record.begin(), record.end(), "open file://" + (h.dir / "Notepad.app").string()), record.end())
        << testing::PrintToString(record);
    EXPECT_EQ(std::find(record.begin(), record.end(), "activate"), record.end()) << "it must not take the focus";
}

TEST(LauncherStartup, WaitsForTheBottleThenGoesOn)
{
    LauncherHarness h;
    h.startHelperServer({ { "VT_STANDIN_NOT_READY", "3" } });
    auto launcher = h.startLauncher();
    ASSERT_TRUE(h.waitForLog(kStartupDone));

    auto polls = recordTimes(readLines(h.serverRecord()), "IsServerReadyForBottle Office");
    EXPECT_EQ(polls.size(), 4u);
    expectAboutOneSecondApart(polls);
    // The tools are those of the registered main application.
    EXPECT_NE(h.launcherLog().find("tools in " + (h.mainApp / "Contents/SharedSupport/Vantor").string()),
              std::string::npos)
        << h.launcherLog();

    launcher->signal(SIGTERM);
    EXPECT_EQ(launcher->waitForExit(), 0);
}

TEST(LauncherStartup, EndsWhenTheServerGoesAwayWhileWaiting)
{
    LauncherHarness h;
    h.startHelperServer({ { "VT_STANDIN_NOT_READY", "100" }, { "VT_STANDIN_GONE_AFTER", "2" } });
    auto launcher = h.startLauncher();
    ASSERT_EQ(launcher->waitForExit(), 0);
    std::string log = h.launcherLog();
    EXPECT_NE(log.find("] The Vantor helper server was there, but now it's gone.\n"), std::string::npos) << log;
    EXPECT_EQ(log.find(kStartupDone), std::string::npos);
}

TEST(LauncherStartup, QuitSignalEndsItEvenWhileWaitingForTheBottle)
{
    LauncherHarness h;
    h.startHelperServer({ { "VT_STANDIN_NOT_READY", "1000" } });
    auto launcher = h.startLauncher();
    ASSERT_TRUE(h.waitForLog("is not ready yet"));
    launcher->signal(SIGTERM);
    EXPECT_EQ(launcher->waitForExit(5s), 0);
}

TEST(LauncherStartup, RunningCopyOfTheMainApplicationProvidesTheTools)
{
    LauncherHarness h;
    // A newer copy is installed, but an older one runs: the running one wins.
    h.desktop.addMainApp({ .bundle = h.dir / "Newer.app", .version = "9.0.0" });
    auto older = h.desktop.addMainApp({ .bundle = h.dir / "Older.app", .version = "3.9.1", .registersScheme = false });
    TestProcess running({ (older / "Contents/MacOS/Vantor").string() }, h.environment());
    ASSERT_TRUE(waitUntil([&] { return h.bus.hasOwner(vt::kVantorBundleIdentifier); }));
    h.startHelperServer();

    auto launcher = h.startLauncher();
    ASSERT_TRUE(h.waitForLog(kStartupDone));
    EXPECT_NE(h.launcherLog().find("tools in " + (older / "Contents/SharedSupport/Vantor").string()),
              std::string::npos)
        << h.launcherLog();
    // The running copy was asked to open the launcher's bundle, not activated.
    ASSERT_TRUE(waitUntil([&] {
        auto record = readLines(h.mainAppRecord());
        return std::find(record.begin(), record.end(), "open file://" + (h.dir / "Notepad.app").string())
            != record.end();
    })) << testing::PrintToString(readLines(h.mainAppRecord())) << h.launcherLog();
    auto record = readLines(h.mainAppRecord());
    EXPECT_EQ(std::count(record.begin(), record.end(), "activate"), 1) << "only its own start without arguments";
    launcher->signal(SIGTERM);
    EXPECT_EQ(launcher->waitForExit(), 0);
}

TEST(LauncherStartup, SecondLaunchIsHandedToTheFirst)
{
    LauncherHarness h;
    h.startHelperServer();
    auto first = h.startLauncher();
    ASSERT_TRUE(h.waitForLog(kStartupDone));

    auto again = h.startLauncher();
    EXPECT_EQ(again->waitForExit(), 0);
    EXPECT_TRUE(h.waitForLog("event: reopen"));
    EXPECT_TRUE(h.waitForLog("event: activate"));

    auto withFiles = h.startLauncher({ "relative name.txt", "https://example.com/a?b" });
    EXPECT_EQ(withFiles->waitForExit(), 0);
    EXPECT_TRUE(h.waitForLog("event: open-url https://example.com/a?b"));
    EXPECT_TRUE(h.waitForLog("event: open-files " + (h.dir / "relative name.txt").string()))
        << "relative paths are made absolute against the second launch's directory";

    EXPECT_EQ(h.launcherLog(1).find(kStartupDone), std::string::npos) << "the second launch did not start up";
    first->signal(SIGTERM);
    EXPECT_EQ(first->waitForExit(), 0);
}

TEST(LauncherStartup, QuitActionOnTheBusEndsIt)
{
    LauncherHarness h;
    h.startHelperServer();
    auto launcher = h.startLauncher();
    ASSERT_TRUE(h.waitForLog(kStartupDone));
    TestProcess quit({ "/usr/bin/gdbus", "call", "--session", "--dest", "com.example.Notepad", "--object-path",
                       "/com/example/Notepad", "--method", "org.gtk.Actions.Activate", "quit", "[]", "{}" },
                     h.environment());
    EXPECT_EQ(launcher->waitForExit(), 0);
    EXPECT_TRUE(h.waitForLog("event: quit-request"));
}
