// The stand-in product's Wine side on its own: the Wine library loaded into
// this process, and vtmenu playing the Wine loader against a socket of the
// test's. The launcher's end of both comes with the loader's own tests.
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/Bundles.hpp"
#include "standin/kit/Records.hpp"
#include "standin/kit/TestSupport.hpp"
#include "standin/loader/LoaderClient.hpp"

using namespace vt;
using namespace vt::test;

namespace {

using Strings = std::vector<std::string>;

class WineLibrary {
public:
    WineLibrary() : m_handle(dlopen(standinWineLibrary().c_str(), RTLD_NOW | RTLD_LOCAL), &dlclose)
    {
        if (!m_handle)
            throw std::runtime_error(dlerror());
    }
    template <typename Function> Function* symbol(const char* name) const
    {
        return reinterpret_cast<Function*>(dlsym(m_handle.get(), name));
    }

private:
    std::unique_ptr<void, int (*)(void*)> m_handle;
};

using WineInit = void(int, char**, char*, int);

// The launcher's reading side, as little of it as the test needs.
struct Request {
    uint32_t type = 0;
    std::string directory, environment, arguments;
    std::vector<Fd> descriptors;
    bool endedAfterCarrier = false;
};

bool readExactly(int fd, void* bytes, size_t length)
{
    for (size_t got = 0; got < length;) {
        ssize_t n = read(fd, static_cast<char*>(bytes) + got, length - got);
        if (n <= 0)
            return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

Request readRequest(int connection)
{
    Request request;
    if (!readExactly(connection, &request.type, sizeof request.type))
        return request;
    for (std::string* buffer : { &request.directory, &request.environment, &request.arguments }) {
        uint64_t length = 0;
        if (!readExactly(connection, &length, sizeof length) || length > kWineLoaderRequestLimit)
            return request;
        buffer->resize(length);
        if (!readExactly(connection, buffer->data(), length))
            return request;
    }
    char carrier;
    iovec data { &carrier, 1 };
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kWineLoaderMaxDescriptors)];
    msghdr message { .msg_name = nullptr, .msg_namelen = 0, .msg_iov = &data, .msg_iovlen = 1,
                     .msg_control = control, .msg_controllen = sizeof control, .msg_flags = 0 };
    if (recvmsg(connection, &message, MSG_CMSG_CLOEXEC) != 1)
        return request;
    if (cmsghdr* header = CMSG_FIRSTHDR(&message); header && header->cmsg_type == SCM_RIGHTS) {
        size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(header) + i * sizeof fd, sizeof fd);
            request.descriptors.emplace_back(fd);
        }
    }
    request.endedAfterCarrier = read(connection, &carrier, 1) == 0;
    return request;
}

} // namespace

TEST(StandinWine, InitRecordsWhatItWasGivenAndReturnsWhenToldToFail)
{
    TempDir dir;
    RecordReader records(dir / "records");
    WineLibrary wine;
    int pair[2], ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    ASSERT_EQ(pipe(ends), 0);
    Fd serverSocket(pair[0]), serverPeer(pair[1]), waitRead(ends[0]), waitWrite(ends[1]);
    ScopedEnvironment environment;
    environment.set(standin::kRecordsVariable, records.path());
    environment.set("VT_STANDIN_WINE", "fail");
    environment.set("WINESERVERSOCKET", std::to_string(serverSocket.get()));
    environment.set("WINE_WAIT_CHILD_PIPE", std::to_string(waitWrite.get()));

    std::string loader = "/opt/vantor/bin/wineloader64", bottle = "--bottle", name = "Office";
    char* argv[] = { loader.data(), bottle.data(), name.data(), nullptr };
    char error[1024] = "";
    wine.symbol<WineInit>("wine_init")(3, argv, error, sizeof error);
    EXPECT_STRNE(error, "") << "a failing start explains itself";
    // Again on a thread of its own, as the launcher calls it, told of a
    // number that names no descriptor.
    std::string noDescriptor = std::to_string(INT_MAX);
    environment.set("WINE_WAIT_CHILD_PIPE", noDescriptor);
    std::thread([&] { wine.symbol<WineInit>("wine_init")(3, argv, error, sizeof error); }).join();

    ASSERT_TRUE(records.waitFor("wine-init", 2));
    auto inits = records.wineInits();
    const WineInitRecord& first = inits.at(0);
    EXPECT_EQ(first.pid, getpid());
    EXPECT_EQ(first.argv, (Strings { loader, "--bottle", "Office" }));
    EXPECT_EQ(first.directory, std::filesystem::current_path());
    EXPECT_EQ(first.environment.at("VT_STANDIN_WINE"), "fail");
    EXPECT_EQ(first.controller, "none");
    ASSERT_TRUE(first.serverSocket && first.waitChildPipe);
    EXPECT_EQ(first.serverSocket->value, std::to_string(serverSocket.get()));
    EXPECT_TRUE(first.serverSocket->open && first.serverSocket->closeOnExec);
    EXPECT_TRUE(first.waitChildPipe->open);
    EXPECT_FALSE(first.waitChildPipe->closeOnExec);
    EXPECT_TRUE(first.mainThread);

    EXPECT_FALSE(inits.at(1).mainThread);
    ASSERT_TRUE(inits.at(1).waitChildPipe);
    EXPECT_EQ(inits.at(1).waitChildPipe->value, noDescriptor);
    EXPECT_FALSE(inits.at(1).waitChildPipe->open);
}

