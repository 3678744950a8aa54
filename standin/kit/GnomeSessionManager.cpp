#include "standin/kit/GnomeSessionManager.hpp"

#include <stdexcept>

#include "standin/kit/TestSupport.hpp"

namespace vt::test {

namespace {
    const char* const kName = "org.gnome.SessionManager";
    const char* const kPath = "/org/gnome/SessionManager";
    const char* const kClientInterface = "org.gnome.SessionManager.ClientPrivate";

    // What gnome-session offers a client, and only that.
    const char* const managerXml = R"xml(
<node>
  <interface name="org.gnome.SessionManager">
    <method name="RegisterClient">
      <arg name="app_id" type="s" direction="in"/>
      <arg name="client_startup_id" type="s" direction="in"/>
      <arg name="client_id" type="o" direction="out"/>
    </method>
    <method name="UnregisterClient">
      <arg name="client_id" type="o" direction="in"/>
    </method>
  </interface>
</node>)xml";
    const char* const clientXml = R"xml(
<node>
  <interface name="org.gnome.SessionManager.ClientPrivate">
    <method name="EndSessionResponse">
      <arg name="is_ok" type="b" direction="in"/>
      <arg name="reason" type="s" direction="in"/>
    </method>
    <signal name="Stop"/>
    <signal name="QueryEndSession"><arg name="flags" type="u"/></signal>
    <signal name="EndSession"><arg name="flags" type="u"/></signal>
    <signal name="CancelEndSession"/>
  </interface>
</node>)xml";

    GDBusInterfaceInfo* managerInterface()
    {
        static GDBusInterfaceInfo* info = interfaceOfIntrospection(managerXml);
        return info;
    }

    GDBusInterfaceInfo* clientInterface()
    {
        static GDBusInterfaceInfo* info = interfaceOfIntrospection(clientXml);
        return info;
    }
} // namespace

GnomeSessionManager::GnomeSessionManager(const std::string& busAddress)
{
    GErrorHolder error;
    m_connection = connectToBus(busAddress, error);
    if (!m_connection)
        throw std::runtime_error(std::string("stand-in session manager: no bus: ") + error.message());
    m_manager = DBusObjectRegistration(
        addRef(m_connection.get()),
        g_dbus_connection_register_object(m_connection.get(), kPath, managerInterface(), methods(),
                                          this, nullptr, error));
    if (!m_manager)
        throw std::runtime_error(std::string("stand-in session manager: ") + error.message());
    m_name = BusNameOwnership(g_bus_own_name_on_connection(
        m_connection.get(), kName, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE,
        +[](GDBusConnection*, const char*, gpointer data) { static_cast<GnomeSessionManager*>(data)->m_owned = true; },
        +[](GDBusConnection*, const char*, gpointer data) { static_cast<GnomeSessionManager*>(data)->m_lost = true; },
        this, nullptr));
    if (!waitUntil([&] { return m_owned || m_lost; }) || !m_owned)
        throw std::runtime_error("stand-in session manager: the name was not granted");
}

const GDBusInterfaceVTable* GnomeSessionManager::methods()
{
    static const GDBusInterfaceVTable table = { onMethodCall, nullptr, nullptr, { nullptr } };
    return &table;
}

GnomeSessionManager::~GnomeSessionManager() { vanish(); }

void GnomeSessionManager::vanish()
{
    m_name.reset();
    m_clientObjects.clear();
    m_manager.reset();
    if (m_connection)
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    m_connection.reset();
}

void GnomeSessionManager::onMethodCall(GDBusConnection*, const char*, const char* path, const char*,
                                       const char* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                                       gpointer data) noexcept
{
    try {
        static_cast<GnomeSessionManager*>(data)->call(path, method, parameters, invocation);
    } catch (const std::exception& e) {
        g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, e.what());
    }
}

void GnomeSessionManager::call(const std::string& path, const std::string& method, GVariant* parameters,
                               GDBusMethodInvocation* invocation)
{
    if (method == "RegisterClient") {
        const char* applicationId = nullptr;
        const char* startupId = nullptr;
        g_variant_get(parameters, "(&s&s)", &applicationId, &startupId);
        Client client { applicationId, startupId, std::string(kPath) + "/Client" + std::to_string(m_clients.size() + 1) };
        GErrorHolder error;
        m_clientObjects.emplace_back(addRef(m_connection.get()),
                                     g_dbus_connection_register_object(m_connection.get(), client.path.c_str(),
                                                                       clientInterface(), methods(),
                                                                       this, nullptr, error));
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", client.path.c_str()));
        m_clients.push_back(std::move(client));
    } else if (method == "UnregisterClient") {
        const char* clientPath = nullptr;
        g_variant_get(parameters, "(&o)", &clientPath);
        for (Client& client : m_clients)
            client.unregistered = client.unregistered || client.path == clientPath;
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "EndSessionResponse" && path != kPath) {
        gboolean isOk = FALSE;
        const char* reason = nullptr;
        g_variant_get(parameters, "(b&s)", &isOk, &reason);
        m_responses.push_back(Response { isOk != FALSE, reason });
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else {
        throw std::runtime_error("no such method: " + method);
    }
}

std::optional<GnomeSessionManager::Client> GnomeSessionManager::waitForClient(std::chrono::milliseconds timeout)
{
    if (!waitUntil([&] { return !m_clients.empty(); }, timeout))
        return std::nullopt;
    return m_clients.front();
}

void GnomeSessionManager::send(const std::string& signal)
{
    if (m_clients.empty() || !m_connection)
        throw std::runtime_error("stand-in session manager: no client to send " + signal + " to");
    GVariant* parameters = signal == "QueryEndSession" || signal == "EndSession" ? g_variant_new("(u)", 0u) : nullptr;
    GErrorHolder error;
    if (!g_dbus_connection_emit_signal(m_connection.get(), nullptr, m_clients.front().path.c_str(), kClientInterface,
                                       signal.c_str(), parameters, error))
        throw std::runtime_error("stand-in session manager: " + std::string(error.message()));
    g_dbus_connection_flush_sync(m_connection.get(), nullptr, nullptr);
}

std::optional<GnomeSessionManager::Response> GnomeSessionManager::waitForResponse(std::chrono::milliseconds timeout)
{
    if (!waitUntil([&] { return m_responses.size() > m_read; }, timeout))
        return std::nullopt;
    return m_responses[m_read++];
}

bool GnomeSessionManager::waitForUnregistration(std::chrono::milliseconds timeout)
{
    return waitUntil([&] { return !m_clients.empty() && m_clients.front().unregistered; }, timeout);
}

} // namespace vt::test
