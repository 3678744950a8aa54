// The Windows program's tray icons and the tile they are painted on: the
// list changes with each add, modify and delete message, and after each
// message the tile is to be painted again, the badges hanging from its top
// edge over the launcher's own icon. The painting waits for the end of the
// main loop's turn, so a burst of messages costs one painting of the list
// as it ends up. Main thread only.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "base/MainLoop.hpp"
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
    // Has the tile painted from the base icon and the list, and shown,
    // once the main loop has nothing more urgent to do (the sockets'
    // messages are): a later call before then adds nothing.
    void updateBadges() override;
    // Paints and shows now a tile that updateBadges() asked for, if any.
    void flushPendingRepaint();
    bool repaintPending() const { return m_repaint.isActive(); }

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
    OwnedSource m_repaint;
};

} // namespace vt