TEST(StandinWine, AddressSpaceCallsAreRecordedAndMapNothing)
{
    TempDir dir;
    RecordReader records(dir / "records");
    WineLibrary wine;
    ScopedEnvironment environment;
    environment.set(standin::kRecordsVariable, records.path());

    auto* start = reinterpret_cast<void*>(0x1000);
    void* answer = wine.symbol<void*(void*, size_t, int, int)>("wine_anon_mmap")(start, 0x40000000, PROT_NONE,
                                                                                  MAP_FIXED | MAP_NORESERVE);
    wine.symbol<void(void*, size_t)>("wine_mmap_add_reserved_area")(start, 0x40000000);

    EXPECT_EQ(answer, start);
    unsigned char resident;
    EXPECT_NE(mincore(start, 4096, &resident), 0) << "the range stays unmapped";
    ASSERT_TRUE(records.waitFor("mmap", 2));
    EXPECT_EQ(records.texts("mmap"), (Strings { "wine_anon_mmap 0x1000 0x40000000 0x0 0x4010",
                                                "wine_mmap_add_reserved_area 0x1000 0x40000000" }));
}

TEST(StandinLoader, VtmenuHandsItsStartOverAndWaitsForTheWaitChildrenPipe)
{
    TempDir dir;
    RecordReader records(dir / "records");
    std::string socketPath = (dir / "loader").string();
    Fd listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address { .sun_family = AF_UNIX, .sun_path = {} };
    std::strcpy(address.sun_path, socketPath.c_str());
    ASSERT_EQ(bind(listening.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listening.get(), 1), 0);
    std::filesystem::create_symlink(std::filesystem::path(VT_STANDIN_DIR) / "vt-standin-tool", dir / "vtmenu");

    Strings arguments { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv", "--start",
                        "Programs/Notepad.lnk" };
    Strings argv { (dir / "vtmenu").string() };
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    TestProcess vtmenu(argv,
                       environmentWith({ { standin::kRecordsVariable, records.path().string() },
                                         { "VT_APPRUNNER_ALT_LOADER_SOCKET", socketPath } }),
                       ProcessSetup { .directory = dir.path() });

    pollfd incoming { listening.get(), POLLIN, 0 };
    ASSERT_EQ(poll(&incoming, 1, 20000), 1) << "the loader connects";
    Fd connection(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    timeval patience { .tv_sec = 20, .tv_usec = 0 };
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    Request request = readRequest(connection.get());

    EXPECT_EQ(request.type, kNativeWineLoaderLayout.ownRequest);
    EXPECT_EQ(request.directory, dir.path().string() + '\0');
    arguments.insert(arguments.begin(), "");
    EXPECT_EQ(request.arguments, standin::nulTerminated(arguments)) << "an empty first: the launcher's own loader";
    EXPECT_NE(request.environment.find("VT_APPRUNNER_ALT_LOADER_SOCKET=" + socketPath + '\0'), std::string::npos);
    EXPECT_TRUE(request.endedAfterCarrier);
    ASSERT_EQ(request.descriptors.size(), 5u);
    for (int i : { 0, 1, 2 })
        EXPECT_NE(standin::descriptorKind(request.descriptors[i].get()), "closed") << i;
    EXPECT_EQ(standin::descriptorKind(request.descriptors[WineLoaderServerSocket].get()), "socket");
    EXPECT_EQ(standin::descriptorKind(request.descriptors[WineLoaderWaitChildPipe].get()), "pipe");

    ASSERT_TRUE(writeAll(connection.get(), &WineLoaderResponseProceed, sizeof WineLoaderResponseProceed));
    connection.reset();
    ASSERT_TRUE(records.waitFor("loader", 1));
    EXPECT_EQ(records.texts("loader"), Strings { "vtmenu " + socketPath + " proceed" });

    // Wine inside the launcher holds the pipe for as long as it runs.
    request.descriptors.clear();
    EXPECT_EQ(vtmenu.waitForExit(), 0);
    EXPECT_EQ(records.texts("tool-end"), Strings { "vtmenu wait-children pipe closed" });
}
