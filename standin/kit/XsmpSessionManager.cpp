#include "standin/kit/XsmpSessionManager.hpp"

#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include <X11/ICE/ICElib.h>
#include <X11/SM/SMlib.h>

#include "standin/kit/TestSupport.hpp"

namespace vt::test {

namespace {
    // Every client of this machine is welcome: a test's manager has no
    // authority file. The network is not.
    Bool localHost(char* host) { return host && std::string(host).starts_with("local/"); }
    void ignoreIOError(IceConn) {}

    std::vector<XsmpSessionManager*>& managers()
    {
        static std::vector<XsmpSessionManager*> all;
        return all;
    }

    std::string textOf(const SmProp& property, const SmPropValue& value)
    {
        if (std::string(property.type) == SmCARD8 && value.length == 1)
            return std::to_string(static_cast<unsigned char>(*static_cast<char*>(value.value)));
        return std::string(static_cast<char*>(value.value), static_cast<size_t>(value.length));
    }
} // namespace

struct XsmpSessionManager::Listener {
    int count = 0;
    IceListenObj* objects = nullptr;
    std::vector<OwnedSource> watches;
    ~Listener()
    {
        watches.clear();
        if (objects)
            IceFreeListenObjs(count, objects);
    }
};

struct XsmpSessionManager::Connection {
    IceConn ice = nullptr;
    SmsConn sms = nullptr;
    Client client;
    bool registered = false;
    bool propertiesSet = false;
    std::vector<std::string> messages;
    size_t read = 0;
    OwnedSource watch;

    void close()
    {
        watch.stop();
        if (sms)
            SmsCleanUp(std::exchange(sms, nullptr));
        if (ice) {
            IceSetShutdownNegotiation(ice, False);
            IceCloseConnection(std::exchange(ice, nullptr));
        }
        client.closed = true;
    }
};

struct XsmpManagerCallbacks {
    using Connection = XsmpSessionManager::Connection;
    static Connection& of(SmPointer data) { return *static_cast<Connection*>(data); }

    static Status newClient(SmsConn sms, SmPointer, unsigned long* mask, SmsCallbacks* callbacks, char** failure)
    {
        IceConn ice = SmsGetIceConnection(sms);
        for (XsmpSessionManager* manager : managers()) {
            for (auto& connection : manager->m_connections) {
                if (connection->ice != ice)
                    continue;
                connection->sms = sms;
                SmPointer data = connection.get();
                *callbacks = {};
                callbacks->register_client = { registerClient, data };
                callbacks->interact_request = { interactRequest, data };
                callbacks->interact_done = { interactDone, data };
                callbacks->save_yourself_request = { saveYourselfRequest, data };
                callbacks->save_yourself_phase2_request = { phase2Request, data };
                callbacks->save_yourself_done = { saveYourselfDone, data };
                callbacks->close_connection = { closeConnection, data };
                callbacks->set_properties = { setProperties, data };
                callbacks->delete_properties = { deleteProperties, data };
                callbacks->get_properties = { getProperties, data };
                *mask = ~0UL;
                return 1;
            }
        }
        *failure = strdup("stand-in session manager: a client on no connection of its own");
        return 0;
    }

    static Status registerClient(SmsConn sms, SmPointer data, char* previousId)
    {
        Connection& connection = of(data);
        // As Xfce's manager: an id it did not hand out itself is refused, and
        // libSM asks again without one.
        if (previousId) {
            connection.client.previousId = previousId;
            free(previousId);
            return 0;
        }
        char* generated = SmsGenerateClientID(sms);
        connection.client.clientId = generated ? generated : "vt-kit-client";
        free(generated);
        SmsRegisterClientReply(sms, connection.client.clientId.data());
        connection.registered = true;
        // A new client is asked to save itself at once, as the protocol has
        // managers do.
        SmsSaveYourself(sms, SmSaveLocal, False, SmInteractStyleNone, False);
        return 1;
    }

