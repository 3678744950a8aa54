#include "shell/StatusNotifierItem.hpp"

#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <libdbusmenu-glib/menuitem.h>
#include <libdbusmenu-glib/server.h>
#include <unistd.h>

#include "base/MainLoop.hpp"
#include "base/VTLog.hpp"

namespace vt {

VT_GOBJECT_TRAITS(DbusmenuServer)
VT_GOBJECT_TRAITS(DbusmenuMenuitem)

namespace {
    using namespace std::chrono_literals;

    const char* const kItemInterface = "org.kde.StatusNotifierItem";
    const char* const kWatcherPath = "/StatusNotifierWatcher";
    const char* const kWatcherInterface = "org.kde.StatusNotifierWatcher";
    constexpr int kIconSize = 128;
    // A watcher that drops the item just after registering it is given it
    // again after a moment, a few times: enough for a watcher whose own
    // look-up of the item raced with its registration, and no endless
    // exchange with one that keeps refusing it.
    constexpr auto kRegisterAgainDelay = 500ms;
    constexpr unsigned kRegistrationsAgainPerWatcher = 5;

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
    <property name="IconAccessibleDesc" type="s" access="read"/>
    <property name="AttentionAccessibleDesc" type="s" access="read"/>
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
    <method name="ProvideXdgActivationToken">
      <arg name="token" type="s" direction="in"/>
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
    std::string takeActivationToken() { return std::exchange(m_activationToken, std::string()); }

private:
    // What a click on a menu item reaches. The item-activated handlers hold
    // it weakly, because libdbusmenu may deliver a click after the item has
    // gone (see the destructor).
    struct MenuClicks {
        std::function<void(const std::string&)> menuAction;
        MainQueueToken mainQueue;
    };
    struct MenuClick {
        std::weak_ptr<MenuClicks> clicks;
        std::string action;
    };

    void registerWithWatcher();
    bool namesThisItem(std::string_view service) const;
    void droppedByWatcher();
    void emitSignal(const char* name) noexcept;
    void addMenuItems(DbusmenuMenuitem* parent, const Menu& menu, int& nextId);

    GVariant* property(const std::string& name);

