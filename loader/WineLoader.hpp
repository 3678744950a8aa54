// The in-process Wine loader's server: a Unix-domain socket through which the
// product's Wine loader hands its start request over to the launcher, so that
// Wine runs inside the launcher process and the Windows program and the
// launcher are one process.
//
// It listens in the launcher's private directory, accepts on a thread of its
// own and gives each connection to a WineLoaderClientConnection on a thread of
// its own. Exactly one connection ever takes the start over: the first to ask
// (on the main thread) gets it, and from then on the server has no socket, no
// file and no path.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "base/NotificationCenter.hpp"
#include "base/posix_glue.hpp"
#include "loader/WineLoaderProtocol.hpp"

namespace vt {

// Posted on a connection's thread, object the WineLoader, when a loader of
// the other architecture asked to hand over; the key holds what it asked
// for ("i386" or "x86_64").
inline constexpr const char* WineLoaderRejectedRequestForWrongArchitectureNotification =
    "WineLoaderRejectedRequestForWrongArchitectureNotification";
inline constexpr const char* WineLoaderRequestedArchitectureKey = "WineLoaderRequestedArchitectureKey";

class WineLoaderClientConnection;

class WineLoader : public std::enable_shared_from_this<WineLoader> {
public:
    // A server listening at a fresh path in `directory`, or null on any
    // failure, logged nowhere: what no loader means is the caller's business.
    // Main thread.
    static std::shared_ptr<WineLoader> create(std::string vantorRoot, const std::filesystem::path& directory,
                                              const WineLoaderLayout& layout = kNativeWineLoaderLayout);
    ~WineLoader();
    WineLoader(const WineLoader&) = delete;
    WineLoader& operator=(const WineLoader&) = delete;

    const std::string& vantorRoot() const { return m_vantorRoot; }
    const WineLoaderLayout& layout() const { return m_layout; }

    // The socket's path while its file exists; empty once a request has
    // taken the start over. Main thread.
    std::string socketPath() const { return m_bound ? m_socketPath : std::string(); }

    // The single hand-over: true for the first connection that asks, false
    // for every later one. The connection is not examined. Main thread.
    bool shouldConnectionProceedWithRequest(const WineLoaderClientConnection& connection);

private:
    WineLoader(std::string vantorRoot, const WineLoaderLayout& layout);
    bool listenAt(const std::filesystem::path& directory);
    void acceptConnections(); // the accept thread
    // The accept thread's pause after a failure that may pass (descriptors
    // or memory running out); false when it is to stop instead.
    bool waitBeforeRetrying();
    // Stops the accept thread (which closes the socket); false when it had
    // already stopped.
    bool stopListening();
    void unlinkSocketFile();

    std::string m_vantorRoot;
    const WineLoaderLayout& m_layout;
    Fd m_sock;
    std::string m_socketPath;
    bool m_bound = false;
    Observation m_unlinkingObserver;
    // Written to stop the accept thread.
    Fd m_wake;
    std::thread m_acceptThread;
};

} // namespace vt
