// The launch's latency: from the exec of the launcher (the clock read just
// before it is spawned) until the exec of vtmenu (the clock the stand-in tool
// reads first thing in its main), with the helper server ready and the main
// application already running, as when the user opens one more program of
// the product. Each round is a fresh launcher, ended before the next one
// starts, so that none hands its opening to a running one.
//
// Beside it, round for round, the floor: a bare spawner (bare_spawner.c),
// started the same way, that does nothing but start vtmenu with the
// arguments, environment, streams and directory the launcher gave it.
//
//   vt-bench-launch               the figures
//   vt-bench-launch --log         one launch with debug logging: the
//                                 launcher's log, each line with its time
//                                 since the exec
//   vt-bench-launch --trace FILE  one launch under strace -f -tt -T (only this
//                                 needs strace), the trace written to FILE
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "shell/HelperServerClient.hpp"
#include "standin/kit/StandinWorld.hpp"
#include "standin/kit/StatusNotifierWatcher.hpp"

using namespace vt;
using namespace vt::test;
using namespace std::chrono_literals;

namespace {

constexpr int kRounds = 20;
constexpr int kWarmUpRounds = 2;
// What start-up waits on and what it reads, starts and asks: only these stop
// the traced launcher, so the trace's times stay near the untraced ones.
constexpr const char* kTracedCalls = "trace=%process,%file,%network,poll,ppoll";

long long nowNanoseconds()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

struct Spawned {
    pid_t pid = -1;
    long long spawnedAt = 0; // CLOCK_MONOTONIC (ns) just before the spawn
    timespec wallClock {};   // and CLOCK_REALTIME, which the launcher's log lines show
};

// Starts argv[0] the way a desktop starts a program: standard input and
// output on the null device, standard error to `standardError`.
Spawned spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& environment,
              const std::filesystem::path& directory, const std::filesystem::path& standardError)
{
    std::vector<char*> arguments;
    for (const auto& argument : argv)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment)
        entries.push_back(name + "=" + value);
    std::vector<char*> environ;
    for (auto& entry : entries)
        environ.push_back(entry.data());
    environ.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, standardError.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    Spawned spawned;
    clock_gettime(CLOCK_REALTIME, &spawned.wallClock);
    spawned.spawnedAt = nowNanoseconds();
    int error = posix_spawn(&spawned.pid, arguments[0], &actions, nullptr, arguments.data(), environ.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
    return spawned;
}

// Waits for the process `pid`, ours or not, to end (it is not reaped);
// false after `timeout`.
bool waitForEnd(pid_t pid, std::chrono::milliseconds timeout)
{
    Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd ended { process.get(), POLLIN, 0 };
    auto deadline = std::chrono::steady_clock::now() + timeout;
    int ready = process ? 0 : 1; // a process that cannot be opened is gone
    while (ready <= 0 && std::chrono::steady_clock::now() < deadline) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        ready = poll(&ended, 1, static_cast<int>(std::max(left, std::chrono::milliseconds(1)).count()));
    }
    return ready > 0;
}

// Waits for our child `pid` to end and reaps it; its wait status, or empty
// after `timeout` (it is then killed).
std::optional<int> waitForChild(pid_t pid, std::chrono::milliseconds timeout)
{
    bool ended = waitForEnd(pid, timeout);
    if (!ended)
        kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return ended ? std::optional<int>(status) : std::nullopt;
}

struct Figures {
    double median = 0, max = 0;
};

Figures figuresOf(std::vector<double> milliseconds)
{
    std::sort(milliseconds.begin(), milliseconds.end());
    return { milliseconds[milliseconds.size() / 2], milliseconds.back() };
}

class LaunchBench {
public:
    LaunchBench()
    {
        // Wine runs in processes of its own here: without Wine's library the
        // loader refuses vtmenu's request. Start-up is the same either way,
        // and a launcher without Wine inside ends at once.
        std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor/lib64/libwine.so.1");
        // No windows to raise on the launch's own activation; the end of
        // session at each round's quit goes through (every other answer is 1).
        w.setAnswer("haswindows", "0");
        w.startHelperServer();
    }

