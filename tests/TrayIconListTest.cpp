// The tray-icon list and the tile: which entry a message acts on, where the
// badges land on the tile, and the base icon they are painted over.
#include <array>
#include <optional>

#include <gtest/gtest.h>

#include "integration/TrayIconList.hpp"
#include "source/VTBundle.hpp"
#include "standin/kit/Bundles.hpp"
#include "standin/kit/TestSupport.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace vt;
using namespace std::chrono_literals;
using standin::solidPicture;
using standin::trayRecord;

namespace {

using Rgba = std::array<int, 4>;

Rgba at(const GdkPixbuf* pixbuf, int x, int y)
{
    const guchar* p = gdk_pixbuf_read_pixels(pixbuf) + y * gdk_pixbuf_get_rowstride(pixbuf)
        + x * gdk_pixbuf_get_n_channels(pixbuf);
    return { p[0], p[1], p[2], gdk_pixbuf_get_has_alpha(pixbuf) ? p[3] : 255 };
}

Rgba opaque(uint32_t rgb) { return { int(rgb >> 16), int(rgb >> 8 & 0xFF), int(rgb & 0xFF), 255 }; }

// A base icon in which every pixel differs, half of it translucent, so that
// any pixel painted over shows.
GPtr<GdkPixbuf> patternedBase()
{
    auto base = adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, kTileSize, kTileSize));
    for (int y = 0; y < kTileSize; ++y)
        for (int x = 0; x < kTileSize; ++x) {
            guchar* p = gdk_pixbuf_get_pixels(base.get()) + y * gdk_pixbuf_get_rowstride(base.get()) + x * 4;
            p[0] = guchar(x * 2), p[1] = guchar(y * 2), p[2] = guchar(x + y), p[3] = guchar(x < 64 ? 255 : 128);
        }
    return base;
}

TrayIconEntry solidEntry(int width, int height, uint32_t rgb)
{
    auto pixbuf = adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, width, height));
    gdk_pixbuf_fill(pixbuf.get(), rgb << 8 | 0xFF);
    return TrayIconEntry { TrayIcon { std::move(pixbuf), width, height }, 0, 0, 0 };
}

// A solid badge expected at (left, top) in the tile's pixels, top-left origin.
struct Badge {
    int left, top, width, height;
    uint32_t rgb;
};

// Every pixel of `tile` is that of the last badge covering it, or else the base's.
void expectTile(const GdkPixbuf* tile, const GdkPixbuf* base, const std::vector<Badge>& badges)
{
    ASSERT_EQ(gdk_pixbuf_get_width(tile), kTileSize);
    ASSERT_EQ(gdk_pixbuf_get_height(tile), kTileSize);
    for (int y = 0; y < kTileSize; ++y)
        for (int x = 0; x < kTileSize; ++x) {
            Rgba expected = at(base, x, y);
            for (const Badge& b : badges)
                if (x >= b.left && x < b.left + b.width && y >= b.top && y < b.top + b.height)
                    expected = opaque(b.rgb);
            ASSERT_EQ(at(tile, x, y), expected) << "at " << x << "," << y;
        }
}

std::vector<uint8_t> record(const TrayLayout& layout, int32_t hwnd, int32_t id, int32_t callback, uint32_t rgb,
                            uint32_t bpp = 32)
{
    return trayRecord(layout, hwnd, id, callback, solidPicture(16, rgb, bpp));
}

// A PNG file's bytes: one colour (0xRRGGBBAA) all over.
std::string png(int size, uint32_t rgba)
{
    auto pixbuf = adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, size, size));
    gdk_pixbuf_fill(pixbuf.get(), rgba);
    gchar* bytes = nullptr;
    gsize length = 0;
    gdk_pixbuf_save_to_buffer(pixbuf.get(), &bytes, &length, "png", nullptr, nullptr);
    std::string result(bytes, length);
    g_free(bytes);
    return result;
}

std::filesystem::path bundleWithIcon(const test::TempDir& dir, const std::optional<std::string>& iconFile)
{
    auto bundle = dir / "Notepad.app";
    PlistDict info { { "CFBundleName", "Notepad" } };
    if (iconFile)
        info.emplace("CFBundleIconFile", *iconFile);
    test::writeInfoPlist(bundle, info);
    std::filesystem::create_directories(bundle / "Contents/Resources");
    return bundle;
}

} // namespace

