// The stand-in main application: a GApplication with the main application's
// id that records what it is asked to do and stays up until SIGTERM, SIGINT
// or SIGHUP.
//
// Helper server: with VT_STANDIN_SERVE_HELPER set (non-empty) it also serves
// the helper server on its bus connection, as the real one does.
//
// Record: when VT_STANDIN_RECORD names a file, one line per event is
// appended to it (each line in one write, so several instances never mix
// their lines):
//   started <argv[0]> <argv[1]> ...   at process start, primary or not
//   open <uri> <uri> ...              an open request (command line or D-Bus Open)
//   activate                          an activation (start without arguments, D-Bus Activate)
// URIs are written as GIO gives them back (g_file_get_uri).
#include <csignal>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

#include <memory>

#include "base/glib_glue.hpp"
#include "source/VantorNames.hpp"
#include "standin/helper_server/HelperServerStandIn.hpp"

namespace {


void record(const std::string& line)
{
    const char* path = std::getenv("VT_STANDIN_RECORD");
    if (!path || !*path)
        return;
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    std::string text = line + "\n";
    ssize_t written = write(fd, text.data(), text.size());
    (void)written;
    close(fd);
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

void onActivate(GApplication*, gpointer) noexcept { record("activate"); }

void onOpen(GApplication*, GFile** files, gint count, const gchar*, gpointer) noexcept
{
    std::string line = "open";
    for (gint i = 0; i < count; ++i) {
        vt::GCharPtr uri(g_file_get_uri(files[i]));
        line += " ";
        line += uri.get();
    }
    record(line);
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
    std::string started = "started";
    for (int i = 0; i < argc; ++i)
        started += std::string(" ") + argv[i];
    record(started);

    vt::GPtr<GApplication> app = makeMainApplication();
    int status = g_application_run(app.get(), argc, argv);
    helperServer.reset();
    return status;
}