    // The first launch, not measured: it makes the bundle and starts the
    // main application, which stays for every later round. It keeps what
    // the launcher gave vtmenu for the floor's rounds.
    void warmUp()
    {
        TestProcess& launcher = w.startLauncher({}, kAsUsersRunIt);
        if (!w.records.waitForTools(1, "vtmenu") || !waitUntil([&] { return w.bus.hasOwner(kVantorBundleIdentifier); }))
            fail("the first launcher did not start vtmenu and the main application", w.launcherLog());
        m_menu = w.records.tools("vtmenu").at(0);
        launcher.signal(SIGTERM);
        if (launcher.waitForExit() != 0)
            fail("the first launcher did not end", w.launcherLog());
        terminateAndWait(m_menu.pid);
    }

    // One fresh launcher started by `argv` (the launcher, or strace and the
    // launcher); the time from its spawn until vtmenu's main, in ms.
    double launch(const std::vector<std::string>& argv, const EnvironmentChanges& environment = kAsUsersRunIt)
    {
        waitUntilReady();
        size_t before = w.records.tools("vtmenu").size();
        Spawned launcher = spawn(argv, w.environment(environment), w.dir.path(), log());
        if (!w.records.waitForTools(before + 1, "vtmenu"))
            fail("the launcher did not start vtmenu", readFile(log()));
        ToolRecord menu = menuStart(before);
        // A traced launcher runs under strace; its own pid is the window tag.
        pid_t launcherPid = static_cast<pid_t>(std::stol(menu.environment.at("VT_WINDOW_TAG")));
        kill(launcherPid, SIGTERM);
        bool ended = waitForEnd(launcherPid, 20s);
        // strace ends once the tools it follows have ended too; its status is the launcher's.
        terminateAndWait(menu.pid);
        auto status = waitForChild(launcher.pid, 20s);
        if (!ended || !status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
            fail("the launcher did not end by itself with status 0 after SIGTERM", readFile(log()));
        m_lastSpawn = launcher.wallClock;
        return static_cast<double>(menu.started - launcher.spawnedAt) / 1e6;
    }

    // The last launcher's log, each line after the time since its spawn in ms.
    std::string logSinceSpawn() const
    {
        std::string text;
        std::istringstream lines(readFile(log()));
        for (std::string line; std::getline(lines, line);) {
            // "2026-01-31 12:34:56.789 Notepad[123] message"
            tm local {};
            const char* rest = strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &local);
            char offset[32] = "";
            if (rest && *rest == '.' && line.size() > 23) {
                local.tm_isdst = -1;
                double seconds = std::difftime(std::mktime(&local), m_lastSpawn.tv_sec)
                    + (std::atoi(rest + 1) * 1e6 - m_lastSpawn.tv_nsec) / 1e9;
                std::snprintf(offset, sizeof offset, "%+7.0f ms ", seconds * 1000);
                line.erase(0, line.find(' ', 24) + 1);
            }
            text += offset + line + "\n";
        }
        return text;
    }

    // The floor: the bare spawner starting vtmenu as the launcher did.
    double spawnBare()
    {
        size_t before = w.records.tools("vtmenu").size();
        std::vector<std::string> argv { VT_BENCH_BARE_SPAWNER };
        argv.insert(argv.end(), m_menu.argv.begin(), m_menu.argv.end());
        Spawned spawner = spawn(argv, m_menu.environment, m_menu.directory, "/dev/null");
        auto status = waitForChild(spawner.pid, 20s);
        if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0
            || !w.records.waitForTools(before + 1, "vtmenu"))
            fail("the bare spawner did not start vtmenu", "");
        ToolRecord menu = menuStart(before);
        terminateAndWait(menu.pid);
        return static_cast<double>(menu.started - spawner.spawnedAt) / 1e6;
    }

    const std::filesystem::path& launcher() const { return w.launcher; }
    std::filesystem::path log() const { return w.dir / "launcher.log"; }

    // Ends the benchmark; the world still takes down what it has started.
    [[noreturn]] static void fail(const std::string& what, const std::string& log)
    {
        throw std::runtime_error(what + "\n" + log);
    }

    static inline const EnvironmentChanges kAsUsersRunIt { { "VT_LOG", std::nullopt },
                                                           { "VT_DEBUGMSG", std::nullopt },
                                                           { "DEBUG", std::nullopt } };

