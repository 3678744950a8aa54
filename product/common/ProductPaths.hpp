// Where the product over Debian's Wine keeps things, shared by its main
// application (the helper server), its tools and their tests.
//
//   bottles      $XDG_DATA_HOME/Vantor/Bottles/<bottle> (XDG_DATA_HOME
//                defaults to ~/.local/share): each bottle is a Wine prefix.
//   ready        a prefix is ready once <prefix>/.vt-bottle-ready exists,
//                written after `wineboot --init` has finished well; Wine's
//                own system.reg appears long before the prefix is usable.
//   Wine         $VT_PRODUCT_WINE when set (tests point it at a fake), else
//                /usr/lib/wine/wine64 (Debian's wine64), else wine64 or wine
//                on the PATH; wineserver lies next to it.
//   hand-over    <root>/bin/wineloader64, the product's loader over Debian's
//                Wine (product/wine/), made only where the launcher can host Wine.
//   programs     the product's Windows programs (sendwndcmd.exe) in
//                <root>/windows, where <root> is the folder above the tools'
//                bin folder: <bundle>/Contents/SharedSupport/Vantor.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vt::product {

// A bottle's name is one path component of printable characters: not empty,
// no '/', not "." or "..", at most 255 bytes. Answers why not, or nothing.
std::optional<std::string> bottleNameProblem(const std::string& bottle);

std::filesystem::path bottlesDirectory();
// Throws std::invalid_argument with bottleNameProblem()'s text for a bad name.
std::filesystem::path bottlePrefix(const std::string& bottle);

inline constexpr const char* kReadyMarker = ".vt-bottle-ready";
bool prefixIsReady(const std::filesystem::path& prefix);

// The Wine loader to run programs with; nothing when Wine is not installed.
std::optional<std::filesystem::path> wineLoader();
// The product's own loader, which can hand a program over to its launcher
// (<root>/bin/wineloader64 for a tool at <root>/bin/<tool>), when the
// bundle has one and the tools run the real Wine (not $VT_PRODUCT_WINE).
std::optional<std::filesystem::path> handOverLoader(const std::filesystem::path& tool);

// wineserver beside `loader` (Debian: /usr/lib/wine/wineserver), else the PATH's.
std::filesystem::path wineServer(const std::filesystem::path& loader);

// <root>/windows for a tool installed as <root>/bin/<tool>; `tool` is the
// tool's real path (/proc/self/exe).
std::filesystem::path windowsProgramsDirectory(const std::filesystem::path& tool);

} // namespace vt::product
