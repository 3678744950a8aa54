#include <atomic>
#include <csignal>
#include <latch>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "base/MainLoop.hpp"
#include "shell/HelperServerClient.hpp"
#include "standin/kit/Records.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace std::chrono_literals;
using vt::HelperServerClient;
using vt::HelperServerError;
using vt::test::waitUntil;

namespace {

class HelperServerClientTest : public ::testing::Test {
protected:
    // Starts the stand-in server with `settings` (VT_STANDIN_* variables) on
    // the private bus; unless told otherwise, waits until it owns its name.
    void startServer(const std::map<std::string, std::string>& settings = {}, bool waitForName = true)
    {
        std::map<std::string, std::optional<std::string>> changes {
            { "VT_STANDIN_NOT_READY", std::nullopt },
            { "VT_STANDIN_GONE_AFTER", std::nullopt },
            { "VT_STANDIN_SERVER_DELAY_MS", std::nullopt },
            { "VT_STANDIN_SERVER_ENV", std::nullopt },
            { "VT_STANDIN_RECORDS", records.path().string() },
        };
        for (const auto& [name, value] : settings)
            changes[name] = value;
        server = std::make_unique<vt::test::TestProcess>(
            std::vector<std::string> { VT_STANDIN_DIR "/vt-standin-helper-server" },
            vt::test::environmentWith(changes));
        if (waitForName) {
            ASSERT_TRUE(waitUntil([this] { return bus.hasOwner(vt::kHelperServerBusName); }));
        }
    }

    std::vector<std::string> recordedCallNames() const { return records.texts("call"); }

    vt::test::PrivateBus bus;
    vt::test::TempDir dir;
    vt::test::RecordReader records { dir / "records" };
    std::unique_ptr<vt::test::TestProcess> server;
};

} // namespace

TEST_F(HelperServerClientTest, FindsTheServerOnlyWhileItOwnsTheName)
{
    EXPECT_EQ(HelperServerClient::lookUp(), nullptr);

    // The server exports its object at once but takes the name later, as a
    // main application that is still starting does.
    startServer({ { "VT_STANDIN_SERVER_DELAY_MS", "500" } }, false);
    EXPECT_EQ(HelperServerClient::lookUp(), nullptr);
    ASSERT_TRUE(waitUntil([] { return HelperServerClient::lookUp() != nullptr; }));

    auto client = HelperServerClient::lookUp();
    ASSERT_TRUE(client);
    EXPECT_TRUE(client->isServerReady());
    // A bottle name D-Bus cannot carry is refused here instead of being sent.
    EXPECT_THROW(client->isServerReadyForBottle("Steam\xff"), HelperServerError);
    EXPECT_THROW(client->isServerReadyForBottle(std::string("Ste\0am", 6)), HelperServerError);

    server->signal(SIGTERM);
    EXPECT_EQ(server->waitForExit(), 0);
    EXPECT_EQ(HelperServerClient::lookUp(), nullptr);
    // A client that outlives the server is not silently answered.
    EXPECT_THROW(client->isServerReady(), HelperServerError);
    EXPECT_EQ(recordedCallNames(), std::vector<std::string> { "IsServerReady" });
}

TEST_F(HelperServerClientTest, EnvironmentArrivesExactly)
{
    const std::map<std::string, std::string> expected {
        { "PATH", "/usr/bin:/bin" },
        { "WINEPREFIX", "/home/user/My Bottles/Steam" },
        { "GREETING", "héllo wörld ✓ 日本語" },
        { "EQUATION", "a=b==c=" },
        { "EMPTY", "" },
        { "LEADING", "  two blanks" },
    };
    std::string file;
    for (const auto& [name, value] : expected)
        file += name + "=" + value + "\n";
    vt::test::writeFile(dir / "environment", file);
    startServer({ { "VT_STANDIN_SERVER_ENV", (dir / "environment").string() } });

    auto client = HelperServerClient::lookUp();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->getEnvironmentForXConnection(), expected);
    EXPECT_EQ(recordedCallNames(), std::vector<std::string> { "GetEnvironmentForXConnection" });
}

