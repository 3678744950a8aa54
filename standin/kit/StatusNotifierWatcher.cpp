#include "standin/kit/StatusNotifierWatcher.hpp"

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "base/MainLoop.hpp"
#include "base/posix_glue.hpp"
#include "shell/StatusNotifierItem.hpp"
#include "standin/kit/TestSupport.hpp"

namespace vt::test {

namespace {
    const char* const kItemInterface = "org.kde.StatusNotifierItem";
    const char* const kMenuInterface = "com.canonical.dbusmenu";
    const char* const kWatcherPath = "/StatusNotifierWatcher";
    const char* const kWatcherInterface = "org.kde.StatusNotifierWatcher";

    // Only what an item calls or listens for: nothing in the launcher reads
    // the watcher's properties.
    const char* const introspectionXml = R"xml(
<node>
  <interface name="org.kde.StatusNotifierWatcher">
    <method name="RegisterStatusNotifierItem">
      <arg name="service" type="s" direction="in"/>
    </method>
    <signal name="StatusNotifierItemUnregistered">
      <arg name="service" type="s"/>
    </signal>
  </interface>
</node>)xml";

    GDBusInterfaceInfo* watcherInterfaceInfo()
    {
        static GDBusInterfaceInfo* info = interfaceOfIntrospection(introspectionXml);
        return info;
    }

    StatusMenuEntry entryFrom(GVariant* layout)
    {
        StatusMenuEntry entry;
        GVariantIterPtr properties;
        GVariantIterPtr children;
        gint32 id = 0;
        g_variant_get(layout, "(ia{sv}av)", &id, static_cast<GVariantIter**>(outPtr(properties)),
                      static_cast<GVariantIter**>(outPtr(children)));
        entry.id = id;
        const char* key = nullptr;
        GVariant* value = nullptr;
        while (g_variant_iter_loop(properties.get(), "{&sv}", &key, &value)) {
            if (!g_variant_is_of_type(value, G_VARIANT_TYPE_STRING))
                continue;
            std::string text = g_variant_get_string(value, nullptr);
            if (g_str_equal(key, "label"))
                entry.label = text;
            else if (g_str_equal(key, "type"))
                entry.type = text;
            else if (g_str_equal(key, "children-display"))
                entry.childrenDisplay = text;
        }
        GVariant* child = nullptr;
        while (g_variant_iter_loop(children.get(), "v", &child))
            entry.children.push_back(entryFrom(child));
        return entry;
    }
} // namespace

const StatusMenuEntry* StatusMenuEntry::find(const std::string& wanted) const
{
    for (const auto& child : children) {
        if (child.label == wanted)
            return &child;
        if (const StatusMenuEntry* below = child.find(wanted))
            return below;
    }
    return nullptr;
}

// One run of the watcher, from start() to stop(): a connection of its own,
// served on a thread of its own.
class StatusNotifierWatcher::Run {
public:
    Run(StatusNotifierWatcher& owner, const std::string& busAddress) : m_owner(owner)
    {
        GErrorHolder error;
        m_connection = connectToBus(busAddress, error);
        if (!m_connection)
            throw std::runtime_error(std::string("stand-in watcher: no bus: ") + error.message());
        m_context = adopt(g_main_context_new());
        std::promise<void> ready;
        std::future<void> owned = ready.get_future();
        m_ready = &ready;
        m_thread = std::thread([this] { serve(); });
        if (owned.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            stopThread();
            throw std::runtime_error("stand-in watcher: the name was not granted in time");
        }
        try {
            owned.get();
        } catch (...) {
            stopThread();
            throw;
        }
    }

    ~Run()
    {
        stopThread();
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    }

    GDBusConnection* connection() const { return m_connection.get(); }

private:
    void stopThread()
    {
        m_stopping = true;
        g_main_context_wakeup(m_context.get());
        if (m_thread.joinable())
            m_thread.join();
    }

