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

int fail(const std::string& what, const std::string& log = {})
{
    std::cerr << "vt-panel-shot: " << what << "\n" << log;
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
    std::string display = std::getenv("DISPLAY");

    StandinWorld w;
    // A panel of its own: fresh settings, with room for a large tray icon.
    EnvironmentChanges desktop { { "HOME", (w.dir / "home").string() },
                                 { "XDG_CONFIG_HOME", (w.dir / "config").string() },
                                 { "XDG_CACHE_HOME", (w.dir / "cache").string() },
                                 { "DISPLAY", display },
                                 // The world's private desktop has no icon themes or MIME types.
                                 { "XDG_DATA_DIRS", "/usr/local/share:/usr/share" } };
    std::filesystem::create_directories(w.dir / "home");
    // The private bus starts no services: the panel's settings daemon first.
    TestProcess settings({ "/usr/lib/x86_64-linux-gnu/xfce4/xfconf/xfconfd" }, w.environment(desktop));
    if (!waitUntil([&] { return w.bus.hasOwner("org.xfce.Xfconf"); }, 10s))
        return fail("the panel's settings daemon did not come up");
    TestProcess panel({ "/usr/bin/xfce4-panel", "--disable-wm-check" }, w.environment(desktop), { w.dir.path(), true });
    if (!waitUntil([&] { return w.bus.hasOwner("org.kde.StatusNotifierWatcher"); }, 20s))
        return fail("the panel's status tray did not come up:", panel.standardError());
    // A taller panel, and a tray that shows its icons at 48 pixels.
    const char* larger = "xfconf-query -c xfce4-panel -p /panels/panel-1/size -n -t uint -s 64;"
                         "for p in $(xfconf-query -c xfce4-panel -lv | awk '$2 == \"systray\" { print $1 }'); do"
                         "  xfconf-query -c xfce4-panel -p $p/icon-size -n -t int -s 48;"
                         "  xfconf-query -c xfce4-panel -p $p/square-icons -n -t bool -s false;"
                         "done";
    TestProcess({ "/bin/sh", "-c", larger }, w.environment(desktop)).waitForExit();

    w.startHelperServer();
    w.startLauncher();
    if (!w.records.waitForTools(1, "vtmenu"))
        return fail("the launcher did not start the program:", w.launcherLog());
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
            return fail("the tray message was not taken:", w.launcherLog());
    }
    // The panel reads the new pixmap when it is told of it; give it a moment to draw.
    waitUntil([] { return false; }, 3s);

    // The whole screen, and the panel's right end three times as large.
    std::filesystem::path closeUp = output.parent_path() / (output.stem().string() + "-tray.png");
    std::string shot = "xwd -root -silent | xwdtopnm 2>/dev/null > '" + (w.dir / "screen.pnm").string() + "' && "
        + "pnmtopng < '" + (w.dir / "screen.pnm").string() + "' > '" + output.string() + "' && "
        + "pnmcut -right -1 -width 240 -top 0 -height 64 < '" + (w.dir / "screen.pnm").string()
        + "' | pnmscale 3 | pnmtopng > '" + closeUp.string() + "'";
    TestProcess screenshot({ "/bin/sh", "-c", shot }, w.environment(desktop));
    if (screenshot.waitForExit() != 0)
        return fail("the screenshot failed");
    std::cout << "vt-panel-shot: " << output.string() << " and " << closeUp.string() << "\n";
    return 0;
}
