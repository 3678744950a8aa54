// Keeps the launchers of the bottles in line with their Start menus: the
// main application runs the product's command, <root>/bin/vtlaunchers
// --bottle NAME (product/launchers/launchers_main.cpp),
//
//   - for every ready bottle when it starts, for what changed while it was
//     not running;
//   - for a bottle it has just made ready;
//   - after a bottle's Start menus change, a program installed or removed,
//     and after its registry is saved, with the document types an installer
//     named: GIO file monitors on every folder below the menus and on the
//     bottle's folder, no polling. A change waits for a second of quiet
//     first, so that an installer's many writes make one run.
//
// One run per bottle at a time; a change during a run makes one more after
// it. What a run prints goes to the main application's log, a line each.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/MainLoop.hpp"
#include "base/glib_glue.hpp"

namespace vt::product {

class LauncherUpdates {
public:
    // `command` is vtlaunchers.
    explicit LauncherUpdates(std::filesystem::path command);
    // Stops watching. A run under way finishes on its own.
    ~LauncherUpdates();
    LauncherUpdates(const LauncherUpdates&) = delete;
    LauncherUpdates& operator=(const LauncherUpdates&) = delete;

    // Watches and updates every bottle that is ready.
    void watchReadyBottles();
    // Watches `bottle` and updates its launchers now.
    void watch(const std::string& bottle);

private:
    struct Bottle;

    void watchFolders(Bottle& bottle);
    void changed(Bottle& bottle);
    void run(Bottle& bottle);
    static void onMonitorEvent(GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer data) noexcept;
    static void onRunEnded(GObject* process, GAsyncResult* result, gpointer data) noexcept;

    std::filesystem::path m_command;
    GPtr<GCancellable> m_cancellable;
    std::map<std::string, std::unique_ptr<Bottle>> m_bottles;
};

} // namespace vt::product
