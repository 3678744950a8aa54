// The launcher's footprint when idle, beside the stand-in product: resident
// memory before the hand-over (launched, vtmenu running, the Wine loader yet
// to connect) and after it (Wine runs inside the launcher; the stand-in
// wine_init keeps its thread, as the Windows program would), and how often
// it wakes up: the voluntary context switches of all its threads (each one a
// sleep that something ended) over one window, divided by its length.
// Preemptions (nonvoluntary switches) are no wake-ups and are left out.
//
// Both launchers run at once, each in a world of its own, and are measured
// over the same window. VT_BENCH_IDLE_SECONDS sets its length (default 60).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "standin/kit/StandinWorld.hpp"
#include "standin/kit/StatusNotifierWatcher.hpp"

using namespace vt;
using namespace vt::test;
using namespace std::chrono_literals;

namespace {

constexpr double kMemoryAim = 10;  // MiB
constexpr double kWakeUpAim = 1;   // per second
constexpr auto kSettling = 2s;     // after the launch's own work, before the window

// A value in kB from a /proc status or smaps_rollup file ("VmRSS:\t  9876 kB"),
// or a count.
long long statusValue(const std::filesystem::path& status, const std::string& name)
{
    std::ifstream in(status);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0)
            return std::atoll(line.c_str() + name.size() + 1);
    }
    return -1;
}

struct ThreadSample {
    std::string name;
    long long voluntarySwitches = 0;
};

// Every thread of `pid` by thread id.
std::map<pid_t, ThreadSample> sampleThreads(pid_t pid)
{
    std::map<pid_t, ThreadSample> threads;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        ThreadSample sample;
        std::ifstream(task.path() / "comm") >> sample.name;
        sample.voluntarySwitches = statusValue(task.path() / "status", "voluntary_ctxt_switches");
        if (sample.voluntarySwitches >= 0)
            threads[std::stoi(task.path().filename())] = sample;
    }
    return threads;
}

// One launcher in a world of its own, up and settled.
class IdleLauncher {
public:
    // `handOver`: the stand-in vtmenu hands its start over and Wine runs
    // inside the launcher; otherwise vtmenu does not play the loader and the
    // launcher keeps waiting for one.
    IdleLauncher(const char* name, bool handOver) : m_name(name)
    {
        if (!handOver)
            w.serverDictionary["VT_STANDIN_LOADER"] = "none";
        w.setAnswer("haswindows", "0");
        w.startHelperServer();
        // Without debug logging, as users run it.
        m_launcher = &w.startLauncher({}, { { "VT_LOG", std::nullopt }, { "VT_DEBUGMSG", std::nullopt },
                                            { "DEBUG", std::nullopt } });
    }

    // Waits until the launch's own work is done: vtmenu runs, the launch's
    // activation has asked the windows, a desktop shows the item (it has read
    // the icon and the menu, as a panel does) and, with a hand-over, the
    // stand-in Wine has registered its controller.
    bool waitUntilUp(bool handOver)
    {
        bool up = w.records.waitForTools(1, "vtmenu") && w.records.waitFor("request", 1)
            && m_watcher.waitForRegistration().has_value()
            && (!handOver || waitUntil([&] {
                   auto inits = w.records.wineInits();
                   return !inits.empty() && inits[0].controller == "registered";
               }, 20s));
        if (!up)
            return false;
        m_watcher.iconPixmap();
        m_watcher.menuLayout();
        return true;
    }

    pid_t pid() const { return m_launcher->pid(); }
    const char* name() const { return m_name; }
    std::string log() const { return w.launcherLog(); }

    // Ends it the way a user does, so it leaves nothing behind.
    void quit()
    {
        m_launcher->signal(SIGTERM);
        m_launcher->waitForExit();
    }

private:
    const char* m_name;
    StandinWorld w;
    StatusNotifierWatcher m_watcher { w.bus.address() };
    TestProcess* m_launcher = nullptr;
};

