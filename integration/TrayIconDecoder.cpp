#include "integration/TrayIconDecoder.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "base/PlatformLog.hpp"

namespace vt {

namespace {

    // The names the messages give the colour spaces; the mask's message
    // names the RGB space too, as it always has.
    constexpr const char* kDeviceRGBColorSpace = "NSDeviceRGBColorSpace";

    // Every masked tray icon is shown at this size, whatever its pixels: the
    // badges of one program keep one size on the tile.
    constexpr int kMaskedIconPoints = 32;

    uint32_t readUInt32(const std::vector<uint8_t>& record, size_t offset)
    {
        uint32_t value = 0;
        std::memcpy(&value, record.data() + offset, sizeof value);
        return value;
    }

    uint64_t bitsIn(size_t bytes) { return bytes > UINT64_MAX / 8 ? UINT64_MAX : uint64_t(bytes) * 8; }

    // The bit just past pixel (x, y) and its samples, or nothing when that
    // does not fit in 64 bits.
    std::optional<uint64_t> pixelEndBit(const BitmapView& view, uint64_t x, uint64_t y)
    {
        uint64_t rowStart = 0, column = 0, end = 0;
        uint64_t pixelBits = std::max<uint64_t>(view.bitsPerPixel, uint64_t(view.samplesPerPixel) * view.bitsPerSample);
        if (__builtin_mul_overflow(y, uint64_t(view.bytesPerRow) * 8, &rowStart)
            || __builtin_mul_overflow(x, uint64_t(view.bitsPerPixel), &column)
            || __builtin_add_overflow(rowStart, column, &end) || __builtin_add_overflow(end, pixelBits, &end))
            return std::nullopt;
        return end;
    }

    GPtr<GdkPixbuf> newPixbuf(uint32_t width, uint32_t height, bool hasAlpha)
    {
        if (width == 0 || height == 0 || width > INT_MAX || height > INT_MAX)
            return nullptr;
        return adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, hasAlpha, 8, int(width), int(height)));
    }

} // namespace

bool BitmapView::isValid() const
{
    if (!data || width == 0 || height == 0 || samplesPerPixel == 0 || bitsPerSample == 0 || bitsPerSample > 32
        || bitsPerPixel == 0)
        return false;
    // The pixel furthest into the bytes is the last one of the last row;
    // rows may overlap (a mask row is width / 8 bytes rounded down), so only
    // where that pixel ends counts.
    auto end = pixelEndBit(*this, width - 1, height - 1);
    return end && *end <= bitsIn(size);
}

uint32_t BitmapView::sample(uint32_t x, uint32_t y, uint32_t index) const
{
    auto end = pixelEndBit(*this, x, y);
    if (!data || !end || index >= samplesPerPixel || bitsPerSample == 0 || bitsPerSample > 32)
        return 0;
    uint64_t pixelBits = std::max<uint64_t>(bitsPerPixel, uint64_t(samplesPerPixel) * bitsPerSample);
    uint64_t bit = *end - pixelBits + uint64_t(index) * bitsPerSample;
    if (bit + bitsPerSample > bitsIn(size))
        return 0;
    if (bitsPerSample == 8 && bit % 8 == 0)
        return data[bit / 8];
    // Most significant bit first: the leftmost pixel of a 1-bit mask byte
    // is its top bit.
    uint32_t value = 0;
    for (uint32_t i = 0; i < bitsPerSample; ++i, ++bit)
        value = (value << 1) | ((data[bit / 8] >> (7 - bit % 8)) & 1u);
    return value;
}

uint32_t trayMaskBytes(uint32_t width, uint32_t height)
{
    return ((width * height + 15) >> 3) & 0x1FFFFFFE;
}

uint32_t trayColourBytes(uint32_t width, uint32_t height, uint32_t planes, uint32_t bpp)
{
    return ((width * height * planes * bpp + 15) >> 3) & 0x1FFFFFFE;
}

