// The real launcher taking the Windows program into its own process: the
// stand-in vtmenu plays the Wine loader and hands its start over through the
// loader socket, and the stand-in Wine library's wine_init, running inside
// the launcher, records what it was given and registers its controller.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "loader/ExecutableLayout.hpp"
#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/StandinWorld.hpp"
#include "standin/loader/LoaderClient.hpp"

using namespace vt;
using namespace vt::test;

namespace {

using Strings = std::vector<std::string>;

std::string hex(uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// The names of a process's threads, one per thread.
Strings threadNames(pid_t pid)
{
    Strings names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        names.push_back(name);
    }
    return names;
}

// A signal mask line of /proc/<pid>[/task/<tid>]/status ("SigBlk", "SigCgt").
uint64_t signalMask(const std::filesystem::path& status, const std::string& name)
{
    std::ifstream in(status);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(name + ":"))
            return std::stoull(line.substr(name.size() + 1), nullptr, 16);
    return 0;
}

bool holds(uint64_t mask, int signalNumber) { return (mask >> (signalNumber - 1)) & 1; }

class LoaderHandOver : public ::testing::Test {
protected:
    // Starts the launcher and waits until Wine runs inside it.
    TestProcess& launchIntoWine(const Strings& arguments = {})
    {
        w.startHelperServer();
        TestProcess& launcher = w.startLauncher(arguments, { { "VT_LOG", "1" } });
        EXPECT_TRUE(waitUntil([&] { return !w.records.wineInits().empty(); }, 20s)) << w.launcherLog();
        return launcher;
    }

    std::vector<std::string> controllerCalls() const { return w.records.texts("controller"); }

    StandinWorld w;
};

} // namespace

TEST_F(LoaderHandOver, ATypicalLaunchEndsWithWineRunningInsideTheLauncher)
{
    TestProcess& launcher = launchIntoWine();
    ToolRecord menu = w.records.tools("vtmenu").at(0);
    WineInitRecord wine = w.records.wineInits().at(0);

    EXPECT_EQ(wine.pid, launcher.pid());
    EXPECT_FALSE(wine.mainThread);
    // Wine has the one thread of its own; nothing else of the loader's waits
    // on a thread.
    Strings threads = threadNames(launcher.pid());
    EXPECT_EQ(std::count(threads.begin(), threads.end(), "vt-wine"), 1) << testing::PrintToString(threads);
    EXPECT_EQ(std::count(threads.begin(), threads.end(), "vt-loader"), 0) << testing::PrintToString(threads);
    Strings expectedArguments {
        (w.mainApp / "Contents/SharedSupport/Vantor/bin" / kNativeWineLoaderLayout.defaultLoader).string()
    };
    for (const auto& argument : menu.arguments())
        expectedArguments.push_back(argument);
    EXPECT_EQ(wine.argv, expectedArguments) << "the default loader for the empty first argument";
    EXPECT_EQ(wine.directory, menu.directory);
    for (const auto& [name, value] : menu.environment) {
        if (name != "VT_ALT_LOADER_SOCKET" && name != "WINE_WAIT_CHILD_PIPE") {
            EXPECT_EQ(wine.environment[name], value) << name;
        }
    }
    EXPECT_EQ(wine.standardInput, "null");
    ASSERT_TRUE(wine.serverSocket && wine.waitChildPipe);
    EXPECT_TRUE(wine.serverSocket->open && wine.serverSocket->closeOnExec);
    EXPECT_TRUE(wine.waitChildPipe->open);
    EXPECT_FALSE(wine.waitChildPipe->closeOnExec) << "Wine's children must inherit it";
    EXPECT_EQ(wine.controller, "registered");

    // Wine's memory manager was handed the ranges the executable keeps free.
    Strings expectedCalls;
    for (const ReservedArea& area : wineReservedAreas()) {
        expectedCalls.push_back("wine_anon_mmap " + hex(area.start) + " " + hex(area.length) + " 0x0 0x4010");
        expectedCalls.push_back("wine_mmap_add_reserved_area " + hex(area.start) + " " + hex(area.length));
    }
    EXPECT_EQ(w.records.texts("mmap"), expectedCalls);

    // The socket has gone with the hand-over; later processes are told of none.
    std::string socket = menu.environment.at("VT_APPRUNNER_ALT_LOADER_SOCKET");
    // The loader records the answer as Wine starts, in a race with it.
    ASSERT_TRUE(w.records.waitFor("loader", 1));
    EXPECT_EQ(w.records.all("loader").at(0).value("outcome"), "proceed");
    EXPECT_FALSE(std::filesystem::exists(socket));
    w.startLauncher({ (w.dir / "a.pdf").string() }).waitForExit();
    ASSERT_TRUE(w.records.waitForTools(1, "vtmenu", 20s) && w.records.waitForTools(3));
    EXPECT_FALSE(w.records.tools("vtmenu").back().environment.count("VT_APPRUNNER_ALT_LOADER_SOCKET"));

    // A quit is still an end of session with the program's windows; the
    // program's tools end by themselves once the launcher (holding the
    // wait-children pipe) has gone.
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_EQ(w.records.commandTexts(), (Strings { "haswindows", "close", "queryendsession", "endsession", "shutdown" }));
    auto calls = controllerCalls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "application_will_terminate yes"), calls.end())
        << "the controller hears of the end on the main thread";
    EXPECT_TRUE(waitUntil([&] { return w.records.endedBy(menu.pid) == 0; })) << "vtmenu ends by itself";
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(socket).parent_path()));
}

