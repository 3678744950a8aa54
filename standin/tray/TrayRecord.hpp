// The Wine side's half of the launch-notify socket, for the stand-in product:
// tray records and tray messages as the Windows side's tray writes them, and
// sending one message over one connection.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "integration/TrayLayout.hpp"

namespace vt::standin {

// A Windows tray icon's picture: colours as 0xRRGGBB, one per pixel, top row
// first; a pixel marked transparent has its AND-mask bit set.
struct TrayPicture {
    uint32_t width = 16;
    uint32_t height = 16;
    uint32_t bpp = 32;
    uint32_t planes = 1;
    std::vector<uint32_t> colours;
    std::vector<bool> transparent;
};

// A `size` x `size` picture of one colour, every pixel opaque.
TrayPicture solidPicture(uint32_t size, uint32_t rgb, uint32_t bpp = 32);

// Which pixels of a picture are see-through: none, all, every other one (a
// checkerboard, the top-left pixel opaque), or all but a ring (the pixels
// whose centres lie between a quarter and a half of the width from the
// picture's centre).
enum class TrayMask { Opaque, Transparent, Checker, Ring };
void setTrayMask(TrayPicture& picture, TrayMask mask);

// Mask bits as the Windows side packs them: rows of width / 8 bytes (rounded
// down), leftmost pixel in the most significant bit, the whole area rounded
// up to 16 bits.
std::vector<uint8_t> trayMaskBits(const TrayPicture& picture);
// Colour bits: blue, green, red (and a fourth byte, 0, at 32 bpp) per pixel,
// rows unpadded, top row first.
std::vector<uint8_t> trayColourBits(const TrayPicture& picture);

// A tray record: the header of `layout` (hwnd, id, callback message and the
// picture's geometry in their places, the rest zero), then the mask and the
// colour bits.
std::vector<uint8_t> trayRecord(const TrayLayout& layout, int32_t hwnd, int32_t id, int32_t callbackMessage,
                                const TrayPicture& picture);

// A tray message: code, operation (the layout's width), payload length, payload.
std::vector<uint8_t> trayMessage(const TrayLayout& layout, uint64_t operation, const std::vector<uint8_t>& payload,
                                 uint32_t code = kTrayMessageCode);

// Connects to the socket at `path`, writes `bytes` and closes: one message.
// False when it cannot connect or write.
bool sendTrayBytes(const std::string& path, const std::vector<uint8_t>& bytes);

} // namespace vt::standin
