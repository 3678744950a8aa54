#include "shell/StatusNotifierItem.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <libdbusmenu-glib/menuitem.h>
#include <libdbusmenu-glib/server.h>
#include <unistd.h>

#include "base/MainLoop.hpp"
#include "base/VTLog.hpp"
#include "base/posix_glue.hpp"

namespace vt {

VT_GOBJECT_TRAITS(DbusmenuServer)
VT_GOBJECT_TRAITS(DbusmenuMenuitem)

namespace {
    using namespace std::chrono_literals;

    const char* const kItemInterface = "org.kde.StatusNotifierItem";
    const char* const kWatcherPath = "/StatusNotifierWatcher";
    const char* const kWatcherInterface = "org.kde.StatusNotifierWatcher";
    constexpr int kIconSize = 128;

    const char* const introspectionXml = R"xml(
<node>
  <interface name="org.kde.StatusNotifierItem">
    <property name="Category" type="s" access="read"/>
    <property name="Id" type="s" access="read"/>
    <property name="Title" type="s" access="read"/>
    <property name="Status" type="s" access="read"/>
    <property name="WindowId" type="i" access="read"/>
    <property name="IconThemePath" type="s" access="read"/>
    <property name="IconName" type="s" access="read"/>
    <property name="IconPixmap" type="a(iiay)" access="read"/>
    <property name="OverlayIconName" type="s" access="read"/>
    <property name="OverlayIconPixmap" type="a(iiay)" access="read"/>
    <property name="AttentionIconName" type="s" access="read"/>
    <property name="AttentionIconPixmap" type="a(iiay)" access="read"/>
    <property name="AttentionMovieName" type="s" access="read"/>
    <property name="ToolTip" type="(sa(iiay)ss)" access="read"/>
    <property name="ItemIsMenu" type="b" access="read"/>
    <property name="Menu" type="o" access="read"/>
    <method name="Activate">
      <arg name="x" type="i" direction="in"/>
      <arg name="y" type="i" direction="in"/>
    </method>
    <method name="SecondaryActivate">
      <arg name="x" type="i" direction="in"/>
      <arg name="y" type="i" direction="in"/>
    </method>
    <method name="ContextMenu">
      <arg name="x" type="i" direction="in"/>
      <arg name="y" type="i" direction="in"/>
    </method>
    <method name="Scroll">
      <arg name="delta" type="i" direction="in"/>
      <arg name="orientation" type="s" direction="in"/>
    </method>
    <signal name="NewTitle"/>
    <signal name="NewIcon"/>
    <signal name="NewAttentionIcon"/>
    <signal name="NewOverlayIcon"/>
    <signal name="NewToolTip"/>
    <signal name="NewStatus">
      <arg name="status" type="s"/>
    </signal>
  </interface>
</node>)xml";

    GDBusInterfaceInfo* itemInterfaceInfo()
    {
        static GDBusInterfaceInfo* info = interfaceOfIntrospection(introspectionXml);
        return info;
    }

    // D-Bus strings are UTF-8; a bundle name or menu title that is not would
    // make GVariant refuse the whole value.
    std::string validUtf8(const std::string& text)
    {
        if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
            return text;
        GCharPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
        return valid.get();
    }

