// The launcher's status icon as the desktop sees it: a StatusNotifierItem on a
// private bus, registered with and read by the stand-in watcher. The item is
// served by this test's main loop, which the watcher's calls and waits run.
#include <algorithm>
#include <functional>
#include <optional>

#include <gtest/gtest.h>
#include <unistd.h>

#include "base/MainLoop.hpp"
#include "base/VTLog.hpp"
#include "shell/StatusNotifierItem.hpp"
#include "standin/kit/StatusNotifierWatcher.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace std::chrono_literals;
using namespace vt;
using namespace vt::test;

namespace {

struct Rgba {
    guint8 r, g, b, a;
};

GPtr<GdkPixbuf> solidImage(int size, Rgba colour, bool alpha = true)
{
    GPtr<GdkPixbuf> image = adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, alpha, 8, size, size));
    gdk_pixbuf_fill(image.get(), (guint32(colour.r) << 24) | (guint32(colour.g) << 16) | (guint32(colour.b) << 8)
                                     | colour.a);
    return image;
}

Rgba pixelAt(const GdkPixbuf* image, int x, int y)
{
    const guint8* p = gdk_pixbuf_read_pixels(image) + y * gdk_pixbuf_get_rowstride(image)
                      + x * gdk_pixbuf_get_n_channels(image);
    return { p[0], p[1], p[2], gdk_pixbuf_get_has_alpha(image) ? p[3] : guint8(255) };
}

Rgba iconCorner(StatusNotifierWatcher& watcher)
{
    GPtr<GdkPixbuf> shown = watcher.iconPixmap();
    return pixelAt(shown.get(), 127, 127);
}

bool operator==(Rgba a, Rgba b) { return a.r == b.r && a.g == b.g && a.b == b.b && a.a == b.a; }

void PrintTo(Rgba colour, std::ostream* out)
{
    *out << "rgba(" << int(colour.r) << ", " << int(colour.g) << ", " << int(colour.b) << ", " << int(colour.a) << ")";
}

// The launcher's debug log, switched on and collected for a scope.
class DebugLog {
public:
    DebugLog()
    {
        m_environment.emplace();
        m_environment->set("VT_LOG", "");
        readDebugLoggingSwitch();
    }
    ~DebugLog()
    {
        m_environment.reset();
        readDebugLoggingSwitch();
    }
    bool waitForLine(const std::string& text)
    {
        return waitUntil([&] { return m_capture.text().find(text) != std::string::npos; });
    }
    size_t count(const std::string& text) const
    {
        size_t found = 0;
        const std::string all = m_capture.text();
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
            ++found;
        return found;
    }

private:
    std::optional<ScopedEnvironment> m_environment;
    StderrCapture m_capture;
};

MenuItem menuItem(const std::string& title, const std::string& action = {})
{
    MenuItem item;
    item.title = title;
    item.action = action;
    return item;
}

class StatusNotifierItemTest : public ::testing::Test {
protected:
    void makeItem()
    {
        StatusNotifierItem::Callbacks callbacks;
        callbacks.activate = [this] {
            ++activations;
            offMainThread += !isMainThread();
        };
        callbacks.menuAction = [this](const std::string& action) {
            actions.push_back(action);
            offMainThread += !isMainThread();
        };
        item = std::make_unique<StatusNotifierItem>("com.example.Notepad", "Notepad", *icon, std::move(callbacks));
    }

    void makeRegisteredItem()
    {
        watcher.start();
        makeItem();
        ASSERT_EQ(watcher.waitForRegistration(), item->busName());
    }

    PrivateBus bus;
    StatusNotifierWatcher watcher { bus.address(), false };
    GPtr<GdkPixbuf> icon = solidImage(128, { 0, 0, 0, 0 });
    int activations = 0;
    std::vector<std::string> actions;
    int offMainThread = 0;
    std::unique_ptr<StatusNotifierItem> item;
};

} // namespace

TEST_F(StatusNotifierItemTest, RegistersWhenAWatcherAppearsAndAgainAfterItRestarts)
{
    makeItem();
    ASSERT_TRUE(waitUntil([&] { return bus.hasOwner(item->busName()); }));

    watcher.start();
    EXPECT_EQ(watcher.waitForRegistration(), item->busName());

    watcher.stop();
    watcher.start();
    EXPECT_EQ(watcher.waitForRegistration(), item->busName());
}

