// Vantor, the product's main application: the GApplication
// com.tallowmere.Vantor that the launcher finds on the session bus, and the
// host of the helper server (com.tallowmere.Vantor.HelperServer) on the same
// connection.
//
// It keeps the launchers of the bottles in line with their Start menus
// (LauncherUpdates.hpp), with the product's vtlaunchers beside the tools
// (<bundle>/Contents/SharedSupport/Vantor/bin).
//
// It stays up, with nothing to show, until SIGTERM, SIGINT or SIGHUP, or
// until its session bus goes away (GIO's shared connection raises SIGTERM as
// it closes); then it gives its names back and exits with status 0. Started
// again while it runs, the new copy hands its request (activation, or the
// files and URLs it was given) to the running one and exits with status 0.
// Each activation and each open request is one line on standard error.
// Exits with status 1 when it cannot register on a session bus.
#include <csignal>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/MainLoop.hpp"
#include "base/PlatformLog.hpp"
#include "base/glib_glue.hpp"
#include "product/helper_server/HelperServer.hpp"
#include "product/main_app/LauncherUpdates.hpp"
#include "source/VantorNames.hpp"

namespace {

class MainApplication {
public:
    MainApplication()
        : m_app(vt::adopt(g_application_new(vt::kVantorBundleIdentifier, G_APPLICATION_HANDLES_OPEN)))
    {
        g_signal_connect(m_app.get(), "startup", G_CALLBACK(onStartup), this);
        g_signal_connect(m_app.get(), "activate", G_CALLBACK(onActivate), this);
        g_signal_connect(m_app.get(), "open", G_CALLBACK(onOpen), this);
        // Before registering: a bus that closes under us raises SIGTERM, and
        // that too must end in a clean exit.
        for (int signalNumber : { SIGTERM, SIGINT, SIGHUP })
            m_quitSignals.emplace_back("main application: quit signal", signalNumber, [this] {
                g_application_quit(m_app.get());
                return true;
            });
    }

    int run(int argc, char** argv)
    {
        // Without a session bus it would run as a local instance that nobody
        // can find: no launcher could use it, so it does not start at all.
        vt::GErrorHolder error;
        if (!g_application_register(m_app.get(), nullptr, error) || !g_application_get_dbus_connection(m_app.get())) {
            vt::platformLog("cannot register %@ on the session bus: %@", vt::kVantorBundleIdentifier,
                            error ? error.message() : "there is no session bus to reach");
            return 1;
        }
        int status = g_application_run(m_app.get(), argc, argv);
        // The helper server's name goes before the application's.
        m_helperServer.reset();
        m_launchers.reset();
        return status;
    }

private:
    static void onStartup(GApplication* app, gpointer data) noexcept
    {
        // Nothing to show, so nothing would keep it running otherwise.
        g_application_hold(app);
        // A start without a bus ends in run() before anyone could ask.
        GDBusConnection* bus = g_application_get_dbus_connection(app);
        if (!bus)
            return;
        auto& self = *static_cast<MainApplication*>(data);
        try {
            std::error_code error;
            std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
            self.m_launchers = std::make_unique<vt::product::LauncherUpdates>(
                executable.parent_path().parent_path() / "SharedSupport/Vantor/bin/vtlaunchers");
            self.m_helperServer = std::make_unique<vt::product::HelperServer>(
                bus, [&self](const std::string& bottle) { self.m_launchers->watch(bottle); });
            self.m_launchers->watchReadyBottles();
        } catch (const std::exception& e) {
            vt::platformLog("cannot serve the helper server: %@", e.what());
        }
    }

    static void onActivate(GApplication*, gpointer) noexcept
    {
        try {
            vt::platformLog("activate");
        } catch (...) {
        }
    }

    static void onOpen(GApplication*, GFile** files, gint count, const gchar*, gpointer) noexcept
    {
        try {
            std::string uris;
            for (gint i = 0; i < count; ++i)
                uris += std::string(" ") + vt::GCharPtr(g_file_get_uri(files[i])).get();
            vt::platformLog("open%@", uris);
        } catch (...) {
        }
    }

    vt::GPtr<GApplication> m_app;
    std::vector<vt::UnixSignalSource> m_quitSignals;
    std::unique_ptr<vt::product::LauncherUpdates> m_launchers;
    std::unique_ptr<vt::product::HelperServer> m_helperServer;
};

} // namespace

int main(int argc, char** argv)
{
    try {
        MainApplication application;
        return application.run(argc, argv);
    } catch (const std::exception& e) {
        vt::platformLog("cannot start: %@", e.what());
        return 1;
    }
}
