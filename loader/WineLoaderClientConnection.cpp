#include "loader/WineLoaderClientConnection.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include "base/MainLoop.hpp"
#include "base/NotificationCenter.hpp"
#include "base/PlatformLog.hpp"
#include "loader/ExecutableLayout.hpp"
#include "loader/WineLoader.hpp"

namespace vt {

namespace {
    constexpr const char* kHandle = "WineLoaderClientConnection::handleConnection";
    constexpr const char* kReadBuffer = "WineLoaderClientConnection::readLengthPrefixedBuffer";
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

    // What the kernel handed over with the carrier byte: every descriptor of
    // every SCM_RIGHTS header, so that none is left open on a refusal.
    std::vector<Fd> takeReceivedDescriptors(msghdr& message)
    {
        std::vector<Fd> received;
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
                continue;
            size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
                received.emplace_back(fd);
            }
        }
        return received;
    }
} // namespace

WineLoaderClientConnection::WineLoaderClientConnection(WineLoader& loader, Fd socket)
    : m_loader(loader.weak_from_this())
    , m_loaderObject(&loader)
    , m_vantorRoot(loader.vantorRoot())
    , m_layout(loader.layout())
    , m_sock(std::move(socket))
{
}

void WineLoaderClientConnection::handleConnectionInBackground(std::unique_ptr<WineLoaderClientConnection> connection)
{
    // Made joinable, detached by the thread itself when it is done: the
    // thread that runs Wine is never joined by anyone.
    pthread_attr_t attributes;
    int error = ::pthread_attr_init(&attributes);
    if (error == 0) {
        error = ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
        pthread_t thread;
        if (error == 0) {
            error = ::pthread_create(
                &thread, &attributes,
                [](void* argument) -> void* {
                    std::unique_ptr<WineLoaderClientConnection> connection(
                        static_cast<WineLoaderClientConnection*>(argument));
                    connection->handleConnection();
                    connection.reset();
                    ::pthread_detach(::pthread_self());
                    return nullptr;
                },
                connection.get());
        }
        ::pthread_attr_destroy(&attributes);
        if (error == 0) {
            connection.release(); // the thread's now
            return;
        }
    }
    platformLog("Failed to create thread to handle connection: error %d, %s", error, std::strerror(error));
    // The connection and its socket go here, once.
}

