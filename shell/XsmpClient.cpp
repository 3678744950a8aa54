#include "shell/XsmpClient.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include <X11/ICE/ICElib.h>
#include <X11/SM/SMlib.h>

#include "base/VTLog.hpp"

namespace vt {

namespace {
    // A session manager that takes longer to take the launcher has hung; the
    // launcher goes on as if there were none.
    constexpr std::chrono::milliseconds kConnectTimeout { 10000 };

    // libICE's own handlers end the process on a broken connection; here a
    // broken connection is seen where messages are read, and said there.
    void ignoreIOError(IceConn) {}
    void logIceError(IceConn, Bool, int, unsigned long, int errorClass, int severity, IcePointer)
    {
        VTLog("the session manager's connection reports error %d (severity %d)", errorClass, severity);
    }
    void logSmError(SmcConn, Bool, int minorOpcode, unsigned long, int errorClass, int severity, SmPointer)
    {
        VTLog("the session manager reports error %d on message %d (severity %d)", errorClass, minorOpcode, severity);
    }

    // Once per process, before any other use of libICE: the connection is
    // made on a thread of its own.
    void prepareIce()
    {
        static std::once_flag once;
        std::call_once(once, [] {
            IceInitThreads();
            IceSetIOErrorHandler(ignoreIOError);
            IceSetErrorHandler(logIceError);
            SmcSetErrorHandler(logSmError);
        });
    }

    XsmpClient::Connection adoptConnection(SmcConn connection)
    {
        return XsmpClient::Connection(connection, [](SmcConn c) {
            if (c)
                SmcCloseConnection(c, 0, nullptr);
        });
    }

    std::string userName()
    {
        if (const passwd* entry = getpwuid(getuid()))
            return entry->pw_name;
        return std::to_string(getuid());
    }
} // namespace

// What the connecting thread shares with the client: the client, for as long
// as it waits for the connection, and the callbacks' data.
struct XsmpClient::Attempt {
    XsmpClient* client = nullptr;
};

struct XsmpCallbacks {
    static XsmpClient* clientOf(SmPointer data) { return static_cast<XsmpClient::Attempt*>(data)->client; }

    static void saveYourself(SmcConn connection, SmPointer data, int, Bool shutdown, int interactStyle, Bool)
    {
        XsmpClient* self = clientOf(data);
        if (!self)
            return;
        VTLog("the session manager says save yourself (shutdown %d, interaction %d)", shutdown, interactStyle);
        // Only a logout or a shutdown concerns the program, and only one
        // during which its user may be asked.
        if (!shutdown || interactStyle == SmInteractStyleNone || self->m_save != XsmpClient::Save::None
            || !SmcInteractRequest(connection, interactStyle == SmInteractStyleErrors ? SmDialogError : SmDialogNormal,
                                   interact, data)) {
            SmcSaveYourselfDone(connection, True);
            return;
        }
        self->m_save = XsmpClient::Save::AwaitingInteraction;
    }

    static void interact(SmcConn, SmPointer data)
    {
        XsmpClient* self = clientOf(data);
        if (!self || self->m_save != XsmpClient::Save::AwaitingInteraction)
            return;
        self->m_save = XsmpClient::Save::Asking;
        if (self->m_phases.queryEnd)
            SessionPhases::take(self->m_phases.queryEnd, "interaction");
        else
            self->answerQueryEnd(true);
    }

    static void die(SmcConn, SmPointer data)
    {
        XsmpClient* self = clientOf(data);
        if (!self)
            return;
        VTLog("the session manager says die");
        self->m_save = XsmpClient::Save::None;
        SessionPhases::take(self->m_phases.end, "Die");
    }

    static void shutdownCancelled(SmcConn, SmPointer data)
    {
        XsmpClient* self = clientOf(data);
        if (!self)
            return;
        VTLog("the session manager says the shutdown is cancelled");
        // A save still open ends unfinished; the program's answer, when it
        // comes, has nobody left to go to.
        self->closeSave(false);
        SessionPhases::take(self->m_phases.cancel, "ShutdownCancelled");
    }