    void serve() noexcept
    {
        g_main_context_push_thread_default(m_context.get());
        static const GDBusInterfaceVTable vtable = { onMethodCall, nullptr, nullptr, { nullptr } };
        GErrorHolder error;
        m_object = DBusObjectRegistration(addRef(m_connection.get()),
                                          g_dbus_connection_register_object(m_connection.get(), kWatcherPath,
                                                                            watcherInterfaceInfo(), &vtable, this,
                                                                            nullptr, error));
        if (!m_object) {
            settle(std::make_exception_ptr(std::runtime_error(std::string("stand-in watcher: ") + error.message())));
        } else {
            // Subscribed before the name is asked for: once the name is
            // granted, the bus has the match too, and no signal sent after
            // start() returns is missed.
            m_itemSignals = DBusSignalSubscription(
                addRef(m_connection.get()),
                g_dbus_connection_signal_subscribe(m_connection.get(), nullptr, kItemInterface, nullptr,
                                                   kStatusNotifierItemPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                   onItemSignal, this, nullptr));
            m_name = BusNameOwnership(g_bus_own_name_on_connection(m_connection.get(), kStatusNotifierWatcherName,
                                                                   G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, onNameAcquired,
                                                                   onNameLost, this, nullptr));
        }
        while (!m_stopping)
            g_main_context_iteration(m_context.get(), TRUE);
        m_name.reset();
        m_itemSignals.reset();
        m_object.reset();
        while (g_main_context_iteration(m_context.get(), FALSE)) {
        }
        g_main_context_pop_thread_default(m_context.get());
    }

    void settle(std::exception_ptr failure) noexcept
    {
        if (!m_ready)
            return;
        if (failure)
            m_ready->set_exception(failure);
        else
            m_ready->set_value();
        m_ready = nullptr;
    }

    static void onNameAcquired(GDBusConnection*, const char*, gpointer data) noexcept
    {
        static_cast<Run*>(data)->settle(nullptr);
    }

    static void onNameLost(GDBusConnection*, const char*, gpointer data) noexcept
    {
        static_cast<Run*>(data)->settle(
            std::make_exception_ptr(std::runtime_error("stand-in watcher: the watcher's name is taken")));
    }

    static void onMethodCall(GDBusConnection*, const char*, const char*, const char*, const char*,
                             GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) noexcept
    {
        const char* service = nullptr;
        g_variant_get(parameters, "(&s)", &service);
        try {
            static_cast<Run*>(data)->m_owner.registered(service);
        } catch (...) {
            g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_NO_MEMORY,
                                                          "cannot record the item");
            return;
        }
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }

    static void onItemSignal(GDBusConnection*, const char*, const char*, const char*, const char* signalName,
                             GVariant*, gpointer data) noexcept
    {
        try {
            static_cast<Run*>(data)->m_owner.signalSeen(signalName);
        } catch (...) {
        }
    }

    StatusNotifierWatcher& m_owner;
    GPtr<GDBusConnection> m_connection;
    GPtr<GMainContext> m_context;
    std::atomic<bool> m_stopping { false };
    std::promise<void>* m_ready = nullptr;
    std::thread m_thread;
    DBusObjectRegistration m_object;
    DBusSignalSubscription m_itemSignals;
    BusNameOwnership m_name;
};

StatusNotifierWatcher::StatusNotifierWatcher(std::string busAddress, bool startNow)
    : m_busAddress(std::move(busAddress))
{
    if (startNow)
        start();
}

StatusNotifierWatcher::~StatusNotifierWatcher() { stop(); }

void StatusNotifierWatcher::start()
{
    stop();
    {
        std::lock_guard lock(m_mutex);
        m_registered.clear();
        m_registrations = 0;
    }
    m_run = std::make_unique<Run>(*this, m_busAddress);
}

void StatusNotifierWatcher::stop() { m_run.reset(); }

void StatusNotifierWatcher::registered(const std::string& service)
{
    {
        std::lock_guard lock(m_mutex);
        m_registered.push_back(service);
        ++m_registrations;
        m_item = service;
    }
    m_changed.notify_all();
    g_main_context_wakeup(nullptr);
}

void StatusNotifierWatcher::signalSeen(const std::string& name)
{
    {
        std::lock_guard lock(m_mutex);
        ++m_signals[name];
    }
    m_changed.notify_all();
    g_main_context_wakeup(nullptr);
}

