// Owning wrappers for GLib and GIO objects.
//
// GPtr<T> is a unique_ptr whose deleter drops one reference. There are two
// named ways in: adopt() takes over a reference the caller already owns (and
// sinks a floating one), addRef() takes a new reference of its own.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <glib.h>

namespace vt {

template <typename T> struct GTraits;

#define VT_GOBJECT_TRAITS(Type)                                                                    \
    template <> struct GTraits<Type> {                                                             \
        static void unref(Type* p) noexcept { g_object_unref(p); }                                 \
        static Type* ref(Type* p) noexcept { return static_cast<Type*>(g_object_ref_sink(p)); }    \
        static Type* take(Type* p) noexcept                                                        \
        {                                                                                          \
            return static_cast<Type*>(g_object_take_ref(p));                                       \
        }                                                                                          \
    };

#define VT_GBOXED_TRAITS(Type, refFn, unrefFn)                                                     \
    template <> struct GTraits<Type> {                                                             \
        static void unref(Type* p) noexcept { unrefFn(p); }                                        \
        static Type* ref(Type* p) noexcept { return refFn(p); }                                    \
        static Type* take(Type* p) noexcept { return p; }                                          \
    };

VT_GOBJECT_TRAITS(GObject)
VT_GOBJECT_TRAITS(GDBusConnection)
VT_GOBJECT_TRAITS(GDBusProxy)
VT_GOBJECT_TRAITS(GDBusMessage)
VT_GOBJECT_TRAITS(GApplication)
VT_GOBJECT_TRAITS(GAppInfo)
VT_GOBJECT_TRAITS(GDesktopAppInfo)
VT_GOBJECT_TRAITS(GFile)
VT_GOBJECT_TRAITS(GFileInfo)
VT_GOBJECT_TRAITS(GCancellable)
VT_GOBJECT_TRAITS(GTestDBus)
VT_GOBJECT_TRAITS(GSimpleAction)
VT_GBOXED_TRAITS(GSource, g_source_ref, g_source_unref)
VT_GBOXED_TRAITS(GMainContext, g_main_context_ref, g_main_context_unref)
VT_GBOXED_TRAITS(GMainLoop, g_main_loop_ref, g_main_loop_unref)
VT_GBOXED_TRAITS(GVariantType, g_variant_type_copy, g_variant_type_free)
VT_GBOXED_TRAITS(GDBusNodeInfo, g_dbus_node_info_ref, g_dbus_node_info_unref)
VT_GBOXED_TRAITS(GKeyFile, g_key_file_ref, g_key_file_unref)
VT_GBOXED_TRAITS(GBytes, g_bytes_ref, g_bytes_unref)

template <> struct GTraits<GVariant> {
    static void unref(GVariant* p) noexcept { g_variant_unref(p); }
    static GVariant* ref(GVariant* p) noexcept { return g_variant_ref_sink(p); }
    static GVariant* take(GVariant* p) noexcept { return g_variant_take_ref(p); }
};

template <typename T> struct GUnref {
    void operator()(T* p) const noexcept
    {
        if (p)
            GTraits<T>::unref(p);
    }
};

template <typename T> using GPtr = std::unique_ptr<T, GUnref<T>>;

// Takes over a reference the caller owns; a floating reference is sunk.
template <typename T> GPtr<T> adopt(T* p) noexcept
{
    return GPtr<T>(p ? GTraits<T>::take(p) : nullptr);
}

// Takes a reference of its own.
template <typename T> GPtr<T> addRef(T* p) noexcept
{
    return GPtr<T>(p ? GTraits<T>::ref(p) : nullptr);
}

// Strings and string vectors that GLib hands over with g_free/g_strfreev.
struct GFreeDeleter {
    void operator()(void* p) const noexcept { g_free(p); }
};
using GCharPtr = std::unique_ptr<char, GFreeDeleter>;

struct GStrvDeleter {
    void operator()(char** p) const noexcept { g_strfreev(p); }
};
using GStrvPtr = std::unique_ptr<char*, GStrvDeleter>;

// An owned GError. Converts to GError** for the calls that report through one.
class GErrorHolder {
public:
    GErrorHolder() noexcept = default;
    GErrorHolder(const GErrorHolder&) = delete;
    GErrorHolder& operator=(const GErrorHolder&) = delete;
    GErrorHolder(GErrorHolder&& other) noexcept : m_error(std::exchange(other.m_error, nullptr)) {}
    ~GErrorHolder() { reset(); }

