// The stand-in main application: a GApplication with the main application's
// id that records what it is asked to do and stays up until SIGTERM, SIGINT
// or SIGHUP, or until its session bus goes away.
//
// Helper server: with VT_STANDIN_SERVE_HELPER set (non-empty) it also serves
// the helper server on its bus connection, as the real one does.
//
// Hung: with VT_STANDIN_MAIN_APP_HUNG set (non-empty) it registers (owning
// its bus name, and the helper server's when it serves one) and then never
// runs its main loop again: every D-Bus call to it waits for an answer that
// never comes. SIGTERM, SIGINT or SIGHUP still end it.
//
// It sends a main-app record (standin/record/Record.hpp) for each event:
//   started   at process start, primary or not; arg: argv
//   open      an open request (command line or D-Bus Open); arg: the URIs
//             as GIO gives them back (g_file_get_uri)
//   activate  an activation (start without arguments, D-Bus Activate)
//   hung      registered, and from now on deaf (VT_STANDIN_MAIN_APP_HUNG)
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <glib-unix.h>
#include <unistd.h>

#include "base/glib_glue.hpp"
#include "source/VantorNames.hpp"
#include "standin/helper_server/HelperServerStandIn.hpp"
#include "standin/record/Record.hpp"

namespace {

void record(const char* event, const std::vector<std::string>& arguments = {})
{
    vt::standin::Record record("main-app");
    record.add("event", event);
    for (const auto& argument : arguments)
        record.add("arg", argument);
    vt::standin::send(std::move(record));
}

// The real main application hosts the helper server; with
// VT_STANDIN_SERVE_HELPER set the stand-in does too, configured by the same
// VT_STANDIN_* variables as the standalone server.
std::unique_ptr<vt::standin::HelperServerStandIn> helperServer;

void onStartup(GApplication* app, gpointer) noexcept
{
    // Lives until a quit signal, like the real main application.
    g_application_hold(app);
    const char* serve = std::getenv("VT_STANDIN_SERVE_HELPER");
    GDBusConnection* bus = g_application_get_dbus_connection(app);
    if (!serve || !*serve || !bus)
        return;
    try {
        helperServer = std::make_unique<vt::standin::HelperServerStandIn>(
            bus, vt::standin::HelperServerSettings::fromEnvironment());
    } catch (const std::exception& e) {
        g_printerr("vt-standin-main-app: cannot serve the helper server: %s\n", e.what());
    }
}

void onActivate(GApplication*, gpointer) noexcept
{
    try {
        record("activate");
    } catch (...) {
    }
}

void onOpen(GApplication*, GFile** files, gint count, const gchar*, gpointer) noexcept
{
    try {
        std::vector<std::string> uris;
        for (gint i = 0; i < count; ++i)
            uris.emplace_back(vt::GCharPtr(g_file_get_uri(files[i])).get());
        record("open", uris);
    } catch (...) {
    }
}

gboolean onQuitSignal(gpointer app) noexcept
{
    g_application_quit(static_cast<GApplication*>(app));
    return G_SOURCE_CONTINUE;
}

vt::GPtr<GApplication> makeMainApplication()
{
    vt::GPtr<GApplication> app = vt::adopt(g_application_new(vt::kVantorBundleIdentifier, G_APPLICATION_HANDLES_OPEN));
    g_signal_connect(app.get(), "startup", G_CALLBACK(onStartup), nullptr);
    g_signal_connect(app.get(), "activate", G_CALLBACK(onActivate), nullptr);
    g_signal_connect(app.get(), "open", G_CALLBACK(onOpen), nullptr);
    for (int signalNumber : { SIGTERM, SIGINT, SIGHUP })
        g_unix_signal_add(signalNumber, onQuitSignal, app.get());
    return app;
}

} // namespace

int main(int argc, char** argv)
{
    record("started", std::vector<std::string>(argv, argv + argc));

    vt::GPtr<GApplication> app = makeMainApplication();
    // It lives on its session bus and ends with it (the shared connection
    // raises SIGTERM when it closes). Without a bus to register on (a test
    // that has already taken its bus down) it ends at once instead of
    // lingering as a local instance.
    vt::GErrorHolder error;
    if (!g_application_register(app.get(), nullptr, error) || !g_application_get_dbus_connection(app.get())) {
        // Without any bus GApplication registers as a local instance and
        // reports nothing.
        g_printerr("vt-standin-main-app: cannot register on the session bus: %s\n",
                   *error.message() ? error.message() : "there is no session bus");
        return 1;
    }
    if (const char* hung = std::getenv("VT_STANDIN_MAIN_APP_HUNG"); hung && *hung) {
        record("hung");
        // The signals end it the default way, on whichever thread they land.
        for (int signalNumber : { SIGTERM, SIGINT, SIGHUP })
            std::signal(signalNumber, SIG_DFL);
        for (;;)
            pause();
    }
    int status = g_application_run(app.get(), argc, argv);
    helperServer.reset();
    return status;
}