TEST_F(StatusNotifierItemTest, ExportsItsPropertiesAndAnUnpremultipliedArgbIcon)
{
    // One pixel half transparent: premultiplied colour or another byte
    // order shows in its four bytes.
    const guint8 halfOrange[] = { 200, 100, 50, 128 };
    std::copy(std::begin(halfOrange), std::end(halfOrange),
              gdk_pixbuf_get_pixels(icon.get()) + 5 * gdk_pixbuf_get_rowstride(icon.get()) + 3 * 4);
    makeRegisteredItem();

    EXPECT_EQ(watcher.stringProperty("Category"), "ApplicationStatus");
    EXPECT_EQ(watcher.stringProperty("Id"), "com.example.Notepad");
    EXPECT_EQ(watcher.stringProperty("Title"), "Notepad");
    EXPECT_EQ(watcher.stringProperty("Status"), "Active");
    EXPECT_EQ(watcher.stringProperty("IconName"), "");
    EXPECT_EQ(watcher.stringProperty("Menu"), kStatusNotifierMenuPath);
    EXPECT_FALSE(g_variant_get_boolean(watcher.property("ItemIsMenu").get()));
    EXPECT_EQ(g_variant_get_int32(watcher.property("WindowId").get()), 0);

    GPtr<GVariant> pixmaps = watcher.property("IconPixmap");
    ASSERT_EQ(g_variant_n_children(pixmaps.get()), 1u);
    gint32 width = 0, height = 0;
    GVariant* bytesValue = nullptr;
    g_variant_get_child(pixmaps.get(), 0, "(ii@ay)", &width, &height, &bytesValue);
    GPtr<GVariant> bytes = adopt(bytesValue);
    EXPECT_EQ(width, 128);
    EXPECT_EQ(height, 128);
    gsize size = 0;
    const auto* argb = static_cast<const guint8*>(g_variant_get_fixed_array(bytes.get(), &size, 1));
    ASSERT_EQ(size, 128u * 128u * 4u);
    const guint8* halfTransparent = argb + (5 * 128 + 3) * 4;
    EXPECT_EQ(std::vector<int>(halfTransparent, halfTransparent + 4), (std::vector<int> { 128, 200, 100, 50 }));
    EXPECT_EQ(std::vector<int>(argb, argb + 4), (std::vector<int> { 0, 0, 0, 0 }));

    // A repaint: an opaque tile of another size becomes the 128 x 128 pixmap.
    unsigned newIcons = watcher.signalCount("NewIcon");
    item->setIcon(*solidImage(64, { 10, 20, 30, 0 }, false));
    ASSERT_TRUE(watcher.waitForSignal("NewIcon", newIcons + 1));
    GPtr<GdkPixbuf> shown = watcher.iconPixmap();
    EXPECT_EQ(gdk_pixbuf_get_width(shown.get()), 128);
    Rgba corner = pixelAt(shown.get(), 127, 127);
    EXPECT_EQ(std::vector<int>({ corner.r, corner.g, corner.b, corner.a }), (std::vector<int> { 10, 20, 30, 255 }));
}

TEST_F(StatusNotifierItemTest, ToolTipIsTheTitleUntilChangedAndEachChangeIsAnnounced)
{
    makeRegisteredItem();
    EXPECT_EQ(watcher.toolTipText(), "Notepad");

    unsigned newToolTips = watcher.signalCount("NewToolTip");
    item->setToolTip("Getting Office ready…");
    ASSERT_TRUE(watcher.waitForSignal("NewToolTip", newToolTips + 1));
    EXPECT_EQ(watcher.toolTipText(), "Getting Office ready…");
    EXPECT_EQ(watcher.stringProperty("Title"), "Notepad");
    EXPECT_EQ(watcher.stringProperty("Status"), "Active");

    item->setToolTip("Notepad");
    ASSERT_TRUE(watcher.waitForSignal("NewToolTip", newToolTips + 2));
    EXPECT_EQ(watcher.toolTipText(), "Notepad");
}

