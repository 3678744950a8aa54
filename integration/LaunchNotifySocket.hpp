// The launch-notify socket: the Windows side's tray pushes each change of a
// tray icon here, one message per connection, and the launcher never
// answers. The socket lives in the launcher's private directory and its path
// goes to every Wine process in VT_SYSTRAY_SOCKET.
//
// A message: code (4 bytes, 74), tray operation (the sender's unsigned long),
// payload length N (4 bytes), N bytes of tray record; host byte order.
//
// The socket is served on the main loop (base/UnixSocketListener): up to
// kMaxOpenConnections connections are read at once, each with its own
// deadline (kReceiveTimeout from its accept), so a sender that connects and
// stalls holds one place for a while and nobody else. At the limit the
// socket is not watched and the senders wait in the listen backlog; they are
// not turned away. Nothing is read before monitorFeedbackSocket().
//
// Arrival order is the order in which messages are complete, and each takes
// effect as soon as it is: its connection is closed, then the operation is
// applied and the badges updated, one message at a time. One sender's
// messages keep the order it sent them in: it opens its next connection only
// after writing the whole of the previous message, and the earlier
// connection is always read before a later one in the same turn of the loop
// (its watch was made first), so an earlier message of the same sender is
// read to its end first. Messages from different senders take effect in
// whichever order they came in whole.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/UnixSocketListener.hpp"
#include "base/posix_glue.hpp"
#include "integration/TrayLayout.hpp"

namespace vt {

// What tray messages act on; called on the main loop, one message at a
// time in arrival order, and updateBadges after each message whatever its
// operation. Any of them may stop (or destroy) the socket.
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
    // How long a connection may take to deliver its whole message.
    static constexpr std::chrono::milliseconds kReceiveTimeout { 2000 };

    // `receiver` must outlive the watching (stop() or destruction).
    explicit LaunchNotifySocket(TrayMessageReceiver& receiver, const TrayLayout& layout = kNativeTrayLayout);
    ~LaunchNotifySocket();
    LaunchNotifySocket(const LaunchNotifySocket&) = delete;
    LaunchNotifySocket& operator=(const LaunchNotifySocket&) = delete;

    // Listening at a fresh path in `directory` (made once; later calls
    // answer at once). False, logged, when the socket cannot be made; the
    // next call tries again.
    bool startLaunchNotify(const std::filesystem::path& directory);
    // The socket's path; empty until it listens.
    const std::string& launchNotifySocketName() const { return m_launchNotifySocketName; }

    // Starts serving the socket on the main loop (once), now or as soon as
    // it is made; until then connections wait in the backlog. It is served
    // until stop().
    void monitorFeedbackSocket();

    // Stops watching, drops the connections it has open (their messages
    // unread), closes the socket and removes its file. Idempotent.
    void stop();

private:
    using Connection = UnixSocketListener::Connection;

    // A connection being read: what has come so far.
    struct Reading {
        std::unique_ptr<Connection> connection;
        std::vector<uint8_t> bytes;
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

    void startWatching();
    void accepted(std::unique_ptr<Connection> connection);
    // Reads what has arrived on `reading`; when its message is whole, cut
    // short or refused, closes it and applies what it brought.
    void readFrom(std::list<Reading>::iterator reading, bool deadlinePassed);
    // Reads what has arrived; true when the connection is done with, and
    // then `message` holds what it brought, if anything is to be applied.
    bool read(Reading& reading, bool deadlinePassed, std::optional<Message>& message);
    // Reads the message as it stands (whole, or cut short by `ending`) and
    // logs what is wrong with it; the message to apply, if any.
    std::optional<Message> finish(const std::vector<uint8_t>& bytes, const Ending* ending);
    // One message: its operation, then the redraw.
    void apply(uint64_t operation, std::vector<uint8_t>& payload);

    TrayMessageReceiver& m_receiver;
    const TrayLayout& m_layout;
    // The socket between startLaunchNotify and the start of watching.
    Fd m_launchnotifysocket;
    std::string m_launchNotifySocketName;
    bool m_monitoring = false;
    bool m_stopped = false;
    std::unique_ptr<UnixSocketListener> m_listener;
    // Open connections in accept order.
    std::list<Reading> m_connections;
};

} // namespace vt
