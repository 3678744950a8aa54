// vtmenu and vtstart as the product's Wine loader in its alternative mode:
// started with "--enable-alt-loader" and VT_APPRUNNER_ALT_LOADER_SOCKET set,
// the loader does not run Wine itself but hands its start over to the
// launcher through that socket (loader/WineLoaderProtocol.hpp), and the
// launcher runs Wine inside its own process.
//
// The request: the loader's own working directory and environment; the
// arguments "" (the launcher's default loader) followed by the tool's own
// after argv[0]; descriptors 0, 1, 2, one end of a socket pair standing for
// the Wine server socket and, with "--wait-children", the write end of a
// pipe as the wait-children pipe. VT_STANDIN_LOADER=other-arch sends the
// other architecture's request type instead of this build's;
// VT_STANDIN_LOADER=none keeps the tool from playing the loader at all, so
// the launcher waits for a loader that never comes.
//
// It records the outcome (a loader record, standin/record/Record.hpp). After
// "proceed" it lets go of everything it handed over; with "--wait-children"
// it then stays until the wait-children pipe ends (the launcher holds its
// write end for as long as it lives) or an end signal comes, without it ends
// at once. After any other outcome it stays as a tool does, until an end
// signal.
#pragma once

#include <string>

#include "standin/tools/ToolSupport.hpp"

namespace vt::standin {

inline constexpr const char* kAltLoaderSocketVariable = "VT_APPRUNNER_ALT_LOADER_SOCKET";

// Whether the tool `role` started with `argv` (NULL-terminated) plays the
// Wine loader: vtmenu or vtstart, "--enable-alt-loader" among its arguments,
// the socket variable set and VT_STANDIN_LOADER not "none".
bool actsAsWineLoader(const std::string& role, char** argv);

[[noreturn]] void handOverToLauncher(const std::string& role, char** argv, const EndSignals& signals);

} // namespace vt::standin