TEST_F(StatusNotifierItemTest, ExportsTheMenuAndItsQuitItemIsAQuitRequestOnTheMainThread)
{
    Menu window;
    window.items = { menuItem("Bring All to Front", "activate"), menuItem("Hide Notepad", "hide") };
    MenuItem windowItem = menuItem("Window");
    windowItem.submenu = std::make_shared<Menu>(window);
    MenuItem about = menuItem("About %@");
    about.attributedTitle = AttributedTitle { "About Notepad", { { "NSFont", "Helvetica-Bold" } } };
    MenuItem separator;
    separator.separator = true;
    Menu menu;
    menu.items = { about, windowItem, separator, menuItem("Quit Notepad", "quit") };
    makeRegisteredItem();
    item->setMenu(menu);

    StatusMenuEntry layout = watcher.menuLayout();
    EXPECT_EQ(layout.id, 0);
    ASSERT_EQ(layout.children.size(), 4u);
    EXPECT_EQ(layout.children[0].label, "About Notepad");
    EXPECT_EQ(layout.children[1].label, "Window");
    EXPECT_EQ(layout.children[1].childrenDisplay, "submenu");
    ASSERT_EQ(layout.children[1].children.size(), 2u);
    EXPECT_EQ(layout.children[1].children[1].label, "Hide Notepad");
    EXPECT_EQ(layout.children[2].type, "separator");
    EXPECT_EQ(layout.children[3].label, "Quit Notepad");
    EXPECT_EQ(layout.children[3].type, "");

    // The same menu again keeps its ids: a host holding an id still finds it.
    auto ids = [](const StatusMenuEntry& root) {
        std::vector<int> all;
        std::function<void(const StatusMenuEntry&)> collect = [&](const StatusMenuEntry& entry) {
            all.push_back(entry.id);
            for (const auto& child : entry.children)
                collect(child);
        };
        collect(root);
        return all;
    };
    item->setMenu(menu);
    EXPECT_EQ(ids(watcher.menuLayout()), ids(layout));

    // An item without an action does nothing; the others reach the callback
    // in the order they were clicked.
    watcher.clickMenuItem("About Notepad");
    watcher.clickMenuItem("Hide Notepad");
    watcher.clickMenuItem("Quit Notepad");
    ASSERT_TRUE(waitUntil([&] { return actions.size() == 2; }));
    EXPECT_EQ(actions, (std::vector<std::string> { "hide", "quit" }));
    EXPECT_EQ(offMainThread, 0);

    // Another menu replaces it.
    item->setMenu(defaultMenu());
    ASSERT_TRUE(waitUntil([&] { return watcher.menuLayout().children.size() == 1; }));
    EXPECT_EQ(watcher.menuLayout().children[0].label, "Quit %@");
}

TEST_F(StatusNotifierItemTest, ABurstOfTilesInOneTurnIsAnnouncedOnceWithTheLatestTile)
{
    makeRegisteredItem();
    const Rgba red { 255, 0, 0, 255 }, green { 0, 255, 0, 255 }, blue { 0, 0, 255, 255 };
    unsigned newIcons = watcher.signalCount("NewIcon");
    unsigned newToolTips = watcher.signalCount("NewToolTip");
    item->setIcon(*solidImage(128, red));
    item->setIcon(*solidImage(128, green));
    item->setIcon(*solidImage(128, blue));
    ASSERT_TRUE(watcher.waitForSignal("NewIcon", newIcons + 1));
    EXPECT_EQ(iconCorner(watcher), blue);
    // NewToolTip leaves at once, after any NewIcon of the burst: when it has
    // arrived, so has every NewIcon there was.
    item->setToolTip("Notepad");
    ASSERT_TRUE(watcher.waitForSignal("NewToolTip", newToolTips + 1));
    EXPECT_EQ(watcher.signalCount("NewIcon"), newIcons + 1);

    // A tile in a later turn is announced again.
    item->setIcon(*solidImage(128, red));
    ASSERT_TRUE(watcher.waitForSignal("NewIcon", newIcons + 2));
    EXPECT_EQ(iconCorner(watcher), red);
}

