// A stand-in for the session manager of GNOME-family desktops on a private
// bus: it owns org.gnome.SessionManager, takes RegisterClient and
// UnregisterClient as gnome-session does, gives each client an object with
// the client interface (org.gnome.SessionManager.ClientPrivate) and sends it
// that interface's signals when the test says so, recording every
// EndSessionResponse.
//
// It is served on the test's main context: every wait of the kit runs the
// main loop, and so does each of its own waits.
//
//   GnomeSessionManager manager(w.bus.address());
//   auto& launcher = w.startLauncher();
//   auto client = manager.waitForClient();            // app id, startup id, path
//   manager.send("QueryEndSession");
//   auto response = manager.waitForResponse();        // {false, "Notepad has unsaved work"}
//   manager.send("CancelEndSession");
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "base/glib_glue.hpp"

namespace vt::test {

class GnomeSessionManager {
public:
    struct Client {
        std::string applicationId;
        std::string startupId;
        std::string path;
        bool unregistered = false;
    };
    struct Response {
        bool isOk = false;
        std::string reason;
        bool operator==(const Response&) const = default;
    };

    // Connects to the bus and owns the name when this returns.
    explicit GnomeSessionManager(const std::string& busAddress);
    ~GnomeSessionManager();
    GnomeSessionManager(const GnomeSessionManager&) = delete;
    GnomeSessionManager& operator=(const GnomeSessionManager&) = delete;

    // The first client, once one has registered.
    std::optional<Client> waitForClient(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    const std::vector<Client>& clients() const { return m_clients; }
    // Sends one of the client interface's signals to the first client:
    // "QueryEndSession", "EndSession" (both with flags 0), "CancelEndSession"
    // or "Stop".
    void send(const std::string& signal);
    // The next response not waited for yet, once it has come.
    std::optional<Response> waitForResponse(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Responses that came and were not waited for.
    size_t unreadResponses() const { return m_responses.size() - m_read; }
    bool waitForUnregistration(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Leaves the bus, as a session manager that dies does.
    void vanish();

private:
    static const GDBusInterfaceVTable* methods();
    static void onMethodCall(GDBusConnection*, const char* sender, const char* path, const char* interface,
                             const char* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                             gpointer data) noexcept;
    void call(const std::string& path, const std::string& method, GVariant* parameters,
              GDBusMethodInvocation* invocation);

    GPtr<GDBusConnection> m_connection;
    DBusObjectRegistration m_manager;
    std::vector<DBusObjectRegistration> m_clientObjects;
    BusNameOwnership m_name;
    std::vector<Client> m_clients;
    std::vector<Response> m_responses;
    size_t m_read = 0;
    bool m_owned = false;
    bool m_lost = false;
};

} // namespace vt::test
