// The Windows program's tray icons on the real launcher's status-notifier
// item: tray messages over the launch-notify socket from the Wine side's
// side, the tile read back by a stand-in watcher on the private bus, and the
// item's activation, menu and tooltip acting on the launcher.
#include <algorithm>
#include <csignal>

#include <gtest/gtest.h>

#include "integration/TrayIconList.hpp"
#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/StandinWorld.hpp"
#include "standin/kit/StatusNotifierWatcher.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace std::chrono_literals;
using namespace vt::test;
using vt::kNativeTrayLayout;
using vt::standin::TrayPicture;

namespace {

using Strings = std::vector<std::string>;

struct Rgba {
    uint8_t r, g, b, a;
    bool operator==(const Rgba&) const = default;
};

Rgba pixelAt(const GdkPixbuf& image, int x, int y)
{
    const guint8* p = gdk_pixbuf_read_pixels(&image) + y * gdk_pixbuf_get_rowstride(&image)
        + x * gdk_pixbuf_get_n_channels(&image);
    return { p[0], p[1], p[2], gdk_pixbuf_get_has_alpha(&image) ? p[3] : uint8_t(255) };
}

Rgba opaque(uint32_t rgb) { return { uint8_t(rgb >> 16), uint8_t(rgb >> 8), uint8_t(rgb), 255 }; }

// Whether the two tiles agree everywhere outside the rectangle [x0, x1) x [y0, y1).
bool sameOutside(const GdkPixbuf& a, const GdkPixbuf& b, int x0, int y0, int x1, int y1)
{
    for (int y = 0; y < vt::kTileSize; ++y) {
        for (int x = 0; x < vt::kTileSize; ++x) {
            bool inside = x >= x0 && x < x1 && y >= y0 && y < y1;
            if (!inside && !(pixelAt(a, x, y) == pixelAt(b, x, y)))
                return false;
        }
    }
    return true;
}

class Tray : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The program runs in processes of its own, so activation is the
        // launcher's to handle (with Wine inside, Wine's driver takes it).
        std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor"
                                / vt::kNativeWineLoaderLayout.libraryDirectory / vt::kWineLibraryName);
    }

    // Starts the helper server and the launcher, and waits until the
    // window-command tool and the program run and the item is registered.
    TestProcess& launch()
    {
        w.startHelperServer();
        TestProcess& launcher = w.startLauncher();
        EXPECT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
        socket = w.records.tools("vtmenu").at(0).environment["VT_SYSTRAY_SOCKET"];
        EXPECT_FALSE(socket.empty());
        EXPECT_TRUE(watcher.waitForRegistration()) << w.launcherLog();
        // The launch's own activation has asked for windows.
        EXPECT_TRUE(w.records.waitFor("request", 1));
        return launcher;
    }

    // Sends one message and waits for the tile it brings.
    void send(uint64_t operation, int32_t hwnd, int32_t id, const TrayPicture& picture)
    {
        sendRaw(vt::standin::trayMessage(kNativeTrayLayout, operation,
                                         vt::standin::trayRecord(kNativeTrayLayout, hwnd, id, 0x401, picture)));
    }
    void sendRaw(const std::vector<uint8_t>& bytes)
    {
        unsigned icons = watcher.signalCount("NewIcon");
        ASSERT_TRUE(vt::standin::sendTrayBytes(socket, bytes));
        ASSERT_TRUE(watcher.waitForSignal("NewIcon", icons + 1)) << w.launcherLog();
    }

    // How often the helper server was asked to raise the launcher's windows.
    long raisesOf(TestProcess& launcher) const
    {
        const std::string raise = "RaiseWindowsWithTag " + std::to_string(launcher.pid());
        auto calls = w.records.texts("call");
        return static_cast<long>(std::count(calls.begin(), calls.end(), raise));
    }

    StandinWorld w;
    StatusNotifierWatcher watcher { w.bus.address() };
    std::string socket;
};

} // namespace

