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
// Where no such manager runs on the bus (KDE Plasma, Xfce, LXQt), the
// launcher takes part through XSMP instead (XsmpClient), if the session has
// an X session manager (SESSION_MANAGER); never through both, as a manager
// that speaks both (gnome-session) would take it for two clients.
//
// Everything happens on the main loop; every call to the manager is bounded
// in time. A manager that is absent costs nothing; one that vanishes or
// fails is logged once and is then left alone.
#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

#include "base/glib_glue.hpp"
#include "shell/SessionPhases.hpp"
#include "shell/XsmpClient.hpp"

namespace vt {

class SessionManagerClient {
public:
    inline static const char* const kBusName = "org.gnome.SessionManager";
    inline static const char* const kPath = "/org/gnome/SessionManager";
    inline static const char* const kInterface = "org.gnome.SessionManager";
    inline static const char* const kClientInterface = "org.gnome.SessionManager.ClientPrivate";

    // The desktop's session manager, one of them, as the launcher was
    // started in it.
    struct Session {
        // The session bus, or null without one.
        GDBusConnection* bus = nullptr;
        std::string applicationId;
        // DESKTOP_AUTOSTART_ID as the launcher was started with it, or empty.
        std::string startupId;
        // SESSION_MANAGER, or empty.
        std::string xsmpAddress;
        // The launcher's executable, which an X session manager asks for.
        std::string program;
    };

    // Registers on the bus when a session manager owns its name there, or
    // else with the X session manager, if there is one.
    SessionManagerClient(Session session, SessionPhases phases);
    ~SessionManagerClient();
    SessionManagerClient(const SessionManagerClient&) = delete;
    SessionManagerClient& operator=(const SessionManagerClient&) = delete;

    // Registered and not gone: the manager's phases reach the launcher.
    bool isRegistered() const { return !m_clientPath.empty() || (m_xsmp && m_xsmp->isRegistered()); }

    void answerQueryEnd(bool mayEnd, const std::string& reason);
    void answerEnd();
    // The launcher ends: the manager forgets it. An end it still waits to
    // hear about is answered first: the program has ended, or the launcher
    // goes without it (Wine inside ends the process with the program). The
    // messages are queued on the bus; the application flushes the bus
    // before it goes.
    void unregister();

private:
    static void onManagerAppeared(GDBusConnection*, const char* name, const char* owner, gpointer data) noexcept;
    static void onManagerVanished(GDBusConnection*, const char* name, gpointer data) noexcept;
    static void onSignal(GDBusConnection*, const char* sender, const char* path, const char* interface,
                         const char* signal, GVariant* parameters, gpointer data) noexcept;
    void registered(const std::string& clientPath);
    void joinXSession();
    void respond(bool isOk, const std::string& reason);
    // Says a problem with the manager once; later ones are left unsaid.
    void problem(const std::string& what);

    GPtr<GDBusConnection> m_bus;
    Session m_session;
    SessionPhases m_phases;
    GPtr<GCancellable> m_cancellable;
    BusNameWatch m_watch;
    std::string m_owner;
    std::string m_clientPath;
    DBusSignalSubscription m_signals;
    std::unique_ptr<XsmpClient> m_xsmp;
    bool m_problemSaid = false;
    // EndSession came and has not been answered.
    bool m_endUnanswered = false;
};

} // namespace vt
