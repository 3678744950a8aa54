// The real launcher's descriptors and sockets under abuse: floods of malformed
// loader requests and tray messages, what its children inherit, where its
// private directory may go, that nothing of it is left however it ends,
// other users on its sockets, and running out of descriptors.
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <set>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "loader/WineLoader.hpp"
#include "loader/WineLoaderClientConnection.hpp"
#include "shell/PrivateDirectory.hpp"
#include "standin/kit/StandinWorld.hpp"
#include "standin/kit/StatusNotifierWatcher.hpp"
#include "standin/loader/LoaderClient.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace vt;
using namespace vt::test;
using namespace std::string_literals;
using namespace std::chrono_literals;
using standin::encodeRequestHead;
using standin::nulTerminated;

namespace {

using Strings = std::vector<std::string>;

std::set<int> descriptorsOf(pid_t pid)
{
    std::set<int> numbers;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error))
        numbers.insert(std::stoi(entry.path().filename().string()));
    return numbers;
}

// How many descriptors `pid` holds once it has settled: the same count
// three times over 200 ms (the connection a hand-back came on, say, is
// closed a moment after the tool it started has recorded itself).
size_t settledDescriptorCount(pid_t pid)
{
    size_t count = descriptorsOf(pid).size();
    for (int same = 0; same < 2;) {
        std::this_thread::sleep_for(100ms);
        size_t now = descriptorsOf(pid).size();
        same = now == count ? same + 1 : 0;
        count = now;
    }
    return count;
}

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

template <typename T> std::string bytesOf(T value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); }

// Runs `work` in a child that has become uid and gid 65534: its exit status.
int asAnotherUser(const std::function<int()>& work)
{
    pid_t child = ::fork();
    if (child == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(100);
        ::_exit(work());
    }
    int status = 0;
    EXPECT_TRUE(waitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; }));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::filesystem::path makeDirectory(const std::filesystem::path& path, mode_t mode)
{
    std::filesystem::create_directories(path);
    ::chmod(path.c_str(), mode);
    return path;
}

class DescriptorHygiene : public ::testing::Test {
protected:
    // Without Wine's library the loader reads each request whole, refuses
    // it there and goes on listening; installWine() puts it back.
    void SetUp() override { std::filesystem::remove(wineLibrary()); }

    std::filesystem::path wineLibrary() const
    {
        return w.mainApp / "Contents/SharedSupport/Vantor" / kNativeWineLoaderLayout.libraryDirectory
            / kWineLibraryName;
    }
    void installWine() { std::filesystem::create_symlink(standinWineLibrary(), wineLibrary()); }

    // Starts a launcher and waits until it has started the window-command
    // tool and vtmenu. The helper server must be up.
    TestProcess& launch(const EnvironmentChanges& extra = {})
    {
        size_t tools = w.records.tools().size();
        TestProcess& launcher = w.startLauncher({}, extra);
        run = runs++;
        EXPECT_TRUE(w.records.waitForTools(tools + 2)) << log();
        return launcher;
    }
    std::string log() const { return w.launcherLog(run); }

    // What the launcher gave the latest vtmenu in `name`.
    std::string variable(const char* name) const
    {
        auto menus = w.records.tools("vtmenu");
        return menus.empty() ? std::string() : menus.back().environment[name];
    }

    // Opens `name` in the running launcher through a second launch.
    void open(const std::string& name)
    {
        w.startLauncher({ (w.dir / name).string() }).waitForExit();
        ++runs;
    }

    // A sound request as the product's loader sends it, its standard streams
    // on the null device; the answer.
    std::optional<uint32_t> soundRequest(const std::string& socket, int waitChildren = -1)
    {
        Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
        int pair[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        Fd server(pair[0]), client(pair[1]);
        std::vector<int> descriptors { null.get(), null.get(), null.get(), server.get() };
        if (waitChildren >= 0)
            descriptors.push_back(waitChildren);
        return standin::sendLoaderRequest(socket, kNativeWineLoaderLayout.ownRequest, "/",
                                          { "VT_STANDIN_RECORDS=" + w.records.path().string() }, { "", "app.exe" },
                                          descriptors);
    }

    StandinWorld w;
    size_t run = 0;
    size_t runs = 0;
};

} // namespace