bool StatusNotifierWatcher::waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    if (isMainThread()) {
        return waitUntil([&] {
            std::lock_guard lock(m_mutex);
            return done();
        }, timeout);
    }
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, done);
}

std::optional<std::string> StatusNotifierWatcher::waitForRegistration(std::chrono::milliseconds timeout)
{
    if (!waitFor([this] { return !m_registered.empty(); }, timeout))
        return std::nullopt;
    std::lock_guard lock(m_mutex);
    return m_registered.front();
}

std::vector<std::string> StatusNotifierWatcher::registeredItems() const
{
    std::lock_guard lock(m_mutex);
    return m_registered;
}

unsigned StatusNotifierWatcher::registrationCount() const
{
    std::lock_guard lock(m_mutex);
    return m_registrations;
}

bool StatusNotifierWatcher::waitForRegistrations(unsigned count, std::chrono::milliseconds timeout)
{
    return waitFor([&] { return m_registrations >= count; }, timeout);
}

void StatusNotifierWatcher::dropItem(const std::string& service)
{
    if (!m_run)
        throw std::runtime_error("stand-in watcher: stopped");
    {
        std::lock_guard lock(m_mutex);
        std::erase(m_registered, service);
    }
    GErrorHolder error;
    if (!g_dbus_connection_emit_signal(m_run->connection(), nullptr, kWatcherPath, kWatcherInterface,
                                       "StatusNotifierItemUnregistered", g_variant_new("(s)", service.c_str()), error))
        throw std::runtime_error(std::string("stand-in watcher: ") + error.message());
}

unsigned StatusNotifierWatcher::signalCount(const std::string& name) const
{
    std::lock_guard lock(m_mutex);
    auto found = m_signals.find(name);
    return found == m_signals.end() ? 0 : found->second;
}

bool StatusNotifierWatcher::waitForSignal(const std::string& name, unsigned count, std::chrono::milliseconds timeout)
{
    return waitFor([&] { return m_signals[name] >= count; }, timeout);
}

GPtr<GVariant> StatusNotifierWatcher::callItem(const char* path, const char* interface, const char* method,
                                               GVariant* parameters, const GVariantType* replyType)
{
    // A floating argument is ours to sink, whatever happens.
    GPtr<GVariant> arguments = adopt(parameters);
    if (!m_run)
        throw std::runtime_error("stand-in watcher: stopped");
    std::string item;
    {
        std::lock_guard lock(m_mutex);
        item = m_item;
    }
    if (item.empty())
        throw std::runtime_error("stand-in watcher: no item has registered");
    struct Answer {
        bool arrived = false;
        GPtr<GVariant> reply;
        GErrorHolder error;
    } answer;
    if (isMainThread()) {
        // The reply comes through the main loop, which runs meanwhile; the
        // call's time-out guarantees it comes.
        g_dbus_connection_call(m_run->connection(), item.c_str(), path, interface, method, arguments.get(), replyType,
                               G_DBUS_CALL_FLAGS_NO_AUTO_START, 5000, nullptr,
                               +[](GObject* source, GAsyncResult* result, gpointer data) noexcept {
                                   auto* answer = static_cast<Answer*>(data);
                                   answer->reply = adopt(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source),
                                                                                       result, answer->error));
                                   answer->arrived = true;
                               },
                               &answer);
        while (!answer.arrived)
            g_main_context_iteration(nullptr, TRUE);
    } else {
        answer.reply = adopt(g_dbus_connection_call_sync(m_run->connection(), item.c_str(), path, interface, method,
                                                         arguments.get(), replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                         5000, nullptr, answer.error));
    }
    if (!answer.reply)
        throw std::runtime_error(std::string("stand-in watcher: ") + method + ": " + answer.error.message());
    return std::move(answer.reply);
}

GPtr<GVariant> StatusNotifierWatcher::property(const std::string& name)
{
    GPtr<GVariant> reply = callItem(kStatusNotifierItemPath, "org.freedesktop.DBus.Properties", "Get",
                                    g_variant_new("(ss)", kItemInterface, name.c_str()), G_VARIANT_TYPE("(v)"));
    GVariant* value = nullptr;
    g_variant_get(reply.get(), "(v)", &value);
    return adopt(value);
}

