// The launch-notify socket over real sockets in this process, served on the
// main loop: what each message does to the tray, every malformed message
// logged as it stands and harmless to the next, silent senders dropped at
// their deadline, and each sender's order kept under load.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "base/MainLoop.hpp"
#include "integration/LaunchNotifySocket.hpp"
#include "standin/kit/TestSupport.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace vt;
using namespace vt::test;

namespace {

struct Call {
    std::string what;
    std::vector<uint8_t> record;
    bool onMainThread;
};

class RecordingReceiver : public TrayMessageReceiver {
public:
    void addIconWithData(std::vector<uint8_t>& record) override { note("add", record); }
    void modifyIconWithData(std::vector<uint8_t>& record) override { note("modify", record); }
    void deleteIconWithData(std::vector<uint8_t>& record) override { note("delete", record); }
    void updateBadges() override { note("badges", {}); }

    std::vector<std::string> whats() const
    {
        std::vector<std::string> names;
        for (const auto& call : calls)
            names.push_back(call.what);
        return names;
    }
    std::vector<Call> calls;

private:
    void note(const char* what, const std::vector<uint8_t>& record) { calls.push_back({ what, record, isMainThread() }); }
};

using Bytes = std::vector<uint8_t>;

Bytes record(int32_t hwnd, int32_t id, const TrayLayout& layout = kNativeTrayLayout)
{
    return standin::trayRecord(layout, hwnd, id, 0x400, standin::solidPicture(4, 0x123456));
}

Bytes message(uint64_t operation, const Bytes& payload, uint32_t code = kTrayMessageCode)
{
    return standin::trayMessage(kNativeTrayLayout, operation, payload, code);
}

// A message whose length field says `length`, with nothing after it.
Bytes claiming(uint32_t length)
{
    Bytes bytes = message(kTrayOperationAdd, {});
    std::memcpy(bytes.data() + 4 + kNativeTrayLayout.operationWidth, &length, sizeof length);
    return bytes;
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

Fd connectTo(const std::string& path)
{
    const sockaddr_un address = addressOf(path);
    Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fd.reset();
    return fd;
}

int32_t field(const Bytes& record, size_t offset)
{
    int32_t value = 0;
    std::memcpy(&value, record.data() + offset, sizeof value);
    return value;
}

class LaunchNotifySocketTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(socket.startLaunchNotify(dir.path()));
        socket.monitorFeedbackSocket();
    }

    // Sends `bytes` on a connection of their own and runs the main loop
    // until the launcher has closed it, which it does just before the
    // message takes effect. The sender writes from another thread, as a
    // large message fills the socket's buffer before it is read.
    void deliver(const Bytes& bytes, LaunchNotifySocket& to)
    {
        std::atomic<bool> closed = false;
        std::atomic<bool> sent = false;
        std::thread sender([&] {
            Fd fd = connectTo(to.launchNotifySocketName());
            sent = fd && writeAll(fd.get(), bytes.data(), bytes.size(), true) && ::shutdown(fd.get(), SHUT_WR) == 0;
            // An end of stream, or a reset when part of what was sent is
            // left unread (after a wrong code, say).
            char byte;
            closed = sent && ::recv(fd.get(), &byte, 1, 0) <= 0;
        });
        EXPECT_TRUE(waitUntil([&] { return closed.load(); }, 5s));
        sender.join();
        EXPECT_TRUE(sent);
    }
    void deliver(const Bytes& bytes) { deliver(bytes, socket); }

    bool callsReach(size_t count, std::chrono::milliseconds timeout = 10s)
    {
        return waitUntil([&] { return receiver.calls.size() >= count; }, timeout);
    }

    bool logged(const std::string& text) const { return log.text().find(text) != std::string::npos; }
    size_t count(const std::string& line) const
    {
        const std::string text = log.text();
        size_t n = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++n;
        return n;
    }

    StderrCapture log;
    TempDir dir;
    RecordingReceiver receiver;
    LaunchNotifySocket socket { receiver };
};

const std::string kUnexpected = "Got an unexpected response from the launchnotifysocket.  ";

} // namespace