TEST(TrayTile, RowsWrapUnderTheLowestBadgeAndAreCutOffBelowTheTile)
{
    auto base = patternedBase();
    std::vector<TrayIconEntry> icons;
    std::vector<Badge> expected;
    // Three to a row at 1, 35 and 69; rows from the top at 1, 33, 65 and
    // 97 (its last pixel row falls off); the thirteenth is out of sight.
    for (int i = 0; i < 13; ++i) {
        uint32_t rgb = 0x101010 * uint32_t(i + 1);
        icons.push_back(solidEntry(32, 32, rgb));
        expected.push_back({ 1 + 34 * (i % 3), 1 + 32 * (i / 3), 32, 32, rgb });
    }
    expectTile(paintBadges(*base, icons).get(), base.get(), expected);

    icons.resize(4);
    expected.resize(4);
    EXPECT_EQ(expected[3].left, 1);
    EXPECT_EQ(expected[3].top, 33) << "its bottom at 63 from the bottom";
    expectTile(paintBadges(*base, icons).get(), base.get(), expected);

    // An icon wider than the tile goes to x = 1 in a row of its own.
    icons.resize(1);
    icons.push_back(solidEntry(130, 10, 0x00FF00));
    icons.push_back(solidEntry(32, 32, 0x0000FF));
    expectTile(paintBadges(*base, icons).get(), base.get(),
               { expected[0], { 1, 33, 130, 10, 0x00FF00 }, { 1, 43, 32, 32, 0x0000FF } });
}

TEST(TrayIconList, MessagesActOnTheEntryWithTheSameIdAndWindowInBothLayouts)
{
    for (const TrayLayout* layout : { &kTrayLayout64, &kTrayLayout32 }) {
        SCOPED_TRACE(layout->name);
        auto base = patternedBase();
        TrayIconList list(addRef(base.get()), nullptr, *layout);
        auto ids = [&] {
            std::vector<std::array<int32_t, 3>> result;
            for (const auto& entry : list.iconList())
                result.push_back({ entry.hwnd, entry.id, entry.callbackmessage });
            return result;
        };
        auto addRecord = [&](int32_t hwnd, int32_t id, int32_t callback, uint32_t rgb) {
            auto bytes = record(*layout, hwnd, id, callback, rgb);
            list.addIconWithData(bytes);
        };
        addRecord(7, 1, 100, 0xFF0000);
        addRecord(7, 2, 200, 0x00FF00);
        addRecord(8, 1, 300, 0x0000FF);
        addRecord(7, 1, 101, 0xFFFF00);
        using Ids = std::vector<std::array<int32_t, 3>>;
        EXPECT_EQ(ids(), (Ids { { 7, 1, 101 }, { 7, 2, 200 }, { 8, 1, 300 } })) << "replaced in place";

        auto unknown = record(*layout, 9, 9, 0, 0xFFFFFF);
        list.modifyIconWithData(unknown);
        auto modified = record(*layout, 7, 2, 201, 0xFFFFFF);
        list.modifyIconWithData(modified);
        auto undecodable = record(*layout, 7, 2, 202, 0x000000, 8);
        test::StderrCapture log;
        list.modifyIconWithData(undecodable);
        list.addIconWithData(undecodable);
        EXPECT_EQ(ids(), (Ids { { 7, 1, 101 }, { 7, 2, 201 }, { 8, 1, 300 } }));
        expectTile(list.paintTile().get(), base.get(),
                   { { 1, 1, 32, 32, 0xFFFF00 }, { 35, 1, 32, 32, 0xFFFFFF }, { 69, 1, 32, 32, 0x0000FF } });

        // A delete reads only hwnd and id: the header's first words suffice.
        const size_t identity = std::max(layout->hwndOffset, layout->idOffset) + 4;
        auto tooShort = record(*layout, 7, 2, 0, 0);
        tooShort.resize(identity - 1);
        list.deleteIconWithData(tooShort);
        auto gone = record(*layout, 9, 9, 0, 0);
        list.deleteIconWithData(gone);
        EXPECT_EQ(ids().size(), 3u);
        for (auto [hwnd, id] : { std::pair { 7, 2 }, { 7, 1 }, { 8, 1 } }) {
            auto bytes = record(*layout, hwnd, id, 0, 0);
            bytes.resize(identity);
            list.deleteIconWithData(bytes);
        }
        EXPECT_TRUE(list.iconList().empty());
        expectTile(list.paintTile().get(), base.get(), {});
    }
}