    static void onMethodCall(GDBusConnection*, const char* sender, const char* objectPath, const char* interfaceName,
                             const char* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                             gpointer data) noexcept;
    static GVariant* onGetProperty(GDBusConnection*, const char* sender, const char* objectPath,
                                   const char* interfaceName, const char* propertyName, GError** error,
                                   gpointer data) noexcept;
    static void onMenuExported(DbusmenuServer*, guint revision, gint parent, gpointer data) noexcept;
    static void onNameAcquired(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onNameLost(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onWatcherAppeared(GDBusConnection*, const char* name, const char* owner, gpointer data) noexcept;
    static void onWatcherVanished(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onItemUnregistered(GDBusConnection*, const char* sender, const char* path, const char* interface,
                                   const char* signal, GVariant* parameters, gpointer data) noexcept;
    static void onRegistered(GObject* source, GAsyncResult* result, gpointer) noexcept;
    static void onMenuItemActivated(DbusmenuMenuitem*, guint timestamp, gpointer data) noexcept;

    const std::string m_id;
    const std::string m_title;
    const std::string m_busName;
    const Callbacks m_callbacks;
    GPtr<GDBusConnection> m_connection;
    GPtr<GCancellable> m_cancellable;

    GPtr<GVariant> m_iconPixmap;
    OwnedSource m_newIcon; // NewIcon for the tiles set this turn
    std::string m_toolTip;
    std::string m_activationToken;

    DBusObjectRegistration m_object;
    GPtr<DbusmenuServer> m_menuServer;
    SignalConnection m_menuExport; // until the menu is on the bus
    GPtr<DbusmenuMenuitem> m_pendingRoot; // a menu given before that
    std::shared_ptr<MenuClicks> m_menuClicks;
    MainQueueToken m_mainQueue;

    BusNameOwnership m_name;
    bool m_nameOwned = false;
    BusNameWatch m_watcherWatch;
    // The watcher that owns the name now (its unique name), and its word
    // that it has dropped an item.
    std::string m_watcherOwner;
    DBusSignalSubscription m_unregisteredSignal;
    TimeoutSource m_registerAgain;
    unsigned m_registrationsAgain = 0; // with this watcher
};

StatusNotifierItem::Service::Service(std::string id, std::string title, const GdkPixbuf& icon, Callbacks callbacks,
                                     std::optional<std::string> toolTip)
    : m_id(validUtf8(id))
    , m_title(validUtf8(title))
    , m_busName("org.kde.StatusNotifierItem-" + std::to_string(getpid()) + "-1")
    , m_callbacks(std::move(callbacks))
    , m_cancellable(adopt(g_cancellable_new()))
    , m_iconPixmap(adopt(iconPixmapValue(icon)))
    , m_toolTip(toolTip ? validUtf8(*toolTip) : m_title)
    , m_menuClicks(std::make_shared<MenuClicks>(MenuClicks { m_callbacks.menuAction, {} }))
{
    GErrorHolder error;
    m_connection = adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error));
    if (!m_connection)
        throw std::runtime_error(std::string("no session bus for the status icon: ") + error.message());
    static const GDBusInterfaceVTable vtable = { onMethodCall, onGetProperty, nullptr, { nullptr } };
    m_object = DBusObjectRegistration(addRef(m_connection.get()),
                                      g_dbus_connection_register_object(m_connection.get(), kStatusNotifierItemPath,
                                                                        itemInterfaceInfo(), &vtable, this, nullptr,
                                                                        error));
    if (!m_object)
        throw std::runtime_error(std::string("cannot export the status-notifier item: ") + error.message());
    // libdbusmenu looks the session bus up asynchronously and exports the
    // menu from that look-up's callback, on the context that was the
    // thread's default when the server was made (GTask makes it the default
    // again around the callback), which is where the menu's methods are
    // then dispatched. So the server is made here, on the main context, and
    // the menu goes on the bus from the main loop's first turn: running the
    // main loop inside this constructor to wait for it would dispatch
    // everybody's sources from inside the constructor. Hosts find the item
    // by its name, so the name is asked for once the menu is out.
    m_menuServer = adopt(dbusmenu_server_new(kStatusNotifierMenuPath));
    m_menuExport = SignalConnection(m_menuServer.get(),
                                    g_signal_connect(m_menuServer.get(), DBUSMENU_SERVER_SIGNAL_LAYOUT_UPDATED,
                                                     G_CALLBACK(onMenuExported), this));
    // The name and the watcher: a watcher is only told about an item whose
    // name it can find, so registering waits for both.
    m_watcherWatch = BusNameWatch(g_bus_watch_name_on_connection(m_connection.get(), kStatusNotifierWatcherName,
                                                                 G_BUS_NAME_WATCHER_FLAGS_NONE, onWatcherAppeared,
                                                                 onWatcherVanished, this, nullptr));
}

StatusNotifierItem::Service::~Service()
{
    // After this nothing reaches the item: GDBus calls nobody for a name,
    // watch, subscription or object once it is given back, the call in
    // flight carries no pointer to us, and the sources are ours. The
    // registration with the watcher is cancelled rather than waited for.
    g_cancellable_cancel(m_cancellable.get());
    m_registerAgain.stop();
    m_newIcon.stop();
    m_unregisteredSignal.reset();
    m_watcherWatch.reset();
    m_name.reset();
    m_object.reset();
    // Disposing the server unexports the menu and removes the updates it
    // has scheduled on the main loop. The menu items go with it; a click
    // libdbusmenu has already scheduled keeps its item alive and finds the
    // MenuClicks gone. A server still waiting for its bus look-up is kept
    // alive by it, and exports and unexports itself when it ends.
    m_menuExport.reset();
    m_pendingRoot.reset();
    m_menuServer.reset();
    m_menuClicks.reset();
    m_connection.reset();
}

void StatusNotifierItem::Service::onMenuExported(DbusmenuServer*, guint, gint, gpointer data) noexcept
{
    // libdbusmenu announces its layout as it puts the menu on the bus, and
    // that comes first: its other updates wait for an idle turn, while the
    // bus look-up is answered at once. Were a menu's update ever first, the
    // name would be asked for a moment early, and the menu's LayoutUpdated
    // on the bus would still tell a host that had looked too soon.
    auto* self = static_cast<Service*>(data);
    self->m_menuExport.reset();
    if (GPtr<DbusmenuMenuitem> root = std::move(self->m_pendingRoot))
        dbusmenu_server_set_root(self->m_menuServer.get(), root.get());
    self->m_name = BusNameOwnership(g_bus_own_name_on_connection(self->m_connection.get(), self->m_busName.c_str(),
                                                                 G_BUS_NAME_OWNER_FLAGS_NONE, onNameAcquired,
                                                                 onNameLost, self, nullptr));
}

void StatusNotifierItem::Service::registerWithWatcher()
{
    if (!m_nameOwned || m_watcherOwner.empty())
        return;
    VTLog("registering the status icon %@ with %@", m_busName, m_watcherOwner);
    g_dbus_connection_call(m_connection.get(), m_watcherOwner.c_str(), kWatcherPath, kWatcherInterface,
                           "RegisterStatusNotifierItem", g_variant_new("(s)", m_busName.c_str()), nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, m_cancellable.get(), onRegistered, nullptr);
}

void StatusNotifierItem::Service::onRegistered(GObject* source, GAsyncResult* result, gpointer) noexcept
{
    // May run after the item has gone (cancelled): it touches nothing of it.
    GErrorHolder error;
    GPtr<GVariant> reply = adopt(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error));
    if (!reply && !error.matches(G_IO_ERROR, G_IO_ERROR_CANCELLED))
        VTLog("the status-notifier watcher refused the status icon: %@", error.message());
}

bool StatusNotifierItem::Service::namesThisItem(std::string_view service) const
{
    // A watcher names an item as it was registered, by its bus name, or by
    // the connection's unique name, either possibly followed by the path.
    std::string_view name = service;
    if (auto slash = service.find('/'); slash != std::string_view::npos) {
        if (service.substr(slash) != kStatusNotifierItemPath)
            return false;
        name = service.substr(0, slash);
    }
    const char* unique = g_dbus_connection_get_unique_name(m_connection.get());
    return name == m_busName || (unique && name == unique);
}

void StatusNotifierItem::Service::droppedByWatcher()
{
    if (m_registerAgain.isActive())
        return;
    if (m_registrationsAgain == kRegistrationsAgainPerWatcher) {
        // Said once: the count stays there until another watcher appears.
        ++m_registrationsAgain;
        VTLog("the status-notifier watcher %@ dropped the status icon again; not registering it any more",
              m_watcherOwner);
        return;
    }
    if (m_registrationsAgain > kRegistrationsAgainPerWatcher)
        return;
    ++m_registrationsAgain;
    VTLog("the status-notifier watcher %@ dropped the status icon; registering it again", m_watcherOwner);
    m_registerAgain = TimeoutSource("vt status icon: register again", kRegisterAgainDelay, [this] {
        registerWithWatcher();
        return false;
    });
}

void StatusNotifierItem::Service::onNameAcquired(GDBusConnection*, const char*, gpointer data) noexcept
{
    auto* self = static_cast<Service*>(data);
    self->m_nameOwned = true;
    try {
        self->registerWithWatcher();
    } catch (...) {
        VTLog("cannot register the status icon");
    }
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
        // appeared is the one to tell, and the one whose word counts when it
        // drops the item, even if another replaces it meanwhile. Subscribed
        // before registering, so that the bus has the match before the
        // watcher has the item.
        self->m_watcherOwner = owner;
        self->m_registrationsAgain = 0;
        self->m_registerAgain.stop();
        self->m_unregisteredSignal = DBusSignalSubscription(
            addRef(self->m_connection.get()),
            g_dbus_connection_signal_subscribe(self->m_connection.get(), owner, kWatcherInterface,
                                               "StatusNotifierItemUnregistered", kWatcherPath, nullptr,
                                               G_DBUS_SIGNAL_FLAGS_NONE, onItemUnregistered, self, nullptr));
        self->registerWithWatcher();
    } catch (...) {
        VTLog("cannot register the status icon");
    }
}

