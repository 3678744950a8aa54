// The real launcher taking part in the desktop's logout through stand-ins of
// GNOME's session manager on the private bus and of an X session manager
// (XSMP), with the stand-in product's window-command tool answering for the
// program.
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>

#include <gtest/gtest.h>

#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/GnomeSessionManager.hpp"
#include "standin/kit/StandinWorld.hpp"
#include "standin/kit/XsmpSessionManager.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

using Strings = std::vector<std::string>;
using Response = GnomeSessionManager::Response;
using Interaction = XsmpSessionManager::Interaction;

// A world whose program answers the launcher's questions itself.
class SessionWorld : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Wine runs in processes of its own here (see LauncherProgramTest).
        std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor"
                                / vt::kNativeWineLoaderLayout.libraryDirectory / vt::kWineLibraryName);
        w.setAnswer("haswindows", "0");
        w.startHelperServer();
    }

    Strings commandsAfter(size_t skip) const
    {
        Strings texts = w.records.commandTexts();
        return Strings(texts.begin() + std::min(skip, texts.size()), texts.end());
    }

    StandinWorld w;
};

class SessionManager : public SessionWorld {
protected:
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

    GnomeSessionManager manager { w.bus.address() };
};

class XSessionManager : public SessionWorld {
protected:
    // Starts the launcher in an X session with no manager on the bus, and
    // waits until it runs the program and has registered.
    TestProcess& launch()
    {
        TestProcess& launcher = w.startLauncher(
            {}, { { "SESSION_MANAGER", manager.address() }, { "DESKTOP_AUTOSTART_ID", "startup-4242" } });
        EXPECT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
        auto client = manager.waitForClient();
        EXPECT_TRUE(client) << w.launcherLog();
        if (client) {
            // Presented, refused as unknown, registered afresh.
            EXPECT_EQ(client->previousId, "startup-4242");
            EXPECT_FALSE(client->clientId.empty());
            EXPECT_EQ(client->properties["RestartStyleHint"], (Strings { "3" })) << "never restarted";
            EXPECT_EQ(client->properties["Program"], (Strings { w.launcher.string() }));
            for (const char* required : { "RestartCommand", "CloneCommand", "UserID" })
                EXPECT_EQ(client->properties[required].size(), 1u) << required;
        }
        // A new client's first save: answered at once, the program untouched.
        EXPECT_EQ(manager.waitForMessage(), "SaveYourselfDone success") << w.launcherLog();
        EXPECT_TRUE(w.records.waitFor("request", 1));
        return launcher;
    }

