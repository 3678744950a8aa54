#include "shell/SessionManagerClient.hpp"

#include <chrono>
#include <memory>

#include "base/BusCall.hpp"
#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"

namespace vt {

namespace {
    // A session manager that takes longer has hung; the launcher goes on as
    // if there were none.
    constexpr std::chrono::milliseconds kCallTimeout { 10000 };

    void call(GDBusConnection* bus, const std::string& destination, const std::string& path, const char* interface,
              const char* method, GVariant* parameters, const GVariantType* replyType, GCancellable* cancellable,
              BusCallDone done)
    {
        callOnBus(bus, destination.c_str(), path.c_str(), interface, method, parameters, replyType, kCallTimeout,
                  cancellable, "the session manager", std::move(done));
    }
} // namespace

SessionManagerClient::SessionManagerClient(Session session, SessionPhases phases)
    : m_bus(addRef(session.bus)), m_session(std::move(session)), m_phases(std::move(phases)),
      m_cancellable(adopt(g_cancellable_new()))
{
    m_session.bus = nullptr; // held in m_bus
    if (!m_bus) {
        joinXSession();
        return;
    }
    m_watch = BusNameWatch(g_bus_watch_name_on_connection(m_bus.get(), kBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                          onManagerAppeared, onManagerVanished, this, nullptr));
}

SessionManagerClient::~SessionManagerClient()
{
    g_cancellable_cancel(m_cancellable.get());
    m_signals.reset();
    m_watch.reset();
}

void SessionManagerClient::onManagerAppeared(GDBusConnection*, const char*, const char* owner, gpointer data) noexcept
{
    auto* self = static_cast<SessionManagerClient*>(data);
    // Registered once, with the manager that was there first.
    if (!self->m_owner.empty())
        return;
    self->m_owner = owner;
    // Listening before registering: the bus passes on the manager's first
    // signal to the new client only if the launcher's match rule reached it
    // first. The client's path is not known yet; signals to other paths are
    // not the launcher's.
    self->m_signals = DBusSignalSubscription(
        addRef(self->m_bus.get()),
        g_dbus_connection_signal_subscribe(self->m_bus.get(), owner, kClientInterface, nullptr, nullptr, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, onSignal, self, nullptr));
    call(self->m_bus.get(), self->m_owner, kPath, kInterface, "RegisterClient",
         g_variant_new("(ss)", self->m_session.applicationId.c_str(), self->m_session.startupId.c_str()),
         G_VARIANT_TYPE("(o)"),
         self->m_cancellable.get(), [self](GPtr<GVariant> reply, const std::string& error) {
             if (!reply) {
                 self->m_signals.reset();
                 self->problem("it did not take the launcher as a client (" + error + ")");
                 return;
             }
             const char* path = nullptr;
             g_variant_get(reply.get(), "(&o)", &path);
             self->registered(path);
         });
}

void SessionManagerClient::onManagerVanished(GDBusConnection*, const char*, gpointer data) noexcept
{
    auto* self = static_cast<SessionManagerClient*>(data);
    // None at start: the desktop has no such manager, and one that comes
    // later is not the session the launcher was started in.
    if (self->m_owner.empty()) {
        self->m_watch.reset();
        self->joinXSession();
        return;
    }
    if (self->isRegistered())
        self->problem("it has gone");
    self->m_signals.reset();
    self->m_clientPath.clear();
    self->m_watch.reset();
}

void SessionManagerClient::registered(const std::string& clientPath)
{
    m_clientPath = clientPath;
    VTLog("registered with the session manager as %@", m_clientPath);
}

void SessionManagerClient::joinXSession()
{
    if (m_session.xsmpAddress.empty())
        return;
    m_xsmp = std::make_unique<XsmpClient>(m_session.xsmpAddress, m_session.startupId, m_session.program, m_phases,
                                          [this](const std::string& what) { problem(what); });
}

void SessionManagerClient::onSignal(GDBusConnection*, const char*, const char* path, const char*, const char* signal,
                                    GVariant*, gpointer data) noexcept
{
    auto* self = static_cast<SessionManagerClient*>(data);
    if (self->m_clientPath.empty() || self->m_clientPath != path)
        return;
    std::string name(signal);
    VTLog("the session manager says %@", name);
    const std::function<void()>* phase = name == "QueryEndSession" ? &self->m_phases.queryEnd
        : name == "EndSession"                                       ? &self->m_phases.end
        : name == "CancelEndSession"                                 ? &self->m_phases.cancel
        : name == "Stop"                                             ? &self->m_phases.stop
                                                                     : nullptr;
    if (phase == &self->m_phases.end)
        self->m_endUnanswered = true;
    if (phase)
        SessionPhases::take(*phase, signal);
}

void SessionManagerClient::answerQueryEnd(bool mayEnd, const std::string& reason)
{
    // An X session manager hears only whether the program lets the session
    // end: the program's user has been asked meanwhile.
    if (m_xsmp)
        m_xsmp->answerQueryEnd(mayEnd);
    respond(mayEnd, mayEnd ? std::string() : reason);
}

// An X session manager waits for the launcher's connection to close.
void SessionManagerClient::answerEnd()
{
    m_endUnanswered = false;
    respond(true, {});
}

void SessionManagerClient::respond(bool isOk, const std::string& reason)
{
    if (m_clientPath.empty())
        return;
    call(m_bus.get(), m_owner, m_clientPath, kClientInterface, "EndSessionResponse",
         g_variant_new("(bs)", isOk, reason.c_str()), nullptr, m_cancellable.get(),
         [this](GPtr<GVariant> reply, const std::string& error) {
             if (!reply)
                 problem("it did not take the launcher's answer (" + error + ")");
         });
}

void SessionManagerClient::unregister()
{
    if (m_xsmp)
        m_xsmp->unregister();
    if (m_clientPath.empty())
        return;
    if (m_endUnanswered)
        answerEnd();
    // Nobody is left to read the reply.
    g_dbus_connection_call(m_bus.get(), m_owner.c_str(), kPath, kInterface, "UnregisterClient",
                           g_variant_new("(o)", m_clientPath.c_str()), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, -1,
                           nullptr, nullptr, nullptr);
    m_signals.reset();
    m_clientPath.clear();
}

void SessionManagerClient::problem(const std::string& what)
{
    if (std::exchange(m_problemSaid, true))
        return;
    platformLog("the session manager: %@; a logout no longer asks the program first", what);
}

} // namespace vt