    // The item's pixmap list: one image, 128 x 128, each pixel the bytes A, R,
    // G, B (ARGB32 in network byte order), colour not premultiplied, as the
    // pixbuf holds it. Floating.
    GVariant* iconPixmapValue(const GdkPixbuf& icon)
    {
        if (gdk_pixbuf_get_colorspace(&icon) != GDK_COLORSPACE_RGB || gdk_pixbuf_get_bits_per_sample(&icon) != 8
            || gdk_pixbuf_get_n_channels(&icon) != (gdk_pixbuf_get_has_alpha(&icon) ? 4 : 3))
            throw std::invalid_argument("the status icon must be RGB or RGBA with 8-bit samples");
        GPtr<GdkPixbuf> scaled;
        const GdkPixbuf* image = &icon;
        if (gdk_pixbuf_get_width(&icon) != kIconSize || gdk_pixbuf_get_height(&icon) != kIconSize) {
            scaled = adopt(gdk_pixbuf_scale_simple(&icon, kIconSize, kIconSize, GDK_INTERP_BILINEAR));
            if (!scaled)
                throw std::bad_alloc();
            image = scaled.get();
        }
        const int channels = gdk_pixbuf_get_n_channels(image);
        const bool alpha = gdk_pixbuf_get_has_alpha(image);
        const int rowstride = gdk_pixbuf_get_rowstride(image);
        const guint8* pixels = gdk_pixbuf_read_pixels(image);
        const gsize size = gsize(kIconSize) * kIconSize * 4;
        auto* argb = static_cast<guint8*>(g_malloc(size));
        guint8* out = argb;
        for (int y = 0; y < kIconSize; ++y) {
            // Only the row's own pixels: the last row may stop short of the stride.
            const guint8* in = pixels + gsize(y) * gsize(rowstride);
            for (int x = 0; x < kIconSize; ++x, in += channels) {
                *out++ = alpha ? in[3] : 0xff;
                *out++ = in[0];
                *out++ = in[1];
                *out++ = in[2];
            }
        }
        GVariant* bytes = g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, argb, size, TRUE, g_free, argb);
        VariantBuilder images(G_VARIANT_TYPE("a(iiay)"));
        g_variant_builder_add(images.get(), "(ii@ay)", kIconSize, kIconSize, bytes);
        return images.end();
    }

    GVariant* noPixmaps() { return g_variant_new_array(G_VARIANT_TYPE("(iiay)"), nullptr, 0); }

    // The item's thread waits for the bus and the menu's callers in poll()
    // and dispatches holding its dispatch lock: this poll function, set on
    // the item's context, lets go of the lock for the wait only.
    thread_local std::unique_lock<std::mutex>* dispatchLockOfThisThread = nullptr;

    gint pollWithoutDispatchLock(GPollFD* fds, guint count, gint timeout) noexcept
    {
        if (dispatchLockOfThisThread)
            dispatchLockOfThisThread->unlock();
        gint result = g_poll(fds, count, timeout);
        int savedErrno = errno;
        if (dispatchLockOfThisThread)
            dispatchLockOfThisThread->lock();
        errno = savedErrno;
        return result;
    }
} // namespace

class StatusNotifierItem::Service {
public:
    Service(std::string id, std::string title, const GdkPixbuf& icon, Callbacks callbacks,
            std::optional<std::string> toolTip);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    const std::string& busName() const { return m_busName; }
    void setIcon(const GdkPixbuf& tile);
    void setToolTip(const std::string& text);
    void setMenu(const Menu& menu);

private:
    // What a click on a menu item reaches. The item-activated handlers hold
    // it weakly, because libdbusmenu may deliver a click after the item has
    // gone (see applyMenu).
    struct MenuClicks {
        std::function<void(const std::string&)> menuAction;
        MainQueueToken mainQueue;
    };
    struct MenuClick {
        std::weak_ptr<MenuClicks> clicks;
        std::string action;
    };

    void run(std::promise<void>& ready) noexcept;
    void setUp();
    void exportMenu();
    void tearDown() noexcept;
    void settle() noexcept;
    void registerWithWatcher();
    void emitSignal(const char* name) noexcept;
    void applyMenu(const Menu& menu);
    void addMenuItems(DbusmenuMenuitem* parent, const Menu& menu, int& nextId);

    GVariant* property(const std::string& name);

