// The launcher's icon in a real desktop panel: on the X display of the
// environment, Debian's xfce4-panel (whose status tray is a status-notifier
// watcher and host) runs on the stand-in world's private bus beside the real
// launcher; the stand-in tray sends two icons and the screen is written as a
// PNG (xwd, netpbm). scripts/panel-screenshot sets up the display.
//
//   vt-panel-shot OUTPUT.png
#include <cstdlib>
#include <iostream>

#include "standin/kit/StandinWorld.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

int fail(const std::string& what, const StandinWorld& w)
{
    std::cerr << "vt-panel-shot: " << what << "\n" << w.launcherLog();
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || !std::getenv("DISPLAY")) {
        std::cerr << "usage: DISPLAY=:N vt-panel-shot OUTPUT.png\n";
        return 2;
    }
    std::filesystem::path output = std::filesystem::absolute(argv[1]);

    StandinWorld w;
    // A panel of its own: fresh settings, with room for a large tray icon.
    EnvironmentChanges desktop { { "HOME", (w.dir / "home").string() },
                                 { "XDG_CONFIG_HOME", (w.dir / "config").string() },
                                 { "XDG_CACHE_HOME", (w.dir / "cache").string() } };
    std::filesystem::create_directories(w.dir / "home");
    TestProcess panel({ "/usr/bin/xfce4-panel", "--disable-wm-check" }, w.environment(desktop), { w.dir.path(), true });
    if (!waitUntil([&] { return w.bus.hasOwner("org.kde.StatusNotifierWatcher"); }, 20s))
        return fail("the panel's status tray did not come up:\n" + panel.standardError(), w);
    for (const char* setting : { "/panels/panel-1/size=64", "/panels/panel-1/icon-size=0" }) {
        std::string text = setting;
        auto equals = text.find('=');
        TestProcess query({ "/usr/bin/xfconf-query", "-c", "xfce4-panel", "-p", text.substr(0, equals), "-n", "-t", "uint",
                            "-s", text.substr(equals + 1) },
                          w.environment(desktop));
        query.waitForExit();
    }

    w.startHelperServer();
    w.startLauncher();
    if (!w.records.waitForTools(2))
        return fail("the launcher did not start the program", w);
    std::string socket = w.records.tools("vtmenu").at(0).environment["VT_SYSTRAY_SOCKET"];
    const auto& layout = vt::kNativeTrayLayout;
    auto ring = vt::standin::solidPicture(16, 0xD83B01);
    for (uint32_t y = 0; y < 16; ++y)
        for (uint32_t x = 0; x < 16; ++x)
            ring.transparent[y * 16 + x] = (x - 7.5) * (x - 7.5) + (y - 7.5) * (y - 7.5) > 56;
    auto square = vt::standin::solidPicture(32, 0x2B88D8);
    for (auto [hwnd, picture] : { std::pair { 65636, ring }, std::pair { 65640, square } }) {
        auto record = vt::standin::trayRecord(layout, hwnd, 1, 0x401, picture);
        if (!vt::standin::sendTrayBytes(socket, vt::standin::trayMessage(layout, vt::kTrayOperationAdd, record)))
            return fail("the tray message was not taken", w);
    }
    // The panel reads the new pixmap when it is told of it; give it a moment to draw.
    waitUntil([] { return false; }, 3s);

    std::string shot = "xwd -root -silent | xwdtopnm 2>/dev/null | pnmtopng > '" + output.string() + "'";
    TestProcess screenshot({ "/bin/sh", "-c", shot }, w.environment(desktop));
    if (screenshot.waitForExit() != 0)
        return fail("the screenshot failed", w);
    std::cout << "vt-panel-shot: " << output.string() << "\n";
    return 0;
}
