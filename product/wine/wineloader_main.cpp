// wineloader64: the product's Wine loader, in the product's Wine folder
// (<root>/lib/wine, shaped like Debian's /usr/lib/wine; <root>/bin/wineloader64
// links to it). It is Debian's loader with one difference: a Windows program
// may run inside the launcher that asked for it instead of in a process of
// its own.
//
// Wine runs it for every Windows process of a run, with the program's
// command line after argv[0] (Wine starts a process's loader from the folder
// of the process that starts it, so once one process of a run has been
// started through this folder, all that follow are too). For each:
//
//   - With VT_ALT_LOADER_SOCKET naming the launcher's loader socket (the
//     tools set it when the launcher allows a hand-over) and a program that
//     is not one of Wine's own (start, cmd, explorer, services and the other
//     helpers of a bottle), the start is handed over through that socket:
//     the working directory, the environment (with WINELOADERNOEXEC=1), the
//     arguments, standard input, output and error, and the process's Wine
//     server socket (the one Wine gave it in WINESERVERSOCKET, else a new
//     connection to the bottle's server, which is started first when it
//     does not run). When the launcher takes it, the loader lets go of all
//     of it and stays until the launcher has ended, standing for the program
//     for whoever waits for it; it ends with status 0.
//   - start and cmd pass the chance on to the program they start; any other
//     process that runs here takes VT_ALT_LOADER_SOCKET out of its
//     environment, so that nothing it starts later is taken into a launcher.
//   - Otherwise, or when the launcher refuses or has gone, Wine runs here as
//     with Debian's loader: ntdll.so beside this loader, __wine_main.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/posix_glue.hpp"

extern char** environ;

namespace {

using vt::Fd;

// The hand-over's wire format, as the launcher reads it: the request type,
// three length-prefixed buffers (working directory, environment, arguments),
// one byte carrying the descriptors, and the launcher's one-word answer.
constexpr uint32_t kRequestX86_64 = 0x52C17357;
constexpr uint32_t kAnswerProceed = 0x52C17356;

constexpr const char* kSocketVariable = "VT_ALT_LOADER_SOCKET";

enum class Process { Program, PassesOn, WineOwn };

// What the command line starts: its first word's last component, without
// ".exe", in any case.
Process processOf(int argc, char** argv)
{
    if (argc < 2)
        return Process::WineOwn;
    std::string_view word(argv[1]);
    if (word.starts_with("--"))
        return Process::WineOwn; // --help, --version
    if (size_t cut = word.find_last_of("/\\"); cut != std::string_view::npos)
        word.remove_prefix(cut + 1);
    std::string name;
    for (char c : word)
        name += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (name.ends_with(".exe"))
        name.resize(name.size() - 4);
    if (name == "start" || name == "cmd")
        return Process::PassesOn;
    static constexpr std::string_view wineOwn[] = {
        "explorer", "services",        "svchost",    "rpcss",    "plugplay", "winedevice",
        "wineboot", "winemenubuilder", "winebrowser", "rundll32", "conhost",
    };
    for (std::string_view own : wineOwn)
        if (name == own)
            return Process::WineOwn;
    return Process::Program;
}

std::string selfFolder()
{
    char path[4096];
    ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return ".";
    std::string self(path, static_cast<size_t>(n));
    size_t slash = self.rfind('/');
    return slash == std::string::npos ? "." : self.substr(0, slash);
}

void appendLength(std::string& out, uint64_t length) { out.append(reinterpret_cast<const char*>(&length), 8); }

void appendStrings(std::string& out, const std::vector<std::string>& strings)
{
    std::string buffer;
    for (const std::string& string : strings) {
        buffer += string;
        buffer += '\0';
    }
    appendLength(out, buffer.size());
    out += buffer;
}

bool sendAll(int socket, const std::string& bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        ssize_t n = ::send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool sendDescriptors(int socket, const std::vector<int>& descriptors)
{
    char carrier = 0;
    iovec io { &carrier, 1 };
    std::vector<char> control(CMSG_SPACE(sizeof(int) * descriptors.size()));
    msghdr message {};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
    std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof(int) * descriptors.size());
    for (;;) {
        ssize_t n = ::sendmsg(socket, &message, MSG_NOSIGNAL);
        if (n == 1)
            return true;
        if (n < 0 && errno == EINTR)
            continue;
        return false;
    }
}

Fd connectTo(const std::string& path, bool passCredentials)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return Fd();
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket)
        return Fd();
    if (passCredentials) {
        // Wine's server tells its pid through them, as to its own loader.
        int enable = 1;
        ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &enable, sizeof enable);
    }
    while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        if (errno != EINTR)
            return Fd();
    return socket;
}

// The bottle's Wine server socket, where Debian's Wine puts it:
// <root>/server-<device>-<inode of the prefix>/socket, the root being
// /run/user/<uid>/wine where that folder of the user's exists, else
// $TMPDIR (or /tmp) followed by the name the server's first start wrote
// into the prefix's "wineserver" file. Nothing before that file exists.
std::optional<std::string> serverSocketPath()
{
    std::string prefix;
    if (const char* chosen = std::getenv("WINEPREFIX"); chosen && *chosen)
        prefix = chosen;
    else if (const char* home = std::getenv("HOME"))
        prefix = std::string(home) + "/.wine";
    struct stat status {};
    if (prefix.empty() || ::stat(prefix.c_str(), &status) != 0)
        return std::nullopt;
    std::string root = "/run/user/" + std::to_string(::getuid());
    if (::access(root.c_str(), X_OK) == 0) {
        root += "/wine";
    } else {
        FILE* named = std::fopen((prefix + "/wineserver").c_str(), "re");
        if (!named)
            return std::nullopt;
        char name[256] = {};
        bool read = std::fgets(name, sizeof name, named) != nullptr;
        std::fclose(named);
        if (!read)
            return std::nullopt;
        name[std::strcspn(name, "\n")] = 0;
        const char* temporary = ::secure_getenv("TMPDIR");
        root = std::string(temporary ? temporary : "/tmp") + "/" + name;
    }
    char server[64];
    std::snprintf(server, sizeof server, "/server-%llx-%llx/socket", static_cast<unsigned long long>(status.st_dev),
                  static_cast<unsigned long long>(status.st_ino));
    return root + server;
}

