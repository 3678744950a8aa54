#include "standin/helper_server/HelperServerStandIn.hpp"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

#include "shell/HelperServerClient.hpp"
#include "standin/record/Record.hpp"

namespace vt::standin {

namespace {
    std::optional<unsigned> numberFromEnvironment(const char* name)
    {
        const char* text = std::getenv(name);
        if (!text)
            return std::nullopt;
        unsigned value = 0;
        const char* end = text + std::strlen(text);
        auto [stop, error] = std::from_chars(text, end, value);
        if (error != std::errc() || stop != end || stop == text)
            throw std::runtime_error(std::string(name) + " is not a non-negative number: \"" + text + "\"");
        return value;
    }

    std::map<std::string, std::string> readEnvironmentFile(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        if (!in)
            throw std::runtime_error("cannot read VT_STANDIN_SERVER_ENV file " + path);
        std::map<std::string, std::string> environment;
        std::string line;
        while (std::getline(in, line)) {
            if (line.empty())
                continue;
            auto equals = line.find('=');
            // D-Bus strings must be valid UTF-8; refuse here rather than let
            // GVariant drop the reply.
            if (equals == std::string::npos || equals == 0
                || !g_utf8_validate(line.data(), static_cast<gssize>(line.size()), nullptr))
                throw std::runtime_error("not a KEY=VALUE line in " + path + ": \"" + line + "\"");
            environment[line.substr(0, equals)] = line.substr(equals + 1);
        }
        return environment;
    }
} // namespace

HelperServerSettings HelperServerSettings::fromEnvironment()
{
    HelperServerSettings settings;
    settings.notReadyCount = numberFromEnvironment("VT_STANDIN_NOT_READY").value_or(0);
    settings.goneAfter = numberFromEnvironment("VT_STANDIN_GONE_AFTER");
    settings.silentAfter = numberFromEnvironment("VT_STANDIN_SILENT_AFTER");
    settings.ownNameDelay = std::chrono::milliseconds(numberFromEnvironment("VT_STANDIN_SERVER_DELAY_MS").value_or(0));
    if (const char* path = std::getenv("VT_STANDIN_SERVER_ENV"))
        settings.environment = readEnvironmentFile(path);
    else
        settings.environment = {
            { "PATH", "/usr/local/bin:/usr/bin:/bin" },
            { "LANG", "C.UTF-8" },
            { "VT_STANDIN_HELPER_ENVIRONMENT", "default" },
        };
    return settings;
}

HelperServerStandIn::HelperServerStandIn(GDBusConnection* connection, HelperServerSettings settings)
    : m_settings(std::move(settings)), m_connection(addRef(connection))
{
    // Export before owning the name: whoever sees the name finds the object.
    static const GDBusInterfaceVTable vtable = { handleMethodCall, nullptr, nullptr, { nullptr } };
    GErrorHolder error;
    m_object = DBusObjectRegistration(
        addRef(connection), g_dbus_connection_register_object(connection, kHelperServerObjectPath,
                                                      helperServerInterfaceInfo(), &vtable, this,
                                                      nullptr, error));
    if (!m_object)
        throw std::runtime_error(std::string("cannot export the helper server: ") + error.message());
    if (m_settings.ownNameDelay.count() == 0) {
        ownName();
    } else {
        m_ownNameLater = TimeoutSource("helper server stand-in: own the name", m_settings.ownNameDelay, [this] {
            ownName();
            return false;
        });
    }
}

void HelperServerStandIn::ownName()
{
    // Whoever waits for the server waits for its name on the bus.
    m_name = BusNameOwnership(g_bus_own_name_on_connection(m_connection.get(), kHelperServerBusName,
                                                           G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr,
                                                           nullptr));
}

void HelperServerStandIn::releaseName() { m_name = {}; }

HelperServerStandIn::~HelperServerStandIn()
{
    for (GDBusMethodInvocation* invocation : m_unanswered)
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed",
                                                   "the helper server stand-in is ending");
}

void HelperServerStandIn::handleMethodCall(GDBusConnection*, const char*, const char*, const char*,
                                           const char* methodName, GVariant* parameters,
                                           GDBusMethodInvocation* invocation, gpointer data) noexcept
{
    try {
        static_cast<HelperServerStandIn*>(data)->answer(methodName, parameters, invocation);
    } catch (const std::exception& e) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed", e.what());
    } catch (...) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed",
                                                   "unexpected failure");
    }
}

void HelperServerStandIn::answer(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation)
{
    Record call("call");
    call.add("method", method);
    if (method == "IsServerReadyForBottle") {
        const char* bottle = nullptr;
        g_variant_get(parameters, "(&s)", &bottle);
        call.add("argument", bottle);
    } else if (method == "RaiseWindowsWithTag") {
        gint64 tag = 0;
        g_variant_get(parameters, "(x)", &tag);
        call.add("argument", std::to_string(tag));
        GDBusMessage* message = g_dbus_method_invocation_get_message(invocation);
        if (!(g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED))
            call.add("reply", "expecting-reply");
    }
    send(std::move(call));

    if (m_settings.goneAfter && m_readinessAnswers >= *m_settings.goneAfter) {
        // Vanish the way a crashed server does: no reply, no goodbye. The bus
        // tells the caller that we left without answering.
        _exit(0);
    }

    if (m_settings.silentAfter && m_readinessAnswers >= *m_settings.silentAfter) {
        // Hang the way a server stuck in a loop does: the name stays, the
        // caller waits. The invocation is kept, so it is never finished.
        m_unanswered.push_back(invocation);
        return;
    }

    if (method == "GetEnvironmentForXConnection") {
        VariantBuilder entries(G_VARIANT_TYPE("a{ss}"));
        for (const auto& [name, value] : m_settings.environment)
            g_variant_builder_add(entries.get(), "{ss}", name.c_str(), value.c_str());
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(@a{ss})", entries.end()));
    } else if (method == "IsServerReady") {
        ++m_readinessAnswers;
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", TRUE));
    } else if (method == "IsServerReadyForBottle") {
        ++m_readinessAnswers;
        bool ready = m_notReadyAnswers >= m_settings.notReadyCount;
        if (!ready)
            ++m_notReadyAnswers;
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", ready ? TRUE : FALSE));
    } else {
        // One-way: GDBus sends nothing when the caller asked for no reply,
        // but the invocation must still be finished.
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
}

} // namespace vt::standin