private:
    // The n-th vtmenu's tool record, which holds when its main began.
    ToolRecord menuStart(size_t index) const
    {
        ToolRecord menu = w.records.tools("vtmenu").at(index);
        if (menu.started <= 0)
            fail("vtmenu's record has no start time", "");
        return menu;
    }

    // The product is up and the previous launcher is gone from the bus.
    void waitUntilReady()
    {
        std::string id = *w.launcherInfo.at("CFBundleIdentifier").asString();
        if (!waitUntil([&] {
                return w.bus.hasOwner(kHelperServerBusName) && w.bus.hasOwner(kVantorBundleIdentifier)
                    && !w.bus.hasOwner(id);
            }))
            fail("the helper server or the main application is gone, or the last launcher stays on the bus", "");
    }

    StandinWorld w;
    // A desktop whose status area shows the launcher's item.
    StatusNotifierWatcher m_watcher { w.bus.address() };
    ToolRecord m_menu;
    timespec m_lastSpawn {};
};

} // namespace

int main(int argc, char** argv)
{
    std::optional<std::string> trace;
    bool log = argc == 2 && std::strcmp(argv[1], "--log") == 0;
    if (argc == 3 && std::strcmp(argv[1], "--trace") == 0) {
        trace = argv[2];
    } else if (argc != 1 && !log) {
        std::fprintf(stderr, "usage: %s [--log | --trace FILE]\n", argv[0]);
        return 2;
    }

    try {
        LaunchBench bench;
        bench.warmUp();
        if (log) {
            bench.launch({ bench.launcher().string() });
            double milliseconds = bench.launch({ bench.launcher().string() }, { { "VT_LOG", "1" } });
            std::printf("launch with debug logging: %.3f ms until exec of vtmenu; the launcher's log, from its "
                        "exec:\n%s",
                        milliseconds, bench.logSinceSpawn().c_str());
            return 0;
        }
        if (trace) {
            GCharPtr strace(g_find_program_in_path("strace"));
            if (!strace) {
                std::fprintf(stderr, "launch_bench: --trace needs strace (Debian package strace)\n");
                return 1;
            }
            bench.launch({ bench.launcher().string() }); // the page cache holds the launcher again
            double milliseconds = bench.launch(
                { strace.get(), "-f", "--seccomp-bpf", "-tt", "-T", "-s", "160", "-e", kTracedCalls, "-o", *trace,
                  bench.launcher().string() });
            std::printf("launch under strace: %.3f ms until exec of vtmenu; the trace of the launcher and its children "
                        "is in %s\n",
                        milliseconds, trace->c_str());
            return 0;
        }

        std::vector<double> launches, floors;
        for (int round = -kWarmUpRounds; round < kRounds; ++round) {
            double launch = bench.launch({ bench.launcher().string() });
            double floor = bench.spawnBare();
            if (round >= 0) {
                launches.push_back(launch);
                floors.push_back(floor);
            }
        }
        Figures launch = figuresOf(launches), floor = figuresOf(floors);
        std::printf("launch, exec of the launcher until exec of vtmenu: median %.3f ms, max %.3f ms over %d rounds "
                    "(floor, a bare spawner exec'ing vtmenu: median %.3f ms, max %.3f ms); "
                    "the launch's median is %.1f times the floor's\n",
                    launch.median, launch.max, kRounds, floor.median, floor.max,
                    floor.median > 0 ? launch.median / floor.median : 0.0);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "launch_bench: %s", error.what());
        return 1;
    }
}