TEST_F(DescriptorHygiene, FloodsOfMalformedInputLeakNothingAndChildrenInheritOnlyTheirStandardStreams)
{
    // vtmenu asks for the other architecture and is handed back, so the
    // loader socket stays for the flood; the sound request after it is taken in.
    installWine();
    w.serverDictionary["VT_STANDIN_LOADER"] = "other-arch";
    StatusNotifierWatcher watcher(w.bus.address());
    w.startHelperServer();
    TestProcess& launcher = launch();
    ASSERT_TRUE(w.records.waitForTools(2, "vtmenu")) << log();
    ASSERT_TRUE(watcher.waitForRegistration()) << log();
    const ToolRecord menu = w.records.tools("vtmenu").at(0);
    const std::string loaderSocket = menu.environment.at("VT_APPRUNNER_ALT_LOADER_SOCKET");
    const std::string traySocket = menu.environment.at("VT_SYSTRAY_SOCKET");
    const size_t before = settledDescriptorCount(launcher.pid());

    // Bytes, then the carrier with that many descriptors (none: no carrier),
    // then more bytes; each connection is closed at once.
    struct Request {
        std::string head;
        int descriptors;
        std::string tail;
    };
    const uint32_t own = kNativeWineLoaderLayout.ownRequest;
    const std::string head = encodeRequestHead(own, "/\0"s, nulTerminated({ "A=1" }), nulTerminated({ "", "a.exe" }));
    const Request requests[] = {
        { "", -1, "" },
        { head.substr(0, 2), -1, "" },
        { bytesOf(0xDEADBEEFu), -1, "" },
        // Beyond the limit whether a length counts 64 bits or only the low 32.
        { bytesOf(own) + bytesOf((uint64_t { 1 } << 40) | (uint64_t { 1 } << 30)), -1, "" },
        { bytesOf(own) + bytesOf(uint64_t { 8 }) + "abc", -1, "" },
        { head, 6, "" },
        { head, 3, "" },
        { head, 5, "x" },
        { "", 5, "\x01\x02\x03" }, // on the type's first byte, where no descriptor belongs
    };
    const std::vector<uint8_t> good = standin::trayMessage(
        kNativeTrayLayout, kTrayOperationAdd, standin::trayRecord(kNativeTrayLayout, 7, 1, 0x401, standin::solidPicture(16, 0x336699)));
    std::vector<uint8_t> wrongCode = good, hugeLength = good;
    wrongCode[0] = 0x4B;
    std::memset(hugeLength.data() + kNativeTrayLayout.operationWidth + 4, 0xFF, 4);
    const std::vector<uint8_t> messages[] = { {}, wrongCode, hugeLength, { 74, 0 } };

    // From a thread of its own: the launcher's log, read on this thread's
    // main loop, must not fill up meanwhile.
    Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    constexpr int kRounds = 2000;
    auto flood = std::async(std::launch::async, [&] {
        int sent = 0;
        for (int i = 0; i < kRounds; ++i) {
            const Request& request = requests[i % std::size(requests)];
            Fd loader = standin::connectToLoader(loaderSocket);
            standin::sendAll(loader.get(), request.head.data(), request.head.size());
            if (request.descriptors >= 0)
                standin::sendCarrier(loader.get(), std::vector<int>(request.descriptors, null.get()));
            standin::sendAll(loader.get(), request.tail.data(), request.tail.size());
            sent += loader && standin::sendTrayBytes(traySocket, messages[i % std::size(messages)]);
        }
        return sent;
    });
    ASSERT_TRUE(waitUntil([&] { return flood.wait_for(0s) == std::future_status::ready; }, 60s));
    EXPECT_EQ(flood.get(), kRounds);
    EXPECT_TRUE(waitUntil([&] { return descriptorsOf(launcher.pid()).size() == before; }))
        << descriptorsOf(launcher.pid()).size() << " descriptors open, " << before << " before";
    for (const char* line : { "unknown request type 0xdeadbeef", "is beyond the request limit",
                              "reading working directory failed", "failed to receive file descriptors",
                              "got extraneous data instead of EOF", "Read message 4b.", "Not enough data.",
                              "is beyond the limit of" })
        EXPECT_NE(log().find(line), std::string::npos) << line;

    // Both still serve. Wine then runs inside the launcher, holding the Wine
    // server socket and the wait-children pipe.
    unsigned icons = watcher.signalCount("NewIcon");
    ASSERT_TRUE(standin::sendTrayBytes(traySocket, good));
    EXPECT_TRUE(watcher.waitForSignal("NewIcon", icons + 1)) << log();
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Fd waitReader(ends[0]), waitWriter(ends[1]);
    EXPECT_EQ(soundRequest(loaderSocket, waitWriter.get()), WineLoaderResponseProceed);
    ASSERT_TRUE(waitUntil([&] { return !w.records.wineInits().empty(); }));
    EXPECT_EQ(w.records.wineInits().at(0).pid, launcher.pid());

    // Every way the launcher starts a process: the window-command tool (on
    // its two pipes), vtmenu handed back for the other architecture, and
    // vtmenu and vtstart for openings now.
    open("a.txt");
    w.startLauncher({ "https://example.com/" }).waitForExit();
    ASSERT_TRUE(w.records.waitForTools(5)) << log();
    for (const ToolRecord& tool : w.records.tools()) {
        Strings numbers;
        for (const std::string& descriptor : tool.descriptors)
            numbers.push_back(descriptor.substr(0, descriptor.find(' ')));
        EXPECT_EQ(numbers, (Strings { "0", "1", "2" })) << tool.role << " " << testing::PrintToString(tool.descriptors);
        EXPECT_EQ(tool.standardInput, tool.role == "wine" ? "pipe" : "null") << tool.role;
    }
}