// Runs wineserver beside this loader, which returns once the server is
// ready (2: another process is starting it).
void startServer(const std::string& folder)
{
    std::string server = folder + "/wineserver";
    pid_t child = ::fork();
    if (child == 0) {
        char* argv[] = { server.data(), nullptr };
        ::execv(server.c_str(), argv);
        ::_exit(127);
    }
    int status = 0;
    if (child > 0)
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
}

// A new connection to the bottle's server, for a process that Wine did not
// start: the server takes each connection to it as a new process.
Fd connectToServer(const std::string& folder)
{
    for (int attempt = 0; attempt < 6; ++attempt) {
        if (attempt > 0)
            ::usleep(static_cast<useconds_t>(100000 * attempt * attempt));
        if (std::optional<std::string> path = serverSocketPath())
            if (Fd socket = connectTo(*path, true))
                return socket;
        startServer(folder);
    }
    return Fd();
}

// Hands the start over to the launcher at `socketPath`. True when the
// launcher took it: it has ended by the time this returns.
bool handOver(const std::string& socketPath, int argc, char** argv, const std::string& folder)
{
    Fd launcher = connectTo(socketPath, false);
    if (!launcher)
        return false; // no launcher waits for a program any more

    // The process's own server socket when Wine started it, else a new one.
    Fd madeHere;
    int server = -1;
    if (const char* given = std::getenv("WINESERVERSOCKET"))
        server = std::atoi(given);
    if (server < 0 || ::fcntl(server, F_GETFD) < 0) {
        madeHere = connectToServer(folder);
        server = madeHere.get();
        if (server < 0) {
            std::fprintf(stderr, "wineloader64: cannot reach the bottle's Wine server; the program runs on its own\n");
            return false;
        }
    }

    char directory[4096];
    std::vector<std::string> workingDirectory;
    if (::getcwd(directory, sizeof directory))
        workingDirectory.emplace_back(directory);
    std::vector<std::string> environment;
    bool noExec = false;
    for (char** entry = environ; *entry; ++entry) {
        noExec = noExec || std::string_view(*entry).starts_with("WINELOADERNOEXEC=");
        environment.emplace_back(*entry);
    }
    // Wine must not start its loader again in place of the launcher.
    if (!noExec)
        environment.emplace_back("WINELOADERNOEXEC=1");
    std::vector<std::string> arguments(argv, argv + argc);

    std::string request;
    request.append(reinterpret_cast<const char*>(&kRequestX86_64), 4);
    appendStrings(request, workingDirectory);
    appendStrings(request, environment);
    appendStrings(request, arguments);
    if (!sendAll(launcher.get(), request) || !sendDescriptors(launcher.get(), { 0, 1, 2, server }))
        return false;
    ::shutdown(launcher.get(), SHUT_WR);
    uint32_t answer = 0;
    size_t got = 0;
    while (got < sizeof answer) {
        ssize_t n = ::recv(launcher.get(), reinterpret_cast<char*>(&answer) + got, sizeof answer - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false; // refused: the launcher closed without an answer
        got += static_cast<size_t>(n);
    }
    if (answer != kAnswerProceed)
        return false;

    // The program is the launcher's now: nothing of it stays here.
    ucred peer {};
    socklen_t size = sizeof peer;
    Fd launcherProcess;
    if (::getsockopt(launcher.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0)
        launcherProcess.reset(static_cast<int>(::syscall(SYS_pidfd_open, peer.pid, 0)));
    launcher.reset();
    if (madeHere)
        madeHere.reset();
    else if (server > 2)
        ::close(server);
    int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int standard = 0; standard <= 2; ++standard)
        ::dup2(null, standard);
    if (null > 2)
        ::close(null);
    if (launcherProcess) {
        pollfd ended { launcherProcess.get(), POLLIN, 0 };
        while (::poll(&ended, 1, -1) < 0 && errno == EINTR) {
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string folder = selfFolder();
    Process process = processOf(argc, argv);
    if (const char* socket = std::getenv(kSocketVariable); socket && *socket && process == Process::Program) {
        if (handOver(socket, argc, argv, folder))
            return 0;
    }
    if (process != Process::PassesOn)
        ::unsetenv(kSocketVariable);

    std::string ntdll = folder + "/ntdll.so";
    void* handle = ::dlopen(ntdll.c_str(), RTLD_NOW);
    if (!handle) {
        std::fprintf(stderr, "wine: could not load ntdll.so: %s\n", ::dlerror());
        return 1;
    }
    auto wineMain = reinterpret_cast<void (*)(int, char**, char**)>(::dlsym(handle, "__wine_main"));
    if (!wineMain) {
        std::fprintf(stderr, "wine: __wine_main function not found in ntdll.so\n");
        return 1;
    }
    wineMain(argc, argv, environ);
    return 1;
}
