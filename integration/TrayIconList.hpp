// The Windows program's tray icons and the tile they are painted on: the
// list changes with each add, modify and delete message, and after each
// message the tile is painted again, the badges hanging from its top edge
// over the launcher's own icon. Main thread only.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "integration/LaunchNotifySocket.hpp"
#include "integration/TrayIconEntry.hpp"
#include "integration/TrayLayout.hpp"
#include "shell/Pixbuf.hpp"

namespace vt {

class VTBundle;

// The tile's size, in points and pixels alike.
inline constexpr int kTileSize = 128;

// The base icon of the bundle at 128 x 128: its CFBundleIconFile (in
// Contents/Resources, .icns or .png, the extension optional) read with
// gdk-pixbuf, or the generic icon when there is none or it cannot be read
// (logged). A new image each call.
GPtr<GdkPixbuf> applicationIcon(const VTBundle* bundle);
// The generic icon built into the launcher, 128 x 128.
GPtr<GdkPixbuf> genericApplicationIcon();

// `baseIcon` (the tile's size, RGBA) with `icons` painted over it in list
// order at their point sizes: rows hanging from the top edge, one point in
// from the left, two points between badges, a new row under the lowest
// badge so far; what falls outside the tile is cut off.
GPtr<GdkPixbuf> paintBadges(const GdkPixbuf& baseIcon, const std::vector<TrayIconEntry>& icons);

class TrayIconList : public TrayMessageReceiver {
public:
    // `showTile` gets each newly painted tile. `baseIcon` is scaled to the
    // tile's size when it has another.
    TrayIconList(GPtr<GdkPixbuf> baseIcon, std::function<void(const GdkPixbuf& tile)> showTile,
                 const TrayLayout& layout = kNativeTrayLayout);
    // The base icon is made by `loadBaseIcon` when the tile is first
    // painted: reading or drawing it has no place on the way to starting
    // the Windows program.
    TrayIconList(std::function<GPtr<GdkPixbuf>()> loadBaseIcon, std::function<void(const GdkPixbuf& tile)> showTile,
                 const TrayLayout& layout = kNativeTrayLayout);

    // Add or replace (by id and hwnd, the entry nearest the end); replace
    // only; remove. A record that cannot be decoded changes nothing.
    void addIconWithData(std::vector<uint8_t>& record) override;
    void modifyIconWithData(std::vector<uint8_t>& record) override;
    void deleteIconWithData(std::vector<uint8_t>& record) override;
    // Paints the tile from the base icon and the list and shows it.
    void updateBadges() override;

    // The tile as painted now (not shown).
    GPtr<GdkPixbuf> paintTile() const;

    const std::vector<TrayIconEntry>& iconList() const { return m_iconList; }

private:
    const GdkPixbuf& baseIcon() const;

    mutable std::function<GPtr<GdkPixbuf>()> m_loadBaseIcon;
    mutable GPtr<GdkPixbuf> m_baseIcon;
    std::function<void(const GdkPixbuf&)> m_showTile;
    const TrayLayout& m_layout;
    std::vector<TrayIconEntry> m_iconList;
};

} // namespace vt