TEST_F(LoaderHandOver, TheLauncherStaysWhenTheToolsEnd)
{
    TestProcess& launcher = launchIntoWine();
    ToolRecord menu = w.records.tools("vtmenu").at(0);
    ::kill(menu.pid, SIGTERM);
    ASSERT_TRUE(w.waitForLog("Wine runs inside the launcher, which stays"));
    EXPECT_TRUE(launcher.running());
}

TEST_F(LoaderHandOver, WineAloneTakesTheSignalsItHandles)
{
    TestProcess& launcher = launchIntoWine();
    // Wine's handlers find Wine's data from the thread they run on: no
    // thread of the launcher's may take them. Wine unblocks them on its own.
    const std::filesystem::path process = "/proc/" + std::to_string(launcher.pid());
    for (const auto& task : std::filesystem::directory_iterator(process / "task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name == "vt-wine")
            continue;
        uint64_t blocked = signalMask(task.path() / "status", "SigBlk");
        for (int number : { SIGINT, SIGQUIT, SIGUSR1 })
            EXPECT_TRUE(holds(blocked, number)) << name << " takes " << strsignal(number);
    }
    // SIGINT is left to Wine's handler (Ctrl+C for the program); SIGTERM
    // and SIGHUP stay the launcher's quit requests.
    uint64_t caught = signalMask(process / "status", "SigCgt");
    EXPECT_FALSE(holds(caught, SIGINT));
    EXPECT_TRUE(holds(caught, SIGTERM));
    EXPECT_TRUE(holds(caught, SIGHUP));

    ASSERT_TRUE(w.records.waitFor("request", 1)) << w.launcherLog();
    launcher.signal(SIGINT);
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    std::string log = w.launcherLog();
    size_t quits = 0;
    for (size_t at = log.find("event: quit-request"); at != std::string::npos;
         at = log.find("event: quit-request", at + 1))
        ++quits;
    EXPECT_EQ(quits, 1u) << log;
}

TEST_F(LoaderHandOver, TheRegisteredControllerAnswersForTheLauncher)
{
    // It consumes URL openings, declines reopening and answers the quit
    // question later, with yes.
    w.serverDictionary["VT_STANDIN_WINE"] = "consume=3,reopen=no,terminate=later-yes";
    TestProcess& launcher = launchIntoWine();
    size_t processes = w.records.tools().size();

    w.startLauncher({ "https://example.com/" }).waitForExit();
    w.startLauncher().waitForExit();
    ASSERT_TRUE(waitUntil([&] {
        auto calls = controllerCalls();
        return std::find(calls.begin(), calls.end(), "should_handle_reopen yes no no") != calls.end();
    })) << w.launcherLog();
    auto calls = controllerCalls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "handle_event yes 3 https://example.com/ yes"), calls.end());
    EXPECT_EQ(w.records.tools().size(), processes) << "no vtstart for the URL, no vtmenu for the reopen";

    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
    calls = controllerCalls();
    auto asked = std::find(calls.begin(), calls.end(), "should_terminate yes later");
    ASSERT_NE(asked, calls.end());
    EXPECT_NE(std::find(asked, calls.end(), "reply_to_application_should_terminate no yes"), calls.end());
    EXPECT_EQ(w.records.commandTexts(), (Strings { "haswindows" })) << "no end of session of the launcher's own";
}

