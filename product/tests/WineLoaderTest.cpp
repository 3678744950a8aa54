// The product's Wine loader (wineloader64) handing a program's start over to
// a launcher: a fake launcher on a socket of its own reads the request, and
// a stand-in for Wine's ntdll.so beside a copy of the loader records what
// runs when the loader runs Wine itself.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/posix_glue.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;
using namespace vt::test;
namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

#ifdef VT_PRODUCT_WINELOADER

namespace {

constexpr uint32_t kRequestX86_64 = 0x52C17357;
constexpr uint32_t kProceed = 0x52C17356;

ino_t inodeOf(int fd)
{
    struct stat status {};
    return ::fstat(fd, &status) == 0 ? status.st_ino : 0;
}

Strings stringsIn(const std::string& buffer)
{
    Strings strings;
    for (size_t at = 0; at < buffer.size();) {
        size_t end = buffer.find('\0', at);
        strings.push_back(buffer.substr(at, end - at));
        at = end + 1;
    }
    return strings;
}

// What a launcher received.
struct Request {
    uint32_t type = 0;
    Strings workingDirectory, environment, arguments;
    std::vector<Fd> descriptors;
};

// A launcher's loader socket whose listening end belongs to a child
// process, the launcher as the loader sees it (the socket's peer), while
// this test accepts and reads.
class FakeLauncher {
public:
    explicit FakeLauncher(fs::path path) : m_path(std::move(path))
    {
        m_listener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
        if (::bind(m_listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("bind " + m_path.string());
        m_process = ::fork();
        if (m_process == 0) {
            ::listen(m_listener.get(), 4);
            ::pause();
            ::_exit(0);
        }
        // Listening once the child has called listen().
        waitUntil([&] {
            pollfd none { m_listener.get(), 0, 0 };
            int type = 0;
            socklen_t size = sizeof type;
            return ::poll(&none, 1, 0) >= 0
                && ::getsockopt(m_listener.get(), SOL_SOCKET, SO_ACCEPTCONN, &type, &size) == 0 && type;
        });
    }
    ~FakeLauncher()
    {
        end();
        ::unlink(m_path.c_str());
    }

    void end()
    {
        if (m_process > 0) {
            ::kill(m_process, SIGKILL);
            ::waitpid(m_process, nullptr, 0);
            m_process = 0;
        }
    }

    bool connectionWaiting(std::chrono::milliseconds timeout = 0ms) const
    {
        pollfd waiting { m_listener.get(), POLLIN, 0 };
        return ::poll(&waiting, 1, static_cast<int>(timeout.count())) == 1;
    }

    // The next request, whole; the connection stays for the answer.
    std::optional<Request> take()
    {
        if (!connectionWaiting(10s))
            return std::nullopt;
        m_connection.reset(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::string bytes;
        Request request;
        for (;;) {
            char buffer[65536];
            char control[CMSG_SPACE(8 * sizeof(int))];
            iovec io { buffer, sizeof buffer };
            msghdr message {};
            message.msg_iov = &io;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            ssize_t n = ::recvmsg(m_connection.get(), &message, MSG_CMSG_CLOEXEC);
            if (n <= 0)
                break;
            bytes.append(buffer, static_cast<size_t>(n));
            for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
                size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
                for (size_t i = 0; i < count; ++i) {
                    int fd = -1;
                    std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
                    request.descriptors.emplace_back(fd);
                }
            }
        }
        size_t at = 0;
        auto take = [&](size_t size) {
            std::string part = bytes.substr(at, size);
            at += size;
            return part;
        };
        std::memcpy(&request.type, take(4).data(), 4);
        for (Strings* strings : { &request.workingDirectory, &request.environment, &request.arguments }) {
            uint64_t length = 0;
            std::memcpy(&length, take(8).data(), 8);
            *strings = stringsIn(take(length));
        }
        EXPECT_EQ(bytes.size() - at, 1u) << "one carrier byte after the buffers";
        return request;
    }

    void answer(std::optional<uint32_t> word)
    {
        if (word)
            ::send(m_connection.get(), &*word, sizeof *word, MSG_NOSIGNAL);
        m_connection.reset();
    }

private:
    fs::path m_path;
    Fd m_listener;
    Fd m_connection;
    pid_t m_process = 0;
};

class ProductWineLoader : public ::testing::Test {
protected:
    ProductWineLoader()
    {
        // A Wine folder of its own: the loader, and the stand-in ntdll.so.
        fs::create_directories(m_dir / "wine");
        fs::copy_file(VT_PRODUCT_WINELOADER, loader());
        fs::copy_file(VT_FAKE_NTDLL, m_dir / "wine/ntdll.so");
    }

    fs::path loader() const { return m_dir / "wine/wineloader64"; }
    fs::path socketPath() const { return m_dir / "loader.sock"; }
    fs::path record() const { return m_dir / "ntdll-record"; }

    // Starts the loader with `arguments` after its name, standard
    // descriptors on `standard` (0, 1, 2) and, when given, a server socket
    // as descriptor 3 named in WINESERVERSOCKET.
    pid_t start(const Strings& arguments, const std::array<int, 3>& standard, int serverSocket = -1)
    {
        std::vector<std::string> environment { "VT_ALT_LOADER_SOCKET=" + socketPath().string(),
                                               "VT_FAKE_NTDLL_RECORD=" + record().string(), "VT_MARKER=kept",
                                               "PATH=/usr/bin:/bin" };
        if (serverSocket >= 0)
            environment.push_back("WINESERVERSOCKET=3");
        Strings argv { loader().string() };
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<char*> argvPointers, envPointers;
        for (std::string& argument : argv)
            argvPointers.push_back(argument.data());
        argvPointers.push_back(nullptr);
        for (std::string& variable : environment)
            envPointers.push_back(variable.data());
        envPointers.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int target = 0; target < 3; ++target)
            posix_spawn_file_actions_adddup2(&actions, standard[static_cast<size_t>(target)], target);
        if (serverSocket >= 0)
            posix_spawn_file_actions_adddup2(&actions, serverSocket, 3);
        posix_spawn_file_actions_addchdir_np(&actions, m_dir.c_str());
        pid_t pid = 0;
        int error = ::posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, argvPointers.data(), envPointers.data());
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(error, 0);
        return pid;
    }