TEST_F(StatusNotifierItemTest, AWatcherThatDropsTheItemGetsItAgainAFewTimes)
{
    DebugLog log;
    makeRegisteredItem();
    const std::string name = item->busName();
    watcher.dropItem(name);
    ASSERT_TRUE(watcher.waitForRegistrations(2));
    EXPECT_EQ(watcher.registeredItems(), std::vector<std::string> { name });

    // Named by the connection's unique name and the object's path, as some
    // watchers name an item.
    GPtr<GDBusConnection> session = adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
    std::string uniqueName = g_dbus_connection_get_unique_name(session.get());
    session.reset();
    watcher.dropItem(uniqueName + kStatusNotifierItemPath);
    ASSERT_TRUE(watcher.waitForRegistrations(3));

    // Another item, or another object on our connection, is not ours to
    // register. The item takes signals and calls in the order they were
    // sent: once it has answered, it has heard both drops.
    size_t again = log.count("registering it again");
    watcher.dropItem("org.kde.StatusNotifierItem-1-1");
    watcher.dropItem(uniqueName + "/org/ayatana/NotificationItem/other");
    EXPECT_EQ(watcher.stringProperty("Id"), "com.example.Notepad");
    EXPECT_EQ(log.count("registering it again"), again);

    for (unsigned registrations = 4; registrations <= 6; ++registrations) {
        watcher.dropItem(name);
        ASSERT_TRUE(watcher.waitForRegistrations(registrations));
    }
    // The sixth drop is taken as the watcher's last word.
    watcher.dropItem(name);
    ASSERT_TRUE(log.waitForLine("not registering it any more"));
    EXPECT_EQ(watcher.registrationCount(), 6u);
    EXPECT_EQ(log.count("registering it again"), 5u);

    // A watcher that appears afresh is given the item, and a few more tries.
    watcher.stop();
    watcher.start();
    ASSERT_EQ(watcher.waitForRegistration(), name);
    watcher.dropItem(name);
    ASSERT_TRUE(watcher.waitForRegistrations(2));
}

TEST_F(StatusNotifierItemTest, DescribesItsIconAndKeepsTheActivationTokenForTheNextActivation)
{
    makeRegisteredItem();
    EXPECT_EQ(watcher.stringProperty("IconAccessibleDesc"), "Notepad");
    EXPECT_EQ(watcher.stringProperty("AttentionAccessibleDesc"), "");
    EXPECT_EQ(item->takeActivationToken(), "");

    // A host hands a token over just before activating; the last one counts.
    watcher.provideXdgActivationToken("stale");
    watcher.provideXdgActivationToken("token-2");
    watcher.activate(10, 10);
    ASSERT_TRUE(waitUntil([&] { return activations == 1; }));
    EXPECT_EQ(offMainThread, 0);
    EXPECT_EQ(item->takeActivationToken(), "token-2");
    EXPECT_EQ(item->takeActivationToken(), "");
}

TEST_F(StatusNotifierItemTest, LeavesTheBusWhenDestroyedWithWorkPending)
{
    DebugLog log;
    makeRegisteredItem();
    item->setMenu(defaultMenu());
    std::string name = item->busName();
    // Gone with a registration to repeat and a NewIcon to send: neither
    // reaches the destroyed item.
    watcher.dropItem(name);
    ASSERT_TRUE(log.waitForLine("registering it again"));
    unsigned newIcons = watcher.signalCount("NewIcon");
    item->setIcon(*solidImage(128, { 1, 2, 3, 255 }));
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    g_object_add_weak_pointer(G_OBJECT(connection), reinterpret_cast<gpointer*>(&connection));
    g_object_unref(connection);

    size_t registrations = log.count("registering the status icon ");
    item.reset();
    EXPECT_FALSE(bus.hasOwner(name));
    EXPECT_THROW(watcher.toolTipText(), std::runtime_error);
    // Nothing keeps the shared connection: the private bus can go down.
    EXPECT_TRUE(waitUntil([&] { return connection == nullptr; }, 5s));
    if (connection)
        g_object_remove_weak_pointer(G_OBJECT(connection), reinterpret_cast<gpointer*>(&connection));

    // The object and the menu are free for a new item.
    makeItem();
    EXPECT_TRUE(waitUntil([&] { return watcher.registeredItems().size() == 1; }));
    EXPECT_EQ(log.count("registering the status icon "), registrations + 1);
    EXPECT_EQ(watcher.signalCount("NewIcon"), newIcons);
}

TEST_F(StatusNotifierItemTest, GoneBeforeTheMainLoopRanLeavesNothingBehind)
{
    // The menu is still waiting for libdbusmenu's bus look-up, and the item
    // has asked for no name yet.
    watcher.start();
    makeItem();
    std::string name = item->busName();
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    g_object_add_weak_pointer(G_OBJECT(connection), reinterpret_cast<gpointer*>(&connection));
    g_object_unref(connection);
    item.reset();

    EXPECT_TRUE(waitUntil([&] { return connection == nullptr; }, 5s));
    if (connection)
        g_object_remove_weak_pointer(G_OBJECT(connection), reinterpret_cast<gpointer*>(&connection));
    EXPECT_FALSE(bus.hasOwner(name));
    EXPECT_EQ(watcher.registrationCount(), 0u);
}