TEST_F(Tray, IconsArriveOnTheTileWrapModifyInPlaceAndLeaveThePlainTile)
{
    launch();
    auto plain = watcher.iconPixmap();
    ASSERT_EQ(gdk_pixbuf_get_width(plain.get()), vt::kTileSize);

    // 16 x 16 pixels, the left half masked out: drawn at 32 x 32 points from
    // the tile's top-left corner, one point in.
    TrayPicture first = vt::standin::solidPicture(16, 0xCC3322);
    for (uint32_t y = 0; y < 16; ++y)
        for (uint32_t x = 0; x < 8; ++x)
            first.transparent[y * 16 + x] = true;
    send(vt::kTrayOperationAdd, 7, 1, first);
    auto tile = watcher.iconPixmap();
    for (int y = 1; y <= 32; ++y) {
        for (int x = 1; x <= 32; ++x) {
            Rgba expected = x <= 16 ? pixelAt(*plain, x, y) : opaque(0xCC3322);
            ASSERT_EQ(pixelAt(*tile, x, y), expected) << "at " << x << "," << y;
        }
    }
    EXPECT_TRUE(sameOutside(*tile, *plain, 1, 1, 33, 33));

    // Three to a row; the fourth starts the next row under the first.
    const uint32_t colours[] = { 0x11AA11, 0x1111AA, 0xAAAA11 };
    for (int i = 0; i < 3; ++i)
        send(vt::kTrayOperationAdd, 7, 2 + i, vt::standin::solidPicture(32, colours[i], 24));
    tile = watcher.iconPixmap();
    EXPECT_EQ(pixelAt(*tile, 35, 1), opaque(0x11AA11));
    EXPECT_EQ(pixelAt(*tile, 69 + 31, 32), opaque(0x1111AA));
    EXPECT_EQ(pixelAt(*tile, 1, 33), opaque(0xAAAA11));
    EXPECT_EQ(pixelAt(*tile, 32, 64), opaque(0xAAAA11));
    EXPECT_TRUE(sameOutside(*tile, *plain, 1, 1, 103, 65));

    // A modify keeps the icon's place; an unknown one changes nothing.
    send(vt::kTrayOperationModify, 7, 2, vt::standin::solidPicture(32, 0x55EEEE));
    send(vt::kTrayOperationModify, 8, 2, vt::standin::solidPicture(32, 0x000000));
    tile = watcher.iconPixmap();
    EXPECT_EQ(pixelAt(*tile, 35, 1), opaque(0x55EEEE));
    EXPECT_EQ(pixelAt(*tile, 69, 1), opaque(0x1111AA));

    for (int32_t id : { 1, 2, 3, 4 })
        send(vt::kTrayOperationDelete, 7, id, TrayPicture {});
    EXPECT_TRUE(sameOutside(*watcher.iconPixmap(), *plain, 0, 0, 0, 0));
}

TEST_F(Tray, ActivationRaisesTheWindowsOrClicksTheOldestTrayIcon)
{
    w.setAnswer("haswindows", "0");
    auto& launcher = launch();
    send(vt::kTrayOperationAdd, 101, 5, vt::standin::solidPicture(16, 0x808080));
    send(vt::kTrayOperationAdd, 102, 6, vt::standin::solidPicture(16, 0x404040));
    size_t seen = w.records.commandTexts().size();
    // The launch's own activation may have raised too, and its call may be
    // recorded late: only more raises than these count.
    auto raisedAtLaunch = raisesOf(launcher);

    watcher.activate(10, 10);
    ASSERT_TRUE(w.records.waitFor("request", seen + 2)) << w.launcherLog();
    EXPECT_EQ(w.records.commandTexts().at(seen), "haswindows");
    EXPECT_EQ(w.records.commandTexts().at(seen + 1), "activatesystray -h 101 -m 1025 -s 5");

    // With a window to show, no icon is clicked: the launcher steps aside
    // (hides, and shows itself again without taking the front).
    auto count = [](const std::string& text, const std::string& line) {
        size_t found = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            found++;
        return found;
    };
    const std::string unhidden = "unhide without activation";
    ASSERT_TRUE(waitUntil([&] {
        std::string log = w.launcherLog();
        return count(log, "] hide") == count(log, unhidden);
    })) << w.launcherLog();
    size_t unhiddenBefore = count(w.launcherLog(), unhidden);
    w.setAnswer("haswindows", "1");
    watcher.activate(10, 10);
    ASSERT_TRUE(waitUntil([&] { return count(w.launcherLog(), unhidden) == unhiddenBefore + 1; }))
        << w.launcherLog();
    ASSERT_TRUE(w.records.waitFor("request", seen + 3));
    EXPECT_EQ(w.records.commandTexts().size(), seen + 3)
        << testing::PrintToString(w.records.commandTexts()) << w.launcherLog();
    // Each activation asked the helper server to raise the program's windows
    // at once, whatever the tool answered.
    EXPECT_TRUE(waitUntil([&] { return raisesOf(launcher) >= raisedAtLaunch + 2; })) << w.launcherLog();
}

TEST_F(Tray, TheMenusQuitItemEndsTheSessionLikeAQuitSignal)
{
    auto& launcher = launch();
    auto menu = watcher.menuLayout();
    ASSERT_EQ(menu.children.size(), 1u);
    EXPECT_EQ(menu.children[0].label, "Quit Notepad");
    size_t seen = w.records.commandTexts().size();

    watcher.clickMenuItem("Quit Notepad");
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    auto texts = w.records.commandTexts();
    EXPECT_EQ(Strings(texts.begin() + seen, texts.end()),
              (Strings { "close", "queryendsession", "endsession", "shutdown" }));
}

