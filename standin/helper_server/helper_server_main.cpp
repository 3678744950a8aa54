// vt-standin-helper-server: the stand-in helper server on the session bus
// (DBUS_SESSION_BUS_ADDRESS), configured by the VT_STANDIN_* variables that
// HelperServerStandIn.hpp describes. Runs until SIGTERM or SIGINT, or until
// the bus goes away, then gives its name back and exits with status 0.
// SIGUSR1 makes it give its name back and go on running: a server whose name
// is lost. SIGUSR2 makes it stop answering: a server that hangs.
// Exits with status 2 when it cannot start.
#include <csignal>
#include <exception>

#include "base/MainLoop.hpp"
#include "base/glib_glue.hpp"
#include "standin/helper_server/HelperServerStandIn.hpp"

int main()
{
    using namespace vt;
    GPtr<GMainLoop> loop = adopt(g_main_loop_new(nullptr, FALSE));
    auto quit = [&loop] {
        g_main_loop_quit(loop.get());
        return true;
    };
    // Before connecting: a session bus that closes under us raises SIGTERM,
    // and that too should end in a clean exit.
    UnixSignalSource terminate("helper server stand-in: SIGTERM", SIGTERM, quit);
    UnixSignalSource interrupt("helper server stand-in: SIGINT", SIGINT, quit);

    try {
        auto settings = standin::HelperServerSettings::fromEnvironment();
        GErrorHolder error;
        GPtr<GDBusConnection> connection = adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error));
        if (!connection) {
            g_printerr("vt-standin-helper-server: no session bus: %s\n", error.message());
            return 2;
        }
        {
            standin::HelperServerStandIn server(connection.get(), std::move(settings));
            UnixSignalSource lose("helper server stand-in: SIGUSR1", SIGUSR1, [&server] {
                server.releaseName();
                return true;
            });
            UnixSignalSource hang("helper server stand-in: SIGUSR2", SIGUSR2, [&server] {
                server.stopAnswering();
                return true;
            });
            g_main_loop_run(loop.get());
        }
        // Let the name's release reach the bus before we go.
        g_dbus_connection_flush_sync(connection.get(), nullptr, nullptr);
    } catch (const std::exception& e) {
        g_printerr("vt-standin-helper-server: %s\n", e.what());
        return 2;
    }
    return 0;
}
