// How a Windows program's tray icons under Debian's Wine reach the launcher.
// The bundle's traybridge.exe, running in the bottle, takes the icons that
// the bottle's programs put in the tray and writes each change of one to its
// standard output as one of the launcher's tray messages; the tray
// forwarder, a process of the `wine` tool that starts the window-command
// tool, hands each message on to the launcher's tray socket
// (VT_SYSTRAY_SOCKET).
//
// A tray message, as the bridge writes it and the launcher reads it, in
// little-endian order: code (4 bytes, always 74), operation (8 bytes: 0 add,
// 1 modify, 2 delete), payload length N (4 bytes), then N bytes of tray
// record. The forwarder only cuts the stream into messages; what a record
// says is the launcher's business. The launcher reads one message per
// connection, so each goes on a connection of its own, in the order the
// bridge wrote them.
//
// The forwarder lives as long as the window-command tool, which the launcher
// keeps for the whole session. It starts the bridge as
//
//   <wine> <windows>/traybridge.exe -t <VT_WINDOW_TAG>
//
// with the environment the tool gives Wine, less the variables that make a
// process the program's: the window-command tool takes every process with
// the tag for the program's, and would end the bridge's window with it. The
// bridge ends at the end of its standard input, which the forwarder closes
// when the window-command tool has ended.
//
// It has no say over the session: whatever goes wrong costs the tray icons
// and one line on standard error, never the program or the tool's status.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vt::product {

inline constexpr uint32_t kTrayMessageCode = 74;
inline constexpr size_t kTrayMessageHeaderSize = 4 + 8 + 4;
// The largest record the launcher takes: its header and the bits of a
// 256 x 256, 32-bpp icon with its mask. A longer one means the bridge is
// not speaking this protocol.
inline constexpr uint32_t kTrayPayloadLimit = 984 + 256 * 256 / 8 + 256 * 256 * 4;

// Called by the `wine` tool just before it becomes the Wine that runs
// `wine --wl-app NAME`: when the launcher asked for tray icons (both
// VT_SYSTRAY_SOCKET and VT_WINDOW_TAG are set) and `windowsPrograms` holds
// traybridge.exe, forks the forwarder and returns once it runs on its own.
// The tool keeps its pid, descriptors and signal handling, and nothing it
// waits for is added. `environment` is the one the tool gives Wine.
void startTrayForwarder(const std::string& role, const std::filesystem::path& loader,
                        const std::filesystem::path& windowsPrograms, const std::vector<std::string>& environment);

} // namespace vt::product