    static void onMethodCall(GDBusConnection*, const char* sender, const char* objectPath, const char* interfaceName,
                             const char* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                             gpointer data) noexcept;
    static GVariant* onGetProperty(GDBusConnection*, const char* sender, const char* objectPath,
                                   const char* interfaceName, const char* propertyName, GError** error,
                                   gpointer data) noexcept;
    static void onNameAcquired(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onNameLost(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onWatcherAppeared(GDBusConnection*, const char* name, const char* owner, gpointer data) noexcept;
    static void onWatcherVanished(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onRegistered(GObject* source, GAsyncResult* result, gpointer data) noexcept;
    static void onMenuItemActivated(DbusmenuMenuitem*, guint timestamp, gpointer data) noexcept;

    const std::string m_id;
    const std::string m_title;
    const std::string m_busName;
    const Callbacks m_callbacks;
    GPtr<GDBusConnection> m_connection;
    GPtr<GMainContext> m_context;
    std::atomic<bool> m_stopping { false };
    std::thread m_thread;

    // What the setters change, read by the item's thread.
    std::mutex m_stateMutex;
    GPtr<GVariant> m_iconPixmap;
    std::string m_toolTip;

    // Held by the item's thread except while it waits for work; the menu's
    // root is only replaced under it (see applyMenu).
    std::mutex m_dispatchMutex;
    GPtr<DbusmenuServer> m_menuServer;

    // The item's thread only.
    GPtr<GCancellable> m_cancellable;
    DBusObjectRegistration m_object;
    BusNameOwnership m_name;
    BusNameWatch m_watcherWatch;
    bool m_nameOwned = false;
    std::string m_watcherOwner;

    std::shared_ptr<MenuClicks> m_menuClicks;
    MainQueueToken m_mainQueue;
};

StatusNotifierItem::Service::Service(std::string id, std::string title, const GdkPixbuf& icon, Callbacks callbacks,
                                     std::optional<std::string> toolTip)
    : m_id(validUtf8(id))
    , m_title(validUtf8(title))
    , m_busName("org.kde.StatusNotifierItem-" + std::to_string(getpid()) + "-1")
    , m_callbacks(std::move(callbacks))
    , m_iconPixmap(adopt(iconPixmapValue(icon)))
    , m_toolTip(toolTip ? validUtf8(*toolTip) : m_title)
    , m_menuClicks(std::make_shared<MenuClicks>(MenuClicks { m_callbacks.menuAction, {} }))
{
    GErrorHolder error;
    m_connection = adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error));
    if (!m_connection)
        throw std::runtime_error(std::string("no session bus for the status icon: ") + error.message());
    m_context = adopt(g_main_context_new());
    g_main_context_set_poll_func(m_context.get(), pollWithoutDispatchLock);
    // Waits for the item's thread to have exported the object and the menu:
    // local work on a connection that is already there, no bus round trip,
    // and that thread never waits for this one.
    std::promise<void> ready;
    std::future<void> started = ready.get_future();
    m_thread = std::thread([this, &ready] {
        nameThisThread("vt-status-item");
        run(ready);
    });
    try {
        started.get();
    } catch (...) {
        m_thread.join();
        throw;
    }
}

StatusNotifierItem::Service::~Service()
{
    m_stopping = true;
    g_main_context_wakeup(m_context.get());
    m_thread.join();
}

void StatusNotifierItem::Service::run(std::promise<void>& ready) noexcept
{
    std::unique_lock lock(m_dispatchMutex);
    dispatchLockOfThisThread = &lock;
    g_main_context_push_thread_default(m_context.get());
    bool running = false;
    try {
        setUp();
        running = true;
        ready.set_value();
    } catch (...) {
        ready.set_exception(std::current_exception());
    }
    // A flag rather than g_main_loop_quit, which is lost when it comes
    // before the loop has started.
    while (running && !m_stopping)
        g_main_context_iteration(m_context.get(), TRUE);
    tearDown();
    g_main_context_pop_thread_default(m_context.get());
    dispatchLockOfThisThread = nullptr;
}

void StatusNotifierItem::Service::setUp()
{
    m_cancellable = adopt(g_cancellable_new());
    static const GDBusInterfaceVTable vtable = { onMethodCall, onGetProperty, nullptr, { nullptr } };
    GErrorHolder error;
    m_object = DBusObjectRegistration(addRef(m_connection.get()),
                                      g_dbus_connection_register_object(m_connection.get(), kStatusNotifierItemPath,
                                                                        itemInterfaceInfo(), &vtable, this, nullptr,
                                                                        error));
    if (!m_object)
        throw std::runtime_error(std::string("cannot export the status-notifier item: ") + error.message());
    exportMenu();
    // The name, then the watcher: a watcher is only told about an item whose
    // name it can find, so registering waits for both.
    m_name = BusNameOwnership(g_bus_own_name_on_connection(m_connection.get(), m_busName.c_str(),
                                                           G_BUS_NAME_OWNER_FLAGS_NONE, onNameAcquired, onNameLost,
                                                           this, nullptr));
    m_watcherWatch = BusNameWatch(g_bus_watch_name_on_connection(m_connection.get(), kStatusNotifierWatcherName,
                                                                 G_BUS_NAME_WATCHER_FLAGS_NONE, onWatcherAppeared,
                                                                 onWatcherVanished, this, nullptr));
}

void StatusNotifierItem::Service::exportMenu()
{
    // The server looks the session bus up asynchronously and exports itself
    // from its callback, which runs here, on the item's context: so its
    // method calls are dispatched on this thread. Wait for that before the
    // main thread may give it a root, whose updates libdbusmenu sends from
    // the main loop and which read the connection the callback stores.
    m_menuServer = adopt(dbusmenu_server_new(kStatusNotifierMenuPath));
    bool exported = false;
    auto onExported = +[](DbusmenuServer*, guint, gint, gpointer data) noexcept { *static_cast<bool*>(data) = true; };
    SignalConnection exportWatch(m_menuServer.get(), g_signal_connect(m_menuServer.get(), DBUSMENU_SERVER_SIGNAL_LAYOUT_UPDATED,
                                                                      G_CALLBACK(onExported), &exported));
    bool timedOut = false;
    TimeoutSource guard("vt status icon: menu export", 5s, [&timedOut] {
        timedOut = true;
        return false;
    }, m_context.get());
    while (!exported && !timedOut)
        g_main_context_iteration(m_context.get(), TRUE);
    if (!exported)
        VTLog("the status icon's menu could not be exported at %@", kStatusNotifierMenuPath);
}

void StatusNotifierItem::Service::tearDown() noexcept
{
    g_cancellable_cancel(m_cancellable.get());
    m_watcherWatch.reset();
    m_name.reset();
    m_object.reset();
    // Disposing the server removes the updates it has scheduled on the main
    // loop. That is safe from here only because the main thread is inside our
    // destructor, waiting for this thread, and so cannot be running one. The
    // menu items go with it; a click libdbusmenu has already scheduled keeps
    // its item alive and finds the MenuClicks gone.
    m_menuServer.reset();
    settle();
}

void StatusNotifierItem::Service::settle() noexcept
{
    // GDBus drops its references to the connection (name owning and
    // watching, unsubscribed signals, calls in flight) from callbacks on
    // this context. A round trip to the bus daemon brings in every earlier
    // reply; running what arrived may send more, so go on until a round trip
    // brings nothing. Then the shared connection can be finalised.
    bool dispatched = true;
    while (dispatched) {
        GPtr<GVariant> reply = adopt(g_dbus_connection_call_sync(
            m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
            nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr));
        dispatched = false;
        while (g_main_context_iteration(m_context.get(), FALSE))
            dispatched = true;
        if (!reply)
            break; // the bus has gone: nothing more will arrive
    }
}

void StatusNotifierItem::Service::registerWithWatcher()
{
    if (!m_nameOwned || m_watcherOwner.empty())
        return;
    VTLog("registering the status icon %@ with %@", m_busName, m_watcherOwner);
    g_dbus_connection_call(m_connection.get(), m_watcherOwner.c_str(), kWatcherPath, kWatcherInterface,
                           "RegisterStatusNotifierItem", g_variant_new("(s)", m_busName.c_str()), nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, m_cancellable.get(), onRegistered, this);
}

void StatusNotifierItem::Service::onRegistered(GObject* source, GAsyncResult* result, gpointer) noexcept
{
    GErrorHolder error;
    GPtr<GVariant> reply = adopt(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error));
    if (!reply && !error.matches(G_IO_ERROR, G_IO_ERROR_CANCELLED))
        VTLog("the status-notifier watcher refused the status icon: %@", error.message());
}