    XsmpSessionManager manager;
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

TEST_F(SessionManager, WithBothKindsOfManagerTheLauncherIsTheBusManagersClientOnly)
{
    XsmpSessionManager xsmp;
    TestProcess& launcher = w.startLauncher({}, { { "SESSION_MANAGER", xsmp.address() } });
    ASSERT_TRUE(manager.waitForClient()) << w.launcherLog();
    EXPECT_FALSE(xsmp.waitForClient(1s)) << "registered twice with one session";
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
}

TEST(SessionManagerWithWineInside, AnEndThatTheProgramTakesTheProcessWithIsStillAnswered)
{
    // Wine runs inside the launcher, with no controller of its own (as
    // Debian's): the program's end, Wine's exit(), is the launcher's, and
    // may come before the window-command tool has answered "shutdown".
    StandinWorld w;
    TempDir dir;
    w.serverDictionary["VT_STANDIN_WINE"] = "no-controller,exit-when=" + (dir / "ended").string();
    w.setAnswer("haswindows", "0");
    w.setAnswer("shutdown", "silent");
    GnomeSessionManager manager(w.bus.address());
    w.startHelperServer();
    TestProcess& launcher = w.startLauncher();
    ASSERT_TRUE(waitUntil([&] { return !w.records.wineInits().empty(); }, 20s)) << w.launcherLog();
    ASSERT_TRUE(manager.waitForClient()) << w.launcherLog();

    manager.send("QueryEndSession");
    EXPECT_EQ(manager.waitForResponse(), (Response { true, "" })) << w.launcherLog();
    manager.send("EndSession");
    ASSERT_TRUE(waitUntil([&] {
        Strings texts = w.records.commandTexts();
        return !texts.empty() && texts.back() == "shutdown";
    })) << w.launcherLog();
    EXPECT_EQ(manager.unreadResponses(), 0u) << "the end is answered once the program has taken it";
    writeFile(dir / "ended", "");
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_EQ(manager.waitForResponse(5s), (Response { true, "" })) << w.launcherLog();
    EXPECT_TRUE(manager.waitForUnregistration(5s));
}

TEST_F(XSessionManager, ALogoutTheProgramRefusesIsCancelledAndTheCancelReachesTheProgram)
{
    w.setAnswer("queryendsession", "0");
    auto& launcher = launch();

    // Saves that are no logout, or during which nobody may be asked, ask
    // the program nothing.
    manager.saveYourself(false, Interaction::Any);
    EXPECT_EQ(manager.waitForMessage(), "SaveYourselfDone success");
    manager.saveYourself(true, Interaction::None);
    EXPECT_EQ(manager.waitForMessage(), "SaveYourselfDone success");
    EXPECT_EQ(commandsAfter(1), Strings {});

    // A logout: the program is asked only once the launcher may interact.
    manager.saveYourself(true, Interaction::Any);
    EXPECT_EQ(manager.waitForMessage(), "InteractRequest normal");
    EXPECT_FALSE(w.records.waitFor("request", 2, 300ms));
    manager.interact();
    EXPECT_EQ(manager.waitForMessage(), "InteractDone cancel") << w.launcherLog();
    EXPECT_EQ(manager.waitForMessage(), "SaveYourselfDone success");
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession" }));
    manager.shutdownCancelled();
    ASSERT_TRUE(w.records.waitFor("request", 4));
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsessioncancel" }));
    EXPECT_TRUE(launcher.running());
    EXPECT_EQ(manager.unreadMessages(), Strings {});
}

TEST_F(XSessionManager, AnAgreedLogoutEndsTheProgramOnDieAndTheLauncherLeavesAfterIt)
{
    auto& launcher = launch();
    auto menu = w.records.tools("vtmenu").at(0);

    // Where only errors may be shown, the launcher asks for that kind.
    manager.saveYourself(true, Interaction::Errors);
    EXPECT_EQ(manager.waitForMessage(), "InteractRequest errors");
    manager.interact();
    EXPECT_EQ(manager.waitForMessage(), "InteractDone") << w.launcherLog();
    EXPECT_EQ(manager.waitForMessage(), "SaveYourselfDone success");
    manager.die();
    ASSERT_TRUE(w.records.waitFor("request", 5)) << w.launcherLog();
    EXPECT_EQ(commandsAfter(1), (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    // The launcher stays for as long as the program does, and nothing is
    // ended by force.
    EXPECT_FALSE(launcher.waitForExit(300ms));
    ASSERT_TRUE(terminateAndWait(menu.pid));
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_EQ(manager.waitForMessage(), "CloseConnection");
}

TEST_F(XSessionManager, AManagerThatGoesWhileTheProgramAsksIsSaidOnceAndCostsNothingElse)
{
    // The program asks its user and never answers ("Save changes?" stays up).
    w.setAnswer("queryendsession", "silent");
    auto& launcher = launch();
    manager.saveYourself(true, Interaction::Any);
    EXPECT_EQ(manager.waitForMessage(), "InteractRequest normal");
    manager.interact();
    ASSERT_TRUE(w.records.waitFor("request", 3));
    manager.vanish();
    EXPECT_TRUE(w.waitForLog("the session manager: it has gone; a logout no longer asks the program first"));
    EXPECT_TRUE(launcher.running());
}

TEST_F(XSessionManager, AManagerThatNeverAnswersIsSaidOnceAndTheLauncherGoesOn)
{
    // A socket that takes the connection and says nothing.
    TempDir dir;
    std::string path = (dir.path() / "hung").string();
    int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 4), 0);

    char host[256] = "";
    gethostname(host, sizeof host - 1);
    TestProcess& launcher = w.startLauncher({}, { { "SESSION_MANAGER", "local/" + std::string(host) + ":" + path } });
    ASSERT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
    EXPECT_TRUE(w.waitForLog("the session manager: it did not take the launcher as a client within 10 s", 0, 30s))
        << w.launcherLog();
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    ::close(listener);
}