TEST_F(LaunchNotifySocketTest, EachOperationIsAppliedOnTheMainThreadInOrderThenRedrawn)
{
    const Bytes added = record(1, 1), modified = record(1, 2), deleted = record(3, 3);
    for (const auto& [operation, payload] : { std::pair { kTrayOperationAdd, added },
                                              std::pair { kTrayOperationModify, modified },
                                              std::pair { kTrayOperationDelete, deleted } })
        ASSERT_TRUE(standin::sendTrayBytes(socket.launchNotifySocketName(), message(operation, payload)));

    ASSERT_TRUE(callsReach(6));
    EXPECT_EQ(receiver.whats(), (std::vector<std::string> { "add", "badges", "modify", "badges", "delete", "badges" }));
    EXPECT_EQ(receiver.calls[0].record, added);
    EXPECT_EQ(receiver.calls[2].record, modified);
    EXPECT_EQ(receiver.calls[4].record, deleted);
    for (const auto& call : receiver.calls)
        EXPECT_TRUE(call.onMainThread) << call.what;
}

TEST_F(LaunchNotifySocketTest, MalformedMessagesAreLoggedAsTheyStandAndTheNextOneWorks)
{
    Bytes shortLength = message(kTrayOperationAdd, {});
    shortLength.resize(shortLength.size() - 2);
    Bytes shortPayload = message(kTrayOperationAdd, Bytes(100, 0xAB));
    shortPayload.resize(shortPayload.size() - 60);
    Bytes zeroFilledTail(100, 0);
    std::fill_n(zeroFilledTail.begin(), 40, 0xAB);
    const size_t limit = kNativeTrayLayout.payloadLimit();
    const Bytes largest(limit, 0x5A);

    struct Case {
        const char* name;
        Bytes bytes;
        std::vector<std::string> logged;
        std::vector<std::string> calls;
        Bytes record = {};
    };
    const Case cases[] = {
        { "nothing sent", {}, { kUnexpected + "Not enough data.\n", kUnexpected + "Read message 0.\n" }, {} },
        { "short code", { 0x4B, 0x00 }, { kUnexpected + "Not enough data.\n", kUnexpected + "Read message 4b.\n" }, {} },
        { "wrong code", message(kTrayOperationAdd, record(1, 1), 0x1234), { kUnexpected + "Read message 1234.\n" }, {} },
        { "short length", shortLength, { kUnexpected + "Not enough data.  readbytes: 2  errno: 0\n" },
          { "add", "badges" } },
        { "short payload", shortPayload, { kUnexpected + "Not enough data.  readbytes: 40  errno: 0\n" },
          { "add", "badges" }, zeroFilledTail },
        { "unknown operation", message(7, record(1, 1)), { "Unknown systray message: 7\n" }, { "badges" } },
        { "huge length", claiming(UINT32_MAX),
          { kUnexpected + "Payload of 4294967295 bytes is beyond the limit of " + std::to_string(limit) + " bytes.\n" },
          {} },
        { "just too long", claiming(uint32_t(limit + 1)),
          { kUnexpected + "Payload of " + std::to_string(limit + 1) + " bytes is beyond the limit of " }, {} },
        { "the longest", message(kTrayOperationModify, largest), {}, { "modify", "badges" }, largest },
    };
    const Bytes next = record(9, 9);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        receiver.calls.clear();
        size_t logStart = log.text().size();
        deliver(c.bytes);
        deliver(message(kTrayOperationDelete, next));
        ASSERT_TRUE(callsReach(c.calls.size() + 2));

        std::vector<std::string> expected = c.calls;
        expected.insert(expected.end(), { "delete", "badges" });
        EXPECT_EQ(receiver.whats(), expected);
        if (!c.calls.empty() && c.calls[0] != "badges") {
            EXPECT_EQ(receiver.calls[0].record, c.record);
        }
        EXPECT_EQ(receiver.calls[c.calls.size()].record, next);

        std::string text = log.text().substr(logStart);
        size_t at = 0;
        for (const auto& line : c.logged) {
            at = text.find(line, at);
            EXPECT_NE(at, std::string::npos) << line << "\nin:\n" << text;
        }
        if (c.logged.empty()) {
            EXPECT_EQ(text, "");
        }
    }
}

TEST_F(LaunchNotifySocketTest, AThirtyTwoBitSendersMessageIsReadByTheThirtyTwoBitLayout)
{
    TempDir other;
    LaunchNotifySocket socket32(receiver, kTrayLayout32);
    ASSERT_TRUE(socket32.startLaunchNotify(other.path()));
    socket32.monitorFeedbackSocket();
    const Bytes record32 = record(7, 8, kTrayLayout32);
    Bytes bytes = standin::trayMessage(kTrayLayout32, kTrayOperationModify, record32);
    ASSERT_EQ(bytes.size(), 12 + record32.size()) << "the operation is 4 bytes wide";
    deliver(bytes, socket32);
    deliver(standin::trayMessage(kTrayLayout32, 7, {}), socket32);
    ASSERT_TRUE(callsReach(3));
    EXPECT_EQ(receiver.whats(), (std::vector<std::string> { "modify", "badges", "badges" }));
    EXPECT_EQ(receiver.calls[0].record, record32);
    EXPECT_TRUE(logged("Unknown systray message: 7\n"));
}

