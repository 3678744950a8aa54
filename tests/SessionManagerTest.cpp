// The real launcher taking part in the desktop's logout through a stand-in
// of GNOME's session manager on the private bus, with the stand-in product's
// window-command tool answering for the program.
#include <csignal>

#include <gtest/gtest.h>

#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/GnomeSessionManager.hpp"
#include "standin/kit/StandinWorld.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

using Strings = std::vector<std::string>;
using Response = GnomeSessionManager::Response;

class SessionManager : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Wine runs in processes of its own here (see LauncherProgramTest).
        std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor"
                                / vt::kNativeWineLoaderLayout.libraryDirectory / vt::kWineLibraryName);
        w.setAnswer("haswindows", "0");
        w.startHelperServer();
    }

    // Starts the launcher, started by the session manager with a startup
    // id, and waits until it runs the program and has registered.
    TestProcess& launch()
    {
        TestProcess& launcher = w.startLauncher({}, { { "DESKTOP_AUTOSTART_ID", "startup-4242" } });
        EXPECT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
        auto client = manager.waitForClient();
        EXPECT_TRUE(client) << w.launcherLog();
        if (client) {
            EXPECT_EQ(client->applicationId, "com.example.Notepad");
            EXPECT_EQ(client->startupId, "startup-4242");
        }
        // The launcher's activation asks "haswindows" first.
        EXPECT_TRUE(w.records.waitFor("request", 1));
        return launcher;
    }

    Strings commandsAfter(size_t skip) const
    {
        Strings texts = w.records.commandTexts();
        return Strings(texts.begin() + std::min(skip, texts.size()), texts.end());
    }

    StandinWorld w;
    GnomeSessionManager manager { w.bus.address() };
};

} // namespace

TEST_F(SessionManager, ARefusalNamesTheProgramAndACancelClosesTheProgramsQuestion)
{
    w.setAnswer("queryendsession", "0");
    auto& launcher = launch();

    manager.send("QueryEndSession");
    EXPECT_EQ(manager.waitForResponse(), (Response { false, "Notepad has unsaved work" })) << w.launcherLog();
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession" }));
    // Nothing more until the session manager has decided.
    manager.send("CancelEndSession");
    ASSERT_TRUE(w.records.waitFor("request", 4));
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsessioncancel" }));
    EXPECT_TRUE(launcher.running());
    EXPECT_EQ(manager.unreadResponses(), 0u);

    // A dialog already up: "close" alone says no.
    w.setAnswer("close", "0");
    manager.send("QueryEndSession");
    EXPECT_EQ(manager.waitForResponse(), (Response { false, "Notepad has unsaved work" }));
    EXPECT_EQ(commandsAfter(4), (Strings { "close" }));
    EXPECT_TRUE(launcher.running());
}

TEST_F(SessionManager, AnAgreedLogoutEndsTheProgramTheWindowsWayAndTheLauncherAfterIt)
{
    auto& launcher = launch();
    auto menu = w.records.tools("vtmenu").at(0);

    manager.send("QueryEndSession");
    EXPECT_EQ(manager.waitForResponse(), (Response { true, "" })) << w.launcherLog();
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession" }));
    manager.send("EndSession");
    EXPECT_EQ(manager.waitForResponse(), (Response { true, "" }));
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    // The launcher stays for as long as the program does, and nothing is
    // ended by force.
    EXPECT_FALSE(launcher.waitForExit(300ms));
    ASSERT_TRUE(terminateAndWait(menu.pid));
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_TRUE(manager.waitForUnregistration());
    EXPECT_EQ(manager.unreadResponses(), 0u);
}

TEST_F(SessionManager, StopIsAQuitAndTheLauncherUnregistersAtItsEnd)
{
    auto& launcher = launch();
    manager.send("Stop");
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    EXPECT_TRUE(manager.waitForUnregistration());
}

TEST_F(SessionManager, AQuitWhileTheSessionAsksSharesTheProgramsAnswer)
{
    // The program asks its user and never answers ("Save changes?" stays up).
    w.setAnswer("queryendsession", "silent");
    auto& launcher = launch();
    manager.send("QueryEndSession");
    ASSERT_TRUE(w.records.waitFor("request", 3));
    launcher.signal(SIGTERM);
    // One question only: the quit waits for the same answer.
    EXPECT_FALSE(w.records.waitFor("request", 4, 500ms));
    EXPECT_EQ(manager.unreadResponses(), 0u);

    // The session manager goes meanwhile: said once, nothing else changes.
    manager.vanish();
    EXPECT_TRUE(w.waitForLog("the session manager: it has gone; a logout no longer asks the program first"));
    EXPECT_TRUE(launcher.running());
}

TEST_F(SessionManager, ALauncherStartedBeforeTheSessionManagerNeverRegisters)
{
    manager.vanish();
    TestProcess& launcher = w.startLauncher();
    ASSERT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
    GnomeSessionManager late(w.bus.address());
    EXPECT_FALSE(late.waitForClient(1s));
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
}
