#include "integration/TrayIconList.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "source/VTBundle.hpp"

namespace vt {

VT_GOBJECT_TRAITS(GdkPixbufLoader)

namespace {

    std::optional<int32_t> readInt32(const std::vector<uint8_t>& record, size_t offset)
    {
        if (record.size() < offset + sizeof(int32_t))
            return std::nullopt;
        int32_t value = 0;
        std::memcpy(&value, record.data() + offset, sizeof value);
        return value;
    }

    // The entry a record stands for, or nothing when its icon is refused.
    std::optional<TrayIconEntry> decodeEntry(std::vector<uint8_t>& record, const TrayLayout& layout)
    {
        auto icon = createIconWithData(record, layout);
        if (!icon)
            return std::nullopt;
        // A decoded record holds its whole header.
        return TrayIconEntry { std::move(*icon), readInt32(record, layout.idOffset).value_or(0),
                               readInt32(record, layout.hwndOffset).value_or(0),
                               readInt32(record, layout.callbackMessageOffset).value_or(0) };
    }

    // The entry nearest the end that stands for the same tray icon: the
    // Windows side tells icons apart by window and identifier.
    std::vector<TrayIconEntry>::iterator findLast(std::vector<TrayIconEntry>& list, int32_t id, int32_t hwnd)
    {
        auto found = std::find_if(list.rbegin(), list.rend(),
                                  [&](const TrayIconEntry& entry) { return entry.id == id && entry.hwnd == hwnd; });
        return found == list.rend() ? list.end() : std::prev(found.base());
    }

    // An RGBA image of the tile's size, whatever `image` was.
    GPtr<GdkPixbuf> asTileImage(GPtr<GdkPixbuf> image)
    {
        if (!image)
            return nullptr;
        if (gdk_pixbuf_get_width(image.get()) != kTileSize || gdk_pixbuf_get_height(image.get()) != kTileSize)
            image = adopt(gdk_pixbuf_scale_simple(image.get(), kTileSize, kTileSize, GDK_INTERP_BILINEAR));
        if (image && !gdk_pixbuf_get_has_alpha(image.get()))
            image = adopt(gdk_pixbuf_add_alpha(image.get(), FALSE, 0, 0, 0));
        return image;
    }

    // --- The generic icon: a rounded blue tile with a window on it. ---

    struct Colour {
        double r, g, b;
    };

    // Signed distance from (x, y) to a rectangle with rounded corners:
    // negative inside, in pixels.
    double roundedRectDistance(double x, double y, double left, double top, double right, double bottom,
                               double radius)
    {
        double cx = (left + right) / 2, cy = (top + bottom) / 2;
        double qx = std::abs(x - cx) - ((right - left) / 2 - radius);
        double qy = std::abs(y - cy) - ((bottom - top) / 2 - radius);
        double ox = std::max(qx, 0.0), oy = std::max(qy, 0.0);
        // Far from overflow here: std::hypot's care would cost most of the drawing.
        double outside = std::sqrt(ox * ox + oy * oy);
        return outside + std::min(std::max(qx, qy), 0.0) - radius;
    }

    // How much of a pixel a shape covers, from its distance at the pixel's
    // centre: smooth edges without supersampling.
    double coverage(double distance) { return std::clamp(0.5 - distance, 0.0, 1.0); }

    // One pixel painted in layers, back to front, kept premultiplied.
    struct PixelPaint {
        double r = 0, g = 0, b = 0, a = 0;
        void over(Colour c, double alpha)
        {
            r = c.r * alpha + r * (1 - alpha);
            g = c.g * alpha + g * (1 - alpha);
            b = c.b * alpha + b * (1 - alpha);
            a = alpha + a * (1 - alpha);
        }
    };

    Colour mix(Colour a, Colour b, double t)
    {
        return { a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t };
    }

    Colour rgb(uint32_t hex) { return { double(hex >> 16 & 0xFF), double(hex >> 8 & 0xFF), double(hex & 0xFF) }; }

    std::optional<std::filesystem::path> iconFileIn(const std::filesystem::path& resources, const std::string& name)
    {
        for (const char* extension : { "", ".icns", ".png" }) {
            std::error_code error;
            auto candidate = resources / (name + extension);
            if (std::filesystem::is_regular_file(candidate, error))
                return candidate;
        }
        return std::nullopt;
    }

    constexpr std::string_view kPngSignature = "\x89PNG\r\n\x1a\n";

