// vt-product-tool: the product's tools vtmenu, vtstart and wine over
// Debian's Wine, in one program whose role is the name it is started by (the
// last component of argv[0]). The bundle's bin folder holds the program and
// the three names as links to it; the launcher starts them with the lists in
// ToolCommand.hpp.
//
// Each runs Wine (ProductPaths.hpp: $VT_PRODUCT_WINE, else Debian's wine64)
// in the prefix of the bottle named by --bottle, with the environment it was
// given plus WINEPREFIX (and WINEDEBUG=-all unless set):
//
//   vtmenu --start ENTRY [FILE...]   ENTRY ending in ".exe" (any case) is a
//                     Windows path of a program: `wine ENTRY FILE...`.
//                     Otherwise it is a Start-menu entry (StartMenu.hpp):
//                     `wine start /wait /unix <its .lnk> FILE...`. Files go
//                     as Windows paths on the Z: drive.
//   vtmenu --arch A --install --filter ENTRY
//                     the same start of ENTRY, with no files.
//   vtstart -- FILE...  `wine start /unix FILE` for each: the bottle's own
//                     association opens it.
//   vtstart macdrv-- URL  `wine start URL`.
//   wine --wl-app NAME ARG...  Wine execs <bundle root>/windows/NAME.exe in
//                     place of the tool: same pid, same standard input and
//                     output, which is how the launcher's pipes reach the
//                     window-command tool. When the launcher shows tray
//                     icons (VT_SYSTRAY_SOCKET and VT_WINDOW_TAG are set)
//                     and the bundle has traybridge.exe, a tray forwarder
//                     (TrayForwarder.hpp) is forked first: it runs the
//                     bridge and hands its messages to the launcher until
//                     the Wine that runs NAME has ended.
//   wine ARG...       Wine execs with ARG... in place of the tool.
//
// vtmenu and vtstart with --enable-alt-loader, given the launcher's loader
// socket (VT_APPRUNNER_ALT_LOADER_SOCKET), run the product's own loader
// (<root>/bin/wineloader64, where the bundle has it) with the socket in
// VT_ALT_LOADER_SOCKET: the program is then handed over to the launcher and
// runs inside it (product/wine/wineloader_main.cpp). The socket itself never
// reaches Wine.
//
// vtmenu and vtstart run Wine as their child and exit with its status. With
// --wait-children they also wait for every process that Wine started, down
// to the bottle's Wine server when this run started it: once the tool has
// exited nothing it began is left. SIGTERM, SIGINT and SIGHUP are passed on
// to the running Wine; the tool itself ends nothing.
//
// Exit statuses of a tool that started nothing, with one line on standard
// error: 1 the Start-menu entry is in no Start menu of the bottle, 2 a list
// the launcher never sends or a bad bottle name, 126 Wine cannot be run, 127
// Wine is not installed. Otherwise the status is Wine's (128 + N when Wine
// died of signal N).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "product/common/ProductPaths.hpp"
#include "product/tools/ToolCommand.hpp"
#include "product/tools/TrayForwarder.hpp"
#include "product/tools/WineProcess.hpp"

namespace fs = std::filesystem;
using namespace vt::product;

int main(int argc, char** argv)
{
    keepOnlyStandardDescriptorsAcrossExec();
    std::string role = argc > 0 && argv[0] ? fs::path(argv[0]).filename().string() : "vt-product-tool";
    std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);

    ToolRequest request;
    try {
        request = parseToolArguments(role, arguments);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "%s: %s\n", role.c_str(), error.what());
        return kStatusUsage;
    }

    fs::path prefix = bottlePrefix(request.bottle);
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    std::vector<WineArguments> runs;
    try {
        runs = wineRunsFor(request, prefix, windowsProgramsDirectory(self));
    } catch (const EntryNotFound& notFound) {
        std::fprintf(stderr, "%s: %s\n", role.c_str(), notFound.what());
        return kStatusEntryNotFound;
    }

    auto loader = wineLoader();
    if (!loader) {
        std::fprintf(stderr, "%s: Wine is not installed (no /usr/lib/wine/wine64, no wine64 or wine on the PATH)\n",
                     role.c_str());
        return kStatusNoWine;
    }
    std::vector<std::string> environment = wineEnvironment(prefix);
    // The product's loader hands the program over to the launcher that
    // offers its socket, to run inside it.
    const char* launcherSocket = std::getenv("VT_APPRUNNER_ALT_LOADER_SOCKET");
    if (request.mayHandOver && launcherSocket && *launcherSocket) {
        if (auto own = handOverLoader(self)) {
            loader = own;
            environment.push_back(std::string("VT_ALT_LOADER_SOCKET=") + launcherSocket);
        }
    }
    if (role == "wine") {
        if (request.action == ToolRequest::Action::RunWindowsProgram)
            startTrayForwarder(role, *loader, windowsProgramsDirectory(self), environment);
        return execWine(role, *loader, runs.at(0), environment);
    }
    return runWine(role, *loader, runs, environment, request.waitForChildren);
}
