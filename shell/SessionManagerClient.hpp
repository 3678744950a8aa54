// The launcher as a client of the desktop's session manager, so that a
// logout or a shutdown asks the Windows program first, as Windows does,
// instead of ending it with the session.
//
// GNOME-family desktops (GNOME, Budgie, Cinnamon, MATE, Phosh) run
// org.gnome.SessionManager on the session bus: the launcher registers as a
// client (RegisterClient with its application id and the startup id it was
// given) and answers the client interface the manager calls it on,
// org.gnome.SessionManager.ClientPrivate:
//
//   QueryEndSession   may the session end? -> queryEnd, answered with
//                     answerQueryEnd (EndSessionResponse(is_ok, reason))
//   EndSession        it ends -> end, answered with answerEnd
//   CancelEndSession  the end was cancelled -> cancel
//   Stop              the launcher is asked to quit -> stop
//
// Everything happens on the main loop; every call to the manager is bounded
// in time. A manager that is absent costs nothing; one that vanishes or
// fails is logged once and is then left alone.
#pragma once

#include <functional>
#include <string>

#include <gio/gio.h>

#include "base/glib_glue.hpp"

namespace vt {

// What the session manager asks, each called from the main loop.
struct SessionPhases {
    std::function<void()> queryEnd;
    std::function<void()> end;
    std::function<void()> cancel;
    std::function<void()> stop;
};

class SessionManagerClient {
public:
    inline static const char* const kBusName = "org.gnome.SessionManager";
    inline static const char* const kPath = "/org/gnome/SessionManager";
    inline static const char* const kInterface = "org.gnome.SessionManager";
    inline static const char* const kClientInterface = "org.gnome.SessionManager.ClientPrivate";

    // Registers on `bus` when a session manager owns its name there.
    // `startupId` is the DESKTOP_AUTOSTART_ID the launcher was started with,
    // or empty.
    SessionManagerClient(GDBusConnection* bus, std::string applicationId, std::string startupId,
                         SessionPhases phases);
    ~SessionManagerClient();
    SessionManagerClient(const SessionManagerClient&) = delete;
    SessionManagerClient& operator=(const SessionManagerClient&) = delete;

    // Registered and not gone: the manager's phases reach the launcher.
    bool isRegistered() const { return !m_clientPath.empty(); }

    void answerQueryEnd(bool mayEnd, const std::string& reason);
    void answerEnd();
    // The launcher ends: the manager forgets it. The message is queued on
    // the bus; the application flushes the bus before it goes.
    void unregister();

private:
    static void onManagerAppeared(GDBusConnection*, const char* name, const char* owner, gpointer data) noexcept;
    static void onManagerVanished(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onSignal(GDBusConnection*, const char* sender, const char* path, const char* interface,
                         const char* signal, GVariant* parameters, gpointer data) noexcept;
    void registered(const std::string& clientPath);
    void respond(bool isOk, const std::string& reason);
    // Says a problem with the manager once; later ones are left unsaid.
    void problem(const std::string& what);

    GPtr<GDBusConnection> m_bus;
    std::string m_applicationId;
    std::string m_startupId;
    SessionPhases m_phases;
    GPtr<GCancellable> m_cancellable;
    BusNameWatch m_watch;
    std::string m_owner;
    std::string m_clientPath;
    DBusSignalSubscription m_signals;
    bool m_problemSaid = false;
};

} // namespace vt