void StatusNotifierItem::Service::onNameAcquired(GDBusConnection*, const char*, gpointer data) noexcept
{
    auto* self = static_cast<Service*>(data);
    self->m_nameOwned = true;
    self->registerWithWatcher();
}

void StatusNotifierItem::Service::onNameLost(GDBusConnection*, const char* name, gpointer data) noexcept
{
    static_cast<Service*>(data)->m_nameOwned = false;
    VTLog("the status icon lost (or never got) its bus name %@", name);
}

void StatusNotifierItem::Service::onWatcherAppeared(GDBusConnection*, const char*, const char* owner,
                                                    gpointer data) noexcept
{
    auto* self = static_cast<Service*>(data);
    try {
        // The owner, not the well-known name: the watcher that just
        // appeared is the one to tell, even if another replaces it meanwhile.
        self->m_watcherOwner = owner;
        self->registerWithWatcher();
    } catch (...) {
        VTLog("cannot register the status icon");
    }
}

void StatusNotifierItem::Service::onWatcherVanished(GDBusConnection*, const char*, gpointer data) noexcept
{
    static_cast<Service*>(data)->m_watcherOwner.clear();
}

void StatusNotifierItem::Service::onMethodCall(GDBusConnection*, const char*, const char*, const char*,
                                               const char* methodName, GVariant*,
                                               GDBusMethodInvocation* invocation, gpointer data) noexcept
{
    auto* self = static_cast<Service*>(data);
    try {
        if (g_str_equal(methodName, "Activate")) {
            self->m_mainQueue.post([self] {
                if (self->m_callbacks.activate)
                    self->m_callbacks.activate();
            });
        }
        // SecondaryActivate, ContextMenu and Scroll mean nothing to the
        // launcher: the menu is in Menu, and there is nothing to scroll.
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } catch (const std::exception& e) {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, "%s", e.what());
    } catch (...) {
        g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, "failed");
    }
}