TEST_F(Tray, WhileStartUpWaitsTheItemSaysSoAndItRegistersWithALateWatcher)
{
    watcher.stop();
    w.startHelperServer({ { "VT_STANDIN_NOT_READY", "3" } });
    w.startLauncher();
    ASSERT_TRUE(w.waitForLog("is not ready yet")) << w.launcherLog();

    // A desktop that comes up while the launcher waits finds it waiting.
    watcher.start();
    ASSERT_TRUE(watcher.waitForRegistration());
    EXPECT_EQ(watcher.toolTipText(), "Getting Office ready…");
    EXPECT_EQ(watcher.stringProperty("Title"), "Notepad");
    EXPECT_EQ(watcher.stringProperty("Id"), "com.example.Notepad");
    EXPECT_TRUE(w.records.tools().empty()) << "still waiting";

    ASSERT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
    EXPECT_TRUE(waitUntil([&] { return watcher.toolTipText() == "Notepad"; }));
}

TEST_F(Tray, WhileStartUpWaitsForTheBottleTheItemAnswersAndItsMenuQuits)
{
    w.startHelperServer({ { "VT_STANDIN_NOT_READY", "1000" } });
    auto& launcher = w.startLauncher();
    ASSERT_TRUE(w.waitForLog("is not ready yet")) << w.launcherLog();
    ASSERT_TRUE(watcher.waitForRegistration()) << w.launcherLog();
    EXPECT_EQ(watcher.toolTipText(), "Getting Office ready…");
    ASSERT_EQ(watcher.menuLayout().children.size(), 1u);

    watcher.clickMenuItem("Quit Notepad");
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_TRUE(w.records.tools().empty()) << "nothing was started";
}

TEST_F(Tray, WhileTheProgramAsksSaveChangesTheDesktopAndASecondLaunchAreServed)
{
    // The program asks its user and has not answered yet.
    w.setAnswer("queryendsession", "silent");
    auto& launcher = launch();
    size_t seen = w.records.commandTexts().size();
    launcher.signal(SIGTERM);
    ASSERT_TRUE(w.records.waitFor("request", seen + 2)) << w.launcherLog();
    EXPECT_EQ(w.records.commandTexts().back(), "queryendsession");

    // The desktop reads the item and its menu; a second launch is taken.
    EXPECT_EQ(watcher.stringProperty("Title"), "Notepad");
    EXPECT_EQ(watcher.menuLayout().children.size(), 1u);
    auto beforeSecondLaunch = raisesOf(launcher);
    EXPECT_EQ(w.startLauncher().waitForExit(), 0);
    EXPECT_TRUE(w.waitForLog("event: reopen")) << w.launcherLog();
    // The second launch's activation raises the windows too; the helper
    // server may record that after the click below has been made.
    ASSERT_TRUE(waitUntil([&] { return raisesOf(launcher) == beforeSecondLaunch + 1; })) << w.launcherLog();
    // A click on the icon brings the program's windows, and so its question, forward at once.
    auto before = raisesOf(launcher);
    watcher.activate(10, 10);
    ASSERT_TRUE(waitUntil([&] { return raisesOf(launcher) == before + 1; })) << w.launcherLog();
    EXPECT_EQ(w.records.commandTexts().size(), seen + 2) << "the activation's commands wait for their turn";
    // Quit requests are still heard (a logout's SIGTERM, the menu): the
    // question already asked stays the one open.
    launcher.signal(SIGTERM);
    watcher.clickMenuItem("Quit Notepad");
    ASSERT_TRUE(waitUntil([&] {
        std::string log = w.launcherLog();
        return log.find("event: menu-item quit") != std::string::npos
            && log.find("event: quit-request") != log.rfind("event: quit-request");
    })) << w.launcherLog();
    EXPECT_EQ(w.records.commandTexts().size(), seen + 2);

    // The tool goes without answering: the quit is refused, nothing is ended.
    ASSERT_EQ(w.records.tools("wine").size(), 1u);
    kill(w.records.tools("wine").at(0).pid, SIGKILL);
    ASSERT_TRUE(w.waitForLog("Message mismatch.  Expected helperDelegateCommand")) << w.launcherLog();
    EXPECT_EQ(launcher.waitForExit(1s), std::nullopt) << "the program still runs, so does its launcher";
}

TEST_F(Tray, TheDesktopsActivationTokenGoesToTheNextProcessOnce)
{
    launch();
    watcher.provideXdgActivationToken("token-from-the-panel");
    watcher.activate(10, 10);
    EXPECT_EQ(w.startLauncher({ "first.txt" }).waitForExit(), 0);
    EXPECT_EQ(w.startLauncher({ "second.txt" }).waitForExit(), 0);
    ASSERT_TRUE(w.records.waitForTools(3, "vtmenu")) << w.launcherLog();
    auto menus = w.records.tools("vtmenu");
    EXPECT_EQ(menus.at(0).environment.count("XDG_ACTIVATION_TOKEN"), 0u);
    EXPECT_EQ(menus.at(1).environment["XDG_ACTIVATION_TOKEN"], "token-from-the-panel");
    EXPECT_EQ(menus.at(2).environment.count("XDG_ACTIVATION_TOKEN"), 0u) << "a token serves once";
}
