#include "shell/HelperServerClient.hpp"

#include <optional>

#include "base/BusCall.hpp"
#include "base/VTLog.hpp"
#include "base/posix_glue.hpp"

namespace vt {

namespace {
    const char* const introspectionXml = R"(
<node>
  <interface name="com.tallowmere.Vantor.HelperServer">
    <method name="GetEnvironmentForXConnection">
      <arg direction="out" type="a{ss}" name="environment"/>
    </method>
    <method name="IsServerReady">
      <arg direction="out" type="b" name="ready"/>
    </method>
    <method name="IsServerReadyForBottle">
      <arg direction="in" type="s" name="bottle"/>
      <arg direction="out" type="b" name="ready"/>
    </method>
    <method name="RaiseWindowsWithTag">
      <arg direction="in" type="x" name="tag"/>
    </method>
  </interface>
</node>)";

    // Whether the server's name has an owner now; nothing is started for it.
    // Empty when the bus cannot tell.
    std::optional<bool> nameHasOwner(GDBusConnection* connection, GErrorHolder& error)
    {
        GPtr<GVariant> reply = adopt(g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
            g_variant_new("(s)", kHelperServerBusName), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
            static_cast<int>(kHelperServerCallTimeout.count()), nullptr, error));
        if (!reply)
            return std::nullopt;
        gboolean owned = FALSE;
        g_variant_get(reply.get(), "(b)", &owned);
        return owned;
    }

    void callAsync(GDBusConnection* connection, const char* destination, const char* path, const char* interface,
                   const char* method, GVariant* parameters, const GVariantType* replyType,
                   GCancellable* cancellable, BusCallDone done)
    {
        callOnBus(connection, destination, path, interface, method, parameters, replyType, kHelperServerCallTimeout,
                  cancellable, "the helper server", std::move(done));
    }
} // namespace

GDBusInterfaceInfo* helperServerInterfaceInfo()
{
    static GDBusInterfaceInfo* info = interfaceOfIntrospection(introspectionXml);
    return info;
}

std::unique_ptr<HelperServerClient> HelperServerClient::lookUp()
{
    GErrorHolder error;
    GPtr<GDBusConnection> connection = adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error));
    if (!connection) {
        VTLog("no session bus for the helper server: %@", error.message());
        return nullptr;
    }
    // Only ask whether the name is owned: the bus must not start a server for
    // us, because the main application brings up its own.
    std::optional<bool> owned = nameHasOwner(connection.get(), error);
    if (!owned) {
        VTLog("could not ask the session bus for the helper server: %@", error.message());
        return nullptr;
    }
    if (!*owned)
        return nullptr;
    return std::make_unique<HelperServerClient>(std::move(connection));
}

void HelperServerClient::lookUpAsync(GCancellable* cancellable,
                                     std::function<void(std::unique_ptr<HelperServerClient>)> done)
{
    GErrorHolder error;
    GPtr<GDBusConnection> connection = adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error));
    if (!connection) {
        VTLog("no session bus for the helper server: %@", error.message());
        done(nullptr);
        return;
    }
    GDBusConnection* bus = connection.get();
    // Shared, so the callback stays copyable; the last copy lets it go.
    std::shared_ptr<GDBusConnection> held(connection.release(), g_object_unref);
    callAsync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
              g_variant_new("(s)", kHelperServerBusName), G_VARIANT_TYPE("(b)"), cancellable,
              [held, done = std::move(done)](GPtr<GVariant> reply, const std::string& error) {
                  if (!reply) {
                      VTLog("could not ask the session bus for the helper server: %@", error);
                      done(nullptr);
                      return;
                  }
                  gboolean owned = FALSE;
                  g_variant_get(reply.get(), "(b)", &owned);
                  done(owned ? std::make_unique<HelperServerClient>(addRef(held.get())) : nullptr);
              });
}

HelperServerClient::HelperServerClient(GPtr<GDBusConnection> connection) : m_connection(std::move(connection))
{
}

HelperServerClient::~HelperServerClient() = default;

