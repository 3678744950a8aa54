// The launcher's icon in the desktop's status area: a StatusNotifierItem on
// the session bus, named org.kde.StatusNotifierItem-<pid>-1 with its object at
// /StatusNotifierItem, registered with the org.kde.StatusNotifierWatcher when
// one is there and again whenever one appears. Its pixmap is the tile, its
// menu the launcher's menu (com.canonical.dbusmenu through libdbusmenu-glib).
//
// The item lives on the main loop (the default main context), like the rest
// of the launcher, which never blocks that loop: the desktop reads it, and its
// tooltip says what start-up waits for, while the loop runs. libdbusmenu-glib
// is not thread-safe, and this keeps it on one thread. A burst of setIcon
// calls within one turn of the loop is announced with one NewIcon. A watcher
// that drops the item again right after registering it (and says so with
// StatusNotifierItemUnregistered) gets it registered again, a few times.
//
// It uses the process's shared session-bus connection. Once it is destroyed
// nothing calls into it any more and it holds no reference to the
// connection; GDBus lets go of its own bookkeeping for the item's name and
// watches from the main loop, on its next turns.
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
        // Activate(x, y) from the desktop. From the main loop.
        std::function<void()> activate;
        // A menu item with an action ("quit", "hide", "activate") was
        // clicked. From the main loop.
        std::function<void(const std::string& action)> menuAction;
    };

    // Every member function is for the main thread only.
    //
    // Exported on the session bus at once: the object is there when this
    // returns; its (empty) menu follows from the main loop's first turn (it
    // is libdbusmenu's to export), then the bus name and the registration.
    // `id` and `title` are the item's Id and Title; the tooltip is
    // `toolTip`, or else the title, until setToolTip (given here, no watcher
    // ever sees another first); the pixmap is `icon` (scaled to 128 x 128
    // when it has another size) until setIcon. Throws
    // std::runtime_error without a session bus or when the object cannot be
    // exported (another item in this process).
    StatusNotifierItem(std::string id, std::string title, const GdkPixbuf& icon, Callbacks callbacks,
                       std::optional<std::string> toolTip = std::nullopt);
    ~StatusNotifierItem();
    StatusNotifierItem(const StatusNotifierItem&) = delete;
    StatusNotifierItem& operator=(const StatusNotifierItem&) = delete;

    // The bus name, "org.kde.StatusNotifierItem-<pid>-1".
    std::string busName() const;

    // The item's IconPixmap becomes `tile` at once (ARGB32, network byte
    // order, not premultiplied; scaled to 128 x 128 when it has another
    // size); NewIcon follows from the main loop, once for all the tiles set
    // within the same turn. `tile` is RGB or RGBA with 8-bit samples.
    void setIcon(const GdkPixbuf& tile);
    // The tooltip's title, then NewToolTip.
    void setToolTip(const std::string& text);
    // The menu exported as the item's Menu; items without an action are shown
    // and do nothing. Items are numbered in order, so the same menu keeps its
    // item ids.
    void setMenu(const Menu& menu);
    // The last XDG activation token the desktop gave the item
    // (ProvideXdgActivationToken, sent just before an Activate), or empty;
    // taking it clears it, so a token is handed on once.
    std::string takeActivationToken();

private:
    class Service;
    std::unique_ptr<Service> m_service;
};

} // namespace vt