    static void interactRequest(SmsConn, SmPointer data, int dialogType)
    {
        of(data).messages.push_back(dialogType == SmDialogError ? "InteractRequest errors" : "InteractRequest normal");
    }
    static void interactDone(SmsConn, SmPointer data, Bool cancel)
    {
        of(data).messages.push_back(cancel ? "InteractDone cancel" : "InteractDone");
    }
    static void saveYourselfRequest(SmsConn, SmPointer data, int, Bool, int, Bool, Bool)
    {
        of(data).messages.push_back("SaveYourselfRequest");
    }
    static void phase2Request(SmsConn sms, SmPointer data)
    {
        of(data).messages.push_back("SaveYourselfPhase2Request");
        SmsSaveYourselfPhase2(sms);
    }
    static void saveYourselfDone(SmsConn, SmPointer data, Bool success)
    {
        of(data).messages.push_back(success ? "SaveYourselfDone success" : "SaveYourselfDone failure");
    }
    static void closeConnection(SmsConn, SmPointer data, int count, char** reasons)
    {
        SmFreeReasons(count, reasons);
        Connection& connection = of(data);
        connection.messages.push_back("CloseConnection");
        connection.close();
    }
    static void setProperties(SmsConn, SmPointer data, int count, SmProp** properties)
    {
        Connection& connection = of(data);
        for (int i = 0; i < count; ++i) {
            std::vector<std::string> values;
            for (int v = 0; v < properties[i]->num_vals; ++v)
                values.push_back(textOf(*properties[i], properties[i]->vals[v]));
            connection.client.properties[properties[i]->name] = std::move(values);
            SmFreeProperty(properties[i]);
        }
        free(properties);
        connection.propertiesSet = true;
    }
    static void deleteProperties(SmsConn, SmPointer data, int count, char** names)
    {
        for (int i = 0; i < count; ++i) {
            of(data).client.properties.erase(names[i]);
            free(names[i]);
        }
        free(names);
    }
    static void getProperties(SmsConn sms, SmPointer) { SmsReturnProperties(sms, 0, nullptr); }
};

XsmpSessionManager::XsmpSessionManager() : m_listener(std::make_unique<Listener>())
{
    char error[256] = "";
    static bool initialised = [&] {
        IceSetIOErrorHandler(ignoreIOError);
        return SmsInitialize("vt-kit", "1", XsmpManagerCallbacks::newClient, nullptr, localHost, sizeof error, error)
            != 0;
    }();
    if (!initialised)
        throw std::runtime_error(std::string("stand-in session manager: ") + error);
    if (!IceListenForConnections(&m_listener->count, &m_listener->objects, sizeof error, error))
        throw std::runtime_error(std::string("stand-in session manager: cannot listen: ") + error);
    for (int i = 0; i < m_listener->count; ++i) {
        IceListenObj object = m_listener->objects[i];
        IceSetHostBasedAuthProc(object, localHost);
        char* address = IceGetListenConnectionString(object);
        bool local = std::string(address).starts_with("local/");
        if (local && m_address.empty())
            m_address = address;
        free(address);
        if (!local)
            continue;
        m_listener->watches.push_back(watchDescriptor(IceGetListenConnectionNumber(object), "stand-in XSMP", [this, object] {
            IceAcceptStatus status;
            IceConn ice = IceAcceptConnection(object, &status);
            if (!ice)
                return true;
            auto connection = std::make_unique<Connection>();
            connection->ice = ice;
            Connection* raw = connection.get();
            connection->watch = watchDescriptor(IceConnectionNumber(ice), "stand-in XSMP client", [raw] {
                if (!raw->ice)
                    return false;
                IceProcessMessagesStatus status = IceProcessMessages(raw->ice, nullptr, nullptr);
                if (status == IceProcessMessagesConnectionClosed) {
                    // Closed by its own CloseConnection; libICE has freed it.
                    raw->ice = nullptr;
                    return false;
                }
                if (status == IceProcessMessagesIOError || IceConnectionStatus(raw->ice) == IceConnectRejected) {
                    raw->close();
                    return false;
                }
                return true;
            });
            m_connections.push_back(std::move(connection));
            return true;
        }));
    }
    if (m_address.empty())
        throw std::runtime_error("stand-in session manager: no local ICE socket");
    managers().push_back(this);
}

XsmpSessionManager::~XsmpSessionManager()
{
    vanish();
    std::erase(managers(), this);
}

void XsmpSessionManager::vanish()
{
    for (auto& connection : m_connections)
        if (connection->ice)
            connection->close();
    m_listener.reset();
}

XsmpSessionManager::Connection& XsmpSessionManager::first()
{
    if (m_connections.empty() || !m_connections.front()->sms)
        throw std::runtime_error("stand-in session manager: no client");
    return *m_connections.front();
}

std::optional<XsmpSessionManager::Client> XsmpSessionManager::waitForClient(std::chrono::milliseconds timeout)
{
    auto ready = [&] {
        return !m_connections.empty() && m_connections.front()->registered && m_connections.front()->propertiesSet;
    };
    if (!waitUntil(ready, timeout))
        return std::nullopt;
    return m_connections.front()->client;
}

void XsmpSessionManager::saveYourself(bool shutdown, Interaction interaction)
{
    int style = interaction == Interaction::Any ? SmInteractStyleAny
        : interaction == Interaction::Errors    ? SmInteractStyleErrors
                                                : SmInteractStyleNone;
    SmsSaveYourself(first().sms, SmSaveBoth, shutdown, style, False);
}

void XsmpSessionManager::interact() { SmsInteract(first().sms); }
void XsmpSessionManager::die() { SmsDie(first().sms); }
void XsmpSessionManager::shutdownCancelled() { SmsShutdownCancelled(first().sms); }

std::optional<std::string> XsmpSessionManager::waitForMessage(std::chrono::milliseconds timeout)
{
    auto arrived = [&] {
        return !m_connections.empty() && m_connections.front()->messages.size() > m_connections.front()->read;
    };
    if (!waitUntil(arrived, timeout))
        return std::nullopt;
    Connection& connection = *m_connections.front();
    return connection.messages[connection.read++];
}

std::vector<std::string> XsmpSessionManager::unreadMessages() const
{
    if (m_connections.empty())
        return {};
    const Connection& connection = *m_connections.front();
    return std::vector<std::string>(connection.messages.begin() + static_cast<long>(connection.read),
                                    connection.messages.end());
}

} // namespace vt::test