TEST(TrayBaseIcon, ComesFromTheBundlesPngOrIcnsAtTileSize)
{
    test::TempDir dir;
    auto bundle = bundleWithIcon(dir, "Notepad");
    test::writeFile(bundle / "Contents/Resources/Notepad.png", png(64, 0x2060A0FF));
    auto icon = applicationIcon(VTBundle::bundleWithPath(bundle).get());
    ASSERT_TRUE(icon);
    EXPECT_EQ(gdk_pixbuf_get_width(icon.get()), kTileSize);
    EXPECT_EQ(gdk_pixbuf_get_height(icon.get()), kTileSize);
    EXPECT_EQ(at(icon.get(), 100, 100), opaque(0x2060A0));

    // An .icns file: its header, then one entry with a 256 x 256 PNG (the
    // smallest that gdk-pixbuf reads as PNG from an .icns).
    auto bigEndian = [](size_t value) {
        return std::string { char(value >> 24), char(value >> 16), char(value >> 8), char(value) };
    };
    std::string entry = png(256, 0xC0402080);
    test::writeFile(bundle / "Contents/Resources/Notepad.icns",
                    "icns" + bigEndian(16 + entry.size()) + "ic08" + bigEndian(8 + entry.size()) + entry);
    std::filesystem::remove(bundle / "Contents/Resources/Notepad.png");
    icon = applicationIcon(VTBundle::bundleWithPath(bundle).get());
    ASSERT_TRUE(icon);
    EXPECT_EQ(gdk_pixbuf_get_width(icon.get()), kTileSize);
    EXPECT_EQ(at(icon.get(), 5, 5), (Rgba { 0xC0, 0x40, 0x20, 0x80 }));
}

TEST(TrayBaseIcon, IsTheGenericIconWhenTheBundlesCannotBeHad)
{
    auto generic = genericApplicationIcon();
    ASSERT_EQ(gdk_pixbuf_get_width(generic.get()), kTileSize);
    ASSERT_EQ(gdk_pixbuf_get_height(generic.get()), kTileSize);
    ASSERT_TRUE(gdk_pixbuf_get_has_alpha(generic.get()));
    EXPECT_EQ(at(generic.get(), 0, 0)[3], 0) << "transparent corners";
    EXPECT_EQ(at(generic.get(), 64, 64)[3], 255);
    auto same = [&](const GPtr<GdkPixbuf>& icon) {
        return icon && gdk_pixbuf_get_byte_length(icon.get()) == gdk_pixbuf_get_byte_length(generic.get())
            && memcmp(gdk_pixbuf_read_pixels(icon.get()), gdk_pixbuf_read_pixels(generic.get()),
                      gdk_pixbuf_get_byte_length(icon.get()))
            == 0;
    };

    test::TempDir dir;
    EXPECT_TRUE(same(applicationIcon(VTBundle::bundleWithPath(bundleWithIcon(dir, std::nullopt)).get())));
    test::StderrCapture log;
    auto bundle = bundleWithIcon(dir, "Missing");
    EXPECT_TRUE(same(applicationIcon(VTBundle::bundleWithPath(bundle).get())));
    test::writeFile(bundle / "Contents/Resources/Missing.png", "not a picture");
    EXPECT_TRUE(same(applicationIcon(VTBundle::bundleWithPath(bundle).get())));
    EXPECT_NE(log.text().find("The icon Missing of " + bundle.string() + " is not in"), std::string::npos)
        << log.text();
    EXPECT_NE(log.text().find("The icon " + (bundle / "Contents/Resources/Missing.png").string() + " cannot be read"),
              std::string::npos)
        << log.text();

    // A base of another size and without alpha is scaled to the tile and given alpha.
    auto small = adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 64, 64));
    gdk_pixbuf_fill(small.get(), 0x336699FF);
    TrayIconList list(std::move(small), nullptr);
    auto tile = list.paintTile();
    EXPECT_EQ(gdk_pixbuf_get_width(tile.get()), kTileSize);
    EXPECT_TRUE(gdk_pixbuf_get_has_alpha(tile.get()));
    EXPECT_EQ(at(tile.get(), 127, 127), opaque(0x336699));
}

