#include "product/main_app/LauncherUpdates.hpp"

#include <chrono>
#include <cstring>
#include <sstream>

#include "base/PlatformLog.hpp"
#include "product/common/ProductPaths.hpp"
#include "product/common/StartMenu.hpp"

namespace vt {
VT_GOBJECT_TRAITS(GFileMonitor)
} // namespace vt

namespace vt::product {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {
    // How long a Start menu must stay unchanged before its launchers are
    // brought in line: an installer writes its shortcuts one by one.
    constexpr auto kQuiet = 1000ms;
} // namespace

struct LauncherUpdates::Bottle {
    LauncherUpdates* owner = nullptr;
    std::string name;
    std::vector<GPtr<GFileMonitor>> monitors;
    TimeoutSource quiet;
    bool running = false;
    bool again = false;
};

LauncherUpdates::LauncherUpdates(fs::path command)
    : m_command(std::move(command)), m_cancellable(adopt(g_cancellable_new()))
{
}

LauncherUpdates::~LauncherUpdates()
{
    g_cancellable_cancel(m_cancellable.get());
    for (auto& [name, bottle] : m_bottles)
        for (auto& monitor : bottle->monitors)
            g_signal_handlers_disconnect_by_data(monitor.get(), bottle.get());
}

void LauncherUpdates::watchReadyBottles()
{
    std::error_code error;
    for (const auto& item : fs::directory_iterator(bottlesDirectory(), error)) {
        std::string name = item.path().filename().string();
        if (!bottleNameProblem(name) && prefixIsReady(item.path()))
            watch(name);
    }
}

void LauncherUpdates::watch(const std::string& name)
{
    auto& slot = m_bottles[name];
    if (!slot) {
        slot = std::make_unique<Bottle>();
        slot->owner = this;
        slot->name = name;
    }
    watchFolders(*slot);
    run(*slot);
}

void LauncherUpdates::watchFolders(Bottle& bottle)
{
    for (auto& monitor : bottle.monitors)
        g_signal_handlers_disconnect_by_data(monitor.get(), &bottle);
    bottle.monitors.clear();
    // Each folder of the Start menus: a monitor sees its own entries only.
    std::vector<fs::path> folders;
    for (const fs::path& menu : startMenuFolders(bottlePrefix(bottle.name))) {
        std::error_code error;
        if (!fs::is_directory(menu, error))
            continue;
        folders.push_back(menu);
        for (auto item = fs::recursive_directory_iterator(menu, error); !error && item != fs::end(item);
             item.increment(error)) {
            std::error_code typeError;
            if (item->is_directory(typeError) && !item->is_symlink(typeError))
                folders.push_back(item->path());
        }
    }
    // The bottle's folder too, for its registry: Wine's server saves it
    // (system.reg, user.reg) some time after an installer has named its
    // document types, and only then can they be read.
    folders.push_back(bottlePrefix(bottle.name));
    for (const fs::path& folder : folders) {
        GPtr<GFile> file = adopt(g_file_new_for_path(folder.c_str()));
        GErrorHolder error;
        GPtr<GFileMonitor> monitor = adopt(
            g_file_monitor_directory(file.get(), G_FILE_MONITOR_WATCH_MOVES, m_cancellable.get(), error));
        if (!monitor) {
            platformLog("launchers of bottle \"%@\": %@ is not watched: %@", bottle.name, folder, error.message());
            continue;
        }
        g_signal_connect(monitor.get(), "changed", G_CALLBACK(onMonitorEvent), &bottle);
        bottle.monitors.push_back(std::move(monitor));
    }
}

void LauncherUpdates::onMonitorEvent(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent event,
                                      gpointer data) noexcept
{
    // Attribute changes and the end of a burst of writes to a file already
    // seen change no shortcut.
    if (event == G_FILE_MONITOR_EVENT_ATTRIBUTE_CHANGED || event == G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT)
        return;
    auto& bottle = *static_cast<Bottle*>(data);
    // In the bottle's own folder only its registry counts: the server writes
    // it to a new file and renames that over the old one.
    auto isRegistry = [](GFile* changed) {
        GCharPtr name(changed ? g_file_get_basename(changed) : nullptr);
        return name && (std::strcmp(name.get(), "system.reg") == 0 || std::strcmp(name.get(), "user.reg") == 0);
    };
    GPtr<GFile> parent = adopt(file ? g_file_get_parent(file) : nullptr);
    GCharPtr folder(parent ? g_file_get_path(parent.get()) : nullptr);
    if (folder && bottlePrefix(bottle.name) == folder.get() && !isRegistry(file) && !isRegistry(other))
        return;
    try {
        bottle.owner->changed(bottle);
    } catch (const std::exception& e) {
        platformLog("launchers of bottle \"%@\": %@", bottle.name, e.what());
    }
}

void LauncherUpdates::changed(Bottle& bottle)
{
    bottle.quiet = TimeoutSource("launchers: Start menu quiet", kQuiet, [this, &bottle] {
        // New folders (a program's own) are watched from now on; the run
        // reads the menus after that, so nothing falls between.
        watchFolders(bottle);
        run(bottle);
        return false;
    });
}

void LauncherUpdates::run(Bottle& bottle)
{
    if (bottle.running) {
        bottle.again = true;
        return;
    }
    const char* argv[] = { m_command.c_str(), "--bottle", bottle.name.c_str(), nullptr };
    GErrorHolder error;
    GPtr<GSubprocess> process = adopt(g_subprocess_newv(
        argv, GSubprocessFlags(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_MERGE), error));
    if (!process) {
        platformLog("launchers of bottle \"%@\": %@ cannot run: %@", bottle.name, m_command, error.message());
        return;
    }
    bottle.running = true;
    bottle.again = false;
    // The process goes with the call; its output and end come together.
    g_subprocess_communicate_utf8_async(process.get(), nullptr, m_cancellable.get(), onRunEnded, &bottle);
}

void LauncherUpdates::onRunEnded(GObject* object, GAsyncResult* result, gpointer data) noexcept
{
    GSubprocess* process = G_SUBPROCESS(object);
    char* out = nullptr;
    GErrorHolder error;
    bool read = g_subprocess_communicate_utf8_finish(process, result, &out, nullptr, error);
    GCharPtr output(out);
    if (error.matches(G_IO_ERROR, G_IO_ERROR_CANCELLED))
        return;
    auto& bottle = *static_cast<Bottle*>(data);
    try {
        std::istringstream lines(output ? output.get() : "");
        for (std::string line; std::getline(lines, line);)
            platformLog("launchers of bottle \"%@\": %@", bottle.name, line);
        if (!read)
            platformLog("launchers of bottle \"%@\": %@", bottle.name, error.message());
        else if (!g_subprocess_get_if_exited(process))
            platformLog("launchers of bottle \"%@\": vtlaunchers was killed", bottle.name);
        else if (g_subprocess_get_exit_status(process) != 0)
            platformLog("launchers of bottle \"%@\": vtlaunchers ended with status %d", bottle.name,
                        g_subprocess_get_exit_status(process));
        bottle.running = false;
        if (bottle.again)
            bottle.owner->run(bottle);
    } catch (const std::exception& e) {
        platformLog("launchers of bottle \"%@\": %@", bottle.name, e.what());
    }
}

} // namespace vt::product
