// The product's helper server, com.tallowmere.Vantor.HelperServer, served by
// the main application on its session-bus connection:
//
//   IsServerReady()                  true: it answers as soon as it is there.
//   IsServerReadyForBottle(s)        whether the bottle's Wine prefix is
//                                    ready; the first question about a bottle
//                                    that is not starts its set-up in the
//                                    background (BottlePreparation.hpp).
//   GetEnvironmentForXConnection()   the environment that the bottle's
//                                    programs run with, taken from the main
//                                    application's own: the display, the
//                                    user, the locale, the folders, the
//                                    session bus, the product's choice of
//                                    Wine; with Wine kept quiet and without
//                                    the Mono and Gecko installers unless the
//                                    user chose otherwise. No WINEPREFIX: the
//                                    tools set it from the bottle they are
//                                    given.
//   RaiseWindowsWithTag(x)           raises the program's windows on the
//                                    X display the main application runs on
//                                    (X11Windows.hpp); callers do not wait.
#pragma once

#include <functional>
#include <string>

#include "base/glib_glue.hpp"
#include "product/helper_server/BottlePreparation.hpp"

namespace vt::product {

class HelperServer {
public:
    // Exports the server's object on `connection` and owns its name there;
    // throws when the object cannot be exported.
    // `bottleReady` is told each bottle the server has made ready.
    HelperServer(GDBusConnection* connection, std::function<void(const std::string& bottle)> bottleReady = {});
    // Gives the name back, then withdraws the object.
    ~HelperServer();
    HelperServer(const HelperServer&) = delete;
    HelperServer& operator=(const HelperServer&) = delete;

private:
    static void handleMethodCall(GDBusConnection*, const char* sender, const char* objectPath,
                                 const char* interfaceName, const char* methodName, GVariant* parameters,
                                 GDBusMethodInvocation* invocation, gpointer data) noexcept;
    void answer(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation);
    void raiseWindowsWithTag(int64_t tag);

    BottlePreparation m_bottles;
    DBusObjectRegistration m_object;
    BusNameOwnership m_name;
};

} // namespace vt::product
