// The tray icon decoder and the icon list: createIconWithData on records of
// either layout, and a TrayIconList taking adds, modifies and deletes, the
// tile painted after each.
//
// An input is one byte whose lowest bit picks the 32-bit layout, then
// operations: one byte (its value modulo 4: add, modify, delete, or the
// decoder alone), a 16-bit little-endian length and that many bytes of
// tray record (fewer at the end of the input).
//
// Checks, from the record format's description: a record that holds its
// header, mask and colour bits, one plane at 24 or 32 bits per pixel and
// at most 256 pixels a side is decoded, pixel for pixel (colour from the
// bits, alpha from the mask); whatever is decoded has the record's size and
// its header's sound values. The list holds the icons a simple model of add,
// modify and delete says it holds, in its order; every tile is the tile's
// size.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "fuzz/FuzzSupport.hpp"
#include "integration/TrayIconDecoder.hpp"
#include "integration/TrayIconList.hpp"

using namespace vt;

namespace {

struct Header {
    int32_t hwnd = 0, id = 0;
    uint32_t width = 0, height = 0, planes = 0, bpp = 0;
};

std::optional<Header> headerOf(const std::vector<uint8_t>& record, const TrayLayout& layout)
{
    if (record.size() < layout.recordHeaderSize)
        return std::nullopt;
    auto read = [&](auto& field, size_t offset) { std::memcpy(&field, record.data() + offset, sizeof field); };
    Header header;
    read(header.hwnd, layout.hwndOffset);
    read(header.id, layout.idOffset);
    read(header.width, layout.widthOffset);
    read(header.height, layout.heightOffset);
    read(header.planes, layout.planesOffset);
    read(header.bpp, layout.bppOffset);
    return header;
}

// The decoder on a copy of `record` (it exchanges colour bytes in place).
std::optional<TrayIcon> decodeAndCheck(const std::vector<uint8_t>& record, const TrayLayout& layout)
{
    std::vector<uint8_t> copy = record;
    std::optional<TrayIcon> icon = createIconWithData(copy, layout);
    std::optional<Header> header = headerOf(record, layout);
    if (!header) {
        VT_FUZZ_CHECK(!icon);
        return icon;
    }
    const uint64_t w = header->width, h = header->height;
    const uint64_t maskBytes = ((w * h + 15) >> 3) & ~uint64_t { 1 };
    const uint64_t colourBytes = ((w * h * header->bpp + 15) >> 3) & ~uint64_t { 1 };
    const bool wellFormed = w >= 1 && w <= 256 && h >= 1 && h <= 256 && header->planes == 1
        && (header->bpp == 24 || header->bpp == 32) && record.size() >= layout.recordHeaderSize + maskBytes + colourBytes;
    if (!icon) {
        VT_FUZZ_CHECK(!wellFormed);
        return icon;
    }
    VT_FUZZ_CHECK(header->planes == 1 && (header->bpp == 24 || header->bpp == 32));
    GdkPixbuf* pixbuf = icon->pixbuf.get();
    VT_FUZZ_CHECK(pixbuf && icon->width > 0 && icon->height > 0);
    VT_FUZZ_CHECK(uint64_t(gdk_pixbuf_get_width(pixbuf)) == w && uint64_t(gdk_pixbuf_get_height(pixbuf)) == h);
    if (!wellFormed)
        return icon;

    // Every pixel as the format defines it: blue, green, red in the colour
    // bits, rows unpadded; a set mask bit (rows of width / 8 bytes, the
    // leftmost pixel in the top bit) is transparent.
    VT_FUZZ_CHECK(gdk_pixbuf_get_has_alpha(pixbuf) && icon->width == 32 && icon->height == 32);
    const uint8_t* mask = record.data() + layout.recordHeaderSize;
    const uint8_t* colour = mask + maskBytes;
    const guchar* pixels = gdk_pixbuf_get_pixels(pixbuf);
    const int stride = gdk_pixbuf_get_rowstride(pixbuf);
    for (uint64_t y = 0; y < h; ++y) {
        for (uint64_t x = 0; x < w; ++x) {
            const uint64_t bit = y * (w >> 3) * 8 + x;
            const bool transparent = (mask[bit / 8] >> (7 - bit % 8)) & 1;
            const uint8_t* in = colour + (y * w + x) * (header->bpp / 8);
            const guchar* out = pixels + y * stride + x * 4;
            VT_FUZZ_CHECK(out[0] == in[2] && out[1] == in[1] && out[2] == in[0]);
            VT_FUZZ_CHECK(out[3] == (transparent ? 0 : 255));
        }
    }
    return icon;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const GPtr<GdkPixbuf> baseIcon = genericApplicationIcon();
    fuzz::Input input(data, size);
    const TrayLayout& layout = input.byte() & 1 ? kTrayLayout32 : kTrayLayout64;

    int tiles = 0;
    TrayIconList list(addRef(baseIcon.get()), [&](const GdkPixbuf& tile) {
        VT_FUZZ_CHECK(gdk_pixbuf_get_width(&tile) == kTileSize && gdk_pixbuf_get_height(&tile) == kTileSize);
        VT_FUZZ_CHECK(gdk_pixbuf_get_n_channels(&tile) == 4);
        ++tiles;
    }, layout);
    // The icons the list must hold, by identity, in its order.
    std::vector<std::pair<int32_t, int32_t>> model;
    int painted = 0;

    while (!input.empty()) {
        const int operation = input.byte() % 4;
        const size_t length = input.u16();
        std::string_view bytes = input.bytes(length);
        std::vector<uint8_t> record(bytes.begin(), bytes.end());
        std::optional<Header> header = headerOf(record, layout);
        auto identity = header ? std::pair { header->id, header->hwnd } : std::pair { 0, 0 };
        auto found = std::find(model.rbegin(), model.rend(), identity);

        switch (operation) {
        case 0: {
            const bool decodes = decodeAndCheck(record, layout).has_value();
            list.addIconWithData(record);
            if (decodes && found == model.rend())
                model.push_back(identity);
            break;
        }
        case 1:
            decodeAndCheck(record, layout);
            list.modifyIconWithData(record);
            break;
        case 2: {
            // Only the identity is read, however short the rest.
            const size_t needed = std::max(layout.hwndOffset, layout.idOffset) + sizeof(int32_t);
            if (record.size() >= needed) {
                std::memcpy(&identity.first, record.data() + layout.idOffset, sizeof(int32_t));
                std::memcpy(&identity.second, record.data() + layout.hwndOffset, sizeof(int32_t));
                auto match = std::find(model.rbegin(), model.rend(), identity);
                if (match != model.rend())
                    model.erase(std::prev(match.base()));
            }
            list.deleteIconWithData(record);
            break;
        }
        case 3:
            decodeAndCheck(record, layout);
            continue;
        }
        // Painted at the end of the main loop's turn; this one has no loop.
        list.updateBadges();
        list.flushPendingRepaint();
        VT_FUZZ_CHECK(tiles == ++painted);

        const auto& icons = list.iconList();
        VT_FUZZ_CHECK(icons.size() == model.size());
        for (size_t i = 0; i < icons.size(); ++i) {
            VT_FUZZ_CHECK(icons[i].id == model[i].first && icons[i].hwnd == model[i].second);
            VT_FUZZ_CHECK(icons[i].icon.pixbuf && icons[i].icon.width > 0 && icons[i].icon.height > 0);
        }
    }
    return 0;
}
