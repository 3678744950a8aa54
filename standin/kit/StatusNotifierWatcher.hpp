// A stand-in for the desktop's status area: it owns
// org.kde.StatusNotifierWatcher on a bus, takes RegisterStatusNotifierItem
// like a real watcher, and then plays the host that shows the registered
// item: it reads the item's properties, counts its signals, activates it,
// reads its menu (com.canonical.dbusmenu) and clicks in it.
//
// It has its own connection and serves it from its own thread, so it answers
// whether or not the test runs the main loop. Called on the main thread, its
// waits and the host's calls run the main loop until they are done, since
// the item under test may be served by that very loop.
//
//   PrivateBus bus;
//   StatusNotifierWatcher watcher(bus.address());   // owns the name when this returns
//   StatusNotifierItem item("com.example.Notepad", "Notepad", *icon, callbacks);
//   ASSERT_EQ(watcher.waitForRegistration(), item.busName());
//   EXPECT_EQ(watcher.toolTipText(), "Notepad");
//   unsigned icons = watcher.signalCount("NewIcon");
//   item.setIcon(*tile);
//   ASSERT_TRUE(watcher.waitForSignal("NewIcon", icons + 1));
//   watcher.clickMenuItem("Quit Notepad");           // menuAction("quit") on the main loop
//   watcher.stop(); watcher.start();                 // a desktop that restarts
//   ASSERT_EQ(watcher.waitForRegistration(), item.busName());
//   watcher.dropItem(item.busName());                // StatusNotifierItemUnregistered
//   ASSERT_TRUE(watcher.waitForRegistrations(2));
//
// The host's calls are synchronous and throw std::runtime_error when the
// watcher is stopped, no item has registered, or the item does not answer.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/glib_glue.hpp"
#include "shell/Pixbuf.hpp"

namespace vt::test {

// One entry of a menu as GetLayout hands it over.
struct StatusMenuEntry {
    int id = 0;
    std::string label;
    std::string type;            // "separator", or empty for a standard item
    std::string childrenDisplay; // "submenu" for an entry with children
    std::vector<StatusMenuEntry> children;

    // The entry at any depth below this one whose label is `label`.
    const StatusMenuEntry* find(const std::string& label) const;
};

class StatusNotifierWatcher {
public:
    // Connects to the bus at `busAddress` and, when `startNow`, starts.
    explicit StatusNotifierWatcher(std::string busAddress, bool startNow = true);
    ~StatusNotifierWatcher();
    StatusNotifierWatcher(const StatusNotifierWatcher&) = delete;
    StatusNotifierWatcher& operator=(const StatusNotifierWatcher&) = delete;

    // Owns the name on a new connection; returns once it is owned. Forgets
    // the registrations of an earlier run.
    void start();
    // Releases the name and leaves the bus, as a desktop that goes does.
    void stop();

    // The first item registered since the last start, once there is one;
    // nothing after `timeout`.
    std::optional<std::string> waitForRegistration(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Every item registered since the last start, less those dropped.
    std::vector<std::string> registeredItems() const;
    // RegisterStatusNotifierItem calls since the last start, repeats and
    // dropped items included; waits until there have been `count`.
    unsigned registrationCount() const;
    bool waitForRegistrations(unsigned count, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Forgets `service` and says so with StatusNotifierItemUnregistered, as
    // a desktop's watcher does when it loses track of an item.
    void dropItem(const std::string& service);

    // The host's side, with the item registered last.
    GPtr<GVariant> property(const std::string& name);
    std::string stringProperty(const std::string& name); // a string or an object path
    // IconPixmap's first image, back from ARGB in network byte order to RGBA.
    GPtr<GdkPixbuf> iconPixmap();
    // The text of the item's ToolTip (its third field).
    std::string toolTipText();
    // Signals of org.kde.StatusNotifierItem seen so far, by name ("NewIcon").
    unsigned signalCount(const std::string& name) const;
    // Waits until `name` has been seen `count` times in all.
    bool waitForSignal(const std::string& name, unsigned count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void activate(int x, int y);
    void provideXdgActivationToken(const std::string& token);
    // The item's whole menu; the root is the entry with id 0.
    StatusMenuEntry menuLayout();
    // Sends "clicked" for the entry labelled `label`.
    void clickMenuItem(const std::string& label);

private:
    class Run;

    GPtr<GVariant> callItem(const char* path, const char* interface, const char* method, GVariant* parameters,
                            const GVariantType* replyType);
    void registered(const std::string& service);
    void signalSeen(const std::string& name);
    // Waits until `done` (called with m_mutex held) holds.
    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    const std::string m_busAddress;
    std::unique_ptr<Run> m_run;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_registered; // this run
    unsigned m_registrations = 0;          // this run
    std::string m_item;                    // the last registered, in any run
    std::map<std::string, unsigned> m_signals;
};

} // namespace vt::test
