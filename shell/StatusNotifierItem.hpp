// The launcher's icon in the desktop's status area: a StatusNotifierItem on
// the session bus, named org.kde.StatusNotifierItem-<pid>-1 with its object at
// /StatusNotifierItem, registered with the org.kde.StatusNotifierWatcher when
// one is there and again whenever one appears. Its pixmap is the tile, its
// menu the launcher's menu (com.canonical.dbusmenu through libdbusmenu-glib).
//
// The item is served from a thread of its own, so that the desktop can read
// it (its tooltip says what start-up waits for) while the main thread is
// blocked in a start-up wait.
#pragma once

#include <functional>
#include <memory>
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

    // Exported on the session bus at once. `id` and `title` are the item's
    // Id and Title (Title is also the tooltip until setToolTip); the pixmap is
    // `icon` (128 x 128) until setIcon. Main thread.
    StatusNotifierItem(std::string id, std::string title, const GdkPixbuf& icon, Callbacks callbacks);
    ~StatusNotifierItem();
    StatusNotifierItem(const StatusNotifierItem&) = delete;
    StatusNotifierItem& operator=(const StatusNotifierItem&) = delete;

    // The bus name, "org.kde.StatusNotifierItem-<pid>-1".
    std::string busName() const;

    // The item's IconPixmap becomes `tile` (ARGB32, network byte order, not
    // premultiplied), then NewIcon. Any thread.
    void setIcon(const GdkPixbuf& tile);
    // The tooltip's title, then NewToolTip. Any thread.
    void setToolTip(const std::string& text);
    // The menu exported as the item's Menu; items without an action are shown
    // and do nothing. Any thread.
    void setMenu(const Menu& menu);

private:
    class Service;
    std::unique_ptr<Service> m_service;
};

} // namespace vt
