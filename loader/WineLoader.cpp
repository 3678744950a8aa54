#include "loader/WineLoader.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/MainLoop.hpp"
#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "base/posix_glue.hpp"
#include "loader/ExecutableLayout.hpp"
#include "shell/Application.hpp"
#include "shell/PrivateDirectory.hpp"

namespace vt {

namespace {
    constexpr int kBacklog = 5;
    constexpr const char* kAcceptName = "-[WineLoader acceptConnections]";
    constexpr const char* kHandle = "-[WineLoaderClientConnection handleConnection]";
    constexpr size_t kWineErrorSize = 1024;

    using WineInit = void (*)(int argc, char* argv[], char* error, int errorSize);
    using WineAnonMmap = void* (*)(void* start, size_t size, int prot, int flags);
    using WineMmapAddReservedArea = void (*)(void* addr, size_t size);

    // Wine's library, closed again unless Wine has taken over.
    class WineLibrary {
    public:
        explicit WineLibrary(const std::string& path) : m_handle(::dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL)) {}
        ~WineLibrary()
        {
            if (m_handle)
                ::dlclose(m_handle);
        }
        WineLibrary(const WineLibrary&) = delete;
        WineLibrary& operator=(const WineLibrary&) = delete;
        explicit operator bool() const { return m_handle != nullptr; }
        template <typename F> F symbol(const char* name) const { return reinterpret_cast<F>(::dlsym(m_handle, name)); }

    private:
        void* m_handle;
    };

    std::string dlerrorText()
    {
        const char* text = ::dlerror();
        return text ? text : "unknown error";
    }

    // Logs the message and gives it back, for the owner to hear it too.
    template <typename... Args> std::string logged(LogFormat<std::type_identity_t<Args>...> format, const Args&... args)
    {
        std::string message = formatMessage<Args...>(format, args...);
        writeLogLine(message);
        return message;
    }

    // What the Wine thread needs, prepared on the main thread and handed to
    // it whole: from then on only that thread touches it.
    struct WineStart {
        std::unique_ptr<WineLibrary> library;
        WineInit wineInit = nullptr;
        // The argument strings and the Wine server socket and wait-children
        // pipe, which stay open for Wine.
        WineLoaderRequest request;
        std::string loaderPath;
        std::vector<char*> argv;
        std::weak_ptr<WineLoader> loader;
    };
} // namespace

WineLoader::WineLoader(std::string vantorRoot, Callbacks callbacks, const Settings& settings)
    : m_vantorRoot(std::move(vantorRoot))
    , m_layout(*settings.layout)
    , m_settings(settings)
    , m_callbacks(std::move(callbacks))
{
}

std::shared_ptr<WineLoader> WineLoader::create(std::string vantorRoot, const std::filesystem::path& directory,
                                               Callbacks callbacks, const Settings& settings)
{
    std::shared_ptr<WineLoader> loader(new WineLoader(std::move(vantorRoot), std::move(callbacks), settings));
    if (!loader->listenAt(directory))
        return nullptr;
    return loader;
}

bool WineLoader::listenAt(const std::filesystem::path& directory)
{
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
        return false;

    std::optional<std::string> bound = bindFreshSocket(socket.get(), directory, "loader");
    if (!bound)
        return false;
    const std::string path = *bound;
    m_socketPath = path;
    m_bound = true;

    if (Application* application = Application::shared()) {
        m_unlinkingObserver = NotificationCenter::defaultCenter().addObserver(
            ApplicationWillTerminateNotification, application,
            [path](const Notification&) { ::unlink(path.c_str()); });
    }
    if (::listen(socket.get(), kBacklog) != 0)
        return false;

    UnixSocketListener::Handlers handlers;
    handlers.accepted = [this](std::unique_ptr<UnixSocketListener::Connection> connection) {
        accepted(std::move(connection));
    };
    // Only this user may hand a program over: another user's loader would
    // run its program as us.
    handlers.refused = [](const std::optional<ucred>& peer, int error) {
        if (peer)
            platformLog("%s: refused a connection from uid %u (pid %d): only this user may hand a program over",
                        kAcceptName, static_cast<unsigned>(peer->uid), static_cast<int>(peer->pid));
        else
            platformLog("%s: cannot tell who connected; errno %d", kAcceptName, error);
    };
    // Out of descriptors or memory, most likely for a moment: the loader
    // waits in the backlog meanwhile.
    handlers.acceptFailing = [](int error) {
        platformLog("%s: accept failed; errno %d (%s); trying again until it works", kAcceptName, error,
                    std::strerror(error));
    };
    handlers.acceptRecovered = [](unsigned failures) {
        platformLog("%s: accepting loaders again after %u failed attempts", kAcceptName, failures);
    };
    handlers.ended = [](int error) {
        platformLog("%s: accept failed; errno %d; no more loaders are accepted", kAcceptName, error);
    };
    UnixSocketListener::Limits limits;
    limits.maxOpenConnections = m_settings.maxOpenConnections;
    limits.deadline = m_settings.requestDeadline;
    m_listener = std::make_unique<UnixSocketListener>(std::move(socket), "vt loader socket", limits,
                                                      std::move(handlers));
    return true;
}

