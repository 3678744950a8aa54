// What a tool was asked to do, read from the argument lists the launcher
// sends, and the Wine command lines that do it.
//
//   vtmenu  --bottle B --wait-children --enable-alt-loader macdrv --start ENTRY [FILE...]
//   vtmenu  --bottle B --arch i386|x86_64 --install --filter ENTRY
//   vtstart --bottle B --wait-children --enable-alt-loader macdrv -- FILE...
//   vtstart --bottle B --enable-alt-loader macdrv-- URL
//   wine    --bottle B --wl-app NAME [ARG...]
//   wine    --bottle B ARG...
//
// Nothing else is accepted: a list the launcher never sends is a mistake
// somewhere, and guessing what it meant would start the wrong program.
// "--enable-alt-loader" lets the program be handed over to the launcher,
// to run inside it (the product's loader, product/wine/), while the
// launcher offers its loader socket. "--arch" hands back an entry whose
// program wants the other architecture; Debian's wine64 picks the
// architecture of each program itself, so the entry is simply started
// again.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vt::product {

// An argument list that is not one of the above, or a bad bottle name; the
// text is one line, without the tool's name.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A Start-menu entry that is in none of the bottle's Start menus.
class EntryNotFound : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct ToolRequest {
    enum class Action {
        StartEntry, // vtmenu: `entry`, with `operands` as files to open in it
        OpenDocuments, // vtstart: each of `operands` with the bottle's association
        OpenUrl, // vtstart: `operands` holds the URL
        RunWindowsProgram, // wine --wl-app: `program`.exe of the bundle, `operands` its arguments
        RunWine, // wine: `operands` are Wine's arguments
    };

    std::string bottle;
    Action action = Action::RunWine;
    bool waitForChildren = false;
    bool mayHandOver = false; // --enable-alt-loader
    std::string entry;
    std::string program;
    std::vector<std::string> operands;
};

// The usage line of `role` (vtmenu, vtstart or wine), without the tool's name.
std::string usageOf(const std::string& role);

// Reads the arguments after argv[0]; throws UsageError.
ToolRequest parseToolArguments(const std::string& role, const std::vector<std::string>& arguments);

// One run of Wine: the arguments that follow the loader.
using WineArguments = std::vector<std::string>;

// The Wine runs that carry out `request`, one after another, in the bottle
// whose prefix is `prefix`. `windowsPrograms` is where the bundle's Windows
// programs lie. Throws EntryNotFound (nothing is started then).
std::vector<WineArguments> wineRunsFor(const ToolRequest& request, const std::filesystem::path& prefix,
                                       const std::filesystem::path& windowsPrograms);

// A file as a Windows program sees it through Wine's Z: drive, the root of
// the unix file system: "/home/a/b c.txt" is "Z:\home\a\b c.txt". A relative
// path is taken from the working directory. The bytes of the names are kept
// as they are (UTF-8, never normalised); only separators change.
std::string windowsPathOf(const std::string& unixPath);

} // namespace vt::product
