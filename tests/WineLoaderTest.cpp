// The loader's server and the reading of requests, in this process over real
// sockets: every refusal is logged, answered with silence, leaves no
// descriptor behind and keeps the server listening.
#include <dlfcn.h>
#include <fcntl.h>
#include <future>
#include <thread>

#include <sys/socket.h>
#include <sys/stat.h>

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

class WineLoaderTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(dir / "private");
        loader = WineLoader::create((dir / "root").string(), dir / "private");
        ASSERT_TRUE(loader);
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
        // Read elsewhere: a request that gets as far as the hand-over waits
        // for this thread's main loop.
        auto answer = std::async(std::launch::async, [&] { return standin::finishAndReadAnswer(socket.get()); });
        if (answer.wait_for(100ms) != std::future_status::ready) { // a refusal comes at once
            EXPECT_TRUE(waitUntil([&] { return answer.wait_for(0s) == std::future_status::ready; }));
        }
        return answer.get();
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
    // Warm up what the first connection allocates for good (the thread's
    // stack cache, the log's file), so the count below compares like with like.
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

TEST_F(WineLoaderTest, TheOtherArchitectureIsPostedFromTheConnectionsThread)
{
    std::vector<std::string> asked;
    bool onMainThread = true;
    Observation observation = NotificationCenter::defaultCenter().addObserver(
        WineLoaderRejectedRequestForWrongArchitectureNotification, loader.get(), [&](const Notification& n) {
            onMainThread = isMainThread();
            asked.push_back(std::any_cast<std::string>(n.userInfo.at(WineLoaderRequestedArchitectureKey)));
        });
    EXPECT_EQ(send(request(kNativeWineLoaderLayout.otherRequest)), std::nullopt);
    ASSERT_TRUE(waitUntil([&] { return !asked.empty(); }));
    EXPECT_EQ(asked, std::vector<std::string> { kNativeWineLoaderLayout.otherArchitecture });
    EXPECT_FALSE(onMainThread);
    EXPECT_FALSE(loader->socketPath().empty()) << "the right loader may still come";
}

TEST_F(WineLoaderTest, ThirtyTwoBitLauncherServesTheOtherTypeAndReadsLowLengthBits)
{
    TempDir other;
    auto loader32 = WineLoader::create((other / "root").string(), other.path(), kWineLoaderLayout32);
    ASSERT_TRUE(loader32);
    std::vector<std::string> asked;
    Observation observation = NotificationCenter::defaultCenter().addObserver(
        WineLoaderRejectedRequestForWrongArchitectureNotification, loader32.get(),
        [&](const Notification& n) { asked.push_back(std::any_cast<std::string>(n.userInfo.at(WineLoaderRequestedArchitectureKey))); });
    loader = loader32;

    send(request(WineLoaderRequestX86_64));
    ASSERT_TRUE(waitUntil([&] { return !asked.empty(); }));
    EXPECT_EQ(asked, std::vector<std::string> { "x86_64" });

    // A length of 2^32 is 0 to a 32-bit launcher: no working directory.
    std::string head = encodeRequestHead(WineLoaderRequestI386, "", nulTerminated({ "A=1" }), nulTerminated({ "" }));
    head.replace(4, 8, bytes(1ull << 32));
    send(head, 4);
    EXPECT_TRUE(logged("Failed to load " + (other / "root/lib/libwine.so.1").string()));
}

TEST_F(WineLoaderTest, TheFirstOfTwoLoadersTakesTheStartOver)
{
    // The stand-in's Wine library, told to fail: its wine_init records what
    // it was given and returns. The requests' standard descriptors are this
    // process's own, so taking them over changes nothing here.
    std::filesystem::create_directories(wineLibraryUnder(dir / "root").parent_path());
    std::filesystem::create_symlink(standinWineLibrary(), wineLibraryUnder(dir / "root"));
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

    // Both requests are in before the main loop decides.
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

    // Its failure is on standard error as Wine wrote it, without a line end,
    // and the server is spent.
    ASSERT_TRUE(logged("WineLoaderClientConnection::handleConnection: wine_init failed: "));
    EXPECT_NE(log.text().back(), '\n');
}

TEST_F(WineLoaderTest, AMalformedEnvironmentIsFoundOnlyAfterTheAnswer)
{
    std::filesystem::create_directories(wineLibraryUnder(dir / "root").parent_path());
    std::filesystem::create_symlink(standinWineLibrary(), wineLibraryUnder(dir / "root"));
    EXPECT_EQ(send(encodeRequestHead(kNativeWineLoaderLayout.ownRequest, "", nulTerminated({ "NO_VALUE" }),
                                     nulTerminated({ "" }))),
              WineLoaderResponseProceed);
    EXPECT_TRUE(logged("WineLoaderClientConnection::handleConnection: environment buffer has malformed string: NO_VALUE"));
    EXPECT_EQ(loader->socketPath(), "") << "spent, with no Wine";
}
