// The loader's server and the reading of requests, in this process over real
// sockets, all on this thread's main loop: every refusal is logged, answered
// with silence, leaves no descriptor behind and keeps the server listening;
// loaders that stall cost neither a thread nor more than the bound of
// descriptors, nor memory for what they only announced.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <malloc.h>
#include <thread>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <glib.h>
#include <gtest/gtest.h>

#include "base/NotificationCenter.hpp"
#include "base/posix_glue.hpp"
#include "loader/WineLoader.hpp"
#include "standin/kit/Bundles.hpp"
#include "standin/kit/Records.hpp"
#include "standin/kit/TestSupport.hpp"
#include "standin/loader/LoaderClient.hpp"

using namespace vt;
using namespace vt::test;
using vt::standin::encodeRequestHead;
using vt::standin::nulTerminated;
using namespace std::string_literals;

namespace {

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

std::string bytes(uint64_t value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); }

// Where the loader looks for Wine's library under `root`, for this build's word size.
std::filesystem::path wineLibraryUnder(const std::filesystem::path& root)
{
    return root / kNativeWineLoaderLayout.libraryDirectory / kWineLibraryName;
}

// A library of this build's word size that has no wine_init: GLib's, as loaded here.
std::string libraryWithoutWineInit()
{
    Dl_info info {};
    dladdr(reinterpret_cast<void*>(&g_free), &info);
    return info.dli_fname ? info.dli_fname : "";
}

// What the owner heard, and whether on the main thread.
struct Reports {
    std::vector<std::string> wrongArchitecture;
    int wineStarted = 0;
    std::vector<std::string> handOverFailed;
    bool allOnMainThread = true;
};

// The process's resident memory, in bytes.
size_t residentBytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stoul(line.substr(6)) * 1024;
    }
    return 0;
}

// Bytes the loader's peer has sent that the loader has not yet read.
int unread(int socket)
{
    int queued = -1;
    ::ioctl(socket, SIOCOUTQ, &queued);
    return queued;
}

class WineLoaderTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(dir / "private");
        loader = makeLoader(dir / "root", dir / "private");
        ASSERT_TRUE(loader);
    }

    std::shared_ptr<WineLoader> makeLoader(const std::filesystem::path& root, const std::filesystem::path& directory,
                                           WineLoader::Settings settings = {})
    {
        WineLoader::Callbacks callbacks;
        callbacks.rejectedRequestForWrongArchitecture = [this](const std::string& architecture) {
            reports.allOnMainThread = reports.allOnMainThread && isMainThread();
            reports.wrongArchitecture.push_back(architecture);
        };
        callbacks.wineStarted = [this] {
            reports.allOnMainThread = reports.allOnMainThread && isMainThread();
            ++reports.wineStarted;
        };
        callbacks.handOverFailed = [this](const std::string& reason) {
            reports.allOnMainThread = reports.allOnMainThread && isMainThread();
            reports.handOverFailed.push_back(reason);
        };
        return WineLoader::create(root.string(), directory, std::move(callbacks), settings);
    }

    // The stand-in Wine library where the loader looks for Wine's.
    void installStandinWine()
    {
        std::filesystem::create_directories(wineLibraryUnder(dir / "root").parent_path());
        std::filesystem::create_symlink(standinWineLibrary(), wineLibraryUnder(dir / "root"));
    }

    // Sends `head`, the carrier with `count` descriptors (fresh ones, closed
    // here again) and `trailer`; the answer, if any.
    std::optional<uint32_t> send(const std::string& head, int count = 4, const std::string& trailer = {})
    {
        Fd socket = standin::connectToLoader(loader->socketPath());
        EXPECT_TRUE(socket);
        std::vector<Fd> owned;
        std::vector<int> descriptors;
        for (int i = 0; i < count; ++i) {
            owned.emplace_back(::open("/dev/null", O_RDWR | O_CLOEXEC));
            descriptors.push_back(owned.back().get());
        }
        writeAll(socket.get(), head.data(), head.size());
        if (count >= 0)
            standin::sendCarrier(socket.get(), descriptors);
        writeAll(socket.get(), trailer.data(), trailer.size());
        // The loader reads and answers on this thread's main loop; the
        // answer, or the end without one, wakes it.
        ::shutdown(socket.get(), SHUT_WR);
        bool done = false;
        OwnedSource watch = watchDescriptor(socket.get(), "loader's answer", [&] { return !(done = true); });
        EXPECT_TRUE(waitUntil([&] { return done; }));
        return standin::finishAndReadAnswer(socket.get());
    }

    std::string request(uint32_t type = kNativeWineLoaderLayout.ownRequest, const std::string& directory = "/\0"s,
                        const std::string& arguments = nulTerminated({ "", "notepad.exe" }))
    {
        return encodeRequestHead(type, directory, nulTerminated({ "A=1" }), arguments);
    }

    bool logged(const std::string& text) const
    {
        return waitUntil([&] { return log.text().find(text) != std::string::npos; });
    }

    TempDir dir;
    StderrCapture log;
    Reports reports;
    std::shared_ptr<WineLoader> loader;
};

} // namespace

