// What start-up learns once and everything after it reads: the bundle's keys
// and the paths of the product's tools. Written only before the first
// opening event, so other threads (a loader connection) may read it without
// a lock.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace vt {

struct LauncherSettings {
    std::optional<std::string> bundleName;      // CFBundleName
    std::optional<std::string> bottleName;      // VTHelperAppBottleName
    std::optional<std::string> menuPath;        // VantorHelperMenuPath
    std::set<std::string> documentExtensions;   // every CFBundleDocumentTypes' CFBundleTypeExtensions
    std::optional<std::string> vantorRoot;      // <main application>/Contents/SharedSupport/Vantor
    std::optional<std::string> vtmenuPath;      // <vantorRoot>/bin/vtmenu
    std::optional<std::string> vtstartPath;     // <vantorRoot>/bin/vtstart
    std::optional<std::string> winePath;        // <vantorRoot>/bin/wine
};

} // namespace vt