std::optional<TrayIcon> iconWithoutMask(const BitmapView& colour)
{
    if (!colour.isValid() || colour.samplesPerPixel < 3)
        return std::nullopt;
    auto pixbuf = newPixbuf(colour.width, colour.height, false);
    if (!pixbuf)
        return std::nullopt;
    guchar* pixels = gdk_pixbuf_get_pixels(pixbuf.get());
    const int stride = gdk_pixbuf_get_rowstride(pixbuf.get());
    for (uint32_t y = 0; y < colour.height; ++y)
        for (uint32_t x = 0; x < colour.width; ++x)
            for (uint32_t i = 0; i < 3; ++i)
                pixels[size_t(y) * stride + size_t(x) * 3 + i] = guchar(colour.sample(x, y, i));
    return TrayIcon { std::move(pixbuf), int(colour.width), int(colour.height) };
}

std::optional<TrayIcon> createIconWithData(std::vector<uint8_t>& record, const TrayLayout& layout)
{
    const size_t header = layout.recordHeaderSize;
    // A record without a single byte of bits is no icon; the sender never
    // means one, so it is not worth a line in the log.
    if (record.size() < header + 1)
        return std::nullopt;

    uint8_t* const start = record.data();
    uint8_t* const end = start + record.size();
    // Cannot fail after the length test above; kept as a second guard
    // should that test ever be loosened.
    if (record.size() <= header - 1) {
        platformLog("createIconWithData:%d: iconData is short: p = %p, end = %p, diff = %d, required = %s = %d\n",
                    744, start, end, int(record.size()), "sizeof(struct notify_data)", int(header));
        return std::nullopt;
    }

    const uint32_t width = readUInt32(record, layout.widthOffset);
    const uint32_t height = readUInt32(record, layout.heightOffset);
    const uint32_t planes = readUInt32(record, layout.planesOffset);
    const uint32_t bpp = readUInt32(record, layout.bppOffset);
    const uint32_t cbMaskBytes = trayMaskBytes(width, height);
    const uint32_t cbColourBytes = trayColourBytes(width, height, planes, bpp);

    uint8_t* const mask = start + header;
    const int64_t afterHeader = int64_t(record.size()) - int64_t(header);
    if (afterHeader < int64_t(cbMaskBytes)) {
        platformLog("createIconWithData:%d: iconData is short: p = %p, end = %p, diff = %d, required = %s = %d\n",
                    751, mask, end, int(afterHeader), "cbMaskBytes", cbMaskBytes);
        return std::nullopt;
    }
    uint8_t* const colour = mask + cbMaskBytes;
    const int64_t afterMask = afterHeader - int64_t(cbMaskBytes);
    if (afterMask < int64_t(cbColourBytes)) {
        platformLog("createIconWithData:%d: iconData is short: p = %p, end = %p, diff = %d, required = %s = %d\n",
                    755, colour, end, int(afterMask), "cbColourBytes", cbColourBytes);
        return std::nullopt;
    }
    if (planes != 1) {
        platformLog("createIconWithData: can't deal with planar data (%d color planes)\n", planes);
        return std::nullopt;
    }
    // 16 bpp is a direct-colour depth, yet it is refused with the rest: the
    // Windows side never sends it, and its bit fields would need decoding of
    // their own.
    if (bpp != 24 && bpp != 32) {
        platformLog("createIconWithData: can't deal with indexed color (%d bits-per-pixel)\n", bpp);
        return std::nullopt;
    }

    // Windows keeps blue first. The exchange runs only over colour data that
    // holds every pixel; sizes that wrapped leave too little, and the colour
    // bitmap below is then refused anyway.
    const uint32_t bytesPerPixel = bpp / 8;
    uint64_t pixelCount = 0, colourNeeded = 0;
    if (!__builtin_mul_overflow(uint64_t(width), uint64_t(height), &pixelCount)
        && !__builtin_mul_overflow(pixelCount, uint64_t(bytesPerPixel), &colourNeeded)
        && colourNeeded <= cbColourBytes) {
        // Rows are unpadded, so the pixels follow one another; counted as
        // pixels, a width of 0 does not spin through billions of empty rows.
        for (uint64_t i = 0; i < pixelCount; ++i) {
            uint8_t* pixel = colour + i * bytesPerPixel;
            std::swap(pixel[0], pixel[2]);
        }
    }

    uint8_t* const colourEnd = colour + cbColourBytes;
    if (colourEnd != end)
        platformLog("createIconWithData: extra data, p = %p, end = %p\n", colourEnd, end);

    // At 32 bpp each pixel's fourth byte is skipped: the alpha comes from the mask.
    BitmapView colourBitmap { colour, cbColourBytes, width, height, 8, 3, (bpp * width) >> 3, bpp };
    if (!colourBitmap.isValid()) {
        platformLog("Failed to create color part:\npixelsWide: %d\npixelsHigh: %d\nbitsPerSample: %d\n"
                    "samplesPerPixel: %d\nhasAlpha: NO\nisPlanar: NO\ncolorSpaceName: %@\nbitmapFormat: %d\n"
                    "bytesPerRow: %d\nbitsPerPixel: %d\n",
                    width, height, 8, 3, kDeviceRGBColorSpace, 0, (bpp * width) >> 3, bpp);
        return std::nullopt;
    }
    // Mask rows are width / 8 bytes, rounded down, as the Windows side packs
    // them; a width that is no multiple of 8 runs each row into the next.
    BitmapView maskBitmap { mask, cbMaskBytes, width, height, 1, 1, width >> 3, 1 };
    if (!maskBitmap.isValid()) {
        platformLog("Failed to create mask part:\npixelsWide: %d\npixelsHigh: %d\nbitsPerSample: %d\n"
                    "samplesPerPixel: %d\nhasAlpha: NO\nisPlanar: NO\ncolorSpaceName: %@\nbitmapFormat: %d\n"
                    "bytesPerRow: %d\nbitsPerPixel: %d\n",
                    width, height, 1, 1, kDeviceRGBColorSpace, 0, width >> 3, 1);
        return std::nullopt;
    }

    if (auto icon = applyMask(maskBitmap, colourBitmap))
        return icon;
    // The image then refers to nothing in the record: the pixels are copied.
    return iconWithoutMask(colourBitmap);
}

