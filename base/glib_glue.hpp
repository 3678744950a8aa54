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

private:
    GError* m_error = nullptr;
};

} // namespace vt
