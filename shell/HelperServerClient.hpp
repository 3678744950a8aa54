// The client of the Vantor main application's helper server, reached over the
// session bus. It knows the environment that Windows processes of a bottle
// need and whether a bottle is ready to serve.
//
// The calls the launcher makes once it runs are synchronous, bounded by
// kHelperServerCallTimeout; the ones start-up repeats while it waits (the
// look-up and the bottle question) also come asynchronously, answered on the
// main loop, so the launcher keeps serving the desktop meanwhile.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "base/glib_glue.hpp"

namespace vt {

inline constexpr const char* kHelperServerBusName = "com.tallowmere.Vantor.HelperServer";
inline constexpr const char* kHelperServerObjectPath = "/com/tallowmere/Vantor/HelperServer";
inline constexpr const char* kHelperServerInterface = "com.tallowmere.Vantor.HelperServer";

// How long a call waits for the server's answer. It answers from memory, in
// a millisecond; one that takes this long has hung, and the caller (the main
// thread, during start-up and whenever a process is made) must not hang with
// it. Far below GDBus's own 25 seconds.
inline constexpr std::chrono::milliseconds kHelperServerCallTimeout { 2000 };

// The server's interface as introspection data, for whoever serves it: the
// product's helper server and the stand-in both export exactly this.
GDBusInterfaceInfo* helperServerInterfaceInfo();

// A call that the bus or the server refused, a server that went away in the
// middle of it or gave no answer in time. The message names the method and
// carries the D-Bus error.
class HelperServerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class HelperServerClient {
public:
    // One attempt to find the server: whether its name has an owner on the
    // session bus right now. Nothing is started on our behalf. Empty when the
    // bus cannot be reached or nobody owns the name.
    static std::unique_ptr<HelperServerClient> lookUp();
    // The same attempt, answered on the default main context; `done` is not
    // called once `cancellable` has been cancelled.
    static void lookUpAsync(GCancellable* cancellable,
                            std::function<void(std::unique_ptr<HelperServerClient>)> done);

    // Talks to whoever owns the server's name on `connection`.
    explicit HelperServerClient(GPtr<GDBusConnection> connection);
    // Drops this client's reference to the bus connection.
    ~HelperServerClient();
    HelperServerClient(const HelperServerClient&) = delete;
    HelperServerClient& operator=(const HelperServerClient&) = delete;

    // The base environment of every process started for the bottle. Each
    // call returns a fresh copy that the caller may change.
    std::map<std::string, std::string> getEnvironmentForXConnection();
    bool isServerReady();
    bool isServerReadyForBottle(const std::string& bottleName);
    // The same question, answered on the default main context: the answer,
    // or none and the error's text. Not called once `cancellable` has been
    // cancelled. A bottle name D-Bus cannot carry is refused at once, from
    // inside this call.
    void isServerReadyForBottleAsync(const std::string& bottleName, GCancellable* cancellable,
                                     std::function<void(std::optional<bool> ready, const std::string& error)> done);
    // One-way: sent without waiting for the server, which does not answer.
    // Throws when nobody owns the server's name (asked of the bus) or the
    // message cannot be sent at all.
    void raiseWindowsWithTag(int64_t tag);

private:
    GPtr<GVariant> call(const char* method, GVariant* parameters, const GVariantType* replyType);

    GPtr<GDBusConnection> m_connection;
};

} // namespace vt
