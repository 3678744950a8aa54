// vtlaunchers: makes a launcher for every program of a bottle.
//
//   vtlaunchers --bottle NAME
//
// Reads the bottle's Start-menu shortcuts and makes or updates, for each
// program, its launcher bundle, its icons and its desktop entry, and removes
// those whose shortcut has gone (BottleLaunchers.hpp). The bundles'
// executables link to the launcher in the product's Wine folder,
// <root>/lib/wine/vtlauncher, where a program can run inside its launcher.
// One line per change and per shortcut left out, then a summary; when
// something changed, the desktop's cache of document types is brought up to
// date (update-desktop-database). Runs of one bottle take turns.
//
// Exit statuses: 0 done (nothing to change included), 1 the bottle is not
// ready or a file could not be written, 2 a wrong argument list or a bad
// bottle name.
#include <cstdio>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "base/glib_glue.hpp"
#include "product/common/ProductPaths.hpp"
#include "product/launchers/BottleLaunchers.hpp"

namespace fs = std::filesystem;
using namespace vt::product;

namespace {
void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

// Another run for the same bottle (the main application's, after an
// install) is waited for rather than raced.
int takeTurn(const fs::path& bundles)
{
    std::error_code error;
    fs::create_directories(bundles.parent_path(), error);
    fs::path lock = bundles.parent_path() / ("." + bundles.filename().string() + ".lock");
    int fd = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0)
        ::flock(fd, LOCK_EX);
    return fd;
}

void updateDesktopDatabase(const fs::path& applications)
{
    const char* argv[] = { "update-desktop-database", "-q", applications.c_str(), nullptr };
    int status = 0;
    vt::GErrorHolder error;
    if (!g_spawn_sync(nullptr, const_cast<char**>(argv), nullptr,
                      GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL), nullptr, nullptr, nullptr,
                      nullptr, &status, error)
        || !g_spawn_check_wait_status(status, nullptr))
        say("the desktop's list of document types is not brought up to date: update-desktop-database "
            + std::string(error ? error.message() : "failed") + " (Debian's desktop-file-utils)");
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 || std::string(argv[1]) != "--bottle") {
        std::fprintf(stderr, "usage: vtlaunchers --bottle NAME\n");
        return 2;
    }
    std::string bottle = argv[2];
    if (auto problem = bottleNameProblem(bottle)) {
        std::fprintf(stderr, "vtlaunchers: %s\n", problem->c_str());
        return 2;
    }
    fs::path prefix = bottlePrefix(bottle);
    if (!prefixIsReady(prefix)) {
        std::fprintf(stderr, "vtlaunchers: the bottle \"%s\" is not ready (%s is not there)\n", bottle.c_str(),
                     (prefix / kReadyMarker).c_str());
        return 1;
    }
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    fs::path launcher = self.parent_path().parent_path() / "lib/wine/vtlauncher";
    if (::access(launcher.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "vtlaunchers: the launcher %s is missing\n", launcher.c_str());
        return 1;
    }

    LauncherPlaces places = LauncherPlaces::forBottle(bottle, launcher);
    int turn = takeTurn(places.bundles);
    try {
        auto leftOut = [](const std::string& why) { say("left out " + why); };
        std::vector<ProgramLauncher> programs = programsInBottle(bottle, prefix, leftOut);
        LauncherChanges changes = updateLaunchers(bottle, programs, places, say);
        if (changes.any())
            updateDesktopDatabase(places.applications);
        say("bottle \"" + bottle + "\": " + std::to_string(programs.size()) + " launcher"
            + (programs.size() == 1 ? "" : "s") + ", "
            + (changes.any() ? std::to_string(changes.made.size()) + " made, " + std::to_string(changes.updated.size())
                       + " updated, " + std::to_string(changes.removed.size()) + " removed"
                             : std::string("nothing changed")));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vtlaunchers: %s\n", e.what());
        if (turn >= 0)
            ::close(turn);
        return 1;
    }
    if (turn >= 0)
        ::close(turn);
    return 0;
}
