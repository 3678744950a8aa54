#include "product/tools/WineProcess.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vt::product {

namespace {
    // The Wine that runs now, for the signal handler; 0 while none does.
    volatile sig_atomic_t g_runningWine = 0;

    extern "C" void passOnToWine(int signalNumber)
    {
        int saved = errno;
        pid_t wine = g_runningWine;
        if (wine > 0)
            ::kill(wine, signalNumber);
        errno = saved;
    }

    sigset_t passedOnSignals()
    {
        sigset_t set;
        sigemptyset(&set);
        for (int number : { SIGTERM, SIGINT, SIGHUP })
            sigaddset(&set, number);
        return set;
    }

    void passSignalsOnToWine()
    {
        struct sigaction action {};
        action.sa_handler = passOnToWine;
        action.sa_mask = passedOnSignals();
        action.sa_flags = SA_RESTART;
        for (int number : { SIGTERM, SIGINT, SIGHUP })
            ::sigaction(number, &action, nullptr);
        // A launcher may have started the tool with them blocked; then they
        // would never reach Wine.
        sigset_t set = passedOnSignals();
        ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
    }

    int statusFromWait(int status)
    {
        if (WIFEXITED(status))
            return WEXITSTATUS(status);
        if (WIFSIGNALED(status))
            return 128 + WTERMSIG(status);
        return kStatusWineNotRunnable;
    }

    int startFailure(const std::string& role, const std::filesystem::path& loader, int error)
    {
        std::fprintf(stderr, "%s: cannot run Wine (%s): %s\n", role.c_str(), loader.c_str(), std::strerror(error));
        return error == ENOENT ? kStatusNoWine : kStatusWineNotRunnable;
    }

    // Ends when `child` has ended and answers its status; children of
    // earlier runs that end meanwhile are reaped on the way.
    int waitForWine(pid_t child)
    {
        for (;;) {
            siginfo_t info {};
            if (::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) != 0) {
                if (errno == EINTR)
                    continue;
                return kStatusWineNotRunnable; // no child at all: cannot happen while `child` is ours
            }
            // Forget the pid before reaping it: after that it may name
            // another process, which must not get our signals.
            if (info.si_pid == child)
                g_runningWine = 0;
            int status = 0;
            while (::waitpid(info.si_pid, &status, 0) < 0 && errno == EINTR) {
            }
            if (info.si_pid == child)
                return statusFromWait(status);
        }
    }

    // Wine's own processes of the bottle: the first program started in a
    // bottle starts them and they stay while any program of the bottle
    // runs. They serve every program there, so a tool does not wait for
    // them; they go on without it.
    bool isBottleService(const std::string& name)
    {
        static constexpr std::string_view services[] = {
            "wineserver",   "wineserver64", "services.exe", "winedevice.exe",
            "plugplay.exe", "explorer.exe", "svchost.exe",  "rpcss.exe",
        };
        for (std::string_view service : services)
            if (name == service)
                return true;
        return false;
    }

    // The names (as the kernel keeps them: Wine names a Windows process
    // after its image) of this process's children, ended ones included.
    std::vector<std::string> childNames()
    {
        std::vector<std::string> names;
        pid_t self = ::getpid();
        DIR* directory = ::opendir("/proc");
        if (!directory)
            return names;
        while (dirent* entry = ::readdir(directory)) {
            if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
                continue;
            std::ifstream in(std::string("/proc/") + entry->d_name + "/stat");
            std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            // "pid (name) state ppid ...": the name may hold anything, ')' too.
            size_t open = stat.find('('), close = stat.rfind(')');
            if (open == std::string::npos || close == std::string::npos || close < open)
                continue;
            int parent = 0;
            char state = 0;
            if (std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &parent) == 2 && parent == self)
                names.push_back(stat.substr(open + 1, close - open - 1));
        }
        ::closedir(directory);
        return names;
    }

    // Waits until none of this process's children is the program's: its
    // processes and what they started, which come to this subreaper when
    // their parents end. Each end is reaped on the way.
    void waitForProgramProcesses()
    {
        for (;;) {
            std::vector<std::string> children = childNames();
            if (std::all_of(children.begin(), children.end(), isBottleService))
                return;
            siginfo_t info {};
            if (::waitid(P_ALL, 0, &info, WEXITED) != 0 && errno != EINTR)
                return; // ECHILD: nothing of ours is left
        }
    }
} // namespace