void report(const IdleLauncher& launcher, const std::map<pid_t, ThreadSample>& start,
            const std::map<pid_t, ThreadSample>& end, double seconds)
{
    std::filesystem::path status = "/proc/" + std::to_string(launcher.pid()) + "/status";
    double mebibyte = 1024;
    double rss = static_cast<double>(statusValue(status, "VmRSS")) / mebibyte;
    double anonymous = static_cast<double>(statusValue(status, "RssAnon")) / mebibyte;
    double files = static_cast<double>(statusValue(status, "RssFile")) / mebibyte;
    // Its share of pages that other processes map too (the libraries above all).
    double proportional = static_cast<double>(statusValue(status.parent_path() / "smaps_rollup", "Pss")) / mebibyte;

    // A thread born within the window counts from zero; one that ended
    // within it is not seen at the end, and its switches are lost. Most
    // threads carry the launcher's name: the order of their start (of their
    // ids) tells them apart.
    struct Waker {
        std::string name;
        size_t nth; // from 1, the main thread
        double perSecond;
    };
    std::vector<Waker> wakers;
    long long switches = 0;
    for (const auto& [tid, sample] : end) {
        auto before = start.find(tid);
        long long count = sample.voluntarySwitches - (before == start.end() ? 0 : before->second.voluntarySwitches);
        switches += count;
        wakers.push_back({ sample.name, wakers.size() + 1, static_cast<double>(count) / seconds });
    }
    std::string ended;
    for (const auto& [tid, sample] : start) {
        if (!end.count(tid))
            ended += (ended.empty() ? "; " : ", ") + sample.name;
    }
    double wakeUps = static_cast<double>(switches) / seconds;
    std::printf("footprint %s: RSS %.1f MiB (anonymous %.1f, files %.1f; PSS %.1f; aim <= %.0f MiB), %.2f wake-ups/s "
                "when idle (voluntary context switches of its %zu threads over %.0f s%s%s; aim <= %.0f/s)\n",
                launcher.name(), rss, anonymous, files, proportional, kMemoryAim, wakeUps, end.size(), seconds,
                ended.c_str(),
                ended.empty() ? "" : " ended within it, uncounted", kWakeUpAim);

    // Which threads woke, to find the timers behind them.
    std::stable_sort(wakers.begin(), wakers.end(),
                     [](const Waker& a, const Waker& b) { return a.perSecond > b.perSecond; });
    std::string most;
    for (size_t i = 0; i < wakers.size() && i < 3 && wakers[i].perSecond > 0; ++i) {
        char text[160];
        std::snprintf(text, sizeof text, "%s%s (thread %zu of %zu) %.2f/s", i ? ", " : "", wakers[i].name.c_str(),
                      wakers[i].nth, end.size(), wakers[i].perSecond);
        most += text;
    }
    if (most.empty())
        return;
    std::printf("  woken most: %s\n", most.c_str());
}

} // namespace

int main()
{
    const char* setting = std::getenv("VT_BENCH_IDLE_SECONDS");
    int seconds = setting && std::atoi(setting) > 0 ? std::atoi(setting) : 60;

    IdleLauncher before("before the hand-over", false), after("after the hand-over", true);
    for (auto [launcher, handOver] : { std::pair { &before, false }, std::pair { &after, true } }) {
        if (!launcher->waitUntilUp(handOver)) {
            std::fprintf(stderr, "footprint_bench: the launcher %s did not come up\n%s", launcher->name(),
                         launcher->log().c_str());
            return 1;
        }
    }
    std::this_thread::sleep_for(kSettling);

    auto beforeStart = sampleThreads(before.pid()), afterStart = sampleThreads(after.pid());
    auto windowStart = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    auto beforeEnd = sampleThreads(before.pid()), afterEnd = sampleThreads(after.pid());
    double window = std::chrono::duration<double>(std::chrono::steady_clock::now() - windowStart).count();

    report(before, beforeStart, beforeEnd, window);
    report(after, afterStart, afterEnd, window);
    before.quit();
    after.quit();
    return 0;
}
