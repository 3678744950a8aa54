// Tray records turned into images: the sizes of the bit areas, the pixels
// and alpha that come out, and every refusal with the line it logs, in both
// record layouts.
#include <cstring>
#include <regex>
#include <tuple>

#include <gtest/gtest.h>

#include "integration/TrayIconDecoder.hpp"
#include "standin/kit/TestSupport.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace vt;
using standin::solidPicture;
using standin::trayRecord;

namespace {

const TrayLayout* const kLayouts[] = { &kTrayLayout64, &kTrayLayout32 };

// The messages in captured log lines, without the lines' date, time and
// process, and with the pointers into `record` written "<+offset>".
std::string loggedMessages(const std::string& text, const uint8_t* record = nullptr)
{
    static const std::regex prefix(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} vtlauncher_tests\[\d+\] )");
    static const std::regex pointer("0x[0-9a-f]+");
    std::string messages = std::regex_replace(text, prefix, ""), result;
    std::smatch match;
    while (std::regex_search(messages, match, pointer)) {
        auto offset = std::stoull(match.str(), nullptr, 16) - reinterpret_cast<uintptr_t>(record);
        result += match.prefix().str() + "<+" + std::to_string(offset) + ">";
        messages = match.suffix().str();
    }
    return result + messages;
}

// The samples of pixel (x, y) of an 8-bit pixbuf.
std::vector<int> pixel(const GdkPixbuf* pixbuf, int x, int y)
{
    const guchar* p = gdk_pixbuf_read_pixels(pixbuf) + y * gdk_pixbuf_get_rowstride(pixbuf)
        + x * gdk_pixbuf_get_n_channels(pixbuf);
    return std::vector<int>(p, p + gdk_pixbuf_get_n_channels(pixbuf));
}

// A picture whose every pixel has its own colour.
standin::TrayPicture patternPicture(uint32_t size, uint32_t bpp)
{
    auto picture = solidPicture(size, 0, bpp);
    for (uint32_t y = 0; y < size; ++y)
        for (uint32_t x = 0; x < size; ++x)
            picture.colours[y * size + x] = (x * 8) << 16 | (y * 8) << 8 | (x + y + 1);
    return picture;
}

// A record with its geometry fields overwritten, and `tail` bytes after the header.
std::vector<uint8_t> headerWith(const TrayLayout& layout, uint32_t width, uint32_t height, uint32_t planes,
                                uint32_t bpp, size_t tail)
{
    std::vector<uint8_t> record(layout.recordHeaderSize + tail, 0);
    for (auto [offset, value] : { std::pair { layout.widthOffset, width }, { layout.heightOffset, height },
                                  { layout.planesOffset, planes }, { layout.bppOffset, bpp } })
        std::memcpy(record.data() + offset, &value, sizeof value);
    return record;
}

} // namespace

TEST(TrayRecordSizes, RoundTheWholeAreaTo16BitsAndWrapAt32Bits)
{
    EXPECT_EQ(trayMaskBytes(16, 16), 32u);
    EXPECT_EQ(trayColourBytes(16, 16, 1, 32), 1024u);
    EXPECT_EQ(trayMaskBytes(32, 32), 128u);
    EXPECT_EQ(trayColourBytes(32, 32, 1, 24), 3072u);
    EXPECT_EQ(trayMaskBytes(20, 20), 50u) << "rounded over the whole mask, not per row";
    EXPECT_EQ(trayMaskBytes(65536, 65536), 0u);
    EXPECT_EQ(trayColourBytes(65536, 65536, 1, 32), 0u);
    EXPECT_EQ(trayColourBytes(16384, 16384, 1, 32), 0u);
}