    // gdk-pixbuf's name for the image format of an icon file: its extension,
    // else its first bytes. Told explicitly, gdk-pixbuf reads the file
    // without guessing its type from the shared MIME database, which a
    // desktop session may lack. Empty for anything else.
    std::string iconFormat(const std::filesystem::path& path, std::string_view contents)
    {
        std::string extension = path.extension();
        if (g_ascii_strcasecmp(extension.c_str(), ".png") == 0)
            return "png";
        if (g_ascii_strcasecmp(extension.c_str(), ".icns") == 0)
            return "icns";
        if (contents.starts_with(kPngSignature))
            return "png";
        if (contents.starts_with("icns"))
            return "icns";
        return {};
    }

    uint32_t bigEndian32(std::string_view bytes, size_t offset)
    {
        auto byte = [&](size_t i) { return uint32_t(static_cast<unsigned char>(bytes[offset + i])); };
        return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
    }

    // The PNG entry of an .icns file that suits the tile best: the smallest
    // at least as wide as the tile, else the widest. gdk-pixbuf's own .icns
    // reader guesses the type of these entries from the MIME database, so
    // they are read here as what they are; an .icns without any (older
    // formats only) is left to that reader. Empty when there is none.
    std::string_view bestPngInIcns(std::string_view file)
    {
        if (file.size() < 8 || !file.starts_with("icns"))
            return {};
        const size_t end = std::min<size_t>(file.size(), bigEndian32(file, 4));
        std::string_view best;
        uint32_t bestWidth = 0;
        // Each entry: its type, its length with this header, its data.
        for (size_t at = 8; end >= 8 && at <= end - 8;) {
            const uint32_t length = bigEndian32(file, at + 4);
            if (length < 8 || length > end - at)
                break;
            std::string_view data = file.substr(at + 8, length - 8);
            // The width is the first field of the PNG's IHDR chunk.
            if (data.size() >= 24 && data.starts_with(kPngSignature) && data.substr(12, 4) == "IHDR") {
                const uint32_t width = bigEndian32(data, 16), tile = kTileSize;
                const bool better
                    = best.empty() || (bestWidth < tile ? width > bestWidth : width >= tile && width < bestWidth);
                if (better)
                    best = data, bestWidth = width;
            }
            at += length;
        }
        return best;
    }

    // `bytes`, an image in gdk-pixbuf's `format`, at tile size.
    GPtr<GdkPixbuf> decodeImage(const char* format, std::string_view bytes, GErrorHolder& error)
    {
        GPtr<GdkPixbufLoader> loader = adopt(gdk_pixbuf_loader_new_with_type(format, error));
        if (!loader)
            return nullptr;
        gdk_pixbuf_loader_set_size(loader.get(), kTileSize, kTileSize);
        bool written = gdk_pixbuf_loader_write(loader.get(), reinterpret_cast<const guchar*>(bytes.data()),
                                               bytes.size(), error);
        // Closed in any case: a loader must be closed before it goes.
        bool closed = gdk_pixbuf_loader_close(loader.get(), written ? static_cast<GError**>(error) : nullptr);
        if (!written || !closed)
            return nullptr;
        return addRef(gdk_pixbuf_loader_get_pixbuf(loader.get()));
    }

    // The icon file at `path`, at tile size; nothing, with `error` set, when it cannot be read.
    GPtr<GdkPixbuf> readIconFile(const std::filesystem::path& path, GErrorHolder& error)
    {
        gchar* bytes = nullptr;
        gsize length = 0;
        if (!g_file_get_contents(path.c_str(), &bytes, &length, error))
            return nullptr;
        const std::string contents(bytes, length);
        g_free(bytes);
        const std::string format = iconFormat(path, contents);
        // Another format, named some other way: gdk-pixbuf may still know it.
        if (format.empty())
            return adopt(gdk_pixbuf_new_from_file_at_scale(path.c_str(), kTileSize, kTileSize, FALSE, error));
        if (format == "icns") {
            if (std::string_view png = bestPngInIcns(contents); !png.empty())
                return decodeImage("png", png, error);
        }
        return decodeImage(format.c_str(), contents, error);
    }

} // namespace

GPtr<GdkPixbuf> genericApplicationIcon()
{
    GPtr<GdkPixbuf> icon = adopt(gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, kTileSize, kTileSize));
    guchar* pixels = gdk_pixbuf_get_pixels(icon.get());
    const int stride = gdk_pixbuf_get_rowstride(icon.get());

