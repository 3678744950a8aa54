#include "product/helper_server/HelperServer.hpp"

#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string_view>

#include "base/PlatformLog.hpp"
#include "product/helper_server/X11Windows.hpp"
#include "shell/HelperServerClient.hpp"

namespace vt::product {

namespace {
    // What a Windows program needs of the session it is shown in: where to
    // draw, who the user is, the language, the user's folders, the session
    // bus, which Wine the product runs and how the user wants it to run.
    bool passesToPrograms(std::string_view name)
    {
        static constexpr std::string_view names[] = {
            "DISPLAY",         "WAYLAND_DISPLAY", "XAUTHORITY",      "PATH",         "HOME",
            "USER",            "LOGNAME",         "SHELL",           "LANG",         "LANGUAGE",
            "XDG_RUNTIME_DIR", "XDG_DATA_HOME",   "XDG_CONFIG_HOME", "DBUS_SESSION_BUS_ADDRESS",
            "VT_PRODUCT_WINE", "WINEDEBUG",       "WINEDLLOVERRIDES",
        };
        if (name.starts_with("LC_"))
            return true;
        for (std::string_view passed : names)
            if (name == passed)
                return true;
        return false;
    }

    std::map<std::string, std::string> environmentForXConnection()
    {
        std::map<std::string, std::string> environment;
        GStrvPtr own(g_get_environ());
        for (char** entry = own.get(); *entry; ++entry) {
            std::string_view text(*entry);
            size_t equals = text.find('=');
            // D-Bus carries only UTF-8: a value in another encoding would
            // cost the whole answer, so it stays behind alone.
            if (equals == std::string_view::npos || !passesToPrograms(text.substr(0, equals))
                || !g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
                continue;
            environment.emplace(text.substr(0, equals), text.substr(equals + 1));
        }
        environment.emplace("WINEDEBUG", kQuietWineDebug);
        environment.emplace("WINEDLLOVERRIDES", kNoMonoOrGeckoOverrides);
        return environment;
    }
} // namespace

HelperServer::HelperServer(GDBusConnection* connection, std::function<void(const std::string&)> bottleReady)
    : m_bottles(std::move(bottleReady))
{
    // Export before owning the name: whoever sees the name finds the object.
    static const GDBusInterfaceVTable vtable = { handleMethodCall, nullptr, nullptr, { nullptr } };
    GErrorHolder error;
    m_object = DBusObjectRegistration(addRef(connection),
                                      g_dbus_connection_register_object(connection, kHelperServerObjectPath,
                                                                        helperServerInterfaceInfo(), &vtable, this, nullptr,
                                                                        error));
    if (!m_object)
        throw std::runtime_error(std::string("cannot export the helper server: ") + error.message());
    m_name = BusNameOwnership(g_bus_own_name_on_connection(connection, kHelperServerBusName,
                                                           G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr,
                                                           nullptr));
}

HelperServer::~HelperServer() = default;

void HelperServer::handleMethodCall(GDBusConnection*, const char*, const char*, const char*, const char* methodName,
                                    GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) noexcept
{
    try {
        static_cast<HelperServer*>(data)->answer(methodName, parameters, invocation);
    } catch (const std::exception& e) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed", e.what());
    } catch (...) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed",
                                                   "unexpected failure");
    }
}

void HelperServer::answer(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation)
{
    if (method == "IsServerReady") {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", TRUE));
    } else if (method == "IsServerReadyForBottle") {
        const char* bottle = nullptr;
        g_variant_get(parameters, "(&s)", &bottle);
        bool ready = m_bottles.isReady(bottle);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", ready ? TRUE : FALSE));
    } else if (method == "GetEnvironmentForXConnection") {
        VariantBuilder entries(G_VARIANT_TYPE("a{ss}"));
        for (const auto& [name, value] : environmentForXConnection())
            g_variant_builder_add(entries.get(), "{ss}", name.c_str(), value.c_str());
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(@a{ss})", entries.end()));
    } else if (method == "RaiseWindowsWithTag") {
        gint64 tag = 0;
        g_variant_get(parameters, "(x)", &tag);
        raiseWindowsWithTag(tag);
        // GDBus sends nothing when the caller asked for no reply, but the
        // invocation must still be finished.
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownMethod",
                                                   ("no method " + method).c_str());
    }
}

void HelperServer::raiseWindowsWithTag(int64_t tag)
{
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
        platformLog("RaiseWindowsWithTag %lld: no DISPLAY to raise windows on", static_cast<long long>(tag));
        return;
    }
    try {
        X11Windows windows(display);
        std::vector<Window> tagged = windows.windowsWithTag(tag);
        windows.raise(tagged);
        platformLog("RaiseWindowsWithTag %lld: raised %zu windows on %@", static_cast<long long>(tag), tagged.size(),
                    display);
    } catch (const X11Error& e) {
        platformLog("RaiseWindowsWithTag %lld: %@", static_cast<long long>(tag), e.what());
    }
}

} // namespace vt::product
