// The listener that serves the launcher's Unix sockets, over real sockets and
// real processes: this user's connections handed over in order and read on
// the main loop, another user's refused before the owner sees them, silent
// connections ended at their deadline, a flood held to the bound in the
// backlog, a shortage of descriptors ridden out and a socket gone for good.
#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "base/UnixSocketListener.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;
using namespace vt::test;
using Connection = UnixSocketListener::Connection;

namespace {

sockaddr_un addressOf(const std::filesystem::path& path)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

Fd listeningAt(const std::filesystem::path& path)
{
    Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(path);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(fd.get(), 5), 0);
    return fd;
}

// Connects without waiting; -1 stays in the Fd when the connect fails.
Fd connectTo(const std::filesystem::path& path)
{
    Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(path);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fd.reset();
    return fd;
}

// Whether the other end has closed: an end of stream (or a reset).
bool closedByPeer(const Fd& fd)
{
    char byte;
    ssize_t count = ::recv(fd.get(), &byte, 1, MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

// Runs the main loop for `time`, for what must not happen meanwhile.
void runFor(std::chrono::milliseconds time)
{
    const auto end = std::chrono::steady_clock::now() + time;
    EXPECT_TRUE(waitUntil([&] { return std::chrono::steady_clock::now() >= end; }, time + 5s));
}

// Waits for a child without blocking the main loop; its exit status.
int exitStatusOf(pid_t child, std::chrono::milliseconds timeout = 20s)
{
    int status = 0;
    if (!waitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; }, timeout)) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What an owner sees: its connections in accept order, and the reports.
struct Owner {
    UnixSocketListener::Handlers handlers()
    {
        UnixSocketListener::Handlers h;
        h.accepted = [this](std::unique_ptr<Connection> connection) {
            ++acceptedCount;
            connections.push_back(std::move(connection));
            if (onAccepted)
                onAccepted(*connections.back());
        };
        h.refused = [this](const std::optional<ucred>& peer, int) { refusedUids.push_back(peer ? int(peer->uid) : -1); };
        h.acceptFailing = [this](int error) { failing.push_back(error); };
        h.acceptRecovered = [this](unsigned failed) { recovered.push_back(failed); };
        h.ended = [this](int error) { ended.push_back(error); };
        return h;
    }

    std::vector<std::unique_ptr<Connection>> connections;
    std::function<void(Connection&)> onAccepted;
    size_t acceptedCount = 0;
    std::vector<int> refusedUids, failing, ended;
    std::vector<unsigned> recovered;
};

class UnixSocketListenerTest : public testing::Test {
protected:
    std::unique_ptr<UnixSocketListener> listen(UnixSocketListener::Limits limits = {})
    {
        Fd fd = listeningAt(path);
        listeningFd = fd.get();
        return std::make_unique<UnixSocketListener>(std::move(fd), "test listener", limits, owner.handlers());
    }

    TempDir dir;
    std::filesystem::path path = dir / "socket";
    int listeningFd = -1;
    Owner owner;
};

} // namespace

TEST_F(UnixSocketListenerTest, HandsThisUsersConnectionsOverInOrderAndMayBeDestroyedFromItsCallbacks)
{
    auto listener = listen();
    Fd first = connectTo(path), second = connectTo(path);
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(waitUntil([&] { return owner.connections.size() == 2; }));
    EXPECT_EQ(owner.connections[0]->peer().uid, ::getuid());
    EXPECT_EQ(owner.connections[0]->peer().pid, ::getpid());
    EXPECT_EQ(listener->openConnections(), 2u);
    const int flags = ::fcntl(owner.connections[0]->fd(), F_GETFL);
    EXPECT_TRUE(flags & O_NONBLOCK);
    EXPECT_TRUE(::fcntl(owner.connections[0]->fd(), F_GETFD) & FD_CLOEXEC);

    // Accept order: what the first sends is the first connection's.
    ASSERT_EQ(::send(first.get(), "a", 1, MSG_NOSIGNAL), 1);
    std::string readOnFirst;
    Connection& reader = *owner.connections[0];
    reader.watch([&] {
        char byte;
        if (::recv(reader.fd(), &byte, 1, 0) == 1) {
            readOnFirst += byte;
            // Destroyed from inside its own callback.
            owner.connections[0].reset();
        }
    });
    ASSERT_TRUE(waitUntil([&] { return readOnFirst == "a"; }));
    EXPECT_TRUE(waitUntil([&] { return closedByPeer(first); }));
    EXPECT_EQ(listener->openConnections(), 1u);

    // The listener destroyed from inside its own accept: the connection it
    // handed over lives on, and later senders are refused at once.
    owner.onAccepted = [&](Connection&) { listener.reset(); };
    Fd third = connectTo(path);
    ASSERT_TRUE(waitUntil([&] { return owner.connections.size() == 3; }));
    EXPECT_FALSE(listener);
    EXPECT_TRUE(connectTo(path).get() < 0 && errno == ECONNREFUSED);
    bool readable = false;
    owner.connections[2]->watch([&] { readable = true; });
    ASSERT_EQ(::send(third.get(), "b", 1, MSG_NOSIGNAL), 1);
    EXPECT_TRUE(waitUntil([&] { return readable; }));
    owner.connections.clear();
    EXPECT_TRUE(closedByPeer(second) && closedByPeer(third));
}

