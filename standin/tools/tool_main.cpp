// vt-standin-tool: the product's command-line tools vtmenu, vtstart and wine
// in one program. Tests install it as symbolic links with those names under
// a main application's Contents/SharedSupport/Vantor/bin; the role is the
// name it was started by (the last component of argv[0]).
//
// On start it sends a tool record (standin/record/Record.hpp) with what it
// was given: its arguments, its whole environment, its working directory,
// what its standard streams are and every descriptor it was started with,
// and when its main began (what a benchmark takes as the moment the tool
// was executed). It reaches the test through
// VT_STANDIN_RECORDS, which the test puts into the helper server's
// environment dictionary: the launcher gives its tools that dictionary and
// nothing else of its own environment.
//
// Then it stays alive, like a tool whose Windows program runs, until SIGTERM
// or SIGINT ends it, or until its input ends when it was given a pipe or a
// socket to read (ToolSupport.hpp): a wine whose arguments are not the
// window-command channel's still has the channel's pipe as its input, and
// ends with it. vtmenu and vtstart are given the null device: like the
// Windows program they stand for, they outlive their launcher.
//
// vtmenu and vtstart with "--enable-alt-loader" (whatever follows it:
// "macdrv" or "macdrv--") and VT_APPRUNNER_ALT_LOADER_SOCKET set play the
// Wine loader instead, after their record: WineLoaderStandIn.hpp.
//
// wine with exactly the arguments
//   --bottle <bottle> --wl-app sendwndcmd -n -e explorer;apprunner
// is the window-command channel: after its record it execs
// vt-standin-sendwndcmd, found next to the real location of this program,
// with standard input and output kept and the same process id, so the
// launcher's pipes reach the window-command tool.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <time.h>
#include <unistd.h>

#include "standin/record/Record.hpp"
#include "standin/tools/ToolSupport.hpp"
#include "standin/tools/WineLoaderStandIn.hpp"

extern char** environ;

namespace {

vt::standin::Record startRecord(const std::string& role, char** argv, const std::vector<int>& descriptors,
                                const timespec& started)
{
    vt::standin::Record record("tool");
    record.add("role", role);
    record.add("started", std::to_string(started.tv_sec * 1000000000LL + started.tv_nsec));
    for (int fd : descriptors)
        record.add("fd", std::to_string(fd) + " " + vt::standin::descriptorKind(fd));
    for (char** argument = argv; *argument; ++argument)
        record.add("arg", *argument);
    for (char** entry = environ; *entry; ++entry)
        record.add("env", *entry);
    std::error_code error;
    record.add("cwd", std::filesystem::current_path(error).string());
    record.add("stdin", vt::standin::descriptorKind(STDIN_FILENO));
    record.add("stdout", vt::standin::descriptorKind(STDOUT_FILENO));
    return record;
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
    std::error_code error;
    std::string path = std::filesystem::read_symlink("/proc/self/exe", error).replace_filename("vt-standin-sendwndcmd");
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
    // The earliest moment this program can see of its own start: one read of
    // the clock, before anything else is done.
    timespec started {};
    clock_gettime(CLOCK_MONOTONIC, &started);
    // First of all, before this program opens any of its own.
    std::vector<int> descriptors = vt::standin::openDescriptors();
    std::string role = std::filesystem::path(argv[0]).filename();
    // Before the record: a test that has seen the record may end us at once.
    vt::standin::EndSignals signals;
    vt::standin::send(startRecord(role, argv, descriptors, started));
    if (startsWindowCommandTool(role, argc, argv))
        execWindowCommandTool(argv);
    if (vt::standin::actsAsWineLoader(role, argv))
        vt::standin::handOverToLauncher(role, argv, signals);
    signals.endWithSignalOrEndOfInput(role);
}