std::optional<TrayIcon> applyMask(const BitmapView& mask, const BitmapView& image)
{
    if (image.samplesPerPixel != 3) {
        platformLog("This image doesn't have 3 samples per pixel, which means we don't know what to do with it. "
                    "It has %d.\n",
                    image.samplesPerPixel);
        return std::nullopt;
    }
    if (mask.samplesPerPixel != 1) {
        platformLog("This mask doesn't have 1 sample per pixel, which means we don't know what to do with it. "
                    "It has %d.\n",
                    mask.samplesPerPixel);
        return std::nullopt;
    }
    // Loop only over pixels that are really there.
    if (!image.isValid())
        return std::nullopt;
    auto output = newPixbuf(image.width, image.height, true);
    if (!output)
        return std::nullopt;

    const double maskMax = double((uint64_t(1) << mask.bitsPerSample) - 1);
    const double outMax = 255;
    guchar* pixels = gdk_pixbuf_get_pixels(output.get());
    const int stride = gdk_pixbuf_get_rowstride(output.get());
    for (uint32_t y = 0; y < image.height; ++y) {
        for (uint32_t x = 0; x < image.width; ++x) {
            guchar* out = pixels + size_t(y) * stride + size_t(x) * 4;
            const double m = mask.sample(x, y, 0);
            // Colour is copied as it is, also under a transparent mask bit:
            // the pixels stay unpremultiplied.
            out[0] = guchar(image.sample(x, y, 0));
            out[1] = guchar(image.sample(x, y, 1));
            out[2] = guchar(image.sample(x, y, 2));
            out[3] = guchar(int((1.0 - m / maskMax) * outMax));
        }
    }
    return TrayIcon { std::move(output), kMaskedIconPoints, kMaskedIconPoints };
}

} // namespace vt