    static std::optional<int> exitOf(pid_t pid, std::chrono::milliseconds timeout = 10s)
    {
        int status = 0;
        if (!waitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout))
            return std::nullopt;
        return WIFEXITED(status) ? std::optional<int>(WEXITSTATUS(status)) : std::nullopt;
    }

    std::string ranWine() const { return readFile(record()); }

    TempDir m_temp;
    fs::path m_dir = m_temp.path();
};

// Whether `fd` reaches its end (every writer gone) within 10 s; what comes
// before is dropped.
bool reachesItsEnd(int fd)
{
    for (auto deadline = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < deadline;) {
        pollfd readable { fd, POLLIN, 0 };
        if (::poll(&readable, 1, 100) != 1)
            continue;
        char bytes[4096];
        ssize_t n = ::read(fd, bytes, sizeof bytes);
        if (n == 0)
            return true;
        if (n < 0 && errno != EINTR)
            return false;
    }
    return false;
}

std::array<Fd, 2> makePipe()
{
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    return { Fd(ends[0]), Fd(ends[1]) };
}

} // namespace

TEST_F(ProductWineLoader, HandsAProgramOverWithWhatWineNeedsAndStandsForItUntilTheLauncherEnds)
{
    FakeLauncher launcher(socketPath());
    auto input = makePipe(), output = makePipe(), error = makePipe();
    int server[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, server), 0);
    Fd ours(server[0]), wines(server[1]);
    pid_t loading = start({ "C:\\Program Files\\Editor\\editor.exe", "letter.txt" },
                          { input[0].get(), output[1].get(), error[1].get() }, wines.get());
    std::optional<Request> request = launcher.take();
    ASSERT_TRUE(request);

    EXPECT_EQ(request->type, kRequestX86_64);
    EXPECT_EQ(request->workingDirectory, Strings { fs::canonical(m_dir).string() });
    EXPECT_EQ(request->arguments, (Strings { loader().string(), "C:\\Program Files\\Editor\\editor.exe", "letter.txt" }));
    std::set<std::string> environment(request->environment.begin(), request->environment.end());
    for (const char* variable : { "VT_MARKER=kept", "WINELOADERNOEXEC=1", "WINESERVERSOCKET=3" })
        EXPECT_TRUE(environment.contains(variable)) << variable;
    // Standard input, output, error and the process's own server socket.
    ASSERT_EQ(request->descriptors.size(), 4u);
    EXPECT_EQ(inodeOf(request->descriptors[0].get()), inodeOf(input[0].get()));
    EXPECT_EQ(inodeOf(request->descriptors[1].get()), inodeOf(output[1].get()));
    EXPECT_EQ(inodeOf(request->descriptors[2].get()), inodeOf(error[1].get()));
    EXPECT_EQ(inodeOf(request->descriptors[3].get()), inodeOf(wines.get()));

    launcher.answer(kProceed);
    // It has let go of everything it handed over: once the launcher and this
    // test close theirs, its standard output ends.
    request->descriptors.clear();
    output[1].reset();
    wines.reset();
    EXPECT_TRUE(reachesItsEnd(output[0].get())) << "the loader still holds the program's output";
    char byte;
    EXPECT_EQ(::recv(ours.get(), &byte, 1, MSG_DONTWAIT), 0) << "the loader still holds the server socket";
    // It stands for the program until the launcher ends, and runs no Wine.
    EXPECT_FALSE(exitOf(loading, 500ms));
    launcher.end();
    EXPECT_EQ(exitOf(loading), 0);
    EXPECT_FALSE(fs::exists(record()));
}