TEST_F(WineLoaderTest, ListensInItsDirectoryUntilItGoes)
{
    std::filesystem::path path = loader->socketPath();
    EXPECT_EQ(path.parent_path(), dir / "private");
    EXPECT_TRUE(std::filesystem::is_socket(path));
    EXPECT_EQ(loader->vantorRoot(), (dir / "root").string());
    loader.reset();
    EXPECT_FALSE(std::filesystem::exists(path));

    // A directory whose socket paths do not fit an address is no place for one.
    std::filesystem::path deep = dir / std::string(100, 'd');
    std::filesystem::create_directories(deep);
    EXPECT_FALSE(WineLoader::create("/root", deep));
    EXPECT_TRUE(std::filesystem::is_empty(deep));
}

TEST_F(WineLoaderTest, RefusesMalformedRequestsInSilenceAndKeepsNoDescriptor)
{
    const uint32_t own = kNativeWineLoaderLayout.ownRequest;
    const uint32_t swapped = __builtin_bswap32(own);
    struct Case {
        std::string head;
        int descriptors;
        std::string trailer;
        std::string message;
    };
    // Too long in its low 32 bits too, which are all a 32-bit launcher reads.
    const uint64_t huge = (1ull << 40) | (1ull << 30);
    char swappedText[16];
    std::snprintf(swappedText, sizeof swappedText, "0x%08x", swapped);
    const Case cases[] = {
        { std::string(reinterpret_cast<const char*>(&swapped), 4), -1, "", "unknown request type "s + swappedText },
        { request(own, "a\0b\0"s), 4, "", "working directory is not a single null-terminated string" },
        { encodeRequestHead(own, "", "A=1", "x\0"s), 4, "", "environment is not null-terminated" },
        { request(own, "", ""), 4, "", "args list is empty" },
        { request(own, "", "x"), 4, "", "args is not null-terminated" },
        { request(), 3, "", "failed to receive file descriptors\n" },
        { request(), 6, "", "failed to receive file descriptors\n" },
        { request(), 0, "", "failed to receive file descriptors\n" },
        { request(), 5, "x", "got extraneous data instead of EOF" },
        { std::string(reinterpret_cast<const char*>(&own), 4) + bytes(huge), -1, "",
          "buffer of length " + std::to_string(effectiveLength(kNativeWineLoaderLayout, huge))
              + " is beyond the request limit of 16777216 bytes" },
        { std::string(reinterpret_cast<const char*>(&own), 4) + bytes(8), -1, "", "reading working directory failed" },
    };
    // Warm up what the first connection allocates for good (the log's file),
    // so the count below compares like with like.
    send(request(), 4);
    ASSERT_TRUE(logged("Failed to load"));
    const size_t before = openDescriptors();

    for (int round = 0; round < 20; ++round) {
        for (const auto& c : cases)
            EXPECT_EQ(send(c.head, c.descriptors, c.trailer), std::nullopt) << c.message;
    }
    for (const auto& c : cases)
        EXPECT_TRUE(logged(c.message)) << c.message << "\n" << log.text();
    EXPECT_TRUE(waitUntil([&] { return openDescriptors() == before; }))
        << openDescriptors() << " descriptors open, " << before << " before";

    // Still listening: a sound request gets as far as loading Wine.
    EXPECT_FALSE(loader->socketPath().empty());
    EXPECT_EQ(send(request(), 5), std::nullopt);
    EXPECT_TRUE(logged("Failed to load " + wineLibraryUnder(dir / "root").string() + ": "));
}

