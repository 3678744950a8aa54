// The hand-over's latency: a Wine loader's request with a 64 KiB environment
// and 100 arguments, from connecting to the loader socket until wine_init is
// called inside this process. Each round makes a new server (a server hands
// over once) and answers on this process's main loop, as the launcher does.
#include <algorithm>
#include <cstdio>
#include <thread>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>

#include "loader/WineLoader.hpp"
#include "standin/kit/TestSupport.hpp"
#include "standin/loader/LoaderClient.hpp"

using namespace vt;
using namespace vt::test;

namespace {
constexpr int kRounds = 50;

long long nowNanoseconds()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}
} // namespace

int main()
{
    TempDir dir;
    std::filesystem::create_directories(dir / "root/lib64");
    std::filesystem::create_directories(dir / "private");
    std::filesystem::create_symlink(VT_BENCH_WINE_LIBRARY, dir / "root/lib64/libwine.so.1");
    void* library = dlopen(VT_BENCH_WINE_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
    auto* called = library ? static_cast<std::atomic<long long>*>(dlsym(library, "bench_wine_init_called")) : nullptr;
    if (!called) {
        std::fprintf(stderr, "handover_bench: cannot load %s\n", VT_BENCH_WINE_LIBRARY);
        return 1;
    }

    std::vector<std::string> environment;
    for (int i = 0; environment.size() * 256 < 64 * 1024; ++i) {
        std::string entry = "BENCH_VARIABLE_" + std::to_string(i) + "=";
        environment.push_back(entry + std::string(255 - entry.size(), 'v'));
    }
    std::vector<std::string> arguments { "" };
    for (int i = 1; i < 100; ++i)
        arguments.push_back("argument-" + std::to_string(i));
    // Standard input and error of the request are the null device, so the
    // hand-over's own message does not land among the figures.
    Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    int pair[2];
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair);
    Fd server(pair[0]), client(pair[1]);
    std::vector<int> descriptors { null.get(), STDOUT_FILENO, null.get(), server.get() };
    std::string directory = std::filesystem::current_path().string();

    std::vector<double> milliseconds;
    for (int round = -3; round < kRounds; ++round) { // three rounds to warm up
        auto loader = WineLoader::create((dir / "root").string(), dir / "private");
        if (!loader) {
            std::fprintf(stderr, "handover_bench: no loader\n");
            return 1;
        }
        *called = 0;
        long long start = 0;
        std::thread loaderClient([&, path = loader->socketPath()] {
            start = nowNanoseconds();
            standin::sendLoaderRequest(path, kNativeWineLoaderLayout.ownRequest, directory, environment, arguments,
                                       descriptors);
        });
        bool done = waitUntil([&] { return *called != 0; }, 10s);
        loaderClient.join();
        if (!done) {
            std::fprintf(stderr, "handover_bench: wine_init was not called\n");
            return 1;
        }
        if (round >= 0)
            milliseconds.push_back(static_cast<double>(*called - start) / 1e6);
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    std::printf("hand-over, request (64 KiB environment, 100 arguments) until wine_init: median %.3f ms, min %.3f ms, "
                "max %.3f ms over %d rounds\n",
                milliseconds[milliseconds.size() / 2], milliseconds.front(), milliseconds.back(), kRounds);
    return 0;
}