TEST_F(UnixSocketListenerTest, AnotherUsersConnectionIsClosedAndReportedBeforeTheOwnerSeesIt)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "only root can connect as another user";
    auto listener = listen();
    ::chmod(dir.path().c_str(), 0711);
    ::chmod(path.c_str(), 0777);
    pid_t stranger = ::fork();
    if (stranger == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(100);
        Fd fd = connectTo(path);
        if (!fd)
            ::_exit(101);
        // Blocks until the launcher side closes: nothing is ever answered.
        char byte;
        ::_exit(::recv(fd.get(), &byte, 1, 0) == 0 ? 0 : 102);
    }
    EXPECT_EQ(exitStatusOf(stranger), 0);
    EXPECT_EQ(owner.refusedUids, (std::vector<int> { 65534 }));
    EXPECT_EQ(owner.acceptedCount, 0u);
    EXPECT_EQ(listener->openConnections(), 0u);

    // This user's next connection is served as usual.
    Fd mine = connectTo(path);
    EXPECT_TRUE(waitUntil([&] { return owner.acceptedCount == 1; }));
}

TEST_F(UnixSocketListenerTest, ASilentConnectionEndsAtItsDeadlineAndFreesItsPlace)
{
    constexpr auto kDeadline = 300ms;
    auto listener = listen({ 1, kDeadline });
    // Without a deadline callback the listener closes the connection itself.
    owner.onAccepted = [](Connection& connection) { connection.watch([] {}); };
    const auto connected = std::chrono::steady_clock::now();
    Fd silent = connectTo(path);
    ASSERT_TRUE(waitUntil([&] { return owner.acceptedCount == 1; }));
    // The one place is taken: the next sender waits in the backlog.
    Fd waiting = connectTo(path);
    ASSERT_TRUE(waiting);
    runFor(100ms);
    EXPECT_EQ(owner.acceptedCount, 1u);

    ASSERT_TRUE(waitUntil([&] { return closedByPeer(silent); }));
    EXPECT_GE(std::chrono::steady_clock::now() - connected, kDeadline);
    ASSERT_TRUE(waitUntil([&] { return owner.acceptedCount == 2; }));

    // With a callback, the owner decides; its connection goes from inside it.
    std::chrono::steady_clock::time_point passedAt;
    owner.connections[1]->watch([] {}, [&] {
        passedAt = std::chrono::steady_clock::now();
        owner.connections[1].reset();
    });
    ASSERT_TRUE(waitUntil([&] { return closedByPeer(waiting); }));
    EXPECT_NE(passedAt, std::chrono::steady_clock::time_point {});
    EXPECT_EQ(listener->openConnections(), 0u);
}

