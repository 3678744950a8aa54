// Start-menu entries of a bottle, such as "Programs/Accessories/Notepad.lnk"
// (either separator), as they lie in the prefix: in the common Start menu
// (drive_c/ProgramData/Microsoft/Windows/Start Menu) and in the user's
// (drive_c/users/<user>/AppData/Roaming/Microsoft/Windows/Start Menu). The
// user is $USER when the prefix has a folder for that name, else each folder
// under drive_c/users but Public, in name order.
//
// Also where a Windows path of the bottle lies on the unix side: a drive
// letter is a link in <prefix>/dosdevices ("c:" -> ../drive_c), and each
// component is found as Windows finds it, in any ASCII case.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vt::product {

// The Start-menu folders of the bottle at `prefix`, in the order they are
// searched: the common one first, where installers put programs for every
// user.
std::vector<std::filesystem::path> startMenuFolders(const std::filesystem::path& prefix);

// The unix path of `entry` in the first of `folders` that holds it. Windows
// names are the same in any case, so a component that is not there as
// written matches a name that differs from it only in ASCII case. An entry
// with "." or ".." components is in no Start menu.
std::optional<std::filesystem::path> findStartMenuEntry(const std::vector<std::filesystem::path>& folders,
                                                        const std::string& entry);

// Every shortcut (".lnk" in any case) below `folders`, by its path there
// with '/' separators ("Programs/Accessories/Notepad.lnk"), sorted. An
// entry that more than one folder holds (names compared in any ASCII case)
// is listed once, as the first folder spells it: that is the one
// findStartMenuEntry() finds.
std::vector<std::string> startMenuEntries(const std::vector<std::filesystem::path>& folders);

// The unix path of the Windows path `windowsPath` ("C:\windows\notepad.exe",
// either separator) in the bottle at `prefix`, when it exists there;
// nothing for a path without a drive letter, a drive the bottle does not
// have, or a file that is not there.
std::optional<std::filesystem::path> unixPathInBottle(const std::filesystem::path& prefix,
                                                      const std::string& windowsPath);

} // namespace vt::product