bool WineLoaderClientConnection::readData(void* buffer, size_t length)
{
    char* p = static_cast<char*>(buffer);
    while (length > 0) {
        ssize_t n = ::read(m_sock.get(), p, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            errno = 0; // the end of the stream, no error
        if (n <= 0)
            return false;
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

std::optional<std::vector<char>> WineLoaderClientConnection::readLengthPrefixedBuffer(uint64_t& length)
{
    if (!readData(&length, sizeof length)) {
        platformLog("%s: reading length failed; errno %d", kReadBuffer, errno);
        return std::nullopt;
    }
    uint64_t used = effectiveLength(m_layout, length);
    // No real request comes near the limit; a peer that claims more is not
    // worth the memory.
    if (used > m_budget) {
        platformLog("%s: buffer of length %llu is beyond the request limit of %llu bytes", kReadBuffer,
                    static_cast<unsigned long long>(used), static_cast<unsigned long long>(kWineLoaderRequestLimit));
        return std::nullopt;
    }
    m_budget -= used;
    std::vector<char> buffer;
    try {
        buffer.resize(used);
    } catch (const std::bad_alloc&) {
        platformLog("%s: failed to allocate buffer of length %llu", kReadBuffer, static_cast<unsigned long long>(used));
        return std::nullopt;
    }
    if (!readData(buffer.data(), buffer.size())) {
        platformLog("%s: reading buffer failed; errno %d", kReadBuffer, errno);
        return std::nullopt;
    }
    return buffer;
}

std::optional<WineLoaderRequest> WineLoaderClientConnection::readRequest()
{
    // Every read from here on blocks, without a time limit.
    int flags = ::fcntl(m_sock.get(), F_GETFL);
    if (flags < 0) {
        platformLog("%s: fcntl(F_GETFL) failed; errno %d", kHandle, errno);
        return std::nullopt;
    }
    if (::fcntl(m_sock.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        platformLog("%s: fcntl(F_SETFL) failed; errno %d", kHandle, errno);
        return std::nullopt;
    }

    uint32_t type = 0;
    if (!readData(&type, sizeof type)) {
        platformLog("%s: reading request type failed; errno %d", kHandle, errno);
        return std::nullopt;
    }
    if (type == m_layout.otherRequest) {
        postWrongArchitecture();
        return std::nullopt;
    }
    if (type != m_layout.ownRequest) {
        platformLog("%s: unknown request type 0x%08x", kHandle, type);
        return std::nullopt;
    }

    WineLoaderRequest request;
    uint64_t length = 0;
    auto directory = readLengthPrefixedBuffer(length);
    if (!directory) {
        platformLog("%s: reading working directory failed", kHandle);
        return std::nullopt;
    }
    if (!directory->empty()) {
        if (directory->back() != '\0' || std::strlen(directory->data()) + 1 != directory->size()) {
            platformLog("%s: working directory is not a single null-terminated string", kHandle);
            return std::nullopt;
        }
        request.workingDirectory = directory->data();
    }

    auto environment = readLengthPrefixedBuffer(length);
    if (!environment) {
        platformLog("%s: reading environment failed", kHandle);
        return std::nullopt;
    }
    if (!environment->empty() && environment->back() != '\0') {
        platformLog("%s: environment is not null-terminated", kHandle);
        return std::nullopt;
    }
    request.environment = std::move(*environment);

    auto arguments = readLengthPrefixedBuffer(length);
    if (!arguments) {
        platformLog("%s: reading args failed", kHandle);
        return std::nullopt;
    }
    if (arguments->empty()) {
        platformLog("%s: args list is empty", kHandle);
        return std::nullopt;
    }
    if (arguments->back() != '\0') {
        platformLog("%s: args is not null-terminated", kHandle);
        return std::nullopt;
    }
    request.argumentCount = static_cast<int>(std::count(arguments->begin(), arguments->end(), '\0'));
    request.arguments = std::move(*arguments);

    if (!receiveDescriptors(request) || !requireEndOfStream())
        return std::nullopt;
    return request;
}

bool WineLoaderClientConnection::receiveDescriptors(WineLoaderRequest& request)
{
    char carrier = 0;
    iovec data { &carrier, 1 };
    // Room for the five descriptors a request may bring. Linux aligns control
    // data to 8 bytes, so a sixth still fits without truncation: the count
    // is checked below, not left to the buffer's size.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kWineLoaderMaxDescriptors)];
    msghdr message {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t received;
    // Close-on-exec from the moment they arrive: no child of the launcher
    // inherits a descriptor that is not handed over yet.
    do
        received = ::recvmsg(m_sock.get(), &message, MSG_WAITALL | MSG_CMSG_CLOEXEC);
    while (received < 0 && errno == EINTR);
    if (received != 1) {
        if (received >= 0)
            takeReceivedDescriptors(message);
        platformLog("%s: failed to receive file descriptors; errno %d", kHandle, received < 0 ? errno : 0);
        return false;
    }

    // Only the first header counts; anything else that came is closed.
    std::vector<Fd> descriptors = takeReceivedDescriptors(message);
    cmsghdr* first = CMSG_FIRSTHDR(&message);
    bool rights = first && first->cmsg_level == SOL_SOCKET && first->cmsg_type == SCM_RIGHTS;
    size_t count = rights ? (first->cmsg_len - CMSG_LEN(0)) / sizeof(int) : 0;
    bool sound = !(message.msg_flags & MSG_CTRUNC) && count >= static_cast<size_t>(kWineLoaderRequiredDescriptors)
        && count <= static_cast<size_t>(kWineLoaderMaxDescriptors);
    if (!sound) {
        platformLog("%s: failed to receive file descriptors", kHandle);
        return false;
    }
    for (size_t i = 0; i < count; ++i)
        request.descriptors[i] = std::move(descriptors[i]);
    return true;
}

bool WineLoaderClientConnection::requireEndOfStream()
{
    for (;;) {
        char extra;
        ssize_t n = ::read(m_sock.get(), &extra, 1);
        if (n == 0)
            return true;
        if (n > 0) {
            platformLog("%s: got extraneous data instead of EOF", kHandle);
            return false;
        }
        if (errno != EINTR) {
            platformLog("%s: failed to read EOF; errno %d", kHandle, errno);
            return false;
        }
    }
}

void WineLoaderClientConnection::postWrongArchitecture()
{
    NotificationCenter::defaultCenter().post(WineLoaderRejectedRequestForWrongArchitectureNotification, m_loaderObject,
                                             { { WineLoaderRequestedArchitectureKey,
                                                 std::string(m_layout.otherArchitecture) } });
}

void WineLoaderClientConnection::handleConnection()
{
    if (auto request = readRequest())
        startWine(*request);
}

void WineLoaderClientConnection::startWine(WineLoaderRequest& request)
{
    // The library and its entry point first: a request that cannot be served
    // must not spend the server's single hand-over.
    std::string libraryPath = m_vantorRoot + "/" + m_layout.libraryDirectory + "/" + kWineLibraryName;
    WineLibrary library(libraryPath);
    if (!library) {
        platformLog("Failed to load %@: %s", libraryPath, dlerrorText());
        return;
    }
    auto wineInit = library.symbol<WineInit>("wine_init");
    if (!wineInit) {
        platformLog("Failed to find symbol 'wine_init' in %@: %s", libraryPath, dlerrorText());
        return;
    }

    bool proceed = runOnMainAndWait([loader = m_loader, this] {
        auto server = loader.lock();
        return server && server->shouldConnectionProceedWithRequest(*this);
    });
    if (!proceed)
        return;

    // From here on the server is spent, whatever happens next.
    uint32_t response = WineLoaderResponseProceed;
    const char* p = reinterpret_cast<const char*>(&response);
    size_t left = sizeof response;
    while (left > 0) {
        ssize_t n = ::write(m_sock.get(), p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            platformLog("%s: failed to send response; errno %d; p %p; &response %p; sizeof(response) %lu", kHandle,
                        errno, static_cast<const void*>(p), static_cast<const void*>(&response),
                        static_cast<unsigned long>(sizeof response));
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    m_sock.reset();

    // Wine's memory manager gets the ranges the executable kept free for it.
    auto anonMmap = library.symbol<WineAnonMmap>("wine_anon_mmap");
    auto addReservedArea = library.symbol<WineMmapAddReservedArea>("wine_mmap_add_reserved_area");
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
            platformLog("%s: environment buffer has malformed string: %s", kHandle, entry);
            return;
        }
        *equals = '\0';
        if (std::strcmp(entry, "WINE_WAIT_CHILD_PIPE") != 0 && std::strcmp(entry, "VT_ALT_LOADER_SOCKET") != 0)
            ::setenv(entry, equals + 1, 1);
    }

    std::vector<char*> argv;
    std::string loaderPath;
    try {
        argv.reserve(static_cast<size_t>(request.argumentCount) + 1);
        for (size_t at = 0; at < request.arguments.size(); at += std::strlen(request.arguments.data() + at) + 1)
            argv.push_back(request.arguments.data() + at);
        argv.push_back(nullptr);
        if (*argv[0] == '\0') {
            const char* fromEnvironment = std::getenv("WINELOADER");
            loaderPath = fromEnvironment ? fromEnvironment : m_vantorRoot + "/bin/" + m_layout.defaultLoader;
            argv[0] = loaderPath.data();
        }
    } catch (const std::bad_alloc&) {
        platformLog("failed to construct wineloader path string");
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

    char error[kWineErrorSize] = {};
    wineInit(request.argumentCount, argv.data(), error, static_cast<int>(sizeof error));
    // Back only when it failed.
    std::fprintf(stderr, "%s: wine_init failed: %s", kHandle, error);
    std::fflush(stderr);
}

} // namespace vt