TEST_F(LaunchNotifySocketTest, ListensOnceAndRefusesAPathThatDoesNotFitAnAddress)
{
    const std::string name = socket.launchNotifySocketName();
    EXPECT_EQ(std::filesystem::path(name).parent_path(), dir.path());
    EXPECT_EQ(std::filesystem::path(name).filename().string().rfind("systray-", 0), 0u);
    EXPECT_TRUE(std::filesystem::is_socket(name));
    EXPECT_TRUE(socket.startLaunchNotify(dir.path()));
    EXPECT_EQ(socket.launchNotifySocketName(), name);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);

    const std::filesystem::path deep = dir / std::string(100, 'd');
    std::filesystem::create_directories(deep);
    const size_t descriptors = openDescriptors();
    LaunchNotifySocket other(receiver);
    EXPECT_FALSE(other.startLaunchNotify(deep));
    EXPECT_TRUE(logged("Cannot bind.  errno = " + std::to_string(ENAMETOOLONG) + ".\n"));
    EXPECT_EQ(other.launchNotifySocketName(), "");
    EXPECT_TRUE(std::filesystem::is_empty(deep));
    EXPECT_EQ(openDescriptors(), descriptors);

    // The next call tries again.
    std::filesystem::create_directories(dir / "short");
    EXPECT_TRUE(other.startLaunchNotify(dir / "short"));

    // Stopping closes what is open, unread, and takes the socket away.
    Fd silent = connectTo(name);
    ASSERT_TRUE(waitUntil([&] { return openDescriptors() == descriptors + 3; })) << "other's socket, silent's two ends";
    socket.stop();
    EXPECT_FALSE(std::filesystem::exists(name));
    EXPECT_EQ(socket.launchNotifySocketName(), "");
    char byte;
    EXPECT_EQ(::recv(silent.get(), &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(LaunchNotifySocketTest, WatchingBeginsWithMonitorFeedbackSocketWhicheverComesFirst)
{
    // Made first: a sender waits in the backlog until watching begins.
    TempDir first;
    LaunchNotifySocket waiting(receiver);
    ASSERT_TRUE(waiting.startLaunchNotify(first.path()));
    ASSERT_TRUE(standin::sendTrayBytes(waiting.launchNotifySocketName(), message(kTrayOperationAdd, record(1, 1))));
    EXPECT_FALSE(callsReach(1, 300ms));
    waiting.monitorFeedbackSocket();
    ASSERT_TRUE(callsReach(2));

    // Asked for first: watching begins when the socket is made.
    TempDir other;
    LaunchNotifySocket later(receiver);
    later.monitorFeedbackSocket();
    ASSERT_TRUE(later.startLaunchNotify(other.path()));
    ASSERT_TRUE(standin::sendTrayBytes(later.launchNotifySocketName(), message(kTrayOperationAdd, record(2, 2))));
    ASSERT_TRUE(callsReach(4));
    EXPECT_EQ(receiver.whats(), (std::vector<std::string> { "add", "badges", "add", "badges" }));
}

TEST_F(LaunchNotifySocketTest, SilentSendersHoldNobodyAndAreDroppedAtTheirDeadline)
{
    std::vector<Fd> silent;
    for (int i = 0; i < 3; ++i) {
        silent.push_back(connectTo(socket.launchNotifySocketName()));
        ASSERT_TRUE(silent.back());
    }
    // Half a message: the rest never comes.
    const Bytes half = message(kTrayOperationAdd, record(5, 5));
    ASSERT_TRUE(writeAll(silent[2].get(), half.data(), half.size() / 2, true));
    const auto connected = std::chrono::steady_clock::now();

    // Served at once, while the silent ones wait for their deadline.
    ASSERT_TRUE(standin::sendTrayBytes(socket.launchNotifySocketName(), message(kTrayOperationAdd, record(1, 1))));
    ASSERT_TRUE(callsReach(2));
    EXPECT_LT(std::chrono::steady_clock::now() - connected, LaunchNotifySocket::kReceiveTimeout);
    EXPECT_FALSE(logged(kUnexpected + "Read message 0.\n"));

    ASSERT_TRUE(waitUntil([&] { return count(kUnexpected + "Read message 0.\n") == 2 && receiver.calls.size() == 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - connected, LaunchNotifySocket::kReceiveTimeout);
    EXPECT_EQ(count(kUnexpected + "Not enough data.\n"), 2u);
    // The cut one counts as a read that timed out.
    EXPECT_TRUE(logged(kUnexpected + "Not enough data.  readbytes: " + std::to_string(half.size() / 2 - kNativeTrayLayout.messageHeaderSize())
                       + "  errno: " + std::to_string(EAGAIN) + "\n"))
        << log.text();
    EXPECT_EQ(receiver.whats(), (std::vector<std::string> { "add", "badges", "add", "badges" }));
    // The launcher has closed its ends.
    for (const Fd& fd : silent) {
        char byte;
        EXPECT_EQ(::recv(fd.get(), &byte, 1, MSG_DONTWAIT), 0);
    }
}

TEST_F(LaunchNotifySocketTest, ManySendersAtOnceLoseNothingAndEachKeepsItsOrder)
{
    // More senders than connections may be open: the rest wait in the
    // backlog, none is turned away, and each sender's messages take effect
    // in the order it sent them.
    constexpr int kSenders = 40, kEach = 10;
    std::atomic<int> failures = 0;
    std::vector<std::thread> senders;
    for (int sender = 0; sender < kSenders; ++sender) {
        senders.emplace_back([&, sender] {
            for (int i = 0; i < kEach; ++i)
                if (!standin::sendTrayBytes(socket.launchNotifySocketName(),
                                            message(kTrayOperationAdd, record(sender, i))))
                    ++failures;
        });
    }
    EXPECT_TRUE(callsReach(2 * kSenders * kEach, 30s));
    for (auto& sender : senders)
        sender.join();
    EXPECT_EQ(failures, 0);
    ASSERT_EQ(receiver.calls.size(), size_t(2 * kSenders * kEach));
    std::vector<int> next(kSenders, 0);
    for (const auto& call : receiver.calls) {
        if (call.what != "add")
            continue;
        const int32_t sender = field(call.record, kNativeTrayLayout.hwndOffset);
        ASSERT_TRUE(sender >= 0 && sender < kSenders);
        EXPECT_EQ(field(call.record, kNativeTrayLayout.idOffset), next[size_t(sender)]++) << "sender " << sender;
    }
}

TEST_F(LaunchNotifySocketTest, RunningOutOfDescriptorsOnAcceptIsSaidOnceAndServingGoesOn)
{
    ASSERT_TRUE(standin::sendTrayBytes(socket.launchNotifySocketName(), message(kTrayOperationAdd, record(1, 1))));
    ASSERT_TRUE(callsReach(2));
    const sockaddr_un address = addressOf(socket.launchNotifySocketName());
    std::vector<Fd> senders;
    for (int i = 0; i < 3; ++i)
        senders.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // The log, opened now: reading it later would need a descriptor.
    Fd logFile(::open("/proc/self/fd/2", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(logFile);
    const std::string line
        = "Cannot accept a connection on the launchnotifysocket.  errno = " + std::to_string(EMFILE) + ".\n";
    auto refusals = [&] {
        std::string text(1 << 16, '\0');
        ssize_t count = ::pread(logFile.get(), text.data(), text.size(), 0);
        text.resize(size_t(std::max<ssize_t>(count, 0)));
        size_t n = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++n;
        return n;
    };

    NoFreeDescriptors shortage;
    ASSERT_TRUE(shortage.active());
    // Connecting needs no new descriptor on this side; accepting does. The
    // senders stay open, so that no descriptor comes free meanwhile.
    bool written = true;
    for (int i = 0; i < 3; ++i) {
        const Bytes bytes = message(kTrayOperationModify, record(1, 10 + i));
        written = written
            && ::connect(senders[i].get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
            && writeAll(senders[i].get(), bytes.data(), bytes.size(), true);
    }
    // Said at the first refusal, and not again at the tries that follow.
    const bool said = waitUntil([&] { return refusals() > 0; });
    const auto retried = std::chrono::steady_clock::now() + 5 * 100ms;
    waitUntil([&] { return std::chrono::steady_clock::now() >= retried; });
    const size_t saidWhileShort = refusals();
    const size_t appliedWhileShort = receiver.calls.size();
    shortage.restore();
    EXPECT_TRUE(written);
    EXPECT_TRUE(said);
    EXPECT_EQ(saidWhileShort, 1u);
    EXPECT_EQ(appliedWhileShort, 2u);
    senders.clear();

    ASSERT_TRUE(callsReach(2 + 6));
    EXPECT_EQ(refusals(), 1u) << log.text();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(field(receiver.calls[2 + 2 * i].record, kNativeTrayLayout.idOffset), 10 + i);
}
