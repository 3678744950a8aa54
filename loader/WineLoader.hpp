// The in-process Wine loader's server: a Unix-domain socket through which the
// product's Wine loader hands its start request over to the launcher, so that
// Wine runs inside the launcher process and the Windows program and the
// launcher are one process.
//
// Everything up to wine_init happens on the main loop: accepting (at most
// kWineLoaderMaxOpenConnections at once, each given
// kWineLoaderRequestDeadline to deliver its whole request, or it is closed),
// reading each request as its bytes arrive (WineLoaderClientConnection), the
// single hand-over, the answer, and every change the hand-over makes to the
// process (Wine's address ranges, the working directory, the environment,
// the standard descriptors). Only then does one thread, "vt-wine", call
// wine_init, which does not return while Wine runs. Exactly one connection ever takes the start over: the first
// sound request to be read whole; from then on the server has no socket, no
// file and no path, and nothing more can be handed over.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "base/NotificationCenter.hpp"
#include "base/UnixSocketListener.hpp"
#include "loader/WineLoaderClientConnection.hpp"
#include "loader/WineLoaderProtocol.hpp"

namespace vt {

// Posted on the main thread, object the WineLoader, when a loader of the
// other architecture asked to hand over; the key holds what it asked for
// ("i386" or "x86_64").
inline constexpr const char* WineLoaderRejectedRequestForWrongArchitectureNotification =
    "WineLoaderRejectedRequestForWrongArchitectureNotification";
inline constexpr const char* WineLoaderRequestedArchitectureKey = "WineLoaderRequestedArchitectureKey";

// A loader sends its whole request at once; one that has not within
// this time is not a loader worth waiting for.
inline constexpr std::chrono::milliseconds kWineLoaderRequestDeadline { 10000 };
// Requests read at once; more loaders wait in the listen backlog. One
// program start sends one.
inline constexpr size_t kWineLoaderMaxOpenConnections = 16;

// What the owner hears, each on the main thread from a main-loop
// callback of its own (never from inside a call into the loader), so it
// may let the loader go there; nothing is heard once it has gone. All
// are optional.
struct WineLoaderCallbacks {
    // A loader of the other architecture was refused; `architecture` is
    // what it asked for ("i386" on the 64-bit launcher, "x86_64" on the
    // 32-bit one). The notification of the same name is posted first.
    // The server goes on listening.
    std::function<void(const std::string& architecture)> rejectedRequestForWrongArchitecture;
    // Wine now runs inside this process: a request was taken over and
    // the Wine thread calls wine_init. wineRunsInside() is true.
    std::function<void()> wineStarted;
    // A hand-over failed once decided (the answer could not be sent, a
    // malformed environment string, no Wine thread, or wine_init returned,
    // heard after wineStarted): no Windows program runs inside this process
    // and none ever can, since the server is spent. `reason` is what was
    // logged.
    std::function<void(const std::string& reason)> handOverFailed;
};

// The launcher takes the defaults; tests choose the other word size's rules
// or shorter deadlines.
struct WineLoaderSettings {
    const WineLoaderLayout* layout = &kNativeWineLoaderLayout;
    std::chrono::milliseconds requestDeadline = kWineLoaderRequestDeadline;
    size_t maxOpenConnections = kWineLoaderMaxOpenConnections;
};

class WineLoader : public std::enable_shared_from_this<WineLoader> {
public:
    using Callbacks = WineLoaderCallbacks;
    using Settings = WineLoaderSettings;

    // A server listening at a fresh path in `directory`, or null on any
    // failure, logged nowhere: what no loader means is the caller's business.
    // Main thread.
    static std::shared_ptr<WineLoader> create(std::string vantorRoot, const std::filesystem::path& directory,
                                              Callbacks callbacks = {}, const Settings& settings = {});
    // Stops listening and removes the socket file. A Wine thread already
    // started runs on; what it reports afterwards goes nowhere.
    ~WineLoader();
    WineLoader(const WineLoader&) = delete;
    WineLoader& operator=(const WineLoader&) = delete;

    const std::string& vantorRoot() const { return m_vantorRoot; }
    const WineLoaderLayout& layout() const { return m_layout; }

    // The socket's path while its file exists; empty once a request has
    // taken the start over. Main thread.
    std::string socketPath() const { return m_bound ? m_socketPath : std::string(); }

    // True from the moment the Wine thread starts until it reports that
    // wine_init failed: the Windows program runs inside this process, so the
    // launcher stays when the tools it started end. Main thread.
    bool wineRunsInside() const { return m_wineRunsInside; }

    // The single hand-over: true for the first connection that asks, false
    // for every later one. The connection is not examined. Main thread.
    bool shouldConnectionProceedWithRequest(const WineLoaderClientConnection& connection);

private:
    struct Pending {
        std::unique_ptr<UnixSocketListener::Connection> socket;
        std::unique_ptr<WineLoaderClientConnection> reader;
    };

    WineLoader(std::string vantorRoot, Callbacks callbacks, const Settings& settings);
    bool listenAt(const std::filesystem::path& directory);
    void accepted(std::unique_ptr<UnixSocketListener::Connection> socket);
    void readable(std::list<Pending>::iterator pending);
    void deadlinePassed(std::list<Pending>::iterator pending);
    void rejectWrongArchitecture();
    // From a complete request to the Wine thread. A request refused before
    // the decision leaves the server listening.
    void startWine(Pending pending, WineLoaderRequest request);
    void handOverFailed(std::string reason);
    void unlinkSocketFile();

    std::string m_vantorRoot;
    const WineLoaderLayout& m_layout;
    Settings m_settings;
    Callbacks m_callbacks;
    std::string m_socketPath;
    bool m_bound = false;
    bool m_handedOver = false;
    bool m_wineRunsInside = false;
    Observation m_unlinkingObserver;
    std::unique_ptr<UnixSocketListener> m_listener;
    // Connections whose requests are being read, in accept order.
    std::list<Pending> m_pending;
};

} // namespace vt
