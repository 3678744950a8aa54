// Owning wrappers for GLib and GIO objects.
//
// GPtr<T> is a unique_ptr whose deleter drops one reference. There are two
// named ways in: adopt() takes over a reference the caller already owns (and
// sinks a floating one), addRef() takes a new reference of its own.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
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
VT_GOBJECT_TRAITS(GSubprocess)
VT_GOBJECT_TRAITS(GSubprocessLauncher)
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

// The one interface of introspection data that the program itself holds;
// data that does not parse is a mistake in the program. The caller owns a
// reference (kept for the process's life where objects are exported with it).
inline GDBusInterfaceInfo* interfaceOfIntrospection(const char* xml)
{
    GErrorHolder error;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, error);
    if (!node)
        throw std::logic_error(std::string("bad introspection data: ") + error.message());
    GDBusInterfaceInfo* interface = g_dbus_interface_info_ref(node->interfaces[0]);
    g_dbus_node_info_unref(node);
    return interface;
}

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

// A GLib id that is given back by its own function when this goes away. Each
// kind of id is its own type, so an id of one kind can never be released
// through another kind's function. `Owner` is what the id belongs to (a
// connection, an object instance), kept for the release; bus ids have none.
struct NoOwner {};

template <typename Owner, typename Id, void (*Release)(const Owner&, Id) noexcept> class OwnedId {
public:
    OwnedId() noexcept = default;
    OwnedId(Owner owner, Id id) noexcept : m_owner(id ? std::move(owner) : Owner {}), m_id(id) {}
    explicit OwnedId(Id id) noexcept
        requires std::is_same_v<Owner, NoOwner>
        : m_id(id)
    {
    }
    OwnedId(OwnedId&& other) noexcept : m_owner(std::move(other.m_owner)), m_id(std::exchange(other.m_id, Id {})) {}
    OwnedId& operator=(OwnedId&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_owner = std::move(other.m_owner);
            m_id = std::exchange(other.m_id, Id {});
        }
        return *this;
    }
    ~OwnedId() { reset(); }

    Id get() const noexcept { return m_id; }
    explicit operator bool() const noexcept { return m_id != Id {}; }
    void reset() noexcept
    {
        if (m_id != Id {})
            Release(m_owner, std::exchange(m_id, Id {}));
        m_owner = Owner {};
    }

private:
    Owner m_owner {};
    Id m_id {};
};

namespace detail {
    inline void unownName(const NoOwner&, guint id) noexcept { g_bus_unown_name(id); }
    inline void unwatchName(const NoOwner&, guint id) noexcept { g_bus_unwatch_name(id); }
    inline void unregisterObject(const GPtr<GDBusConnection>& connection, guint id) noexcept
    {
        g_dbus_connection_unregister_object(connection.get(), id);
    }
    inline void unsubscribe(const GPtr<GDBusConnection>& connection, guint id) noexcept
    {
        g_dbus_connection_signal_unsubscribe(connection.get(), id);
    }
    inline void disconnectHandler(const gpointer& instance, gulong id) noexcept
    {
        g_signal_handler_disconnect(instance, id);
    }
} // namespace detail

// g_bus_own_name and g_bus_watch_name.
using BusNameOwnership = OwnedId<NoOwner, guint, detail::unownName>;
using BusNameWatch = OwnedId<NoOwner, guint, detail::unwatchName>;
// An object exported on a connection, and a signal subscription on one.
using DBusObjectRegistration = OwnedId<GPtr<GDBusConnection>, guint, detail::unregisterObject>;
using DBusSignalSubscription = OwnedId<GPtr<GDBusConnection>, guint, detail::unsubscribe>;
// A handler connected to a GObject signal; the instance must outlive this.
using SignalConnection = OwnedId<gpointer, gulong, detail::disconnectHandler>;

} // namespace vt