// gdk-pixbuf guesses an image's type from the shared MIME database unless it
// is told the type, and a desktop session may have no such database. GLib
// reads the database once per process, so the icons are read in a fresh one
// (a death test run anew from the start), with the data folders empty.
TEST(TrayBaseIcon, IsReadByItsOwnTypeWithoutTheSharedMimeDatabase)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    test::TempDir dir;
    std::filesystem::create_directories(dir / "data");
    test::ScopedEnvironment environment;
    environment.set("XDG_DATA_DIRS", (dir / "data").string());
    environment.set("XDG_DATA_HOME", (dir / "data").string());

    auto bigEndian = [](size_t value) {
        return std::string { char(value >> 24), char(value >> 16), char(value >> 8), char(value) };
    };
    // Of the PNG entries of an .icns, the smallest that covers the tile.
    std::string entries;
    for (auto [type, size, colour] : { std::tuple { "icp5", 32, 0xFF0000FFu }, { "ic09", 512, 0x0000FFFFu },
                                       { "ic07", 128, 0xC0402080u }, { "ic08", 256, 0x00FF00FFu } }) {
        std::string picture = png(size, colour);
        entries += type + bigEndian(8 + picture.size()) + picture;
    }
    const std::string icns = "icns" + bigEndian(8 + entries.size()) + entries;
    struct Case {
        std::string file, contents;
        Rgba pixel;
    };
    const Case cases[] = {
        { "Notepad.png", png(64, 0x2060A0FF), opaque(0x2060A0) },
        { "Notepad.icns", icns, { 0xC0, 0x40, 0x20, 0x80 } },
        { "Notepad", png(64, 0x30C050FF), opaque(0x30C050) }, // the name as given: told by its first bytes
    };
    EXPECT_EXIT(
        {
            int wrong = 0;
            for (const Case& c : cases) {
                test::TempDir bundles;
                auto bundle = bundleWithIcon(bundles, "Notepad");
                test::writeFile(bundle / "Contents/Resources" / c.file, c.contents);
                auto icon = applicationIcon(VTBundle::bundleWithPath(bundle).get());
                if (at(icon.get(), 64, 64) != c.pixel) {
                    std::fprintf(stderr, "%s was not read\n", c.file.c_str());
                    ++wrong;
                }
            }
            // This process ends here, before any destructor runs.
            std::filesystem::remove_all(dir.path());
            std::fflush(stderr);
            std::_Exit(wrong);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(TrayIconList, ABurstOfTrayMessagesIsPaintedOnceWithTheLatestList)
{
    test::TempDir dir;
    auto base = patternedBase();
    std::vector<GPtr<GdkPixbuf>> shown;
    TrayIconList list(addRef(base.get()), [&](const GdkPixbuf& tile) { shown.push_back(adopt(gdk_pixbuf_copy(&tile))); });
    LaunchNotifySocket socket(list);
    ASSERT_TRUE(socket.startLaunchNotify(dir.path()));

    // Five senders (what the backlog holds while nobody accepts) have
    // written whole messages before the loop runs; one turn reads them all.
    const uint32_t colours[] = { 0xFF0000, 0x00FF00, 0x0000FF, 0xFFFF00, 0x00FFFF };
    for (int32_t id = 0; id < 5; ++id)
        ASSERT_TRUE(standin::sendTrayBytes(
            socket.launchNotifySocketName(),
            standin::trayMessage(kNativeTrayLayout, kTrayOperationAdd,
                                 record(kNativeTrayLayout, 7, id, 0, colours[id]))));
    socket.monitorFeedbackSocket();
    ASSERT_TRUE(test::waitUntil([&] { return !shown.empty(); }));
    EXPECT_EQ(list.iconList().size(), 5u);
    const auto settled = std::chrono::steady_clock::now() + 200ms;
    test::waitUntil([&] { return std::chrono::steady_clock::now() >= settled; });
    ASSERT_EQ(shown.size(), 1u) << "one painting for the whole burst";
    expectTile(shown[0].get(), base.get(),
               { { 1, 1, 32, 32, colours[0] }, { 35, 1, 32, 32, colours[1] }, { 69, 1, 32, 32, colours[2] },
                 { 1, 33, 32, 32, colours[3] }, { 35, 33, 32, 32, colours[4] } });

    // Asked for without a loop turn, the painting can be had at once, once.
    auto removed = record(kNativeTrayLayout, 7, 4, 0, 0);
    list.deleteIconWithData(removed);
    list.updateBadges();
    list.updateBadges();
    EXPECT_EQ(shown.size(), 1u);
    list.flushPendingRepaint();
    ASSERT_EQ(shown.size(), 2u);
    EXPECT_FALSE(list.repaintPending());
    expectTile(shown[1].get(), base.get(),
               { { 1, 1, 32, 32, colours[0] }, { 35, 1, 32, 32, colours[1] }, { 69, 1, 32, 32, colours[2] },
                 { 1, 33, 32, 32, colours[3] } });
}
