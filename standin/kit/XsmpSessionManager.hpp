// A stand-in X session manager (XSMP over ICE, libSM's manager side), as
// Xfce's and KDE Plasma's session managers are to their clients: it listens
// on a local ICE socket of its own, takes clients without authentication,
// registers them, keeps the properties they set, and sends what the test
// says, recording each message a client sends it.
//
// Served on the test's main context, like the kit's other stand-ins.
//
//   XsmpSessionManager manager;
//   auto& launcher = w.startLauncher({}, { { "SESSION_MANAGER", manager.address() } });
//   manager.waitForClient();
//   manager.saveYourself(true, XsmpSessionManager::Interaction::Any);   // a logout
//   manager.waitForMessage();                   // "InteractRequest normal"
//   manager.interact();
//   manager.waitForMessage();                   // "InteractDone cancel"
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vt::test {

class XsmpSessionManager {
public:
    enum class Interaction { None, Errors, Any };
    struct Client {
        std::string previousId;
        std::string clientId;
        // Each property's values, as text (a CARD8 as its number).
        std::map<std::string, std::vector<std::string>> properties;
        bool closed = false;
    };

    // Listening when this returns.
    XsmpSessionManager();
    ~XsmpSessionManager();
    XsmpSessionManager(const XsmpSessionManager&) = delete;
    XsmpSessionManager& operator=(const XsmpSessionManager&) = delete;

    // What SESSION_MANAGER holds for a client of this manager.
    const std::string& address() const { return m_address; }

    // The first client, once it has registered and set its properties.
    std::optional<Client> waitForClient(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // To the first client.
    void saveYourself(bool shutdown, Interaction interaction);
    void interact();
    void die();
    void shutdownCancelled();
    // The next message of the first client not waited for yet, once it has
    // come: "InteractRequest normal" or "InteractRequest errors",
    // "InteractDone" or "InteractDone cancel", "SaveYourselfDone success" or
    // "SaveYourselfDone failure", "CloseConnection".
    std::optional<std::string> waitForMessage(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Messages that came and were not waited for.
    std::vector<std::string> unreadMessages() const;
    // Drops every connection and stops listening, as a manager that dies.
    void vanish();

    struct Connection;

private:
    Connection& first();

    friend struct XsmpManagerCallbacks;
    std::string m_address;
    struct Listener;
    std::unique_ptr<Listener> m_listener;
    std::vector<std::unique_ptr<Connection>> m_connections;
};

} // namespace vt::test
