// The stand-in for the Vantor main application's helper server: it exports
// com.tallowmere.Vantor.HelperServer on a D-Bus connection and owns the
// server's bus name. The program vt-standin-helper-server runs one on the
// session bus; the stand-in main application can serve one in-process.
//
// It is configured by environment variables, so that a server started by the
// launcher (inside the stand-in main application) takes the test's settings
// from the environment it inherits:
//
//   VT_STANDIN_NOT_READY=N        IsServerReadyForBottle answers false to the
//                                 first N calls (whatever the bottle), then
//                                 true. IsServerReady always answers true.
//   VT_STANDIN_GONE_AFTER=N       After N readiness answers (IsServerReady and
//                                 IsServerReadyForBottle together), the next
//                                 call of any kind is recorded and the process
//                                 exits at once (status 0) without replying:
//                                 a server that vanishes under its callers.
//   VT_STANDIN_SILENT_AFTER=N     After N readiness answers, every later call
//                                 is recorded and never answered, while the
//                                 server keeps its name: a server that hangs.
//   VT_STANDIN_SERVER_DELAY_MS=N  Own the bus name N ms after start instead of
//                                 at once (the object is exported at once).
//   VT_STANDIN_SERVER_ENV=path    The dictionary GetEnvironmentForXConnection
//                                 returns: one KEY=VALUE per line, split at the
//                                 first '=' (values may hold '=', blanks, any
//                                 UTF-8); empty lines are skipped. Default:
//                                 PATH=/usr/local/bin:/usr/bin:/bin,
//                                 LANG=C.UTF-8, VT_STANDIN_HELPER_ENVIRONMENT=default.
//
// Every call it receives is sent as a call record (standin/record/Record.hpp)
// as it arrives, before it is answered: the method, its argument (the bottle
// verbatim, the tag in decimal) and, for a RaiseWindowsWithTag sent without
// the no-reply-expected flag, reply=expecting-reply, so a caller that waits
// shows up.
//
// A malformed value makes HelperServerSettings::fromEnvironment() throw.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/MainLoop.hpp"
#include "base/glib_glue.hpp"

namespace vt::standin {

struct HelperServerSettings {
    unsigned notReadyCount = 0;
    std::optional<unsigned> goneAfter;
    std::optional<unsigned> silentAfter;
    std::chrono::milliseconds ownNameDelay { 0 };
    std::map<std::string, std::string> environment;

    // The settings the VT_STANDIN_* variables above describe.
    static HelperServerSettings fromEnvironment();
};

class HelperServerStandIn {
public:
    // Exports the object on `connection` at once and owns the name at once or
    // after the delay (on the default main context). Throws when the object
    // cannot be exported.
    HelperServerStandIn(GDBusConnection* connection, HelperServerSettings settings);
    // Releases the name and withdraws the object.
    ~HelperServerStandIn();

    // Gives the name back and keeps the object: whoever calls the name finds
    // nobody, although the process lives on.
    void releaseName();
    // From now on every call is recorded and never answered, as with
    // VT_STANDIN_SILENT_AFTER.
    void stopAnswering() { m_settings.silentAfter = 0; }
    HelperServerStandIn(const HelperServerStandIn&) = delete;
    HelperServerStandIn& operator=(const HelperServerStandIn&) = delete;

private:
    void ownName();

    static void handleMethodCall(GDBusConnection*, const char* sender, const char* objectPath,
                                 const char* interfaceName, const char* methodName, GVariant* parameters,
                                 GDBusMethodInvocation* invocation, gpointer data) noexcept;
    void answer(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation);

    HelperServerSettings m_settings;
    GPtr<GDBusConnection> m_connection;
    unsigned m_readinessAnswers = 0;
    unsigned m_notReadyAnswers = 0;
    // Calls a hung server holds without answering.
    std::vector<GDBusMethodInvocation*> m_unanswered;
    // The name goes back before the object is withdrawn.
    DBusObjectRegistration m_object;
    TimeoutSource m_ownNameLater;
    BusNameOwnership m_name;
};

} // namespace vt::standin
