// vt-standin-tool: the product's command-line tools vtmenu, vtstart and wine
// in one program. Tests install it as symlinks with those names under a main
// application's Contents/SharedSupport/Vantor/bin; the role is the name it
// was started by (the last component of argv[0]).
//
// Its whole configuration is VT_STANDIN_TOOLS_DIR=<directory>, which the
// test puts into the helper server's environment dictionary: the launcher
// gives its tools that dictionary and nothing else of its own environment.
// Without it the tool exits with status 3 and a message on standard error.
//
// On start it writes <directory>/<role>-<pid>.record, all at once (written
// under another name and renamed), one item per line:
//
//   role <role>
//   pid <pid>
//   ppid <parent pid>
//   monotonic-ns <CLOCK_MONOTONIC at start, ns>
//   realtime-ms <CLOCK_REALTIME at start, ms since the epoch>
//   arg <hex>          each argument in order, argv[0] first
//   env <hex>          each environment entry NAME=VALUE, in the order given
//   cwd <hex>          the working directory
//   stdin <kind>       null, pipe, other or closed
//   stdout <kind>
//   stderr <kind>
//
// <hex> is the bytes in upper-case hex (empty for an empty string), so that
// a test can check UTF-8 and blanks byte for byte.
//
// Then it stays alive until told to end (see ToolSupport.hpp: the .end and
// end-all files, SIGTERM), like a tool whose Windows program runs.
//
// wine with exactly the arguments
//   --bottle <bottle> --wl-app sendwndcmd -n -e explorer;apprunner
// is the window-command channel: after its record it execs
// vt-standin-sendwndcmd, found next to the real location of this program,
// with standard input and output kept and the same process id, so the
// launcher's pipes reach the window-command tool.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "standin/tools/ToolSupport.hpp"

extern char** environ;

namespace {

const char* describeStream(int fd)
{
    struct stat info, null;
    if (fstat(fd, &info) != 0)
        return "closed";
    if (S_ISFIFO(info.st_mode))
        return "pipe";
    if (stat("/dev/null", &null) == 0 && S_ISCHR(info.st_mode) && info.st_rdev == null.st_rdev)
        return "null";
    return "other";
}

long long clockValue(clockid_t clock, long long unit)
{
    struct timespec now;
    clock_gettime(clock, &now);
    long long nanoseconds = static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
    return nanoseconds / unit;
}

std::string lastComponent(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

std::string record(const std::string& role, int argc, char** argv)
{
    std::string text;
    auto line = [&text](const std::string& key, const std::string& value) { text += key + " " + value + "\n"; };
    line("role", role);
    line("pid", std::to_string(getpid()));
    line("ppid", std::to_string(getppid()));
    line("monotonic-ns", std::to_string(clockValue(CLOCK_MONOTONIC, 1)));
    line("realtime-ms", std::to_string(clockValue(CLOCK_REALTIME, 1000000)));
    for (int i = 0; i < argc; ++i)
        line("arg", vt::standin::hex(argv[i]));
    for (char** entry = environ; *entry; ++entry)
        line("env", vt::standin::hex(*entry));
    std::vector<char> directory(PATH_MAX);
    if (getcwd(directory.data(), directory.size()))
        line("cwd", vt::standin::hex(directory.data()));
    line("stdin", describeStream(STDIN_FILENO));
    line("stdout", describeStream(STDOUT_FILENO));
    line("stderr", describeStream(STDERR_FILENO));
    return text;
}

bool startsWindowCommandTool(const std::string& role, int argc, char** argv)
{
    static const char* const expected[] = { "--bottle", nullptr, "--wl-app", "sendwndcmd", "-n", "-e",
                                            "explorer;apprunner" };
    if (role != "wine" || argc != 1 + static_cast<int>(std::size(expected)))
        return false;
    for (size_t i = 0; i < std::size(expected); ++i) {
        if (expected[i] && std::strcmp(argv[i + 1], expected[i]) != 0)
            return false;
    }
    return true;
}

[[noreturn]] void execWindowCommandTool(char** argv)
{
    std::vector<char> self(PATH_MAX + 1);
    ssize_t length = readlink("/proc/self/exe", self.data(), PATH_MAX);
    if (length <= 0) {
        std::perror("vt-standin-tool (wine): /proc/self/exe");
        std::exit(4);
    }
    std::string path(self.data(), static_cast<size_t>(length));
    path = path.substr(0, path.rfind('/') + 1) + "vt-standin-sendwndcmd";
    // The window-command tool's own name first, then wine's arguments, for
    // anyone looking at the process list.
    std::vector<char*> arguments { path.data() };
    for (char** argument = argv + 1; *argument; ++argument)
        arguments.push_back(*argument);
    arguments.push_back(nullptr);
    execv(path.c_str(), arguments.data());
    std::fprintf(stderr, "vt-standin-tool (wine): cannot run %s: %s\n", path.c_str(), std::strerror(errno));
    std::exit(4);
}

} // namespace

int main(int argc, char** argv)
{
    std::string role = lastComponent(argv[0]);
    std::string directory = vt::standin::toolsDirectoryOrExit(role.c_str());
    // Before the record: a test that has seen the record may end us at once.
    vt::standin::EndWatch watch(directory, role);
    std::string stem = directory + "/" + role + "-" + std::to_string(getpid());
    if (!vt::standin::writeFileAtomically(stem + ".record", record(role, argc, argv))) {
        std::fprintf(stderr, "%s: cannot write %s.record: %s\n", role.c_str(), stem.c_str(), std::strerror(errno));
        return 4;
    }

    if (startsWindowCommandTool(role, argc, argv))
        execWindowCommandTool(argv);

    for (;;) {
        watch.exitIfDue();
        usleep(10 * 1000);
    }
}