std::vector<char*> pointersInto(const std::vector<std::string>& strings, const char* first)
{
    std::vector<char*> pointers;
    if (first)
        pointers.push_back(const_cast<char*>(first));
    for (const std::string& string : strings)
        pointers.push_back(const_cast<char*>(string.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

void keepOnlyStandardDescriptorsAcrossExec()
{
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    // Kernels before 5.11 have no CLOSE_RANGE_CLOEXEC: one at a time.
    DIR* directory = ::opendir("/proc/self/fd");
    if (!directory)
        return;
    while (dirent* entry = ::readdir(directory)) {
        int fd = std::atoi(entry->d_name);
        if (fd > 2 && fd != ::dirfd(directory))
            ::fcntl(fd, F_SETFD, ::fcntl(fd, F_GETFD) | FD_CLOEXEC);
    }
    ::closedir(directory);
}

std::vector<std::string> wineEnvironment(const std::filesystem::path& prefix)
{
    std::vector<std::string> environment;
    bool debugChosen = false;
    for (char** entry = environ; *entry; ++entry) {
        std::string_view variable(*entry);
        if (variable.starts_with("WINEPREFIX=") || variable.starts_with("VT_APPRUNNER_ALT_LOADER_SOCKET="))
            continue;
        debugChosen = debugChosen || variable.starts_with("WINEDEBUG=");
        environment.emplace_back(variable);
    }
    environment.push_back("WINEPREFIX=" + prefix.string());
    // Wine's diagnostics would otherwise flood the launcher's log.
    if (!debugChosen)
        environment.push_back("WINEDEBUG=-all");
    return environment;
}

int execWine(const std::string& role, const std::filesystem::path& loader, const std::vector<std::string>& arguments,
             const std::vector<std::string>& environment)
{
    std::vector<char*> argv = pointersInto(arguments, loader.c_str());
    std::vector<char*> envp = pointersInto(environment);
    ::execve(loader.c_str(), argv.data(), envp.data());
    return startFailure(role, loader, errno);
}

int runWine(const std::string& role, const std::filesystem::path& loader,
            const std::vector<std::vector<std::string>>& runs, const std::vector<std::string>& environment,
            bool waitForChildren)
{
    // Every process that Wine starts and that outlives its parent becomes
    // ours to reap rather than init's, so the wait below sees them all.
    if (waitForChildren && ::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
        std::fprintf(stderr, "%s: cannot wait for the program's processes: %s\n", role.c_str(), std::strerror(errno));
    passSignalsOnToWine();

    std::vector<char*> envp = pointersInto(environment);
    int result = 0;
    for (const std::vector<std::string>& run : runs) {
        std::vector<char*> argv = pointersInto(run, loader.c_str());
        sigset_t passed = passedOnSignals();
        sigset_t previous;
        // Held back until the new Wine's pid is known, so none is lost.
        ::sigprocmask(SIG_BLOCK, &passed, &previous);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setsigmask(&attributes, &previous);
        ::posix_spawnattr_setsigdefault(&attributes, &passed);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        pid_t child = 0;
        int error = ::posix_spawn(&child, loader.c_str(), nullptr, &attributes, argv.data(), envp.data());
        ::posix_spawnattr_destroy(&attributes);
        if (error == 0)
            g_runningWine = child;
        ::sigprocmask(SIG_SETMASK, &previous, nullptr);
        if (error != 0) {
            result = startFailure(role, loader, error);
            break;
        }
        int status = waitForWine(child);
        if (result == 0)
            result = status;
    }
    if (waitForChildren)
        waitForProgramProcesses();
    return result;
}

} // namespace vt::product