TEST(LoaderRequestDescriptors, EveryReceivedDescriptorIsCloseOnExec)
{
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    Fd client(pair[0]), server(pair[1]);
    WineLoaderClientConnection connection(kNativeWineLoaderLayout, server.get());

    // The flag belongs to each process's own descriptor table and does not
    // travel: the receiver sets it, or nobody does.
    Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    std::string head = encodeRequestHead(kNativeWineLoaderLayout.ownRequest, "", "", nulTerminated({ "" }));
    ASSERT_TRUE(standin::sendAll(client.get(), head.data(), head.size()));
    ASSERT_TRUE(standin::sendCarrier(client.get(), std::vector<int>(kWineLoaderMaxDescriptors, null.get())));
    ::shutdown(client.get(), SHUT_WR);

    ASSERT_EQ(connection.readAvailable(), WineLoaderClientConnection::State::Complete);
    WineLoaderRequest request = connection.takeRequest();
    for (const Fd& fd : request.descriptors) {
        ASSERT_TRUE(fd);
        EXPECT_EQ(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << "descriptor " << fd.get();
    }
}

TEST(PrivateDirectoryPlace, RefusesAPlaceOthersCouldChangeAndADirectoryThatIsNotPrivate)
{
    TempDir temporary;
    const std::filesystem::path dir = std::filesystem::canonical(temporary.path());

    // Writable by others without a sticky bit, itself or a directory above.
    auto writable = makeDirectory(dir / "writable", 0777);
    const std::string fault = writable.string() + " may be written by other users and has no sticky bit (mode 0777)";
    EXPECT_EQ(PrivateDirectory::unsafeParent(writable), fault);
    EXPECT_EQ(PrivateDirectory::unsafeParent(makeDirectory(writable / "below", 0700)), fault);
    // Sticky, as /tmp is: others may add their own, not move ours.
    EXPECT_EQ(PrivateDirectory::unsafeParent(makeDirectory(dir / "sticky", 01777)), std::nullopt);

    EXPECT_EQ(PrivateDirectory::notPrivate(makeDirectory(dir / "mine", 0700)), std::nullopt);
    EXPECT_EQ(PrivateDirectory::notPrivate(makeDirectory(dir / "readable", 0755)), "its mode is 0755, not 0700");
    std::filesystem::create_directory_symlink(dir / "mine", dir / "link");
    EXPECT_EQ(PrivateDirectory::notPrivate(dir / "link"), "it is a symbolic link");

    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to give a directory to another user";
    auto theirs = makeDirectory(dir / "theirs", 0700);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    EXPECT_EQ(PrivateDirectory::notPrivate(theirs), "it belongs to uid 65534");
    EXPECT_EQ(PrivateDirectory::unsafeParent(theirs), theirs.string() + " belongs to uid 65534");
}

TEST_F(DescriptorHygiene, InAPlaceOthersCouldChangeTheLauncherRunsWithoutItsSocketsAndSaysSoOnce)
{
    auto shared = makeDirectory(w.dir / "shared", 0777);
    w.startHelperServer();
    TestProcess& launcher = launch({ { "XDG_RUNTIME_DIR", shared.string() } });
    open("a.txt");
    ASSERT_TRUE(w.records.waitForTools(2, "vtmenu")) << log();

    for (const ToolRecord& menu : w.records.tools("vtmenu")) {
        EXPECT_FALSE(menu.environment.count("VT_APPRUNNER_ALT_LOADER_SOCKET"));
        EXPECT_FALSE(menu.environment.count("VT_SYSTRAY_SOCKET"));
    }
    EXPECT_EQ(occurrences(log(), "Cannot make the launcher's private directory in " + shared.string() + ": "
                                     + shared.string()
                                     + " may be written by other users and has no sticky bit (mode 0777); the "
                                       "launcher runs without its sockets.\n"),
              1u)
        << log();
    EXPECT_TRUE(std::filesystem::is_empty(shared));
    EXPECT_TRUE(launcher.running());
}

TEST_F(DescriptorHygiene, NoSocketOrDirectoryIsLeftHoweverTheLauncherEnds)
{
    // Each launcher makes its private directory in a runtime directory of
    // its own, which must be empty again once that launcher has ended.
    int count = 0;
    auto runtime = [&] { return makeDirectory(w.dir / ("run-" + std::to_string(++count)), 0700); };

    // A start-up that fails: the helper server goes while the launcher waits.
    w.startHelperServer({ { "VT_STANDIN_NOT_READY", "100" }, { "VT_STANDIN_GONE_AFTER", "2" } });
    auto directory = runtime();
    EXPECT_EQ(w.startLauncher({}, { { "XDG_RUNTIME_DIR", directory.string() } }).waitForExit(), 0);
    ++runs;
    EXPECT_NE(log().find("] The Vantor helper server was there, but now it's gone.\n"), std::string::npos) << log();
    EXPECT_TRUE(std::filesystem::is_empty(directory));

    // A quit signal, with both sockets there.
    w.startHelperServer();
    for (int signalNumber : { SIGTERM, SIGINT, SIGHUP }) {
        auto directory = runtime();
        TestProcess& launcher = launch({ { "XDG_RUNTIME_DIR", directory.string() } });
        ASSERT_TRUE(std::filesystem::is_socket(variable("VT_APPRUNNER_ALT_LOADER_SOCKET")));
        ASSERT_TRUE(std::filesystem::is_socket(variable("VT_SYSTRAY_SOCKET")));
        launcher.signal(signalNumber);
        EXPECT_EQ(launcher.waitForExit(), 0) << strsignal(signalNumber) << "\n" << log();
        EXPECT_TRUE(std::filesystem::is_empty(directory)) << strsignal(signalNumber);
    }

    // The program's last process ends, and the launcher with it.
    directory = runtime();
    TestProcess& ended = launch({ { "XDG_RUNTIME_DIR", directory.string() } });
    ::kill(w.records.tools("vtmenu").back().pid, SIGTERM);
    EXPECT_EQ(ended.waitForExit(), 0) << log();
    EXPECT_TRUE(std::filesystem::is_empty(directory));

    // Wine, running inside the launcher, ends the process itself.
    // (The stand-in Wine takes its word from the launcher's own environment,
    // which the request's does not override.)
    installWine();
    directory = runtime();
    TestProcess& wine = launch({ { "XDG_RUNTIME_DIR", directory.string() }, { "VT_STANDIN_WINE", "exit=3" } });
    EXPECT_EQ(wine.waitForExit(), 3) << log();
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(DescriptorHygiene, AQuitSignalInTheFirstMomentsOfStartUpIsTheQuitRequest)
{
    // The launcher's first call on the session bus goes to a listener that
    // takes the connection and says nothing: start-up is held there, before
    // the launcher has set up its signal thread, until the listener goes.
    const std::string busPath = (w.dir / "silent-bus").string();
    Fd bus(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address { .sun_family = AF_UNIX, .sun_path = {} };
    std::strcpy(address.sun_path, busPath.c_str());
    ASSERT_EQ(::bind(bus.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(bus.get(), 1), 0);
    auto directory = makeDirectory(w.dir / "run", 0700);

    TestProcess& launcher = w.startLauncher(
        {}, { { "DBUS_SESSION_BUS_ADDRESS", "unix:path=" + busPath }, { "XDG_RUNTIME_DIR", directory.string() } });
    pollfd connecting { bus.get(), POLLIN, 0 };
    ASSERT_EQ(::poll(&connecting, 1, 20000), 1);
    Fd held(::accept4(bus.get(), nullptr, nullptr, SOCK_CLOEXEC));
    launcher.signal(SIGTERM);
    held.reset();
    bus.reset();

    EXPECT_EQ(launcher.waitForExit(), 0) << "not ended by the signal itself\n" << w.launcherLog();
    EXPECT_EQ(w.launcherLog().find("looking for the helper server"), std::string::npos) << "nothing was started";
    EXPECT_TRUE(w.records.texts("main-app").empty());
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(DescriptorHygiene, AnotherUserIsRefusedOnBothSockets)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    auto directory = makeDirectory(w.dir / "run", 0700);
    w.startHelperServer();
    TestProcess& launcher = launch({ { "XDG_RUNTIME_DIR", directory.string() } });
    const std::string loaderSocket = variable("VT_APPRUNNER_ALT_LOADER_SOCKET");
    const std::string traySocket = variable("VT_SYSTRAY_SOCKET");
    ASSERT_TRUE(w.waitForLog("Failed to load")) << "vtmenu's own request";

    // Opened for the stranger as far as the launcher's own check: every
    // directory on the way may be passed, the sockets written.
    for (const std::filesystem::path& passed :
         { w.dir.path(), directory, std::filesystem::path(loaderSocket).parent_path() })
        ::chmod(passed.c_str(), 0711);
    ::chmod(loaderSocket.c_str(), 0777);
    ::chmod(traySocket.c_str(), 0777);

    const std::string head = encodeRequestHead(kNativeWineLoaderLayout.ownRequest, "/\0"s, nulTerminated({ "A=1" }),
                                               nulTerminated({ "", "a.exe" }));
    // What the strangers send does not matter: each is refused before a byte is read.
    int status = asAnotherUser([&] {
        Fd socket = standin::connectToLoader(loaderSocket);
        standin::sendAll(socket.get(), head.data(), head.size());
        standin::sendCarrier(socket.get(), { 0, 1, 2, 0 });
        return socket && !standin::finishAndReadAnswer(socket.get()) ? 0 : 3;
    });
    EXPECT_EQ(status, 0) << "connected, and no answer";
    asAnotherUser([&] {
        standin::sendTrayBytes(traySocket, { 74, 0, 0, 0 });
        return 0;
    });

    EXPECT_TRUE(w.waitForLog("-[WineLoader acceptConnections]: refused a connection from uid 65534"));
    EXPECT_TRUE(w.waitForLog("Refused a connection to the launchnotifysocket from uid 65534"))
        << "the tray watcher's check";
    EXPECT_EQ(occurrences(log(), "Failed to load"), 1u) << "nothing of the stranger's request was read";
    EXPECT_TRUE(launcher.running());
}

TEST_F(DescriptorHygiene, RunningOutOfDescriptorsIsLoggedOnceAndSurvived)
{
    w.startHelperServer();
    TestProcess& launcher = launch();
    const std::string loaderSocket = variable("VT_APPRUNNER_ALT_LOADER_SOCKET");
    ASSERT_TRUE(w.waitForLog("Failed to load")) << "vtmenu's own request";
    // The launch's own activation asks the helper server and the window
    // tool, on calls that GLib cannot make without a descriptor.
    ASSERT_TRUE(w.waitForLog("unhide without activation")) << log();

    // No descriptor can be made: the launcher's lowest free number becomes
    // its limit. (Not lower: its main loop polls several descriptors at once,
    // and poll refuses more of them than the limit, as it never would in a
    // real shortage.)
    rlimit normal {};
    ASSERT_EQ(::prlimit(launcher.pid(), RLIMIT_NOFILE, nullptr, &normal), 0);
    std::set<int> taken;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(launcher.pid()) + "/fd"))
        taken.insert(std::stoi(entry.path().filename().string()));
    rlim_t lowestFree = 0;
    while (taken.count(static_cast<int>(lowestFree)))
        ++lowestFree;
    rlimit exhausted { lowestFree, normal.rlim_max };
    if (::prlimit(launcher.pid(), RLIMIT_NOFILE, &exhausted, nullptr) != 0)
        GTEST_SKIP() << "cannot change the launcher's limits: " << std::strerror(errno);

    // A loader connects and waits in the backlog; a document opened meanwhile
    // gets no process.
    auto waiting = std::async(std::launch::async, [&] { return soundRequest(loaderSocket); });
    ASSERT_TRUE(w.waitForLog("-[WineLoader acceptConnections]: accept failed; errno 24 (Too many open files); trying "
                             "again until it works"))
        << log();
    size_t menus = w.records.tools("vtmenu").size();
    open("a.txt");
    ASSERT_TRUE(w.waitForLog("Cannot start the Windows program: the launcher has no file descriptor left (Too many "
                             "open files); nothing is started until it has."))
        << log();
    open("b.txt");
    ASSERT_TRUE(waitUntil([&] { return !launcher.running() || occurrences(log(), "event: open-files") == 2; }));
    EXPECT_EQ(occurrences(log(), "accept failed"), 1u) << "once, for all the attempts";
    EXPECT_EQ(occurrences(log(), "Cannot start the Windows program"), 1u) << "once, for both documents";

    ASSERT_EQ(::prlimit(launcher.pid(), RLIMIT_NOFILE, &normal, nullptr), 0);
    ASSERT_TRUE(waitUntil([&] { return waiting.wait_for(0s) == std::future_status::ready; }));
    EXPECT_EQ(waiting.get(), std::nullopt) << "read whole and refused at the library";
    EXPECT_TRUE(w.waitForLog("accepting loaders again"));
    EXPECT_EQ(occurrences(log(), "Failed to load"), 2u);
    open("c.txt");
    EXPECT_TRUE(w.records.waitForTools(menus + 1, "vtmenu")) << log();
    EXPECT_NE(log().find("The launcher has file descriptors again"), std::string::npos);
    EXPECT_TRUE(launcher.running());
}