void StatusNotifierItem::Service::onWatcherVanished(GDBusConnection*, const char*, gpointer data) noexcept
{
    auto* self = static_cast<Service*>(data);
    self->m_watcherOwner.clear();
    self->m_unregisteredSignal.reset();
    self->m_registerAgain.stop();
}

void StatusNotifierItem::Service::onItemUnregistered(GDBusConnection*, const char*, const char*, const char*,
                                                     const char*, GVariant* parameters, gpointer data) noexcept
{
    auto* self = static_cast<Service*>(data);
    try {
        if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(s)")))
            return;
        const char* service = nullptr;
        g_variant_get(parameters, "(&s)", &service);
        if (self->namesThisItem(service))
            self->droppedByWatcher();
    } catch (...) {
        VTLog("cannot register the status icon again");
    }
}

void StatusNotifierItem::Service::onMethodCall(GDBusConnection*, const char*, const char*, const char*,
                                               const char* methodName, GVariant* parameters,
                                               GDBusMethodInvocation* invocation, gpointer data) noexcept
{
    auto* self = static_cast<Service*>(data);
    try {
        if (g_str_equal(methodName, "Activate")) {
            // Posted, not called: an activation may end the item, which must
            // not happen inside GDBus's dispatch of its own method.
            self->m_mainQueue.post([self] {
                if (self->m_callbacks.activate)
                    self->m_callbacks.activate();
            });
        } else if (g_str_equal(methodName, "ProvideXdgActivationToken")) {
            // Kept for the processes the next activation starts or raises,
            // so that the desktop lets them take the focus.
            const char* token = nullptr;
            g_variant_get(parameters, "(&s)", &token);
            self->m_activationToken = token;
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
    // The title names the icon for a screen reader as well as anything.
    if (name == "Title" || name == "IconAccessibleDesc")
        return g_variant_new_string(m_title.c_str());
    if (name == "Status")
        return g_variant_new_string("Active");
    if (name == "WindowId")
        return g_variant_new_int32(0);
    if (name == "IconThemePath" || name == "IconName" || name == "OverlayIconName" || name == "AttentionIconName"
        || name == "AttentionMovieName" || name == "AttentionAccessibleDesc")
        return g_variant_new_string("");
    if (name == "OverlayIconPixmap" || name == "AttentionIconPixmap")
        return noPixmaps();
    if (name == "ItemIsMenu")
        return g_variant_new_boolean(FALSE);
    if (name == "Menu")
        return g_variant_new_object_path(kStatusNotifierMenuPath);
    if (name == "IconPixmap")
        return g_variant_ref(m_iconPixmap.get());
    if (name == "ToolTip")
        return g_variant_new("(s@a(iiay)ss)", "", noPixmaps(), m_toolTip.c_str(), "");
    return nullptr;
}

void StatusNotifierItem::Service::emitSignal(const char* name) noexcept
{
    GErrorHolder error;
    if (!g_dbus_connection_emit_signal(m_connection.get(), nullptr, kStatusNotifierItemPath, kItemInterface, name,
                                       nullptr, error))
        VTLog("cannot send %@ for the status icon: %@", name, error.message());
}

void StatusNotifierItem::Service::setIcon(const GdkPixbuf& tile)
{
    g_return_if_fail(isMainThread());
    // The pixmap changes at once, so that a host reading it meanwhile gets
    // the latest tile; the announcement waits for the end of the turn, so
    // that a host is not asked to read a burst of tiles one by one.
    m_iconPixmap = adopt(iconPixmapValue(tile));
    if (m_newIcon.isActive())
        return;
    m_newIcon = OwnedSource(adopt(g_idle_source_new()), "vt status icon: NewIcon", [this] {
        emitSignal("NewIcon");
        return false;
    });
}

void StatusNotifierItem::Service::setToolTip(const std::string& text)
{
    g_return_if_fail(isMainThread());
    m_toolTip = validUtf8(text);
    emitSignal("NewToolTip");
}

void StatusNotifierItem::Service::setMenu(const Menu& menu)
{
    g_return_if_fail(isMainThread());
    GPtr<DbusmenuMenuitem> root = adopt(dbusmenu_menuitem_new_with_id(0));
    int nextId = 1;
    addMenuItems(root.get(), menu, nextId);
    // Until the menu is on the bus its root waits: setting it announces a
    // layout too, which would be taken for the export and have the name
    // asked for while the menu's object is not there yet.
    if (m_menuExport)
        m_pendingRoot = std::move(root);
    else if (m_menuServer)
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
    // The action is posted rather than called: a quit ends the item, which
    // must not happen inside libdbusmenu's own dispatch.
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

std::string StatusNotifierItem::takeActivationToken() { return m_service->takeActivationToken(); }

} // namespace vt
