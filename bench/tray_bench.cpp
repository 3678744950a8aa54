// The tray's figures, on the real launcher beside the stand-in product: from
// a tray message leaving the Wine side until the desktop hears NewIcon for
// the repainted tile (one message at a time, per icon size), and how many
// messages a second the launcher applies when senders keep it busy.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "standin/kit/StandinWorld.hpp"
#include "standin/kit/StatusNotifierWatcher.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace vt;
using namespace vt::test;
using namespace std::chrono_literals;

namespace {
constexpr int kRounds = 200;
constexpr int kSustained = 10000;
constexpr int kSenders = 4;

double millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

std::vector<uint8_t> message(uint64_t operation, int32_t hwnd, uint32_t size, uint32_t colour)
{
    auto record = standin::trayRecord(kNativeTrayLayout, hwnd, 1, 0x401, standin::solidPicture(size, colour));
    return standin::trayMessage(kNativeTrayLayout, operation, record);
}
} // namespace

int main()
{
    StandinWorld w;
    std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor/lib64/libwine.so.1");
    StatusNotifierWatcher watcher(w.bus.address());
    w.startHelperServer();
    // Without debug logging, as users run it.
    w.startLauncher({}, { { "VT_LOG", std::nullopt } });
    if (!w.records.waitForTools(1, "vtmenu") || !watcher.waitForRegistration()) {
        std::fprintf(stderr, "tray_bench: the launcher did not come up\n%s", w.launcherLog().c_str());
        return 1;
    }
    std::string socket = w.records.tools("vtmenu").at(0).environment["VT_SYSTRAY_SOCKET"];

    // Two icons are listed; the measured one is modified in place each round.
    for (uint32_t size : { 16u, 32u }) {
        auto sent = message(kTrayOperationAdd, int32_t(size), size, 0x336699);
        unsigned seen = watcher.signalCount("NewIcon");
        standin::sendTrayBytes(socket, sent);
        watcher.waitForSignal("NewIcon", ++seen);
        std::vector<double> times;
        for (int round = 0; round < kRounds; ++round) {
            auto bytes = message(kTrayOperationModify, int32_t(size), size, 0x010203u * uint32_t(round));
            auto start = std::chrono::steady_clock::now();
            if (!standin::sendTrayBytes(socket, bytes) || !watcher.waitForSignal("NewIcon", ++seen)) {
                std::fprintf(stderr, "tray_bench: a message was lost\n");
                return 1;
            }
            times.push_back(millisecondsSince(start));
        }
        std::sort(times.begin(), times.end());
        std::printf("tray repaint, %ux%u icon: message to NewIcon median %.3f ms, max %.3f ms (%d rounds)\n", size,
                    size, times[times.size() / 2], times.back(), kRounds);
    }

    unsigned before = watcher.signalCount("NewIcon");
    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> senders;
    for (int sender = 0; sender < kSenders; ++sender) {
        senders.emplace_back([&, sender] {
            for (int i = 0; i < kSustained / kSenders; ++i)
                standin::sendTrayBytes(socket, message(kTrayOperationModify, 16, 16, uint32_t(sender * 1000 + i)));
        });
    }
    for (auto& sender : senders)
        sender.join();
    if (!watcher.waitForSignal("NewIcon", before + kSustained, 60s)) {
        std::fprintf(stderr, "tray_bench: only %u of %d messages were applied\n",
                     watcher.signalCount("NewIcon") - before, kSustained);
        return 1;
    }
    double seconds = millisecondsSince(start) / 1000;
    std::printf("tray throughput: %d messages from %d senders in %.2f s, %.0f messages/s, each repainted\n", kSustained,
                kSenders, seconds, kSustained / seconds);
    return 0;
}