GVariant* StatusNotifierItem::Service::onGetProperty(GDBusConnection*, const char*, const char*, const char*,
                                                     const char* propertyName, GError** error, gpointer data) noexcept
{
    try {
        if (GVariant* value = static_cast<Service*>(data)->property(propertyName))
            return value;
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no property %s", propertyName);
    } catch (const std::exception& e) {
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, "%s", e.what());
    } catch (...) {
        g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, "failed");
    }
    return nullptr;
}

GVariant* StatusNotifierItem::Service::property(const std::string& name)
{
    if (name == "Category")
        return g_variant_new_string("ApplicationStatus");
    if (name == "Id")
        return g_variant_new_string(m_id.c_str());
    if (name == "Title")
        return g_variant_new_string(m_title.c_str());
    if (name == "Status")
        return g_variant_new_string("Active");
    if (name == "WindowId")
        return g_variant_new_int32(0);
    if (name == "IconThemePath" || name == "IconName" || name == "OverlayIconName" || name == "AttentionIconName"
        || name == "AttentionMovieName")
        return g_variant_new_string("");
    if (name == "OverlayIconPixmap" || name == "AttentionIconPixmap")
        return noPixmaps();
    if (name == "ItemIsMenu")
        return g_variant_new_boolean(FALSE);
    if (name == "Menu")
        return g_variant_new_object_path(kStatusNotifierMenuPath);
    std::lock_guard lock(m_stateMutex);
    if (name == "IconPixmap")
        return g_variant_ref(m_iconPixmap.get());
    if (name == "ToolTip")
        return g_variant_new("(s@a(iiay)ss)", "", noPixmaps(), m_toolTip.c_str(), "");
    return nullptr;
}

void StatusNotifierItem::Service::emitSignal(const char* name) noexcept
{
    // Emitting is thread-safe: the connection queues the message for its
    // own thread.
    GErrorHolder error;
    if (!g_dbus_connection_emit_signal(m_connection.get(), nullptr, kStatusNotifierItemPath, kItemInterface, name,
                                       nullptr, error))
        VTLog("cannot send %@ for the status icon: %@", name, error.message());
}

void StatusNotifierItem::Service::setIcon(const GdkPixbuf& tile)
{
    GPtr<GVariant> pixmap = adopt(iconPixmapValue(tile));
    {
        std::lock_guard lock(m_stateMutex);
        m_iconPixmap = std::move(pixmap);
    }
    emitSignal("NewIcon");
}

void StatusNotifierItem::Service::setToolTip(const std::string& text)
{
    {
        std::lock_guard lock(m_stateMutex);
        m_toolTip = validUtf8(text);
    }
    emitSignal("NewToolTip");
}

