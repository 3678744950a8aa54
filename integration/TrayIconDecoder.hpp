// Decoding a tray record: the header of a Windows notification-area icon and
// the icon's bits as Windows keeps them, a 1-bit AND mask followed by a
// 24- or 32-bpp colour bitmap, top row first, blue-green-red. The result is an
// RGBA image with alpha from the mask, shown at 32 x 32 points.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "integration/TrayLayout.hpp"
#include "shell/Pixbuf.hpp"

namespace vt {

// A decoded tray icon: its pixels and the size it is drawn at, in points
// (one point is one pixel of the 128-pixel tile).
struct TrayIcon {
    GPtr<GdkPixbuf> pixbuf;
    int width = 0;  // points
    int height = 0; // points
};

// A bitmap over bytes that someone else keeps, with the geometry its sender
// declared: samples are read as unsigned integers, never past `size`.
struct BitmapView {
    const uint8_t* data = nullptr;
    size_t size = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bitsPerSample = 8;
    uint32_t samplesPerPixel = 3;
    uint32_t bytesPerRow = 0;
    uint32_t bitsPerPixel = 24;

    // Whether every pixel of the declared geometry lies inside the bytes
    // (and the geometry is not empty): a bitmap that cannot be made otherwise.
    bool isValid() const;
    // Sample `index` of the pixel at (x, y).
    uint32_t sample(uint32_t x, uint32_t y, uint32_t index) const;
};

// The record's two bit areas, in bytes, by the rule the Windows side sends
// them: the whole area's bit count rounded up to 16 bits, in unsigned 32-bit
// arithmetic that wraps.
uint32_t trayMaskBytes(uint32_t width, uint32_t height);
uint32_t trayColourBytes(uint32_t width, uint32_t height, uint32_t planes, uint32_t bpp);

// The icon of a tray record, or nothing (logged, but for a record shorter
// than a header and a byte) when the record is refused. Exchanges blue and
// red in `record` in place.
std::optional<TrayIcon> createIconWithData(std::vector<uint8_t>& record, const TrayLayout& layout = kNativeTrayLayout);

// The colour bitmap alone, without transparency, at its pixel size in
// points: what a tray icon looks like when its mask cannot be applied. The
// image owns a copy of the pixels. Nothing when the bitmap is not valid.
std::optional<TrayIcon> iconWithoutMask(const BitmapView& colour);

// The colour bitmap with alpha from the mask (a set bit is transparent), at
// 32 x 32 points; nothing (logged) when either has an unexpected number of
// samples per pixel.
std::optional<TrayIcon> applyMask(const BitmapView& mask, const BitmapView& image);

} // namespace vt