    operator GError**() noexcept
    {
        reset();
        return &m_error;
    }
    explicit operator bool() const noexcept { return m_error != nullptr; }
    GError* get() const noexcept { return m_error; }
    const char* message() const noexcept { return m_error ? m_error->message : ""; }
    bool matches(GQuark domain, int code) const noexcept
    {
        return g_error_matches(m_error, domain, code);
    }
    void reset() noexcept
    {
        if (m_error)
            g_error_free(std::exchange(m_error, nullptr));
    }
    // Hands the error over to the caller, who frees it.
    [[nodiscard]] GError* release() noexcept { return std::exchange(m_error, nullptr); }
    // Moves the error into a caller's GError** (which may be null, as GLib
    // allows); answers whether there was one.
    bool propagate(GError** destination) noexcept
    {
        if (!m_error)
            return false;
        g_propagate_error(destination, release());
        return true;
    }

private:
    GError* m_error = nullptr;
};

// A list of objects as GIO hands it over (g_app_info_get_all_for_type): the
// list and one reference per element.
struct GObjectListDeleter {
    void operator()(GList* list) const noexcept { g_list_free_full(list, g_object_unref); }
};
using GObjectList = std::unique_ptr<GList, GObjectListDeleter>;

// The iterator that g_variant_get hands over for an "a..." format.
struct GVariantIterDeleter {
    void operator()(GVariantIter* iterator) const noexcept { g_variant_iter_free(iterator); }
};
using GVariantIterPtr = std::unique_ptr<GVariantIter, GVariantIterDeleter>;

// A GVariantBuilder that is cleared unless its value was taken.
class VariantBuilder {
public:
    explicit VariantBuilder(const GVariantType* type) noexcept { g_variant_builder_init(&m_builder, type); }
    VariantBuilder(const VariantBuilder&) = delete;
    VariantBuilder& operator=(const VariantBuilder&) = delete;
    ~VariantBuilder()
    {
        if (!m_ended)
            g_variant_builder_clear(&m_builder);
    }

    GVariantBuilder* get() noexcept { return &m_builder; }
    // The finished value, floating: hand it to a call that sinks it, or adopt() it.
    GVariant* end() noexcept
    {
        m_ended = true;
        return g_variant_builder_end(&m_builder);
    }

private:
    GVariantBuilder m_builder;
    bool m_ended = false;
};

// GLib's numeric ids, one type per kind, each released by its own function
// in the destructor, so that an id of one kind can never be given back
// through another kind's function.
template <void (*Release)(guint)> class GBusId {
public:
    GBusId() noexcept = default;
    explicit GBusId(guint id) noexcept : m_id(id) {}
    GBusId(GBusId&& other) noexcept : m_id(std::exchange(other.m_id, 0)) {}
    GBusId& operator=(GBusId&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_id = std::exchange(other.m_id, 0);
        }
        return *this;
    }
    ~GBusId() { reset(); }

    guint get() const noexcept { return m_id; }
    explicit operator bool() const noexcept { return m_id != 0; }
    void reset() noexcept
    {
        if (m_id)
            Release(std::exchange(m_id, 0));
    }

private:
    guint m_id = 0;
};

// g_bus_own_name and g_bus_watch_name.
using BusNameOwnership = GBusId<g_bus_unown_name>;
using BusNameWatch = GBusId<g_bus_unwatch_name>;

// Ids that belong to one connection: an exported object, a signal subscription.
template <typename Id, void (*Release)(GDBusConnection*, Id)> class GConnectionId {
public:
    GConnectionId() noexcept = default;
    GConnectionId(GDBusConnection* connection, Id id) noexcept
        : m_connection(id ? addRef(connection) : nullptr), m_id(id)
    {
    }
    GConnectionId(GConnectionId&& other) noexcept
        : m_connection(std::move(other.m_connection)), m_id(std::exchange(other.m_id, 0))
    {
    }
    GConnectionId& operator=(GConnectionId&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_connection = std::move(other.m_connection);
            m_id = std::exchange(other.m_id, 0);
        }
        return *this;
    }
    ~GConnectionId() { reset(); }

    Id get() const noexcept { return m_id; }
    explicit operator bool() const noexcept { return m_id != 0; }
    void reset() noexcept
    {
        if (m_id)
            Release(m_connection.get(), std::exchange(m_id, 0));
        m_connection.reset();
    }

private:
    GPtr<GDBusConnection> m_connection;
    Id m_id = 0;
};

namespace detail {
    inline void unregisterObject(GDBusConnection* connection, guint id) noexcept
    {
        g_dbus_connection_unregister_object(connection, id);
    }
} // namespace detail

using DBusObjectRegistration = GConnectionId<guint, detail::unregisterObject>;
using DBusSignalSubscription = GConnectionId<guint, g_dbus_connection_signal_unsubscribe>;

// A handler connected to a GObject signal; disconnected when this goes away.
// The instance must outlive this object.
class SignalConnection {
public:
    SignalConnection() noexcept = default;
    SignalConnection(gpointer instance, gulong id) noexcept : m_instance(id ? instance : nullptr), m_id(id) {}
    SignalConnection(SignalConnection&& other) noexcept
        : m_instance(std::exchange(other.m_instance, nullptr)), m_id(std::exchange(other.m_id, 0))
    {
    }
    SignalConnection& operator=(SignalConnection&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_instance = std::exchange(other.m_instance, nullptr);
            m_id = std::exchange(other.m_id, 0);
        }
        return *this;
    }
    ~SignalConnection() { reset(); }

    void reset() noexcept
    {
        if (m_id)
            g_signal_handler_disconnect(m_instance, std::exchange(m_id, 0));
        m_instance = nullptr;
    }

private:
    gpointer m_instance = nullptr;
    gulong m_id = 0;
};

} // namespace vt