    const Colour shadow = rgb(0x0B1A3A), tileTop = rgb(0x5B8DEF), tileBottom = rgb(0x2B4FAE);
    const Colour rim = rgb(0x9DBBF7), window = rgb(0xF5F7FB), titleBar = rgb(0xD5DEEE), titleDot = rgb(0x8A9BBD);
    const Colour textLine = rgb(0xBCC7DB);
    for (int y = 0; y < kTileSize; ++y) {
        for (int x = 0; x < kTileSize; ++x) {
            const double px = x + 0.5, py = y + 0.5;
            PixelPaint paint;
            // A soft shadow under the tile, a little lower than it.
            double shadowDistance = roundedRectDistance(px, py, 9, 11, 119, 123, 26);
            paint.over(shadow, 0.30 * std::clamp(0.5 - shadowDistance / 5, 0.0, 1.0));
            // The tile: a vertical gradient with a lighter rim along its top.
            double tileDistance = roundedRectDistance(px, py, 8, 6, 120, 118, 24);
            paint.over(mix(tileTop, tileBottom, (py - 6) / 112), coverage(tileDistance));
            double rimDistance = std::max(tileDistance, -tileDistance - 1.5);
            paint.over(rim, 0.55 * coverage(rimDistance) * std::clamp((40 - py) / 30, 0.0, 1.0));
            // The window: a title bar with three dots, and lines of text.
            double windowDistance = roundedRectDistance(px, py, 27, 33, 101, 93, 7);
            paint.over(window, coverage(windowDistance));
            paint.over(titleBar, coverage(std::max(windowDistance, py - 46)));
            for (double dotX : { 36.0, 44.0, 52.0 })
                paint.over(titleDot, coverage(std::sqrt((px - dotX) * (px - dotX) + (py - 39.5) * (py - 39.5)) - 2.6));
            for (auto [top, right] : { std::pair { 55.0, 88.0 }, { 65.0, 80.0 }, { 75.0, 85.0 } })
                paint.over(textLine, coverage(roundedRectDistance(px, py, 37, top, right, top + 5, 2.5)));

            guchar* out = pixels + size_t(y) * stride + size_t(x) * 4;
            double a = paint.a;
            // Rounded to the nearest: every value is at least 0.
            out[0] = guchar(a > 0 ? int(paint.r / a + 0.5) : 0);
            out[1] = guchar(a > 0 ? int(paint.g / a + 0.5) : 0);
            out[2] = guchar(a > 0 ? int(paint.b / a + 0.5) : 0);
            out[3] = guchar(int(a * 255 + 0.5));
        }
    }
    return icon;
}

GPtr<GdkPixbuf> applicationIcon(const VTBundle* bundle)
{
    if (!bundle) {
        VTLog("No bundle to take an icon from; the tile shows the generic application icon.");
        return genericApplicationIcon();
    }
    auto name = bundle->stringForInfoDictionaryKey("CFBundleIconFile");
    if (!name || name->empty()) {
        // Many bundles have no icon of their own; that is no fault.
        VTLog("%@ names no CFBundleIconFile; the tile shows the generic application icon.", bundle->bundlePath());
        return genericApplicationIcon();
    }
    // A file name inside Resources, never a way out of the bundle.
    if (name->find('/') != std::string::npos || *name == "." || *name == "..") {
        platformLog("The CFBundleIconFile %@ of %@ is not a file name; the tile shows the generic application icon.",
                    *name, bundle->bundlePath());
        return genericApplicationIcon();
    }
    auto path = iconFileIn(bundle->resourcePath(), *name);
    if (!path) {
        platformLog("The icon %@ of %@ is not in %@, with or without .icns or .png; the tile shows the generic "
                    "application icon.",
                    *name, bundle->bundlePath(), bundle->resourcePath());
        return genericApplicationIcon();
    }
    GErrorHolder error;
    auto icon = readIconFile(*path, error);
    if (!icon) {
        platformLog("The icon %@ cannot be read (%s); the tile shows the generic application icon.", *path,
                    error.message());
        return genericApplicationIcon();
    }
    return asTileImage(std::move(icon));
}

TrayIconList::TrayIconList(GPtr<GdkPixbuf> baseIcon, std::function<void(const GdkPixbuf& tile)> showTile,
                           const TrayLayout& layout)
    : TrayIconList([icon = std::make_shared<GPtr<GdkPixbuf>>(std::move(baseIcon))] { return std::move(*icon); },
                   std::move(showTile), layout)
{
}

TrayIconList::TrayIconList(std::function<GPtr<GdkPixbuf>()> loadBaseIcon,
                           std::function<void(const GdkPixbuf& tile)> showTile, const TrayLayout& layout)
    : m_loadBaseIcon(std::move(loadBaseIcon))
    , m_showTile(std::move(showTile))
    , m_layout(layout)
{
    // Most programs have one or two tray icons.
    m_iconList.reserve(2);
}