TEST(TrayIconDecoding, GivesUnpremultipliedRGBAWithAlphaFromTheMaskInBothLayouts)
{
    for (const TrayLayout* layout : kLayouts) {
        // 16 x 16 at 32 bpp with a patterned mask; 32 x 32 at 24 bpp with every mask bit set.
        for (auto [size, bpp, bits] : { std::tuple { 16u, 32u, 32u + 1024 }, { 32u, 24u, 128u + 3072 } }) {
            SCOPED_TRACE(std::string(layout->name) + ", " + std::to_string(bpp) + " bpp");
            auto picture = patternPicture(size, bpp);
            for (size_t i = 0; i < picture.transparent.size(); ++i)
                picture.transparent[i] = size == 32 || i % 3 == 0 || i % 7 == 0;
            picture.colours[0] = 0x0A141E; // transparent
            auto record = trayRecord(*layout, 1, 2, 3, picture);
            ASSERT_EQ(record.size(), layout->recordHeaderSize + bits);
            const auto colour = record.begin() + layout->recordHeaderSize + trayMaskBytes(size, size);
            ASSERT_EQ(std::vector<int>(colour, colour + 3), (std::vector<int> { 30, 20, 10 }));

            test::StderrCapture log;
            auto icon = createIconWithData(record, *layout);
            ASSERT_TRUE(icon);
            EXPECT_EQ(log.text(), "");
            EXPECT_EQ(icon->width, 32);
            EXPECT_EQ(icon->height, 32);
            GdkPixbuf* pixbuf = icon->pixbuf.get();
            ASSERT_EQ(gdk_pixbuf_get_width(pixbuf), int(size));
            ASSERT_EQ(gdk_pixbuf_get_height(pixbuf), int(size));
            ASSERT_EQ(gdk_pixbuf_get_n_channels(pixbuf), 4);
            EXPECT_EQ(pixel(pixbuf, 0, 0), (std::vector<int> { 10, 20, 30, 0 })) << "colour kept under alpha 0";
            for (uint32_t y = 0; y < size; ++y)
                for (uint32_t x = 0; x < size; ++x) {
                    uint32_t rgb = picture.colours[y * size + x];
                    int alpha = picture.transparent[y * size + x] ? 0 : 255;
                    ASSERT_EQ(pixel(pixbuf, x, y), (std::vector<int> { int(rgb >> 16), int(rgb >> 8 & 0xFF),
                                                                       int(rgb & 0xFF), alpha }))
                        << x << "," << y;
                }
            // Blue and red were exchanged in the record itself; the fourth
            // byte is the 32-bpp pixel's unused one, or the next pixel's red.
            EXPECT_EQ(std::vector<int>(colour, colour + 4), (std::vector<int> { 10, 20, 30, bpp == 32 ? 0 : 8 }));
        }
    }
}

TEST(TrayIconDecoding, MaskRowsOfWidthOver8BytesRunIntoTheNextRow)
{
    // At width 20 a mask row is 2 bytes, so the bit of pixel (0, 1) is also
    // the bit of pixel (16, 0), as the Windows side packs it.
    auto picture = solidPicture(20, 0x336699);
    picture.transparent[20] = true;
    auto record = trayRecord(kTrayLayout64, 1, 2, 3, picture);
    ASSERT_EQ(record.size(), 984u + 50 + 1600);
    auto icon = createIconWithData(record, kTrayLayout64);
    ASSERT_TRUE(icon);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x) {
            bool transparent = (x == 0 && y == 1) || (x == 16 && y == 0);
            ASSERT_EQ(pixel(icon->pixbuf.get(), x, y)[3], transparent ? 0 : 255) << x << "," << y;
        }
}

TEST(TrayIconDecoding, TrailingBytesAreLoggedAndIgnored)
{
    auto record = trayRecord(kTrayLayout32, 1, 2, 3, solidPicture(16, 0x102030));
    record.push_back(0xEE);
    test::StderrCapture log;
    auto icon = createIconWithData(record, kTrayLayout32);
    ASSERT_TRUE(icon);
    EXPECT_EQ(pixel(icon->pixbuf.get(), 15, 15), (std::vector<int> { 0x10, 0x20, 0x30, 255 }));
    EXPECT_EQ(loggedMessages(log.text(), record.data()),
              "createIconWithData: extra data, p = <+2016>, end = <+2017>\n");
}