TEST_F(UnixSocketListenerTest, AThousandSilentClientsAreHeldToTheBoundAndTheNextOneIsServed)
{
    constexpr size_t kClients = 1000;
    constexpr size_t kBound = 32;
    // The main context's own wake-up descriptor is made at its first use.
    g_main_context_iteration(nullptr, FALSE);
    const size_t descriptors = openDescriptors();
    auto listener = listen({ kBound, {} });
    size_t mostOpen = 0, mostDescriptors = 0;
    owner.onAccepted = [&](Connection&) {
        mostOpen = std::max(mostOpen, listener->openConnections());
        if (owner.acceptedCount % 50 == 0)
            mostDescriptors = std::max(mostDescriptors, openDescriptors());
    };
    // The clients are another process's: it connects them one after the
    // other (a connect waits while the backlog is full), keeps them all open
    // and silent, and ends once the listening side has closed every one.
    pid_t clients = ::fork();
    if (clients == 0) {
        static int fds[kClients];
        const sockaddr_un address = addressOf(path);
        for (int& fd : fds) {
            fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                ::_exit(101);
        }
        char byte;
        for (int fd : fds)
            if (::recv(fd, &byte, 1, 0) != 0)
                ::_exit(102);
        ::_exit(0);
    }
    // The owner lets a whole bound's worth go at once, and only then: while
    // it holds them, the clients still to come wait in the backlog.
    size_t waves = 0;
    auto dropAtTheBound = [&] {
        if (owner.connections.size() == kBound || (owner.acceptedCount == kClients && !owner.connections.empty())) {
            owner.connections.clear();
            ++waves;
        }
        return owner.acceptedCount == kClients && owner.connections.empty();
    };
    EXPECT_TRUE(waitUntil(dropAtTheBound, 60s)) << owner.acceptedCount << " accepted";
    EXPECT_EQ(exitStatusOf(clients), 0) << "every client saw its connection closed";
    EXPECT_EQ(mostOpen, kBound);
    EXPECT_EQ(waves, (kClients + kBound - 1) / kBound);
    EXPECT_LE(mostDescriptors, descriptors + 1 + kBound);
    EXPECT_EQ(listener->openConnections(), 0u);
    EXPECT_EQ(openDescriptors(), descriptors + 1) << "the listening socket";

    Fd good = connectTo(path);
    ASSERT_EQ(::send(good.get(), "x", 1, MSG_NOSIGNAL), 1);
    char received = 0;
    owner.onAccepted = [&](Connection& connection) {
        connection.watch([&] { ::recv(connection.fd(), &received, 1, 0); });
    };
    EXPECT_TRUE(waitUntil([&] { return received == 'x'; }));
}

TEST_F(UnixSocketListenerTest, RunningOutOfDescriptorsIsReportedOnceRetriedAndRecovered)
{
    auto listener = listen();
    Fd first = connectTo(path);
    ASSERT_TRUE(waitUntil([&] { return owner.acceptedCount == 1; }));
    Fd sender(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));

    NoFreeDescriptors shortage;
    ASSERT_TRUE(shortage.active());
    // Connecting needs no new descriptor on this side; accepting does.
    const sockaddr_un address = addressOf(path);
    const bool connected = ::connect(sender.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const bool reported = waitUntil([&] { return !owner.failing.empty(); });
    // Several retries pass, and the open connection is still served.
    bool servedMeanwhile = false;
    owner.connections[0]->watch([&] {
        char byte;
        servedMeanwhile = ::recv(owner.connections[0]->fd(), &byte, 1, 0) == 1;
    });
    ::send(first.get(), "a", 1, MSG_NOSIGNAL);
    runFor(5 * UnixSocketListener::kAcceptRetryInterval);
    const size_t acceptedWhileShort = owner.acceptedCount;
    shortage.restore();

    EXPECT_TRUE(connected);
    ASSERT_TRUE(reported);
    EXPECT_EQ(owner.failing, (std::vector<int> { EMFILE })) << "said once for all the tries";
    EXPECT_EQ(acceptedWhileShort, 1u);
    EXPECT_TRUE(servedMeanwhile);
    ASSERT_TRUE(waitUntil([&] { return owner.acceptedCount == 2 && !owner.recovered.empty(); }));
    ASSERT_EQ(owner.recovered.size(), 1u);
    EXPECT_GE(owner.recovered[0], 3u) << "tried again every 100 ms";
    EXPECT_TRUE(owner.ended.empty());
}

TEST_F(UnixSocketListenerTest, ASocketThatIsGoneEndsListeningOnce)
{
    auto listener = listen();
    // Something else now stands under the listening socket's number: no
    // accept can ever work on it again.
    Fd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::dup3(nothing.get(), listeningFd, O_CLOEXEC), listeningFd);
    ASSERT_TRUE(waitUntil([&] { return !owner.ended.empty(); }));
    EXPECT_EQ(owner.ended, (std::vector<int> { ENOTSOCK }));
    EXPECT_FALSE(listener->isListening());
    runFor(50ms);
    EXPECT_EQ(owner.ended.size(), 1u);
    EXPECT_EQ(owner.acceptedCount, 0u);
}
