// The launcher's icon in the desktop's status area: a StatusNotifierItem on
// the session bus, named org.kde.StatusNotifierItem-<pid>-1 with its object at
// /StatusNotifierItem, registered with the org.kde.StatusNotifierWatcher when
// one is there and again whenever one appears. Its pixmap is the tile, its
// menu the launcher's menu (com.canonical.dbusmenu through libdbusmenu-glib).
//
// The item is served from a thread of its own, so that the desktop can read
// it (its tooltip says what start-up waits for) while the main thread is
// blocked in a start-up wait. It uses the process's shared session-bus
// connection and drops every reference to it when it goes away.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "shell/Menu.hpp"
#include "shell/Pixbuf.hpp"

namespace vt {

inline constexpr const char* kStatusNotifierItemPath = "/StatusNotifierItem";
inline constexpr const char* kStatusNotifierMenuPath = "/StatusNotifierItem/Menu";
inline constexpr const char* kStatusNotifierWatcherName = "org.kde.StatusNotifierWatcher";

class StatusNotifierItem {
public:
    struct Callbacks {
        // Activate(x, y) from the desktop. Main thread.
        std::function<void()> activate;
        // A menu item with an action ("quit", "hide", "activate") was
        // clicked. Main thread.
        std::function<void(const std::string& action)> menuAction;
    };

    // Exported on the session bus at once: the object and its (empty) menu
    // are there when this returns; the bus name and the registration follow
    // from the item's thread. `id` and `title` are the item's Id and Title;
    // the tooltip is `toolTip`, or else the title, until setToolTip (given
    // here, no watcher ever sees another first); the pixmap is `icon`
    // (scaled to 128 x 128 when it has another size) until setIcon. Throws
    // std::runtime_error without a session bus or when the object cannot be
    // exported (another item in this process). Main thread.
    StatusNotifierItem(std::string id, std::string title, const GdkPixbuf& icon, Callbacks callbacks,
                       std::optional<std::string> toolTip = std::nullopt);
    ~StatusNotifierItem();
    StatusNotifierItem(const StatusNotifierItem&) = delete;
    StatusNotifierItem& operator=(const StatusNotifierItem&) = delete;

    // The bus name, "org.kde.StatusNotifierItem-<pid>-1".
    std::string busName() const;

    // The item's IconPixmap becomes `tile` (ARGB32, network byte order, not
    // premultiplied; scaled to 128 x 128 when it has another size), then
    // NewIcon. `tile` is RGB or RGBA with 8-bit samples. Any thread.
    void setIcon(const GdkPixbuf& tile);
    // The tooltip's title, then NewToolTip. Any thread.
    void setToolTip(const std::string& text);
    // The menu exported as the item's Menu; items without an action are shown
    // and do nothing. Items are numbered in order, so the same menu keeps its
    // item ids. Takes effect on the main thread: at once there, otherwise
    // when the main loop next runs. Any thread.
    void setMenu(const Menu& menu);

private:
    class Service;
    std::unique_ptr<Service> m_service;
};

} // namespace vt