TEST_F(HelperServerClientTest, RaiseWindowsWithTagDoesNotWaitForTheServer)
{
    startServer();
    auto client = HelperServerClient::lookUp();
    ASSERT_TRUE(client);

    // A stopped server answers nothing: a call that waited for it would sit
    // here until the D-Bus time-out.
    server->signal(SIGSTOP);
    auto start = std::chrono::steady_clock::now();
    client->raiseWindowsWithTag(4242);
    client->raiseWindowsWithTag(9007199254740993); // 2^53 + 1: needs all 64 bits
    // Far below the bus's own 25-second time-out, however loaded the machine.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    server->signal(SIGCONT);

    const std::vector<std::string> expected { "RaiseWindowsWithTag 4242", "RaiseWindowsWithTag 9007199254740993" };
    EXPECT_TRUE(waitUntil([&] { return recordedCallNames().size() == 2; }));
    // Without the no-reply-expected flag the stand-in would mark the lines.
    EXPECT_EQ(recordedCallNames(), expected);
}

TEST_F(HelperServerClientTest, CallsFromSeveralThreadsAtOnce)
{
    startServer();
    auto client = HelperServerClient::lookUp();
    ASSERT_TRUE(client);

    // The main thread only waits here: the client must not need the main loop.
    constexpr int threadCount = 8;
    constexpr int callsPerThread = 20;
    std::atomic<int> good { 0 };
    std::atomic<int> failed { 0 };
    std::latch start(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < callsPerThread; ++i) {
                try {
                    bool ready = client->isServerReadyForBottle("bottle " + std::to_string(t));
                    auto environment = client->getEnvironmentForXConnection();
                    if (ready && environment["VT_STANDIN_HELPER_ENVIRONMENT"] == "default")
                        ++good;
                    else
                        ++failed;
                } catch (const HelperServerError&) {
                    ++failed;
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(good, threadCount * callsPerThread);
    EXPECT_EQ(failed, 0);

    std::map<std::string, int> counts;
    for (const auto& name : recordedCallNames())
        ++counts[name];
    EXPECT_EQ(counts["GetEnvironmentForXConnection"], threadCount * callsPerThread);
    for (int t = 0; t < threadCount; ++t)
        EXPECT_EQ(counts["IsServerReadyForBottle bottle " + std::to_string(t)], callsPerThread);
}

TEST(HelperServerLookUp, FindsNothingWithoutASessionBus)
{
    vt::test::TempDir dir;
    vt::test::ScopedEnvironment environment;
    environment.set("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (dir / "no-bus").string());
    EXPECT_EQ(HelperServerClient::lookUp(), nullptr);
}


TEST_F(HelperServerClientTest, StartUpsQuestionsAreAnsweredOnTheMainLoop)
{
    // The main loop turns while each question is out; the answer comes there.
    auto lookUpNow = [] {
        std::optional<std::unique_ptr<HelperServerClient>> found;
        HelperServerClient::lookUpAsync(nullptr, [&](std::unique_ptr<HelperServerClient> client) {
            EXPECT_TRUE(vt::isMainThread());
            found = std::move(client);
        });
        EXPECT_TRUE(waitUntil([&] { return found.has_value(); }));
        return found ? std::move(*found) : nullptr;
    };
    EXPECT_EQ(lookUpNow(), nullptr);
    startServer({ { "VT_STANDIN_NOT_READY", "1" } });
    auto client = lookUpNow();
    ASSERT_TRUE(client);

    std::vector<std::string> answers;
    auto ask = [&](const std::string& bottle) {
        client->isServerReadyForBottleAsync(bottle, nullptr, [&](std::optional<bool> ready, const std::string& error) {
            answers.push_back(ready ? (*ready ? "ready" : "not ready") : "error: " + error);
        });
    };
    ask("Office");
    ask("Office");
    ask("Steam\xff");
    ASSERT_TRUE(waitUntil([&] { return answers.size() == 3; }));
    EXPECT_EQ(answers, (std::vector<std::string> { "error: IsServerReadyForBottle: the bottle name is not valid UTF-8",
                                                   "not ready", "ready" }))
        << "a name D-Bus cannot carry is refused at once, without a call";

    // Cancelled: the answer goes nowhere.
    vt::GPtr<GCancellable> cancellable = vt::adopt(g_cancellable_new());
    bool answered = false;
    client->isServerReadyForBottleAsync("Office", cancellable.get(),
                                        [&](std::optional<bool>, const std::string&) { answered = true; });
    g_cancellable_cancel(cancellable.get());
    bool ticked = false;
    vt::TimeoutSource tick("test tick", std::chrono::milliseconds(200), [&] {
        ticked = true;
        return false;
    });
    ASSERT_TRUE(waitUntil([&] { return ticked; }));
    EXPECT_FALSE(answered);
}