TEST_F(WineLoaderTest, TheSmallestRequestsAreSound)
{
    // One NUL for the directory (no change), no environment, one empty
    // argument (the default loader), four descriptors: all accepted, so the
    // reading goes on to Wine's library, which is missing here.
    send(encodeRequestHead(kNativeWineLoaderLayout.ownRequest, "\0"s, "", "\0"s), 4);
    EXPECT_TRUE(logged("Failed to load "));
    // A library without wine_init is refused before the hand-over.
    std::filesystem::create_directories(wineLibraryUnder(dir / "root").parent_path());
    std::filesystem::create_symlink(libraryWithoutWineInit(), wineLibraryUnder(dir / "root"));
    send(request(), 4);
    EXPECT_TRUE(logged("Failed to find symbol 'wine_init' in " + wineLibraryUnder(dir / "root").string()));
    EXPECT_FALSE(loader->socketPath().empty());
}

TEST_F(WineLoaderTest, TheOtherArchitectureIsPostedOnTheMainThreadAndTheServerListensOn)
{
    std::vector<std::string> asked;
    bool onMainThread = false;
    Observation observation = NotificationCenter::defaultCenter().addObserver(
        WineLoaderRejectedRequestForWrongArchitectureNotification, loader.get(), [&](const Notification& n) {
            onMainThread = isMainThread();
            asked.push_back(n.userInfo.at(WineLoaderRequestedArchitectureKey));
        });
    EXPECT_EQ(send(request(kNativeWineLoaderLayout.otherRequest)), std::nullopt);
    ASSERT_TRUE(waitUntil([&] { return !asked.empty() && !reports.wrongArchitecture.empty(); }));
    EXPECT_EQ(asked, std::vector<std::string> { kNativeWineLoaderLayout.otherArchitecture });
    EXPECT_EQ(reports.wrongArchitecture, asked) << "the owner's callback says the same";
    EXPECT_TRUE(onMainThread);
    EXPECT_TRUE(reports.allOnMainThread);
    EXPECT_FALSE(loader->socketPath().empty()) << "the right loader may still come";
    send(request(), 4);
    EXPECT_TRUE(logged("Failed to load"));
}

TEST_F(WineLoaderTest, ThirtyTwoBitLauncherServesTheOtherTypeAndReadsLowLengthBits)
{
    TempDir other;
    WineLoader::Settings settings;
    settings.layout = &kWineLoaderLayout32;
    loader = makeLoader(other / "root", other.path(), settings);
    ASSERT_TRUE(loader);

    send(request(WineLoaderRequestX86_64));
    ASSERT_TRUE(waitUntil([&] { return !reports.wrongArchitecture.empty(); }));
    EXPECT_EQ(reports.wrongArchitecture, std::vector<std::string> { "x86_64" });

    // A length of 2^32 is 0 to a 32-bit launcher: no working directory.
    std::string head = encodeRequestHead(WineLoaderRequestI386, "", nulTerminated({ "A=1" }), nulTerminated({ "" }));
    head.replace(4, 8, bytes(1ull << 32));
    send(head, 4);
    EXPECT_TRUE(logged("Failed to load " + (other / "root/lib/libwine.so.1").string()));
}