WineLoader::~WineLoader()
{
    m_pending.clear();
    m_listener.reset();
    m_unlinkingObserver.reset();
    unlinkSocketFile();
}

void WineLoader::accepted(std::unique_ptr<UnixSocketListener::Connection> socket)
{
    const int fd = socket->fd();
    try {
        auto reader = std::make_unique<WineLoaderClientConnection>(m_layout, fd);
        if (reader->isFinished()) // refused already, logged
            return;
        auto pending = m_pending.insert(m_pending.end(), Pending { std::move(socket), std::move(reader) });
        pending->socket->watch([this, pending] { readable(pending); }, [this, pending] { deadlinePassed(pending); });
    } catch (const std::exception&) {
        platformLog("%s: failed to create WineLoaderClientConnection for connection socket %d", kAcceptName, fd);
    }
}

void WineLoader::readable(std::list<Pending>::iterator pending)
{
    using State = WineLoaderClientConnection::State;
    State state = pending->reader->readAvailable();
    if (!pending->reader->isFinished())
        return;
    Pending finished = std::move(*pending);
    m_pending.erase(pending);
    if (state == State::Complete) {
        WineLoaderRequest request = finished.reader->takeRequest();
        startWine(std::move(finished), std::move(request));
    }
    else if (state == State::WrongArchitecture)
        rejectWrongArchitecture();
    // The connection closes here, with no answer, unless the start took it.
}

void WineLoader::deadlinePassed(std::list<Pending>::iterator pending)
{
    // Whatever it had sent goes with it, descriptors included.
    platformLog("%s: the request did not come whole within %lld ms; the connection is closed", kHandle,
                static_cast<long long>(m_settings.requestDeadline.count()));
    m_pending.erase(pending);
}

void WineLoader::rejectWrongArchitecture()
{
    runOnMain([loader = weak_from_this(), architecture = std::string(m_layout.otherArchitecture)] {
        // Held for the call: an observer may let the loader go meanwhile.
        auto self = loader.lock();
        if (!self)
            return;
        NotificationCenter::defaultCenter().post(WineLoaderRejectedRequestForWrongArchitectureNotification, self.get(),
                                                 { { WineLoaderRequestedArchitectureKey, architecture } });
        if (self->m_callbacks.rejectedRequestForWrongArchitecture)
            self->m_callbacks.rejectedRequestForWrongArchitecture(architecture);
    });
}

bool WineLoader::shouldConnectionProceedWithRequest(const WineLoaderClientConnection&)
{
    if (m_handedOver)
        return false;
    m_handedOver = true;
    // Listening ends here: a loader that connects now is refused at once
    // instead of waiting in the backlog. Requests still being read are
    // read to their end and refused then.
    m_listener.reset();
    m_unlinkingObserver.reset();
    unlinkSocketFile();
    m_socketPath.clear();
    VTLog("a loader's request takes the Windows program into this process");
    return true;
}

