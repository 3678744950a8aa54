// The launch-notify socket: the Windows side's tray pushes each change of a
// tray icon here, one message per connection, and the launcher never
// answers. The socket lives in the launcher's private directory and its path
// goes to every Wine process in VT_SYSTRAY_SOCKET.
//
// A message: code (4 bytes, 74), tray operation (the sender's unsigned long),
// payload length N (4 bytes), N bytes of tray record; host byte order.
//
// One watcher thread reads several connections at once: it polls the
// listening socket, its wake-up and up to kMaxOpenConnections open
// connections, each with its own deadline (kReceiveTimeout from its accept),
// so a sender that connects and stalls holds one place for a while and
// nobody else. At the limit it stops accepting and the senders wait in the
// listen backlog; they are not turned away.
//
// Arrival order is the order in which messages are complete. One sender's
// messages keep the order it sent them in: it opens its next connection only
// after writing the whole of the previous message, and every turn of the
// watcher first accepts and then reads the open connections in accept order,
// so an earlier message of the same sender is always read to its end first.
// Messages from different senders take effect in whichever order they came
// in whole. The messages take effect on the main thread in that order; at
// most kMaxInFlight wait there, after which the watcher waits for the main
// thread (its connections' deadlines do not run meanwhile), so a flood of
// senders costs bounded memory.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
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
    // Connections read at the same time; more wait in the listen backlog.
    static constexpr size_t kMaxOpenConnections = 32;
    // Messages read and not yet applied on the main thread.
    static constexpr size_t kMaxInFlight = 64;
    // How long a connection may take to deliver its whole message.
    static constexpr std::chrono::milliseconds kReceiveTimeout { 2000 };

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

    // Watches for up to `timeout` until at least one connection is done
    // with (its message handed on, or refused, or timed out): false when
    // none was (or before the socket exists), true when one or more were.
    // The watcher thread's work; tests call it while no watcher runs.
    bool checkNotificationSocket(timeval timeout);

    // Starts the watcher thread (once); it watches until stop().
    void monitorFeedbackSocket();

    // Stops the watcher, drops the connections it has open, closes the
    // socket and removes its file. Messages not yet applied are dropped.
    // Main thread; idempotent.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    struct Connection {
        Fd fd;
        std::vector<uint8_t> bytes;
        Clock::time_point deadline;
    };
    struct Message {
        uint64_t operation;
        std::vector<uint8_t> payload;
    };
    // How a connection ended before its message was whole.
    struct Ending {
        bool endOfStream;
        int error; // the read's errno when it failed or timed out
    };

    // One turn: a wait of at most `timeout` (without one, until something
    // happens or the nearest deadline), the accepts, the reads. The number
    // of connections done with.
    size_t watchOnce(std::optional<std::chrono::milliseconds> timeout);
    // Takes what the backlog holds, up to the limit; the number refused.
    size_t acceptConnections(int listening);
    // Reads what has arrived; true when the connection is done with, and
    // then `message` holds what it brought, if anything is to be applied.
    bool readFrom(Connection& connection, std::optional<Message>& message);
    // Reads the message as it stands (whole, or cut short by `ending`) and
    // logs what is wrong with it; the message to apply, if any.
    std::optional<Message> finish(const Connection& connection, const Ending* ending);
    // Hands one message to the main thread, waiting while too many are there.
    void handOn(uint64_t operation, std::vector<uint8_t> payload);
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

    // The watcher's own: open connections in accept order, and whether
    // accepting fails (out of descriptors) and when to try again.
    std::deque<Connection> m_connections;
    bool m_acceptFailing = false;
    Clock::time_point m_acceptAgainAt {};

    std::mutex m_mutex;
    std::condition_variable m_applied;
    size_t m_inFlight = 0;
    MainQueueToken m_mainQueue;
};

} // namespace vt
