// The launch-notify socket: the Windows side's tray pushes each change of a
// tray icon here, one message per connection, and the launcher never
// answers. The socket lives in the launcher's private directory and its path
// goes to every Wine process in VT_SYSTRAY_SOCKET. A watcher thread takes the
// connections one at a time and reads each message; the messages take effect
// on the main thread, in the order they arrived.
//
// A message: code (4 bytes, 74), tray operation (the sender's unsigned long),
// payload length N (4 bytes), N bytes of tray record; host byte order.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/MainLoop.hpp"
#include "base/posix_glue.hpp"
#include "integration/TrayLayout.hpp"

namespace vt {

// What tray messages act on; called on the main thread, one message at a
// time in arrival order, and updateBadges after each message whatever its
// operation.
class TrayMessageReceiver {
public:
    virtual ~TrayMessageReceiver() = default;
    virtual void addIconWithData(std::vector<uint8_t>& record) = 0;
    virtual void modifyIconWithData(std::vector<uint8_t>& record) = 0;
    virtual void deleteIconWithData(std::vector<uint8_t>& record) = 0;
    virtual void updateBadges() = 0;
};

class LaunchNotifySocket {
public:
    // `receiver` must outlive the watcher (stop() or destruction).
    explicit LaunchNotifySocket(TrayMessageReceiver& receiver, const TrayLayout& layout = kNativeTrayLayout);
    ~LaunchNotifySocket();
    LaunchNotifySocket(const LaunchNotifySocket&) = delete;
    LaunchNotifySocket& operator=(const LaunchNotifySocket&) = delete;

    // Listening at a fresh path in `directory` (made once; later calls
    // answer at once). False, logged, when the socket cannot be made; the
    // next call tries again. Main thread.
    bool startLaunchNotify(const std::filesystem::path& directory);
    // The socket's path; empty until it listens.
    const std::string& launchNotifySocketName() const { return m_launchNotifySocketName; }

    // Waits up to `timeout` for one connection and handles its message:
    // false when none came (or before the socket exists), true when one was
    // taken and closed, whatever it held. Watcher thread (tests call it too).
    bool checkNotificationSocket(timeval timeout);

    // Starts the watcher thread (once); it loops on checkNotificationSocket
    // with a one-second timeout until stop().
    void monitorFeedbackSocket();

    // Stops the watcher (a sender that stalls mid-message holds it for up to
    // its two-second receive time-out), closes the socket and removes its
    // file. Messages not yet applied are dropped. Main thread; idempotent.
    void stop();

private:
    // One message on the main thread: its operation, then the redraw.
    void apply(uint64_t operation, std::vector<uint8_t>& payload);

    TrayMessageReceiver& m_receiver;
    const TrayLayout& m_layout;
    Fd m_launchnotifysocket;
    std::string m_launchNotifySocketName;
    // Wakes the watcher out of its wait when it is to stop.
    Fd m_wake;
    std::thread m_watcher;
    std::atomic<bool> m_stopping { false };
    // Messages handed to the main thread and not yet applied: the watcher
    // waits while too many are, so a flood costs bounded memory.
    std::mutex m_mutex;
    std::condition_variable m_applied;
    size_t m_inFlight = 0;
    MainQueueToken m_mainQueue;
};

} // namespace vt