void WineLoader::startWine(Pending pending, WineLoaderRequest request)
{
    // The library and its entry point first: a request that cannot be served
    // must not spend the server's single hand-over.
    std::string libraryPath = m_vantorRoot + "/" + m_layout.libraryDirectory + "/" + kWineLibraryName;
    auto start = std::make_unique<WineStart>();
    start->library = std::make_unique<WineLibrary>(libraryPath);
    if (!*start->library) {
        platformLog("Failed to load %@: %s", libraryPath, dlerrorText());
        return;
    }
    start->wineInit = start->library->symbol<WineInit>("wine_init");
    if (!start->wineInit) {
        platformLog("Failed to find symbol 'wine_init' in %@: %s", libraryPath, dlerrorText());
        return;
    }
    if (!shouldConnectionProceedWithRequest(*pending.reader))
        return;

    // From here on the server is spent, whatever happens next.
    uint32_t response = WineLoaderResponseProceed;
    const char* p = reinterpret_cast<const char*>(&response);
    size_t left = sizeof response;
    while (left > 0) {
        // Four bytes into a socket nobody has written to yet: no wait.
        ssize_t n = ::send(pending.socket->fd(), p, left, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            handOverFailed(logged("%s: failed to send response; errno %d; p %p; &response %p; sizeof(response) %lu",
                                  kHandle, errno, static_cast<const void*>(p), static_cast<const void*>(&response),
                                  static_cast<unsigned long>(sizeof response)));
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    pending = {};

    // Everything that changes the process happens here, on the main thread,
    // before the Wine thread exists: no setenv of ours races a getenv of
    // another thread of ours.

    // Wine's memory manager gets the ranges the executable kept free for it.
    auto anonMmap = start->library->symbol<WineAnonMmap>("wine_anon_mmap");
    auto addReservedArea = start->library->symbol<WineMmapAddReservedArea>("wine_mmap_add_reserved_area");
    if (!anonMmap || !addReservedArea) {
        platformLog("Failed to find mmap symbols in %@: %s", libraryPath, dlerrorText());
    } else {
        for (const ReservedArea& area : wineReservedAreas()) {
            anonMmap(reinterpret_cast<void*>(area.start), area.length, PROT_NONE, MAP_FIXED | MAP_NORESERVE);
            addReservedArea(reinterpret_cast<void*>(area.start), area.length);
        }
    }

    if (!request.workingDirectory.empty())
        [[maybe_unused]] int ignored = ::chdir(request.workingDirectory.c_str());

    // The request's variables are laid over the launcher's own, except the
    // two that must name what this process really holds.
    for (size_t at = 0; at < request.environment.size();) {
        char* entry = request.environment.data() + at;
        at += std::strlen(entry) + 1;
        char* equals = std::strchr(entry, '=');
        if (!equals) {
            handOverFailed(logged("%s: environment buffer has malformed string: %s", kHandle, entry));
            return;
        }
        *equals = '\0';
        if (std::strcmp(entry, "WINE_WAIT_CHILD_PIPE") != 0 && std::strcmp(entry, "VT_ALT_LOADER_SOCKET") != 0)
            ::setenv(entry, equals + 1, 1);
    }

    try {
        start->argv.reserve(static_cast<size_t>(request.argumentCount) + 1);
        for (size_t at = 0; at < request.arguments.size(); at += std::strlen(request.arguments.data() + at) + 1)
            start->argv.push_back(request.arguments.data() + at);
        start->argv.push_back(nullptr);
        if (*start->argv[0] == '\0') {
            const char* fromEnvironment = std::getenv("WINELOADER");
            start->loaderPath = fromEnvironment ? fromEnvironment : m_vantorRoot + "/bin/" + m_layout.defaultLoader;
            start->argv[0] = start->loaderPath.data();
        }
    } catch (const std::bad_alloc&) {
        handOverFailed(logged("failed to construct wineloader path string"));
        return;
    }

    for (int standard : { WineLoaderStandardInput, WineLoaderStandardOutput, WineLoaderStandardError }) {
        ::dup2(request.descriptors[standard].get(), standard);
        request.descriptors[standard].reset();
    }

    Fd& serverSocket = request.descriptors[WineLoaderServerSocket];
    if (::fcntl(serverSocket.get(), F_SETFD, FD_CLOEXEC) != 0)
        platformLog("%s: failed to set received Wine server socket to close-on-exec; errno %d", kHandle, errno);
    ::setenv("WINESERVERSOCKET", std::to_string(serverSocket.get()).c_str(), 1);
    if (Fd& waitPipe = request.descriptors[WineLoaderWaitChildPipe]) {
        // Wine's children inherit it: that is how the loader learns when
        // the program's processes have all gone.
        ::fcntl(waitPipe.get(), F_SETFD, 0);
        ::setenv("WINE_WAIT_CHILD_PIPE", std::to_string(waitPipe.get()).c_str(), 1);
    }

    // The argument vector points into the request's buffer, which moves
    // with it (a vector's storage does not move when the vector does).
    start->request = std::move(request);
    start->loader = weak_from_this();
    if (Application* application = Application::shared())
        application->wineWillRunInside();
    try {
        std::thread([start = std::move(start)]() mutable {
            nameThisThread("vt-wine");
            char error[kWineErrorSize] = {};
            start->wineInit(start->request.argumentCount, start->argv.data(), error, static_cast<int>(sizeof error));
            // Back only when it failed. Wine's own words, on standard error
            // as Wine writes its messages.
            std::string reason = std::string(kHandle) + ": wine_init failed: " + error;
            std::fprintf(stderr, "%s\n", reason.c_str());
            std::fflush(stderr);
            std::weak_ptr<WineLoader> loader = start->loader;
            start.reset(); // the server socket, the pipe and the library go
            runOnMain([loader, reason] {
                if (auto server = loader.lock())
                    server->handOverFailed(reason);
            });
        }).detach();
    } catch (const std::system_error& e) {
        handOverFailed(logged("Failed to create thread to run Wine: error %d, %s", e.code().value(),
                              std::strerror(e.code().value())));
        return;
    }
    // Queued before anything the Wine thread queues can run: the owner
    // hears of the start before it hears of wine_init's failure.
    m_wineRunsInside = true;
    runOnMain([loader = weak_from_this()] {
        auto self = loader.lock();
        if (self && self->m_callbacks.wineStarted)
            self->m_callbacks.wineStarted();
    });
}

void WineLoader::handOverFailed(std::string reason)
{
    m_wineRunsInside = false;
    runOnMain([loader = weak_from_this(), reason = std::move(reason)] {
        auto self = loader.lock();
        if (self && self->m_callbacks.handOverFailed)
            self->m_callbacks.handOverFailed(reason);
    });
}

void WineLoader::unlinkSocketFile()
{
    if (m_bound) {
        ::unlink(m_socketPath.c_str());
        m_bound = false;
    }
}

} // namespace vt