std::string StatusNotifierWatcher::stringProperty(const std::string& name)
{
    GPtr<GVariant> value = property(name);
    if (!g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING)
        && !g_variant_is_of_type(value.get(), G_VARIANT_TYPE_OBJECT_PATH))
        throw std::runtime_error("stand-in watcher: " + name + " is not a string");
    return g_variant_get_string(value.get(), nullptr);
}

GPtr<GdkPixbuf> StatusNotifierWatcher::iconPixmap()
{
    GPtr<GVariant> images = property("IconPixmap");
    if (!g_variant_is_of_type(images.get(), G_VARIANT_TYPE("a(iiay)")) || g_variant_n_children(images.get()) == 0)
        throw std::runtime_error("stand-in watcher: IconPixmap holds no image");
    GPtr<GVariant> image = adopt(g_variant_get_child_value(images.get(), 0));
    gint32 width = 0;
    gint32 height = 0;
    GVariant* bytesValue = nullptr;
    g_variant_get(image.get(), "(ii@ay)", &width, &height, &bytesValue);
    GPtr<GVariant> bytes = adopt(bytesValue);
    gsize size = 0;
    const auto* argb = static_cast<const guint8*>(g_variant_get_fixed_array(bytes.get(), &size, 1));
    if (width <= 0 || height <= 0 || size != gsize(width) * gsize(height) * 4)
        throw std::runtime_error("stand-in watcher: IconPixmap's size does not match its bytes");
    GPtr<GdkPixbuf> pixbuf = adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, width, height));
    const int rowstride = gdk_pixbuf_get_rowstride(pixbuf.get());
    guint8* pixels = gdk_pixbuf_get_pixels(pixbuf.get());
    for (int y = 0; y < height; ++y) {
        guint8* out = pixels + gsize(y) * gsize(rowstride);
        for (int x = 0; x < width; ++x, argb += 4, out += 4) {
            out[0] = argb[1];
            out[1] = argb[2];
            out[2] = argb[3];
            out[3] = argb[0];
        }
    }
    return pixbuf;
}

std::string StatusNotifierWatcher::toolTipText()
{
    GPtr<GVariant> toolTip = property("ToolTip");
    if (!g_variant_is_of_type(toolTip.get(), G_VARIANT_TYPE("(sa(iiay)ss)")))
        throw std::runtime_error("stand-in watcher: ToolTip is not (sa(iiay)ss)");
    const char* text = nullptr;
    g_variant_get(toolTip.get(), "(&s@a(iiay)&s&s)", nullptr, nullptr, &text, nullptr);
    return text;
}

void StatusNotifierWatcher::activate(int x, int y)
{
    callItem(kStatusNotifierItemPath, kItemInterface, "Activate", g_variant_new("(ii)", x, y), G_VARIANT_TYPE("()"));
}

void StatusNotifierWatcher::provideXdgActivationToken(const std::string& token)
{
    callItem(kStatusNotifierItemPath, kItemInterface, "ProvideXdgActivationToken", g_variant_new("(s)", token.c_str()),
             G_VARIANT_TYPE("()"));
}

StatusMenuEntry StatusNotifierWatcher::menuLayout()
{
    std::string menuPath = stringProperty("Menu");
    GPtr<GVariant> reply = callItem(menuPath.c_str(), kMenuInterface, "GetLayout",
                                    g_variant_new("(ii@as)", 0, -1, g_variant_new_strv(nullptr, 0)),
                                    G_VARIANT_TYPE("(u(ia{sv}av))"));
    GPtr<GVariant> root = adopt(g_variant_get_child_value(reply.get(), 1));
    return entryFrom(root.get());
}

void StatusNotifierWatcher::clickMenuItem(const std::string& label)
{
    StatusMenuEntry menu = menuLayout();
    const StatusMenuEntry* entry = menu.find(label);
    if (!entry)
        throw std::runtime_error("stand-in watcher: no menu entry \"" + label + "\"");
    std::string menuPath = stringProperty("Menu");
    callItem(menuPath.c_str(), kMenuInterface, "Event",
             g_variant_new("(isvu)", entry->id, "clicked", g_variant_new_int32(0), 0u), G_VARIANT_TYPE("()"));
}

} // namespace vt::test