TEST_F(WineLoaderTest, ARequestThatComesInPiecesIsReadAsItArrives)
{
    // Byte by byte, with the main loop running between the pieces: the reader
    // never waits for more than is there, and nothing is lost at the seams.
    std::string head = request();
    Fd socket = standin::connectToLoader(loader->socketPath());
    ASSERT_TRUE(socket);
    for (char byte : head) {
        ASSERT_TRUE(standin::sendAll(socket.get(), &byte, 1));
        ASSERT_TRUE(waitUntil([&] { return unread(socket.get()) == 0; }));
    }
    Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(standin::sendCarrier(socket.get(), std::vector<int>(4, null.get())));
    auto answer = std::async(std::launch::async, [&] { return standin::finishAndReadAnswer(socket.get()); });
    ASSERT_TRUE(waitUntil([&] { return answer.wait_for(0s) == std::future_status::ready; }));
    EXPECT_EQ(answer.get(), std::nullopt);
    EXPECT_TRUE(logged("Failed to load " + wineLibraryUnder(dir / "root").string())) << "read whole and sound";
}

TEST_F(WineLoaderTest, AThousandSilentLoadersHoldNoMoreThanTheBoundAndTheNextRequestIsServed)
{
    WineLoader::Settings settings;
    settings.requestDeadline = 50ms;
    TempDir other;
    loader = makeLoader(dir / "root", other.path(), settings);
    ASSERT_TRUE(loader);
    send(request(), 4);
    ASSERT_TRUE(logged("Failed to load"));
    const size_t before = openDescriptors();

    // Another process connects a thousand times, one after the other, and
    // never writes; each connect waits while the bound and the backlog are
    // full. It says when all are in, and holds them until told to go.
    int reportEnds[2], releaseEnds[2];
    ASSERT_EQ(::pipe2(reportEnds, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(releaseEnds, O_CLOEXEC), 0);
    Fd report(reportEnds[0]), reportWriter(reportEnds[1]), releaseReader(releaseEnds[0]), release(releaseEnds[1]);
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::string path = loader->socketPath();
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    pid_t clients = ::fork();
    ASSERT_GE(clients, 0);
    if (clients == 0) {
        ::close(release.get()); // or its own copy keeps the pipe from ending
        rlimit limit {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        char outcome = 'y';
        for (int i = 0; i < 1000 && outcome == 'y'; ++i) {
            int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                outcome = 'n';
        }
        [[maybe_unused]] ssize_t written = ::write(reportWriter.get(), &outcome, 1);
        char ignored;
        [[maybe_unused]] ssize_t read = ::read(releaseReader.get(), &ignored, 1);
        ::_exit(0);
    }
    // Gone with the test, whatever happens in it.
    struct Reaper {
        pid_t pid;
        ~Reaper()
        {
            if (pid > 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        }
    };
    Reaper reaper { clients };
    reportWriter.reset();
    releaseReader.reset();
    const size_t withPipes = openDescriptors();

    size_t peak = 0;
    char outcome = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            peak = std::max(peak, openDescriptors());
            pollfd ready { report.get(), POLLIN, 0 };
            return ::poll(&ready, 1, 0) == 1 && ::read(report.get(), &outcome, 1) == 1;
        },
        60s)) << occurrences(log.text(), "did not come whole") << " closed at their deadline";
    EXPECT_EQ(outcome, 'y') << "every silent loader got in, in the end";
    EXPECT_LE(peak, withPipes + kWineLoaderMaxOpenConnections) << "no more open at once than the bound";

    // Each silent one is closed at its deadline, and the next loader is
    // served. It is written whole before the loop runs again, so its own
    // deadline cannot catch it however slow the machine.
    EXPECT_TRUE(waitUntil([&] {
        return occurrences(log.text(), "the request did not come whole within 50 ms; the connection is closed")
            == 1000;
    })) << "each silent one at its deadline";
    EXPECT_EQ(send(request(), 4), std::nullopt);
    EXPECT_TRUE(waitUntil([&] { return occurrences(log.text(), "Failed to load") == 2; }));

    release.reset();
    int status = 0;
    ASSERT_EQ(::waitpid(clients, &status, 0), clients);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    reaper.pid = -1;
    report.reset();
    EXPECT_TRUE(waitUntil([&] { return openDescriptors() == before; }))
        << openDescriptors() << " descriptors open, " << before << " before";
    EXPECT_FALSE(loader->socketPath().empty());
}