GPtr<GVariant> HelperServerClient::call(const char* method, GVariant* parameters, const GVariantType* replyType)
{
    // Calls go to the well-known name, not to the owner found by lookUp(): a
    // server that the main application restarts is still the helper server.
    GErrorHolder error;
    GPtr<GVariant> reply = adopt(g_dbus_connection_call_sync(
        m_connection.get(), kHelperServerBusName, kHelperServerObjectPath, kHelperServerInterface, method,
        parameters, replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<int>(kHelperServerCallTimeout.count()),
        nullptr, error));
    if (!reply)
        throw HelperServerError(std::string(method) + ": " + error.message());
    return reply;
}

std::map<std::string, std::string> HelperServerClient::getEnvironmentForXConnection()
{
    GPtr<GVariant> reply = call("GetEnvironmentForXConnection", nullptr, G_VARIANT_TYPE("(a{ss})"));
    std::map<std::string, std::string> environment;
    GVariantIterPtr entries;
    g_variant_get(reply.get(), "(a{ss})", static_cast<GVariantIter**>(outPtr(entries)));
    const char* name = nullptr;
    const char* value = nullptr;
    while (g_variant_iter_next(entries.get(), "{&s&s}", &name, &value))
        environment[name] = value;
    return environment;
}

bool HelperServerClient::isServerReady()
{
    GPtr<GVariant> reply = call("IsServerReady", nullptr, G_VARIANT_TYPE("(b)"));
    gboolean ready = FALSE;
    g_variant_get(reply.get(), "(b)", &ready);
    return ready;
}

bool HelperServerClient::isServerReadyForBottle(const std::string& bottleName)
{
    // D-Bus strings are UTF-8 without NULs; anything else cannot be sent, and
    // GVariant would reject it with a critical warning instead of an error.
    if (!g_utf8_validate(bottleName.data(), static_cast<gssize>(bottleName.size()), nullptr))
        throw HelperServerError("IsServerReadyForBottle: the bottle name is not valid UTF-8");
    GPtr<GVariant> reply = call("IsServerReadyForBottle", g_variant_new("(s)", bottleName.c_str()),
                                G_VARIANT_TYPE("(b)"));
    gboolean ready = FALSE;
    g_variant_get(reply.get(), "(b)", &ready);
    return ready;
}

void HelperServerClient::isServerReadyForBottleAsync(
    const std::string& bottleName, GCancellable* cancellable,
    std::function<void(std::optional<bool> ready, const std::string& error)> done)
{
    if (!g_utf8_validate(bottleName.data(), static_cast<gssize>(bottleName.size()), nullptr)) {
        done(std::nullopt, "IsServerReadyForBottle: the bottle name is not valid UTF-8");
        return;
    }
    callAsync(m_connection.get(), kHelperServerBusName, kHelperServerObjectPath, kHelperServerInterface,
              "IsServerReadyForBottle", g_variant_new("(s)", bottleName.c_str()), G_VARIANT_TYPE("(b)"), cancellable,
              [done = std::move(done)](GPtr<GVariant> reply, const std::string& error) {
                  if (!reply) {
                      done(std::nullopt, "IsServerReadyForBottle: " + error);
                      return;
                  }
                  gboolean ready = FALSE;
                  g_variant_get(reply.get(), "(b)", &ready);
                  done(ready != FALSE, {});
              });
}

void HelperServerClient::raiseWindowsWithTag(int64_t tag)
{
    // Nobody answers a one-way call, not even the bus when the name has no
    // owner: ask the bus first, so that a server that has gone is noticed.
    GErrorHolder ownerError;
    std::optional<bool> owned = nameHasOwner(m_connection.get(), ownerError);
    if (!owned)
        throw HelperServerError(std::string("RaiseWindowsWithTag: ") + ownerError.message());
    if (!*owned)
        throw HelperServerError("RaiseWindowsWithTag: nobody owns " + std::string(kHelperServerBusName) + " any more");
    GPtr<GDBusMessage> message = adopt(g_dbus_message_new_method_call(
        kHelperServerBusName, kHelperServerObjectPath, kHelperServerInterface, "RaiseWindowsWithTag"));
    g_dbus_message_set_body(message.get(), g_variant_new("(x)", static_cast<gint64>(tag)));
    g_dbus_message_set_flags(message.get(), static_cast<GDBusMessageFlags>(G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED
                                                                           | G_DBUS_MESSAGE_FLAGS_NO_AUTO_START));
    GErrorHolder error;
    if (!g_dbus_connection_send_message(m_connection.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                        error))
        throw HelperServerError(std::string("RaiseWindowsWithTag: ") + error.message());
}

} // namespace vt