const GdkPixbuf& TrayIconList::baseIcon() const
{
    if (!m_baseIcon) {
        m_baseIcon = asTileImage(m_loadBaseIcon ? m_loadBaseIcon() : nullptr);
        m_loadBaseIcon = nullptr;
        if (!m_baseIcon)
            m_baseIcon = genericApplicationIcon();
    }
    return *m_baseIcon;
}

void TrayIconList::addIconWithData(std::vector<uint8_t>& record)
{
    auto entry = decodeEntry(record, m_layout);
    if (!entry)
        return;
    auto found = findLast(m_iconList, entry->id, entry->hwnd);
    if (found != m_iconList.end())
        *found = std::move(*entry);
    else
        m_iconList.push_back(std::move(*entry));
}

void TrayIconList::modifyIconWithData(std::vector<uint8_t>& record)
{
    auto entry = decodeEntry(record, m_layout);
    if (!entry)
        return;
    auto found = findLast(m_iconList, entry->id, entry->hwnd);
    if (found != m_iconList.end())
        *found = std::move(*entry);
}

void TrayIconList::deleteIconWithData(std::vector<uint8_t>& record)
{
    // Only the identity is read: a delete carries no bits worth checking.
    auto hwnd = readInt32(record, m_layout.hwndOffset);
    auto id = readInt32(record, m_layout.idOffset);
    if (!hwnd || !id)
        return;
    auto found = findLast(m_iconList, *id, *hwnd);
    if (found != m_iconList.end())
        m_iconList.erase(found);
}

GPtr<GdkPixbuf> paintBadges(const GdkPixbuf& baseIcon, const std::vector<TrayIconEntry>& icons)
{
    GPtr<GdkPixbuf> tile = adopt(gdk_pixbuf_copy(&baseIcon));
    const int W = kTileSize, H = kTileSize;

    // The layout runs in the desktop's drawing coordinates, origin at the
    // bottom left, y upward: badges hang from the top edge, left to right
    // with 2 points between them, and a new row starts right under the
    // lowest badge so far.
    int x = 1;
    int rowTop = int(H - 1.0);
    int lowestEdge = rowTop;
    for (const TrayIconEntry& entry : icons) {
        const int w = entry.icon.width, h = entry.icon.height;
        double drawX = x;
        if (x + w > W) {
            rowTop = lowestEdge;
            drawX = 1.0;
        }
        const int y = int(rowTop - h);
        lowestEdge = std::min(lowestEdge, y);
        x = int(w + 2.0 + drawX);

        // In the tile's rows, top first: the icon covers rows H - y - h to
        // H - 1 - y. What falls outside the tile is cut off, with no mark.
        GdkPixbuf* source = entry.icon.pixbuf.get();
        if (!source || w <= 0 || h <= 0)
            continue;
        const int left = int(drawX), top = H - y - h;
        const int clipLeft = std::max(left, 0), clipTop = std::max(top, 0);
        const int clipRight = std::min(left + w, W), clipBottom = std::min(top + h, H);
        if (clipLeft >= clipRight || clipTop >= clipBottom)
            continue;
        const int sourceWidth = gdk_pixbuf_get_width(source), sourceHeight = gdk_pixbuf_get_height(source);
        // Whole-number enlargements (a 16-pixel icon at 32 points) keep
        // their pixels sharp; anything else is smoothed.
        const bool wholeScale = w % sourceWidth == 0 && h % sourceHeight == 0;
        gdk_pixbuf_composite(source, tile.get(), clipLeft, clipTop, clipRight - clipLeft, clipBottom - clipTop, left,
                             top, double(w) / sourceWidth, double(h) / sourceHeight,
                             wholeScale ? GDK_INTERP_NEAREST : GDK_INTERP_BILINEAR, 255);
    }
    return tile;
}

GPtr<GdkPixbuf> TrayIconList::paintTile() const
{
    return paintBadges(baseIcon(), m_iconList);
}

void TrayIconList::updateBadges()
{
    if (m_repaint.isActive())
        return;
    // Below the sockets' sources: every message that is there already is
    // taken before the tile is painted, where a toolkit paints too.
    GPtr<GSource> idle = adopt(g_idle_source_new());
    g_source_set_priority(idle.get(), G_PRIORITY_HIGH_IDLE + 20);
    m_repaint = OwnedSource(std::move(idle), "vt tray repaint", [this] {
        flushPendingRepaint();
        return false;
    });
}

void TrayIconList::flushPendingRepaint()
{
    if (!m_repaint.isActive())
        return;
    m_repaint.stop();
    auto tile = paintTile();
    if (m_showTile)
        m_showTile(*tile);
}

} // namespace vt