TEST(TrayIconDecoding, RefusesBadRecordsWithTheFirstFailingChecksMessage)
{
    auto picture = [](uint32_t planes, uint32_t bpp) {
        auto result = solidPicture(16, 0, bpp);
        result.planes = planes;
        return trayRecord(kTrayLayout64, 1, 2, 3, result);
    };
    std::pair<std::vector<uint8_t>, std::string> cases[] = {
        { std::vector<uint8_t>(984, 0), "" }, // header only
        { {}, "" },
        { headerWith(kTrayLayout64, 16, 16, 2, 32, 10), // planar too: the short mask comes first
          "createIconWithData:751: iconData is short: p = <+984>, end = <+994>, diff = 10, "
          "required = cbMaskBytes = 32\n" },
        { headerWith(kTrayLayout64, 16, 16, 1, 32, 32 + 100),
          "createIconWithData:755: iconData is short: p = <+1016>, end = <+1116>, diff = 100, "
          "required = cbColourBytes = 1024\n" },
        { picture(2, 8), /* indexed too */ "createIconWithData: can't deal with planar data (2 color planes)\n" },
        { picture(1, 8), "createIconWithData: can't deal with indexed color (8 bits-per-pixel)\n" },
        { picture(1, 16), "createIconWithData: can't deal with indexed color (16 bits-per-pixel)\n" },
        // 65536 x 65536 wraps both areas to 0 bytes: the one byte is extra,
        // and the colour bitmap has nothing to lie in.
        { headerWith(kTrayLayout64, 65536, 65536, 1, 32, 1),
          "createIconWithData: extra data, p = <+984>, end = <+985>\n"
          "Failed to create color part:\npixelsWide: 65536\npixelsHigh: 65536\nbitsPerSample: 8\nsamplesPerPixel: 3\n"
          "hasAlpha: NO\nisPlanar: NO\ncolorSpaceName: NSDeviceRGBColorSpace\nbitmapFormat: 0\nbytesPerRow: 262144\n"
          "bitsPerPixel: 32\n" },
    };
    for (auto& [record, message] : cases) {
        const auto before = record;
        test::StderrCapture log;
        EXPECT_FALSE(createIconWithData(record, kTrayLayout64));
        EXPECT_EQ(loggedMessages(log.text(), record.data()), message);
        EXPECT_EQ(record, before) << "refused before any pixel was touched";
    }
}

TEST(TrayIconMasking, RefusesBitmapsWithUnexpectedSampleCountsImageFirst)
{
    std::vector<uint8_t> bytes(64, 0xFF);
    BitmapView mask { bytes.data(), bytes.size(), 2, 2, 1, 2, 1, 2 };
    BitmapView rgba { bytes.data(), bytes.size(), 2, 2, 8, 4, 8, 32 };
    BitmapView rgb { bytes.data(), bytes.size(), 2, 2, 8, 3, 8, 32 };
    test::StderrCapture log;
    EXPECT_FALSE(applyMask(mask, rgba));
    EXPECT_FALSE(applyMask(mask, rgb));
    EXPECT_EQ(loggedMessages(log.text()),
              "This image doesn't have 3 samples per pixel, which means we don't know what to do with it. It has 4.\n"
              "This mask doesn't have 1 sample per pixel, which means we don't know what to do with it. It has 2.\n");
}

TEST(TrayIconMasking, WithoutAMaskTheColourStandsAloneAtItsPixelSizeAndOwnsItsPixels)
{
    // 3 x 2 pixels of 4 bytes, already red first.
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 6; ++i)
        bytes.insert(bytes.end(), { uint8_t(i), uint8_t(10 + i), uint8_t(20 + i), 99 });
    auto icon = iconWithoutMask(BitmapView { bytes.data(), bytes.size(), 3, 2, 8, 3, 12, 32 });
    ASSERT_TRUE(icon);
    EXPECT_EQ(icon->width, 3);
    EXPECT_EQ(icon->height, 2);
    std::fill(bytes.begin(), bytes.end(), 0);
    EXPECT_FALSE(gdk_pixbuf_get_has_alpha(icon->pixbuf.get()));
    EXPECT_EQ(pixel(icon->pixbuf.get(), 0, 0), (std::vector<int> { 0, 10, 20 }));
    EXPECT_EQ(pixel(icon->pixbuf.get(), 2, 1), (std::vector<int> { 5, 15, 25 }));

    EXPECT_FALSE(iconWithoutMask(BitmapView { bytes.data(), bytes.size(), 3, 3, 8, 3, 12, 32 }))
        << "a third row would lie past the bytes";
}
