// The launcher as a client of an X session manager (XSMP, spoken by KDE
// Plasma's, Xfce's and LXQt's session managers, reached through the address
// in SESSION_MANAGER; no display connection is needed).
//
// What the manager says, and what the launcher makes of it:
//
//   SaveYourself, shutdown, interaction allowed
//                     asks for interaction (the program may ask its user);
//                     once granted -> queryEnd, answered with answerQueryEnd:
//                     InteractDone(cancel the shutdown = the program refused),
//                     then SaveYourselfDone
//   SaveYourself, anything else
//                     SaveYourselfDone at once: the launcher keeps no state
//                     of its own, and the program is not asked
//   Die               -> end; the connection closes when the launcher ends
//   ShutdownCancelled -> cancel (a save still open is closed first)
//
// The launcher never asks to be restarted (SmRestartNever): it is started
// from its bundle.
//
// libSM has no asynchronous way to connect, so the connection is made on a
// thread of its own; everything after it happens on the main loop. A manager
// that does not answer within the bound, or goes, is left alone.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/MainLoop.hpp"
#include "shell/SessionPhases.hpp"

struct _SmcConn;

namespace vt {

class XsmpClient {
public:
    // Connects to the manager at `address` (SESSION_MANAGER's value),
    // presenting `previousId` (may be empty) and `program` (the launcher's
    // executable). `problem` is told what went wrong, once per problem.
    XsmpClient(std::string address, std::string previousId, std::string program, SessionPhases phases,
               std::function<void(const std::string&)> problem);
    ~XsmpClient();
    XsmpClient(const XsmpClient&) = delete;
    XsmpClient& operator=(const XsmpClient&) = delete;

    bool isRegistered() const { return m_connection != nullptr; }
    void answerQueryEnd(bool mayEnd);
    // The launcher ends: the connection closes, which is how a client
    // leaves an X session.
    void unregister();

    using Connection = std::shared_ptr<_SmcConn>;

private:
    struct Attempt;
    enum class Save { None, AwaitingInteraction, Asking };

    void connected(Connection connection, const std::string& clientId);
    void setProperties();
    bool readMessages();
    void closeSave(bool success);
    void lost(const std::string& what);

    std::string m_program;
    SessionPhases m_phases;
    std::function<void(const std::string&)> m_problem;
    std::shared_ptr<Attempt> m_attempt;
    TimeoutSource m_patience;
    Connection m_connection;
    UnixFdSource m_messages;
    Save m_save = Save::None;
    bool m_reading = false;

    friend struct XsmpCallbacks;
};

} // namespace vt