TEST_F(LoaderHandOver, TheOtherArchitectureGoesBackToVtmenuAndTheRightLoaderIsStillServed)
{
    w.serverDictionary["VT_STANDIN_LOADER"] = "other-arch";
    w.serverDictionary["SERVER_ONLY"] = "yes";
    w.startHelperServer();
    TestProcess& launcher = w.startLauncher();
    ASSERT_TRUE(w.records.waitForTools(2, "vtmenu")) << w.launcherLog();
    // The refused loader writes its record after the launcher has acted on the refusal.
    ASSERT_TRUE(w.records.waitFor("loader", 1)) << w.launcherLog();
    EXPECT_EQ(w.records.all("loader").at(0).value("outcome"), "refused");
    ToolRecord repair = w.records.tools("vtmenu").at(1);
    EXPECT_EQ(repair.arguments(),
              (Strings { "--bottle", "Office", "--arch", kNativeWineLoaderLayout.otherArchitecture, "--install", "--filter",
                        "Programs/Notepad.lnk" }));
    EXPECT_EQ(repair.environment, w.serverDictionary) << "none of the launcher's own variables";
    EXPECT_EQ(repair.standardInput, "null");

    // More loaders of the other architecture while that vtmenu runs start no more of them.
    std::string socket = w.records.tools("vtmenu").at(0).environment.at("VT_APPRUNNER_ALT_LOADER_SOCKET");
    Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int again = 0; again < 5; ++again) {
        int otherPair[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, otherPair), 0);
        Fd otherServer(otherPair[0]), otherClient(otherPair[1]);
        standin::sendLoaderRequest(socket, kNativeWineLoaderLayout.otherRequest, "/", {}, { "", "app.exe" },
                                   { null.get(), null.get(), null.get(), otherServer.get() });
    }
    auto askedAgain = [&] {
        std::string log = w.launcherLog();
        size_t count = 0;
        for (size_t at = log.find("is not asked again"); at != std::string::npos; at = log.find("is not asked again", at + 1))
            ++count;
        return count;
    };
    ASSERT_TRUE(waitUntil([&] { return askedAgain() == 5; })) << w.launcherLog();
    EXPECT_EQ(w.records.tools("vtmenu").size(), 2u);

    // The right loader after it is served.
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    Fd server(pair[0]), client(pair[1]);
    auto answer = standin::sendLoaderRequest(socket, kNativeWineLoaderLayout.ownRequest, "/",
                                             { "VT_STANDIN_RECORDS=" + w.records.path().string() }, { "", "app.exe" },
                                             { null.get(), null.get(), null.get(), server.get() });
    EXPECT_EQ(answer, WineLoaderResponseProceed);
    ASSERT_TRUE(waitUntil([&] { return !w.records.wineInits().empty(); }));
    EXPECT_EQ(w.records.wineInits().at(0).pid, launcher.pid());
    EXPECT_FALSE(w.records.wineInits().at(0).waitChildPipe) << "four descriptors: no wait-children pipe";
}

TEST_F(LoaderHandOver, QuittingBeforeAnyHandOverLeavesNoSocketBehind)
{
    // Without Wine's library the request is refused and vtmenu runs Wine itself.
    std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor"
                            / kNativeWineLoaderLayout.libraryDirectory / kWineLibraryName);
    w.startHelperServer();
    TestProcess& launcher = w.startLauncher();
    ASSERT_TRUE(w.records.waitFor("loader", 1)) << w.launcherLog();
    EXPECT_EQ(w.records.all("loader").at(0).value("outcome"), "refused");
    EXPECT_NE(w.launcherLog().find("Failed to load"), std::string::npos);
    std::filesystem::path socket = w.records.tools("vtmenu").at(0).environment.at("VT_APPRUNNER_ALT_LOADER_SOCKET");
    EXPECT_TRUE(std::filesystem::is_socket(socket));

    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_FALSE(std::filesystem::exists(socket.parent_path()));
}

TEST_F(LoaderHandOver, WithWineInsideAQuitGoesThroughTheWindowCommandsAlsoWhenTheToolsHaveEnded)
{
    // The controller answers no quit question (it need not): the launcher
    // asks the program itself, although its tools are gone.
    TestProcess& launcher = launchIntoWine();
    ::kill(w.records.tools("vtmenu").at(0).pid, SIGTERM);
    ASSERT_TRUE(w.waitForLog("Wine runs inside the launcher, which stays")) << w.launcherLog();
    // The launch's own activation has asked for windows.
    ASSERT_TRUE(w.records.waitFor("request", 1)) << w.launcherLog();
    size_t seen = w.records.commandTexts().size();
    std::filesystem::path socket = w.records.tools("vtmenu").at(0).environment.at("VT_APPRUNNER_ALT_LOADER_SOCKET");
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    auto texts = w.records.commandTexts();
    EXPECT_EQ(Strings(texts.begin() + static_cast<std::ptrdiff_t>(seen), texts.end()),
              (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    // Agreed while Wine's thread still runs, the launcher ends at once, and
    // its private directory goes all the same.
    EXPECT_FALSE(std::filesystem::exists(socket.parent_path())) << socket;
}

TEST_F(LoaderHandOver, AHandOverThatFailsOnceDecidedEndsTheLauncherWithItsTools)
{
    w.serverDictionary["VT_STANDIN_WINE"] = "fail";
    TestProcess& launcher = launchIntoWine();
    ASSERT_TRUE(w.waitForLog("wine_init failed")) << w.launcherLog();
    // The failure is a line of its own.
    std::string log = w.launcherLog();
    size_t failed = log.find("wine_init failed");
    ASSERT_NE(log.find('\n', failed), std::string::npos);
    EXPECT_EQ(log.substr(failed, log.find('\n', failed) - failed).find("] "), std::string::npos)
        << "the next log line ran into it: " << log;
    // Nothing runs inside: when the tools end, so does the launcher.
    for (const auto& menu : w.records.tools("vtmenu"))
        ::kill(menu.pid, SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
}