TEST_F(WineLoaderTest, StalledAnnouncementsCostWhatWasSentNotWhatWasAnnounced)
{
    // Forty loaders announce a working directory of the whole limit, send a
    // little of it and stall.
    WineLoader::Settings settings;
    settings.maxOpenConnections = 64; // all forty read at once
    TempDir other;
    loader = makeLoader(dir / "root", other.path(), settings);
    ASSERT_TRUE(loader);
    const uint32_t own = kNativeWineLoaderLayout.ownRequest;
    const std::string head = std::string(reinterpret_cast<const char*>(&own), 4) + bytes(kWineLoaderRequestLimit)
        + std::string(4096, 'd');
    const size_t residentBefore = residentBytes();
    const size_t allocatedBefore = mallinfo2().uordblks + mallinfo2().hblkhd;

    std::vector<Fd> stalled;
    for (int i = 0; i < 40; ++i) {
        stalled.push_back(standin::connectToLoader(loader->socketPath()));
        ASSERT_TRUE(stalled.back());
        ASSERT_TRUE(standin::sendAll(stalled.back().get(), head.data(), head.size()));
        // Read before the next connects: the backlog holds only a few.
        ASSERT_TRUE(waitUntil([&] { return unread(stalled.back().get()) == 0; }));
    }
    ASSERT_TRUE(waitUntil([&] {
        return std::all_of(stalled.begin(), stalled.end(), [](const Fd& fd) { return unread(fd.get()) == 0; });
    })) << "the loader has read all that was sent";

    const size_t announced = 40 * kWineLoaderRequestLimit;
    const size_t allocated = mallinfo2().uordblks + mallinfo2().hblkhd - allocatedBefore;
    const size_t resident = residentBytes() - residentBefore;
    EXPECT_LT(allocated, announced / 64) << allocated << " bytes allocated";
    EXPECT_LT(resident, announced / 16) << resident << " bytes more resident";

    // They hold no one else up, and their end closes them.
    EXPECT_EQ(send(request(), 4), std::nullopt);
    EXPECT_TRUE(logged("Failed to load"));
    stalled.clear();
    EXPECT_TRUE(logged("reading buffer failed; errno 0"));
}