TEST_F(ProductWineLoader, RunsWineItselfWhereNoLauncherTakesTheProgramAndKeepsTheSocketOnlyForWhatStartStarts)
{
    struct Case {
        const char* what;
        Strings arguments;
        bool launcherThere;
        bool asked;
        bool keepsSocket;
    };
    const std::vector<Case> cases {
        { "the launcher refuses", { "C:\\editor.exe" }, true, true, false },
        { "no launcher waits any more", { "C:\\editor.exe" }, false, false, false },
        { "start passes it on", { "start", "/wait", "/unix", "/x/Editor.lnk" }, true, false, true },
        { "Wine's desktop never goes in", { "C:\\windows\\system32\\EXPLORER.EXE", "/desktop" }, true, false, false },
    };
    for (const Case& test : cases) {
        fs::remove(record());
        std::optional<FakeLauncher> launcher;
        if (test.launcherThere)
            launcher.emplace(socketPath());
        auto output = makePipe();
        Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
        int server[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, server), 0);
        Fd ours(server[0]), wines(server[1]);
        pid_t loading = start(test.arguments, { null.get(), output[1].get(), output[1].get() }, wines.get());
        if (test.asked) {
            ASSERT_TRUE(launcher->take()) << test.what;
            launcher->answer(std::nullopt);
        }
        EXPECT_EQ(exitOf(loading), 0) << test.what;
        if (launcher) {
            EXPECT_FALSE(launcher->connectionWaiting()) << test.what;
        }
        std::ostringstream expected;
        for (const std::string& argument : test.arguments)
            expected << argument << "\n";
        expected << "socket=" << (test.keepsSocket ? socketPath().string() : "") << "\n";
        EXPECT_EQ(ranWine(), expected.str()) << test.what;
    }
}

#else

TEST(ProductWineLoader, IsBuiltOnlyWhereTheLauncherCanHostWine)
{
    GTEST_SKIP() << "this build's launcher is not linked with Wine's address ranges: no product Wine loader";
}

#endif