    static void saveComplete(SmcConn, SmPointer) {}
};

XsmpClient::XsmpClient(std::string address, std::string previousId, std::string program, SessionPhases phases,
                       std::function<void(const std::string&)> problem)
    : m_program(std::move(program)), m_phases(std::move(phases)), m_problem(std::move(problem)),
      m_attempt(std::make_shared<Attempt>())
{
    prepareIce();
    m_attempt->client = this;
    m_patience = TimeoutSource("session manager connection", kConnectTimeout, [this] {
        m_attempt->client = nullptr;
        m_problem("it did not take the launcher as a client within 10 s");
        return false;
    });
    // libSM waits for the manager's answer inside SmcOpenConnection; the
    // thread does that waiting, and hands the connection to the main loop.
    std::thread([attempt = m_attempt, address = std::move(address), previousId = std::move(previousId)] {
        SmcCallbacks callbacks {};
        callbacks.save_yourself = { XsmpCallbacks::saveYourself, attempt.get() };
        callbacks.die = { XsmpCallbacks::die, attempt.get() };
        callbacks.save_complete = { XsmpCallbacks::saveComplete, attempt.get() };
        callbacks.shutdown_cancelled = { XsmpCallbacks::shutdownCancelled, attempt.get() };
        std::vector<char> addressText(address.begin(), address.end());
        addressText.push_back('\0');
        char* clientId = nullptr;
        char error[256] = "";
        Connection connection = adoptConnection(SmcOpenConnection(
            addressText.data(), nullptr, SmProtoMajor, SmProtoMinor,
            SmcSaveYourselfProcMask | SmcDieProcMask | SmcSaveCompleteProcMask | SmcShutdownCancelledProcMask,
            &callbacks, previousId.empty() ? nullptr : previousId.c_str(), &clientId, sizeof error, error));
        std::string id = clientId ? clientId : "";
        free(clientId);
        if (connection)
            fcntl(IceConnectionNumber(SmcGetIceConnection(connection.get())), F_SETFD, FD_CLOEXEC);
        std::string problem = connection ? std::string() : std::string(error[0] ? error : "no connection");
        // The connection is closed wherever the last hold on it goes: on the
        // main loop, if the client no longer waits for it.
        runOnMain([attempt, connection, id, problem] {
            XsmpClient* self = attempt->client;
            if (!self)
                return;
            self->m_patience.stop();
            if (!connection) {
                attempt->client = nullptr;
                self->m_problem("it did not take the launcher as a client (" + problem + ")");
                return;
            }
            self->connected(connection, id);
        });
    }).detach();
}

XsmpClient::~XsmpClient()
{
    m_attempt->client = nullptr;
    m_messages.stop();
}

void XsmpClient::connected(Connection connection, const std::string& clientId)
{
    m_connection = std::move(connection);
    setProperties();
    m_messages = UnixFdSource("session manager", IceConnectionNumber(SmcGetIceConnection(m_connection.get())),
                              [this] { return readMessages(); });
    VTLog("registered with the session manager as %@", clientId);
}

void XsmpClient::setProperties()
{
    std::string user = userName();
    std::string pid = std::to_string(getpid());
    char restartNever = SmRestartNever;
    SmPropValue programValue { static_cast<int>(m_program.size()), m_program.data() };
    SmPropValue userValue { static_cast<int>(user.size()), user.data() };
    SmPropValue pidValue { static_cast<int>(pid.size()), pid.data() };
    SmPropValue hintValue { 1, &restartNever };
    // The manager needs a way to start the client again, even one it is told
    // never to restart.
    SmProp program { const_cast<char*>(SmProgram), const_cast<char*>(SmARRAY8), 1, &programValue };
    SmProp restart { const_cast<char*>(SmRestartCommand), const_cast<char*>(SmLISTofARRAY8), 1, &programValue };
    SmProp clone { const_cast<char*>(SmCloneCommand), const_cast<char*>(SmLISTofARRAY8), 1, &programValue };
    SmProp userId { const_cast<char*>(SmUserID), const_cast<char*>(SmARRAY8), 1, &userValue };
    SmProp processId { const_cast<char*>(SmProcessID), const_cast<char*>(SmARRAY8), 1, &pidValue };
    SmProp hint { const_cast<char*>(SmRestartStyleHint), const_cast<char*>(SmCARD8), 1, &hintValue };
    SmProp* properties[] = { &program, &restart, &clone, &userId, &processId, &hint };
    SmcSetProperties(m_connection.get(), static_cast<int>(std::size(properties)), properties);
}

bool XsmpClient::readMessages()
{
    IceConn ice = SmcGetIceConnection(m_connection.get());
    m_reading = true;
    IceProcessMessagesStatus status = IceProcessMessages(ice, nullptr, nullptr);
    m_reading = false;
    if (!m_attempt->client) {
        // Left from one of the manager's own messages (the launcher ended
        // on its Die): closed now that libICE no longer reads from it.
        m_connection.reset();
        return false;
    }
    if (status == IceProcessMessagesSuccess)
        return true;
    // Gone: nothing can be said to it any more, not even goodbye.
    if (status == IceProcessMessagesIOError)
        IceSetShutdownNegotiation(ice, False);
    lost("it has gone");
    return false;
}

void XsmpClient::answerQueryEnd(bool mayEnd)
{
    if (!m_connection || m_save != Save::Asking)
        return;
    SmcInteractDone(m_connection.get(), !mayEnd);
    closeSave(true);
}

void XsmpClient::closeSave(bool success)
{
    if (m_connection && m_save != Save::None)
        SmcSaveYourselfDone(m_connection.get(), success);
    m_save = Save::None;
}

void XsmpClient::unregister()
{
    m_attempt->client = nullptr;
    m_patience.stop();
    if (m_reading)
        return;
    m_messages.stop();
    m_connection.reset();
}

void XsmpClient::lost(const std::string& what)
{
    unregister();
    m_problem(what);
}

} // namespace vt
