// A launcher for every program of a bottle: what the product makes for each
// shortcut in the bottle's Start menus (product/common/StartMenu.hpp) whose
// target is a program (".exe") the bottle holds, shortcuts in a StartUp
// folder left out:
//
//   the bundle   <bundles>/<entry>.app, the entry without ".lnk"
//                ($XDG_DATA_HOME/Vantor/Launchers/<bottle>/Programs/
//                Accessories/Notepad.app): Contents/Info.plist, the
//                executable Contents/MacOS/<name>, a link to the installed
//                launcher, and Contents/Resources/AppIcon.png, the icon's
//                largest image;
//   the icon     <icons>/<S>x<S>/apps/<identifier>.png in the hicolor theme,
//                for the sizes up to the largest image's (48 at least);
//   the entry    <applications>/<identifier>.desktop: Exec the bundle's
//                executable with %U, the program's window class (Wine names
//                it after the program's file, in lower case) as
//                StartupWMClass, and the shared-mime-info types of the
//                document types the program opens as MimeType, never made a
//                default (no mimeapps.list is written).
//
// The identifier (CFBundleIdentifier, the single-instance id, and the
// entry's name) is com.tallowmere.Vantor.<bottle>.<entry's folders>.<name>,
// each part with every byte but ASCII letters and digits written as _xx, so
// it is a valid application id that the same shortcut always gets and no
// other shortcut ever does.
//
// An update brings all of it in line with the bottle: files are written
// only where their bytes differ, and the launchers whose shortcut has gone
// are removed with their entry and icons. An update of an unchanged bottle
// changes nothing.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vt::product {

// Where a bottle's launchers go.
struct LauncherPlaces {
    std::filesystem::path bundles; // the bottle's folder of bundles
    std::filesystem::path applications; // desktop entries
    std::filesystem::path icons; // the hicolor theme's folder
    std::filesystem::path launcher; // what the bundles' executables link to

    // Under $XDG_DATA_HOME (default ~/.local/share), for `bottle`.
    static LauncherPlaces forBottle(const std::string& bottle, const std::filesystem::path& launcher);
};

// One program of the bottle, as its shortcut and the registry describe it.
struct ProgramLauncher {
    std::string bottle;
    std::string entry; // "Programs/Accessories/Notepad.lnk"
    std::string name; // "Notepad"
    std::string identifier;
    std::string description; // the shortcut's comment
    std::string program; // the target, a Windows path
    std::string windowClass; // "notepad.exe"
    std::vector<std::string> extensions; // "txt", lower case, sorted
    std::filesystem::path iconFile; // the shortcut's icon location, else the program
    int iconIndex = 0;
};

std::string launcherIdentifier(const std::string& bottle, const std::string& entry);

// The programs of the bottle at `prefix`; each shortcut left out is told to
// `skipped` with why, in one line.
std::vector<ProgramLauncher> programsInBottle(const std::string& bottle, const std::filesystem::path& prefix,
                                              const std::function<void(const std::string&)>& skipped);

// The desktop entry's text for `program`, whose bundle's executable is `executable`.
std::string desktopEntryFor(const ProgramLauncher& program, const std::filesystem::path& executable,
                            bool hasIcon);

struct LauncherChanges {
    std::vector<std::string> made, updated, removed; // names
    bool any() const { return !made.empty() || !updated.empty() || !removed.empty(); }
};

// Makes, updates and removes the launchers of `bottle` so that they are
// those of `programs`. `say` is told each change and each launcher that got
// no icon of its own, in one line, as it happens. Throws
// std::filesystem::filesystem_error when a file cannot be written.
LauncherChanges updateLaunchers(const std::string& bottle, const std::vector<ProgramLauncher>& programs,
                                const LauncherPlaces& places, const std::function<void(const std::string&)>& say);

} // namespace vt::product