void StatusNotifierItem::Service::setMenu(const Menu& menu)
{
    if (isMainThread())
        applyMenu(menu);
    else
        m_mainQueue.post([this, menu] { applyMenu(menu); });
}

void StatusNotifierItem::Service::applyMenu(const Menu& menu)
{
    // libdbusmenu is not thread-safe, and it works on two threads here. Its
    // D-Bus methods (GetLayout, Event...) run on the item's thread, where the
    // server exported itself. But it schedules its LayoutUpdated and property
    // updates, and the clicks it delivers as item-activated, on the global
    // default main context with g_idle_add and g_timeout_add: on the main
    // thread. So the root is replaced here, on the main thread, where those
    // updates run (never concurrently with one of them), and under the
    // dispatch lock, which keeps the item's thread out of the server
    // meanwhile. The items are built beforehand, outside the lock.
    GPtr<DbusmenuMenuitem> root = adopt(dbusmenu_menuitem_new_with_id(0));
    int nextId = 1;
    addMenuItems(root.get(), menu, nextId);
    std::lock_guard lock(m_dispatchMutex);
    if (m_menuServer)
        dbusmenu_server_set_root(m_menuServer.get(), root.get());
}

void StatusNotifierItem::Service::addMenuItems(DbusmenuMenuitem* parent, const Menu& menu, int& nextId)
{
    for (const MenuItem& item : menu.items) {
        GPtr<DbusmenuMenuitem> entry = adopt(dbusmenu_menuitem_new_with_id(nextId++));
        if (item.separator) {
            dbusmenu_menuitem_property_set(entry.get(), DBUSMENU_MENUITEM_PROP_TYPE, "separator");
        } else {
            const std::string& label = item.attributedTitle && !item.attributedTitle->text.empty()
                                           ? item.attributedTitle->text
                                           : item.title;
            dbusmenu_menuitem_property_set(entry.get(), DBUSMENU_MENUITEM_PROP_LABEL, validUtf8(label).c_str());
            if (item.submenu) {
                dbusmenu_menuitem_property_set(entry.get(), DBUSMENU_MENUITEM_PROP_CHILD_DISPLAY, "submenu");
                addMenuItems(entry.get(), *item.submenu, nextId);
            } else if (!item.action.empty()) {
                g_signal_connect_data(entry.get(), DBUSMENU_MENUITEM_SIGNAL_ITEM_ACTIVATED,
                                      G_CALLBACK(onMenuItemActivated), new MenuClick { m_menuClicks, item.action },
                                      +[](gpointer data, GClosure*) noexcept { delete static_cast<MenuClick*>(data); },
                                      GConnectFlags(0));
            }
        }
        dbusmenu_menuitem_child_append(parent, entry.get());
    }
}

void StatusNotifierItem::Service::onMenuItemActivated(DbusmenuMenuitem*, guint, gpointer data) noexcept
{
    // libdbusmenu calls this from the default main context, i.e. on the main
    // thread. The action is still posted rather than called: a quit ends the
    // item, which must not happen inside libdbusmenu's own dispatch.
    try {
        auto* click = static_cast<MenuClick*>(data);
        std::shared_ptr<MenuClicks> clicks = click->clicks.lock();
        if (!clicks || !clicks->menuAction)
            return;
        clicks->mainQueue.post([target = clicks.get(), action = click->action] { target->menuAction(action); });
    } catch (...) {
        VTLog("cannot deliver a click on the status icon's menu");
    }
}

StatusNotifierItem::StatusNotifierItem(std::string id, std::string title, const GdkPixbuf& icon, Callbacks callbacks,
                                       std::optional<std::string> toolTip)
    : m_service(std::make_unique<Service>(std::move(id), std::move(title), icon, std::move(callbacks),
                                          std::move(toolTip)))
{
}

StatusNotifierItem::~StatusNotifierItem() = default;

std::string StatusNotifierItem::busName() const { return m_service->busName(); }

void StatusNotifierItem::setIcon(const GdkPixbuf& tile) { m_service->setIcon(tile); }

void StatusNotifierItem::setToolTip(const std::string& text) { m_service->setToolTip(text); }

void StatusNotifierItem::setMenu(const Menu& menu) { m_service->setMenu(menu); }

} // namespace vt