TEST_F(WineLoaderTest, TheFirstOfTwoLoadersTakesTheStartOver)
{
    // The stand-in's Wine library, told to fail: its wine_init records what
    // it was given and returns. The requests' standard descriptors are this
    // process's own, so taking them over changes nothing here.
    installStandinWine();
    RecordReader records(dir / "records");
    ScopedEnvironment environment;
    for (const char* name : { "VT_STANDIN_WINE", "VT_STANDIN_RECORDS", "WINELOADER", "WINESERVERSOCKET",
                              "WINE_WAIT_CHILD_PIPE", "HANDOVER_TEST" })
        environment.unset(name);
    environment.set("VT_ALT_LOADER_SOCKET", "ours");
    const std::vector<std::string> requestEnvironment { "VT_STANDIN_WINE=fail",
                                                        "VT_STANDIN_RECORDS=" + records.path().string(),
                                                        "WINELOADER=/opt/wine/wineloader", "VT_ALT_LOADER_SOCKET=theirs",
                                                        "WINE_WAIT_CHILD_PIPE=99", "HANDOVER_TEST=a=b" };
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    Fd wineServer(pair[0]), wineServerPeer(pair[1]);
    const std::vector<int> descriptors { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, wineServer.get() };

    // Both requests are in before the main loop reads either.
    std::string path = loader->socketPath();
    std::string head = encodeRequestHead(kNativeWineLoaderLayout.ownRequest,
                                         std::filesystem::current_path().string() + '\0',
                                         nulTerminated(requestEnvironment), nulTerminated({ "", "notepad.exe" }));
    std::vector<Fd> loaders;
    for (int i = 0; i < 2; ++i) {
        loaders.push_back(standin::connectToLoader(path));
        ASSERT_TRUE(standin::sendAll(loaders.back().get(), head.data(), head.size()));
        ASSERT_TRUE(standin::sendCarrier(loaders.back().get(), descriptors));
    }
    std::optional<uint32_t> answers[2];
    std::atomic<bool> answered[2] = {};
    std::thread readers[2];
    for (int i = 0; i < 2; ++i)
        readers[i] = std::thread([&, i] {
            answers[i] = standin::finishAndReadAnswer(loaders[i].get());
            answered[i] = true;
        });
    EXPECT_TRUE(waitUntil([&] { return answered[0] && answered[1]; }));
    for (auto& reader : readers)
        reader.join();

    EXPECT_NE(answers[0] == WineLoaderResponseProceed, answers[1] == WineLoaderResponseProceed) << "exactly one";
    EXPECT_EQ(answers[0] == std::nullopt, answers[1] != std::nullopt);
    EXPECT_EQ(loader->socketPath(), "");
    EXPECT_TRUE(std::filesystem::is_empty(dir / "private"));

    ASSERT_TRUE(waitUntil([&] { return records.wineInits().size() == 1; }));
    WineInitRecord wine = records.wineInits().at(0);
    EXPECT_EQ(wine.argv, (std::vector<std::string> { "/opt/wine/wineloader", "notepad.exe" }))
        << "the request's WINELOADER stands for the empty first argument";
    EXPECT_EQ(wine.environment["HANDOVER_TEST"], "a=b");
    EXPECT_EQ(wine.environment["VT_ALT_LOADER_SOCKET"], "ours");
    EXPECT_FALSE(wine.environment.count("WINE_WAIT_CHILD_PIPE")) << "set only for a received pipe";
    ASSERT_TRUE(wine.serverSocket);
    EXPECT_TRUE(wine.serverSocket->open && wine.serverSocket->closeOnExec);
    EXPECT_FALSE(wine.mainThread) << "on a thread of its own";

    // Its failure is on standard error as Wine wrote it, a line of its own,
    // and the owner hears of it on the main thread: the server is spent and
    // no program runs inside.
    const std::string failure
        = "-[WineLoaderClientConnection handleConnection]: wine_init failed: the stand-in Wine was told to fail "
          "(VT_STANDIN_WINE)";
    ASSERT_TRUE(waitUntil([&] { return !reports.handOverFailed.empty(); }));
    EXPECT_EQ(reports.handOverFailed, std::vector<std::string> { failure });
    EXPECT_EQ(reports.wineStarted, 1) << "it had started";
    EXPECT_TRUE(reports.allOnMainThread);
    EXPECT_FALSE(loader->wineRunsInside());
    EXPECT_NE(log.text().find(failure + "\n"), std::string::npos) << log.text();
}

TEST_F(WineLoaderTest, AMalformedEnvironmentIsFoundOnlyAfterTheAnswerAndReported)
{
    installStandinWine();
    EXPECT_EQ(send(encodeRequestHead(kNativeWineLoaderLayout.ownRequest, "", nulTerminated({ "NO_VALUE" }),
                                     nulTerminated({ "" }))),
              WineLoaderResponseProceed);
    const std::string failure
        = "-[WineLoaderClientConnection handleConnection]: environment buffer has malformed string: NO_VALUE";
    EXPECT_TRUE(logged(failure));
    ASSERT_TRUE(waitUntil([&] { return !reports.handOverFailed.empty(); }));
    EXPECT_EQ(reports.handOverFailed, std::vector<std::string> { failure });
    EXPECT_EQ(reports.wineStarted, 0);
    EXPECT_FALSE(loader->wineRunsInside());
    EXPECT_EQ(loader->socketPath(), "") << "spent, with no Wine";
}
