// The product's tools vtmenu, vtstart and wine as the launcher runs them, in
// front of a fake Wine: a shell script that records each run (its arguments,
// environment and descriptors) and then does what the test asks of it: exit
// with a status, leave a process behind that outlives it by a moment, wait
// for a signal, echo its standard input as the window-command tool would, or
// write tray messages as the tray bridge would.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "product/common/ProductPaths.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;
using namespace vt::test;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;

const fs::path kTools = fs::path(VT_PRODUCT_ROOT) / "bin";
// An untitled start of a program, and a URL: the two ways that do and do not wait for children.
const Strings kUntitled { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--start", "x.exe" };
const Strings kUrl { "--bottle", "B", "--enable-alt-loader", "macdrv--", "https://a" };

const char* const kFakeWine = R"(#!/bin/sh
record=$VT_FAKE_RECORD
{
    echo "run $$"
    for argument in "$@"; do
        printf 'arg %s\n' "$argument"
    done
    env | sed 's/^/env /'
} > "$record.$$"
ls -l /proc/self/fd | sed -n 's/.* \([0-9][0-9]*\) -> \(.*\)$/fd \1 \2/p' >> "$record.$$"
# In one write: the tray bridge runs beside the window-command tool.
cat "$record.$$" >> "$record"
rm -f "$record.$$"
case "$1" in
*sendwndcmd.exe)
    while IFS= read -r line; do
        printf 'echo:%s\n' "$line"
    done
    exit 0 ;;
*traybridge.exe)
    # The bytes of VT_FAKE_TRAY, those of VT_FAKE_TRAY_LATER at each
    # SIGUSR1, and an end at the end of its input, unless it quits at once
    # or never reads its input at all.
    exec 3<&0
    trap 'cat "$VT_FAKE_TRAY_LATER"' USR1
    if [ -n "${VT_FAKE_TRAY:-}" ]; then cat "$VT_FAKE_TRAY"; fi
    echo "bridge $$ ready" >> "$record"
    if [ -n "${VT_FAKE_TRAY_QUIT:-}" ]; then exit "$VT_FAKE_TRAY_QUIT"; fi
    if [ -n "${VT_FAKE_TRAY_DEAF:-}" ]; then exec sleep 60; fi
    cat <&3 >/dev/null 3<&- &
    reader=$!
    while kill -0 "$reader" 2>/dev/null; do
        wait "$reader"
    done
    echo "bridge ended" >> "$record"
    exit 0 ;;
esac
if [ -n "${VT_FAKE_LINGER:-}" ]; then
    # Its parent ends at once, as a daemon's does: only a subreaper sees it end.
    ( ( sleep "$VT_FAKE_LINGER"; echo "lingerer ended" >> "$record" ) & ) &
fi
if [ -n "${VT_FAKE_SERVICE:-}" ]; then
    # A bottle's service, named as Wine's are, that stays on.
    ( "$VT_FAKE_SERVICE" 60 & echo "service $!" >> "$record" ) &
fi
if [ -n "${VT_FAKE_TRAP:-}" ]; then
    caught() {
        echo "got $1" >> "$record"
        # SIGKILL: a sleeper not yet past its exec still has the shell's
        # traps, and would take a SIGTERM as the shell does and go on.
        kill -KILL "$sleeper"
        sleep 0.2
        exit 3
    }
    trap 'caught TERM' TERM
    trap 'caught INT' INT
    trap 'caught HUP' HUP
    sleep 30 &
    sleeper=$!
    echo ready >> "$record"
    wait
fi
exit "${VT_FAKE_STATUS:-0}"
)";

// One run of the fake Wine as it recorded itself.
struct WineRun {
    pid_t pid = 0;
    Strings arguments;
    std::map<std::string, std::string> environment;
    std::set<int> descriptors; // but the one `ls` read the list through
};

struct Outcome {
    std::optional<int> status;
    std::string standardError;
};

class ProductToolTest : public ::testing::Test {
protected:
    ProductToolTest()
    {
        writeFile(m_dir / "fake-wine", kFakeWine);
        fs::permissions(m_dir / "fake-wine", fs::perms::owner_all);
        m_environment.set("VT_PRODUCT_WINE", (m_dir / "fake-wine").string());
        m_environment.set("VT_FAKE_RECORD", record().string());
        m_environment.set("XDG_DATA_HOME", (m_dir / "data").string());
        for (const char* name : { "WINEPREFIX", "WINEDEBUG", "VT_FAKE_LINGER", "VT_FAKE_SERVICE", "VT_FAKE_TRAP",
                                  "VT_FAKE_STATUS", "VT_FAKE_TRAY", "VT_FAKE_TRAY_LATER", "VT_FAKE_TRAY_QUIT",
                                  "VT_FAKE_TRAY_DEAF", "VT_WINDOW_TAG", "VT_SYSTRAY_SOCKET" })
            m_environment.unset(name);
    }

    fs::path record() const { return m_dir / "record"; }
    fs::path prefix() const { return product::bottlePrefix("B"); }
    static std::string tool(const std::string& role) { return (kTools / role).string(); }

    std::unique_ptr<TestProcess> start(const std::string& role, const Strings& arguments,
                                       const std::map<std::string, std::optional<std::string>>& changes = {})
    {
        Strings argv { tool(role) };
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return std::make_unique<TestProcess>(argv, environmentWith(changes),
                                             ProcessSetup { .directory = m_dir.path(), .keepStandardError = true });
    }

    Outcome run(const std::string& role, const Strings& arguments,
                const std::map<std::string, std::optional<std::string>>& changes = {})
    {
        auto process = start(role, arguments, changes);
        Outcome outcome;
        outcome.status = process->waitForExit();
        outcome.standardError = process->standardError();
        return outcome;
    }

    // The arguments of each run of the fake Wine, in order.
    std::vector<Strings> argumentsOfRuns() const
    {
        std::vector<Strings> lists;
        for (const WineRun& run : runs())
            lists.push_back(run.arguments);
        return lists;
    }

    std::vector<WineRun> runs() const
    {
        std::vector<WineRun> runs;
        std::istringstream lines(readFile(record()));
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("run ")) {
                runs.emplace_back().pid = std::stoi(line.substr(4));
            } else if (runs.empty()) {
                continue;
            } else if (line.starts_with("arg ")) {
                runs.back().arguments.push_back(line.substr(4));
            } else if (line.starts_with("env ") && line.find('=') != std::string::npos) {
                size_t equals = line.find('=');
                runs.back().environment[line.substr(4, equals - 4)] = line.substr(equals + 1);
            } else if (line.starts_with("fd ")) {
                std::istringstream words(line.substr(3));
                int fd = -1;
                std::string target;
                words >> fd >> target;
                if (!(target.starts_with("/proc/") && target.ends_with("/fd")))
                    runs.back().descriptors.insert(fd);
            }
        }
        return runs;
    }

    bool recorded(const std::string& line) const
    {
        return ("\n" + readFile(record())).find("\n" + line + "\n") != std::string::npos;
    }

    TempDir m_dir;
    ScopedEnvironment m_environment;
};

std::string linesOf(const std::string& text) { return std::to_string(std::count(text.begin(), text.end(), '\n')); }

TEST_F(ProductToolTest, MenuStartsAProgramByItsWindowsPathWithFilesOnTheZDrive)
{
    fs::create_directories(m_dir / "sub dir");
    // "é" written as e and a combining accent: the program must get these bytes.
    const std::string decomposed = "re\xCC\x81sume\xCC\x81 \xE2\x9C\x93.txt";
    Outcome outcome = run("vtmenu",
                          { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--start",
                            "C:\\Program Files\\Scratchpad\\scratchpad.EXE", "/home/a/b c.txt", "sub dir/" + decomposed,
                            "/tmp//twice" });
    ASSERT_EQ(outcome.status, 0) << outcome.standardError;

    std::string here = m_dir.path().string();
    std::replace(here.begin(), here.end(), '/', '\\');
    EXPECT_EQ(argumentsOfRuns(), (std::vector<Strings> { {
                                     "C:\\Program Files\\Scratchpad\\scratchpad.EXE",
                                     "Z:\\home\\a\\b c.txt",
                                     "Z:" + here + "\\sub dir\\" + decomposed,
                                     "Z:\\tmp\\twice",
                                 } }));
}

TEST_F(ProductToolTest, MenuStartsAShortcutFromTheCommonOrTheUsersStartMenu)
{
    fs::path common = prefix() / "drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/Accessories";
    fs::path users = prefix() / "drive_c/users";
    fs::path own = users / "alice/AppData/Roaming/Microsoft/Windows/Start Menu/Programs/Scratchpad";
    fs::create_directories(common);
    fs::create_directories(own);
    fs::create_directories(users / "Public/AppData/Roaming/Microsoft/Windows/Start Menu/Programs");
    writeFile(common / "Notepad.lnk", "shortcut");
    writeFile(own / "Scratchpad.lnk", "shortcut");
    writeFile(users / "Public/AppData/Roaming/Microsoft/Windows/Start Menu/Programs/Other.lnk", "shortcut");

    const Strings untitled { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--start" };
    auto menu = [&](const std::string& entry, Strings files = {}) {
        Strings arguments = untitled;
        arguments.push_back(entry);
        arguments.insert(arguments.end(), files.begin(), files.end());
        return arguments;
    };
    EXPECT_EQ(run("vtmenu", menu("Programs/Accessories/Notepad.lnk", { "/srv/x y.txt" })).status, 0);
    // Windows separators, and a case that differs from the folder's.
    EXPECT_EQ(run("vtmenu", menu("programs\\SCRATCHPAD\\scratchpad.lnk"), { { "USER", "alice" } }).status, 0);
    // Without $USER, any user's folder but Public's.
    EXPECT_EQ(run("vtmenu", { "--bottle", "B", "--arch", "i386", "--install", "--filter",
                              "Programs/Scratchpad/Scratchpad.lnk" },
                  { { "USER", std::nullopt } })
                  .status,
              0);
    EXPECT_EQ(argumentsOfRuns(),
              (std::vector<Strings> {
                  { "start", "/wait", "/unix", (common / "Notepad.lnk").string(), "Z:\\srv\\x y.txt" },
                  { "start", "/wait", "/unix", (own / "Scratchpad.lnk").string() },
                  { "start", "/wait", "/unix", (own / "Scratchpad.lnk").string() },
              }));

    // Not there, Public's own, or outside the Start menu: nothing runs.
    fs::remove(record());
    for (const std::string entry :
         { "Programs/Missing.lnk", "Programs/Other.lnk", "Programs/../Programs/Accessories/Notepad.lnk" }) {
        Outcome outcome = run("vtmenu", menu(entry), { { "USER", "alice" } });
        EXPECT_EQ(outcome.status, 1) << entry;
        EXPECT_NE(outcome.standardError.find("vtmenu: no Start-menu entry \"" + entry + "\" in "), std::string::npos)
            << outcome.standardError;
        EXPECT_NE(outcome.standardError.find((prefix() / "drive_c/ProgramData").string()), std::string::npos);
        EXPECT_NE(outcome.standardError.find((users / "alice/AppData").string()), std::string::npos);
        EXPECT_EQ(linesOf(outcome.standardError), "1");
    }
    EXPECT_FALSE(fs::exists(record()));
}

TEST_F(ProductToolTest, StartOpensEachDocumentAndUrlWithTheBottlesAssociations)
{
    EXPECT_EQ(run("vtstart", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--",
                               "/home/a/b c.vtdoc", "notes \xE2\x9C\x93.vtdoc" })
                  .status,
              0);
    EXPECT_EQ(run("vtstart", { "--bottle", "B", "--enable-alt-loader", "macdrv--", "https://example.org/a b?q=1" })
                  .status,
              0);
    EXPECT_EQ(argumentsOfRuns(), (std::vector<Strings> {
                                     { "start", "/unix", "/home/a/b c.vtdoc" },
                                     { "start", "/unix", (m_dir / "notes \xE2\x9C\x93.vtdoc").string() },
                                     { "start", "https://example.org/a b?q=1" },
                                 }));
}

TEST_F(ProductToolTest, RefusesListsTheLauncherNeverSendsAndBadBottleNames)
{
    const std::vector<std::pair<std::string, Strings>> refused {
        { "vtmenu", {} },
        { "vtmenu", { "--bottle" } },
        { "vtmenu", { "--wait-children", "--bottle", "B", "--enable-alt-loader", "macdrv", "--start", "x.exe" } },
        { "vtmenu", { "--bottle", "", "--wait-children", "--enable-alt-loader", "macdrv", "--start", "x.exe" } },
        { "vtmenu", { "--bottle", "a/b", "--wait-children", "--enable-alt-loader", "macdrv", "--start", "x.exe" } },
        { "vtmenu", { "--bottle", "..", "--wait-children", "--enable-alt-loader", "macdrv", "--start", "x.exe" } },
        { "vtmenu", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--start" } },
        { "vtmenu", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--start", "" } },
        { "vtmenu", { "--bottle", "B", "--enable-alt-loader", "macdrv", "--start", "x.exe" } },
        { "vtmenu", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "other", "--start", "x.exe" } },
        { "vtmenu", { "--bottle", "B", "--arch", "arm64", "--install", "--filter", "x.exe" } },
        { "vtmenu", { "--bottle", "B", "--arch", "i386", "--install", "--filter", "x.exe", "file" } },
        { "vtmenu", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--", "file" } },
        { "vtstart", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--" } },
        { "vtstart", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv--", "https://a" } },
        { "vtstart", { "--bottle", "B", "--enable-alt-loader", "macdrv", "--", "https://a" } },
        { "vtstart", { "--bottle", "B", "--enable-alt-loader", "macdrv--", "https://a", "https://b" } },
        { "vtstart", { "--bottle", "B", "--enable-alt-loader", "macdrv--", "/unix" } },
        { "vtstart", { "--bottle", "B", "--wait-children", "--enable-alt-loader", "macdrv", "--start", "x.exe" } },
        { "wine", { "--bottle", "B" } },
        { "wine", { "--bottle", "B", "--wl-app" } },
        { "wine", { "--bottle", "B", "--wl-app", "../bin/vtmenu" } },
        { "wine", { "notepad" } },
        { "vt-product-tool", { "--bottle", "B", "notepad" } },
    };
    for (const auto& [role, arguments] : refused) {
        std::string list = role;
        for (const std::string& argument : arguments)
            list += " [" + argument + "]";
        Outcome outcome = run(role, arguments);
        EXPECT_EQ(outcome.status, 2) << list;
        EXPECT_TRUE(outcome.standardError.starts_with(role + ": ")) << list << ": " << outcome.standardError;
        EXPECT_EQ(linesOf(outcome.standardError), "1") << list << ": " << outcome.standardError;
    }
    EXPECT_FALSE(fs::exists(record()));

    Outcome noWine = run("vtmenu", kUntitled, { { "VT_PRODUCT_WINE", (m_dir / "no-such-wine").string() } });
    EXPECT_EQ(noWine.status, 127);
    EXPECT_TRUE(noWine.standardError.starts_with("vtmenu: cannot run Wine")) << noWine.standardError;
}

TEST_F(ProductToolTest, WineKeepsItsPidAndPipesForTheWindowCommandTool)
{
    VTTask task;
    task.setLaunchPath(tool("wine"));
    task.setArguments({ "--bottle", "B", "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" });
    task.setEnvironment(environmentWith({}));
    task.setStandardInput(VTTask::Stream::Pipe);
    task.setStandardOutput(VTTask::Stream::Pipe);
    task.launch();

    const std::string request = "-t 4242 -c 1 -a haswindows\n";
    ASSERT_TRUE(writeAll(task.standardInputWriter().get(), request.data(), request.size()));
    std::string answer;
    pollfd readable { task.standardOutputReader().get(), POLLIN, 0 };
    while (!answer.ends_with("\n") && poll(&readable, 1, 10000) == 1) {
        char bytes[256];
        ssize_t n = read(readable.fd, bytes, sizeof bytes);
        if (n <= 0)
            break;
        answer.append(bytes, static_cast<size_t>(n));
    }
    EXPECT_EQ(answer, "echo:" + request);
    task.standardInputWriter().reset();
    ASSERT_TRUE(waitUntil([&] { return !task.isRunning(); }, 10s));
    EXPECT_EQ(task.terminationStatus(), 0);

    ASSERT_EQ(runs().size(), 1u);
    EXPECT_EQ(runs()[0].pid, task.processIdentifier());
    EXPECT_EQ(runs()[0].arguments, (Strings { (fs::path(VT_PRODUCT_ROOT) / "windows/sendwndcmd.exe").string(), "-n",
                                              "-e", "explorer;apprunner" }));

    // Anything else goes to Wine as it is, in place of the tool as well.
    auto plain = start("wine", { "--bottle", "B", "C:\\x y\\z.exe", "--flag" }, { { "VT_FAKE_STATUS", "5" } });
    EXPECT_EQ(plain->waitForExit(), 5);
    ASSERT_EQ(runs().size(), 2u);
    EXPECT_EQ(runs()[1].pid, plain->pid());
    EXPECT_EQ(runs()[1].arguments, (Strings { "C:\\x y\\z.exe", "--flag" }));
}

TEST_F(ProductToolTest, WineGetsTheLaunchersEnvironmentWithTheBottlesPrefixAndNoOtherDescriptors)
{
    const std::map<std::string, std::optional<std::string>> launcher {
        { "VT_WINDOW_TAG", "4242" },
        { "VT_SYSTRAY_SOCKET", "/tmp/vt-tray.sock" },
        { "VT_LAUNCHER_BUNDLE_NAME", "Scratch \xE2\x9C\x93" },
        { "WINEPREFIX", "/elsewhere" },
    };
    // A descriptor open across exec into the tool, as a careless launcher would leave one.
    for (const std::string role : { "vtmenu", "vtstart", "wine" }) {
        Strings list = role == "vtmenu" ? kUntitled : role == "vtstart" ? kUrl : Strings { "--bottle", "B", "x.exe" };
        Strings argv { "/bin/sh", "-c", "exec 7</dev/null; exec \"$0\" \"$@\"", tool(role) };
        argv.insert(argv.end(), list.begin(), list.end());
        TestProcess process(argv, environmentWith(launcher));
        EXPECT_EQ(process.waitForExit(), 0) << role;
    }
    auto debugChosen = launcher;
    debugChosen["WINEDEBUG"] = "warn+all";
    EXPECT_EQ(run("vtstart", kUrl, debugChosen).status, 0);

    std::vector<WineRun> seen = runs();
    ASSERT_EQ(seen.size(), 4u);
    for (size_t i = 0; i < seen.size(); ++i) {
        auto& environment = seen[i].environment;
        EXPECT_EQ(environment["WINEPREFIX"], prefix().string()) << i;
        EXPECT_EQ(environment["WINEDEBUG"], i < 3 ? "-all" : "warn+all") << i;
        EXPECT_EQ(environment["VT_WINDOW_TAG"], "4242") << i;
        EXPECT_EQ(environment["VT_SYSTRAY_SOCKET"], "/tmp/vt-tray.sock") << i;
        EXPECT_EQ(environment["VT_LAUNCHER_BUNDLE_NAME"], "Scratch \xE2\x9C\x93") << i;
        EXPECT_EQ(environment["HOME"], std::getenv("HOME") ? std::getenv("HOME") : "") << i;
        EXPECT_EQ(seen[i].descriptors, (std::set<int> { 0, 1, 2 })) << i;
    }
}

TEST_F(ProductToolTest, WaitsForWhatTheProgramLeftBehindOnlyWhenAskedTo)
{
    // The bottle's wineserver, started with the program, serves the bottle's
    // other programs after it: the tool ends without it.
    fs::create_symlink("/bin/sleep", m_dir / "wineserver");
    Outcome waited = run("vtmenu", kUntitled,
                         { { "VT_FAKE_LINGER", "1" }, { "VT_FAKE_STATUS", "7" },
                           { "VT_FAKE_SERVICE", (m_dir / "wineserver").string() } });
    EXPECT_EQ(waited.status, 7);
    EXPECT_TRUE(recorded("lingerer ended"));
    std::string written = readFile(record());
    size_t service = written.find("service ");
    ASSERT_NE(service, std::string::npos) << written;
    pid_t server = std::stoi(written.substr(service + 8));
    EXPECT_EQ(::kill(server, SIGKILL), 0) << "the wineserver went with the tool";

    fs::remove(record());
    Outcome plain = run("vtstart", kUrl, { { "VT_FAKE_LINGER", "2" } });
    EXPECT_EQ(plain.status, 0);
    EXPECT_FALSE(recorded("lingerer ended"));
    // Not left running past the test.
    EXPECT_TRUE(waitUntil([&] { return recorded("lingerer ended"); }, 10s));
}

TEST_F(ProductToolTest, PassesSignalsOnToWineAndGoesOnWaiting)
{
    for (int signalNumber : { SIGTERM, SIGINT, SIGHUP }) {
        fs::remove(record());
        auto process = start("vtmenu", kUntitled, { { "VT_FAKE_TRAP", "1" } });
        ASSERT_TRUE(waitUntil([&] { return recorded("ready"); }));
        process->signal(signalNumber);
        // Wine chose to end with 3 a moment after the signal; the tool ends with it, not of the signal.
        EXPECT_EQ(process->waitForExit(), 3) << strsignal(signalNumber);
        std::string name = signalNumber == SIGTERM ? "TERM" : signalNumber == SIGINT ? "INT" : "HUP";
        EXPECT_TRUE(recorded("got " + name)) << readFile(record());
    }
}

using Changes = std::map<std::string, std::optional<std::string>>;

// A tray message as the launcher reads it, little-endian: code, operation,
// payload length (that of `payload` unless given) and payload.
std::string trayMessage(uint64_t operation, const std::string& payload, uint32_t code = 74,
                        std::optional<uint32_t> length = std::nullopt)
{
    std::string bytes;
    auto put = [&](uint64_t value, int width) {
        for (int i = 0; i < width; ++i)
            bytes += static_cast<char>(value >> (8 * i) & 0xff);
    };
    put(code, 4);
    put(operation, 8);
    put(length.value_or(static_cast<uint32_t>(payload.size())), 4);
    return bytes + payload;
}

// The largest record the launcher takes.
constexpr uint32_t kLargestRecord = 271320;

// Reads `fd` into `text` until `enough` holds of it, or to its end when
// there is no `enough`; false when that did not happen within `timeout`.
bool readFrom(int fd, std::string& text, const std::function<bool(const std::string&)>& enough = {},
              std::chrono::milliseconds timeout = 10s)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (enough && enough(text))
            return true;
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms)
            return false;
        pollfd readable { fd, POLLIN, 0 };
        if (poll(&readable, 1, static_cast<int>(left.count())) != 1)
            continue;
        char bytes[65536];
        ssize_t n = read(fd, bytes, sizeof bytes);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return !enough;
        text.append(bytes, static_cast<size_t>(n));
    }
}

bool endsALine(const std::string& text) { return text.ends_with("\n"); }

// The launcher's tray socket: each connection, read to its end, is one message.
class LauncherTraySocket {
public:
    explicit LauncherTraySocket(fs::path path) : m_path(std::move(path))
    {
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
        m_listener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (bind(m_listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
            || listen(m_listener.get(), 16) != 0)
            throw std::runtime_error("cannot listen on " + m_path.string() + ": " + std::strerror(errno));
    }
    ~LauncherTraySocket()
    {
        std::error_code error;
        fs::remove(m_path, error);
    }

    // The next connection's bytes; nothing when none came whole within `timeout`.
    std::optional<std::string> nextMessage(std::chrono::milliseconds timeout = 10s)
    {
        pollfd waiting { m_listener.get(), POLLIN, 0 };
        if (poll(&waiting, 1, static_cast<int>(timeout.count())) != 1)
            return std::nullopt;
        Fd connection(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::string bytes;
        if (!connection || !readFrom(connection.get(), bytes, {}, timeout))
            return std::nullopt;
        return bytes;
    }

    bool connectionWaiting() const
    {
        pollfd waiting { m_listener.get(), POLLIN, 0 };
        return poll(&waiting, 1, 0) == 1;
    }

    // As a launcher that has gone: its socket's file stays.
    void stopListening() { m_listener.reset(); }

private:
    fs::path m_path;
    Fd m_listener;
};

// This process's children, ended ones too, but those in `before`.
std::set<pid_t> children(const std::set<pid_t>& before = {})
{
    std::set<pid_t> found;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        // Read as a descriptor: a process that ends meanwhile is an error
        // that a stream would throw.
        Fd file(open((entry.path() / "stat").c_str(), O_RDONLY | O_CLOEXEC));
        char bytes[1024];
        ssize_t n = file ? read(file.get(), bytes, sizeof bytes - 1) : -1;
        std::string stat(bytes, n > 0 ? static_cast<size_t>(n) : 0);
        size_t close = stat.rfind(')');
        char state = 0;
        int parent = 0;
        if (close != std::string::npos && std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &parent) == 2
            && parent == getpid() && !before.contains(std::stoi(name)))
            found.insert(std::stoi(name));
    }
    return found;
}

// What `pid` has open, as /proc names it ("/dev/null", "pipe:[1234]").
std::multiset<std::string> openFiles(pid_t pid)
{
    std::multiset<std::string> files;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error))
        files.insert(fs::read_symlink(entry.path(), error).string());
    return files;
}

std::string pipeName(int fd)
{
    struct stat info {};
    fstat(fd, &info);
    return "pipe:[" + std::to_string(info.st_ino) + "]";
}

// `wine --wl-app sendwndcmd` as the launcher starts it for a session with
// tray icons, from a bundle of the test's own (the tool under bin, an empty
// traybridge.exe under windows), in front of a socket standing for the
// launcher's. The test process is a subreaper meanwhile: the forwarder
// leaves the tool's process tree at once and comes to the test, which so
// sees it end, and sees whatever it leaves behind. Children that earlier
// tests left to this process are not the tool's.
class TrayForwarderTest : public ProductToolTest {
protected:
    TrayForwarderTest() : m_earlierChildren(children())
    {
        fs::create_directories(m_dir / "bundle/bin");
        fs::create_directories(m_dir / "bundle/windows");
        std::error_code error;
        fs::create_hard_link(kTools / "vt-product-tool", m_dir / "bundle/bin/vt-product-tool", error);
        if (error)
            fs::copy_file(kTools / "vt-product-tool", m_dir / "bundle/bin/vt-product-tool");
        fs::create_symlink("vt-product-tool", m_dir / "bundle/bin/wine");
        writeFile(bridgeProgram(), "");
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    ~TrayForwarderTest() override
    {
        // What a failed test left, and what that left in turn.
        for (std::set<pid_t> left = leftBehind(); !left.empty(); left = leftBehind()) {
            for (pid_t pid : left) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
        }
        prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

    // The test's children that this test's tools left.
    std::set<pid_t> leftBehind() const { return children(m_earlierChildren); }

    fs::path bridgeProgram() const { return m_dir / "bundle/windows/traybridge.exe"; }
    fs::path socketPath() const { return m_dir / "tray.sock"; }
    fs::path trayFile() const { return m_dir / "tray"; }

    // With the launcher's pipes as its standard input and output, and the
    // input once more as descriptor 7, as a careless launcher leaves one.
    std::unique_ptr<VTTask> startWindowCommandTool(Changes changes = {})
    {
        changes.try_emplace("VT_WINDOW_TAG", "4242");
        changes.try_emplace("VT_SYSTRAY_SOCKET", socketPath().string());
        auto task = std::make_unique<VTTask>();
        task->setLaunchPath("/bin/sh");
        task->setArguments({ "-c", "exec 7<&0; exec \"$0\" \"$@\"", (m_dir / "bundle/bin/wine").string(), "--bottle",
                             "B", "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" });
        task->setEnvironment(environmentWith(changes));
        task->setStandardInput(VTTask::Stream::Pipe);
        task->setStandardOutput(VTTask::Stream::Pipe);
        task->setStandardError(VTTask::Stream::Pipe);
        task->launch();
        return task;
    }

    static void expectAnswer(VTTask& tool)
    {
        const std::string request = "-t 4242 -c 1 -a haswindows\n";
        ASSERT_TRUE(writeAll(tool.standardInputWriter().get(), request.data(), request.size()));
        std::string answer;
        EXPECT_TRUE(readFrom(tool.standardOutputReader().get(), answer, endsALine));
        EXPECT_EQ(answer, "echo:" + request);
    }

    // The end of a session: the launcher closes the tool's input, and sees
    // its output end and the tool exit.
    static void endSession(VTTask& tool)
    {
        tool.standardInputWriter().reset();
        std::string rest;
        EXPECT_TRUE(readFrom(tool.standardOutputReader().get(), rest)) << "the tool's output stays open";
        ASSERT_TRUE(waitUntil([&] { return !tool.isRunning(); }));
        EXPECT_EQ(tool.terminationStatus(), 0);
    }

    // The process that came to the test beside the tool.
    pid_t forwarder(const VTTask& tool) const
    {
        std::set<pid_t> adopted = leftBehind();
        adopted.erase(tool.processIdentifier());
        EXPECT_EQ(adopted.size(), 1u);
        return adopted.empty() ? 0 : *adopted.begin();
    }

    // Its wait status once it has ended.
    static std::optional<int> reap(pid_t pid, std::chrono::milliseconds timeout = 10s)
    {
        int status = 0;
        if (pid > 0 && waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout))
            return status;
        return std::nullopt;
    }

    std::optional<WineRun> bridgeRun() const
    {
        for (const WineRun& run : runs())
            if (!run.arguments.empty() && run.arguments[0].ends_with("traybridge.exe"))
                return run;
        return std::nullopt;
    }

    // Whether the forwarder waits in its loop over the tool, the bridge's
    // output and the bridge's end (the only poll over three descriptors):
    // it has then tried every message it read.
    static bool waitsForTheBridge(pid_t pid)
    {
        std::istringstream call(readFile("/proc/" + std::to_string(pid) + "/syscall"));
        long number = -1;
        std::string descriptors, count;
        call >> number >> descriptors >> count;
        return (number == SYS_poll || number == SYS_ppoll) && count == "0x3";
    }

    // The bridge's pid once it has written its messages; 0 before.
    pid_t bridgeReady() const
    {
        std::istringstream lines(readFile(record()));
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with("bridge ") && line.ends_with(" ready"))
                return std::stoi(line.substr(7));
        return 0;
    }

    const std::set<pid_t> m_earlierChildren;
};

TEST_F(TrayForwarderTest, HandsEachMessageToTheLauncherOnItsOwnConnectionInOrder)
{
    std::string everyByte;
    for (int i = 0; i < 1024; ++i)
        everyByte += static_cast<char>(i);
    // The longest record is more than the bridge's pipe holds at once.
    const Strings messages {
        trayMessage(0, everyByte),
        trayMessage(1, std::string(kLargestRecord, '\xA5')),
        trayMessage(2, ""),
        trayMessage(0, everyByte.substr(250, 10)),
    };
    std::string stream;
    for (const std::string& message : messages)
        stream += message;
    writeFile(trayFile(), stream);

    LauncherTraySocket launcher(socketPath());
    auto tool = startWindowCommandTool({ { "VT_FAKE_TRAY", trayFile().string() },
                                         { "VT_APPRUNNER_ALT_LOADER_SOCKET", (m_dir / "loader.sock").string() } });
    for (size_t i = 0; i < messages.size(); ++i) {
        std::optional<std::string> received = launcher.nextMessage();
        ASSERT_TRUE(received) << "message " << i;
        EXPECT_TRUE(*received == messages[i])
            << "message " << i << ": " << received->size() << " bytes for " << messages[i].size();
    }
    expectAnswer(*tool);
    endSession(*tool);
    EXPECT_EQ(reap(forwarder(*tool)), 0);
    EXPECT_FALSE(launcher.connectionWaiting());

    // The bridge runs in the bottle beside the program, not as part of it.
    std::optional<WineRun> bridge = bridgeRun();
    ASSERT_TRUE(bridge);
    EXPECT_EQ(bridge->arguments, (Strings { bridgeProgram().string(), "-t", "4242" }));
    EXPECT_EQ(bridge->environment["WINEPREFIX"], prefix().string());
    EXPECT_EQ(bridge->environment["WINEDEBUG"], "-all");
    for (const char* name : { "VT_WINDOW_TAG", "VT_SYSTRAY_SOCKET", "VT_APPRUNNER_ALT_LOADER_SOCKET" })
        EXPECT_FALSE(bridge->environment.contains(name)) << name;
    EXPECT_EQ(bridge->descriptors, (std::set<int> { 0, 1, 2 }));
    std::vector<WineRun> seen = runs();
    auto sendwndcmd = std::find_if(seen.begin(), seen.end(),
                                   [](const WineRun& run) { return run.arguments.at(0).ends_with("sendwndcmd.exe"); });
    ASSERT_NE(sendwndcmd, seen.end());
    EXPECT_EQ(sendwndcmd->pid, tool->processIdentifier());
    EXPECT_EQ(sendwndcmd->environment["VT_WINDOW_TAG"], "4242");
    EXPECT_EQ(sendwndcmd->environment["VT_SYSTRAY_SOCKET"], socketPath().string());
}

TEST_F(TrayForwarderTest, HoldsNoneOfTheLaunchersPipesAndEndsWithTheSession)
{
    auto tool = startWindowCommandTool();
    ASSERT_TRUE(waitUntil([&] { return bridgeReady() > 0; }));
    pid_t forwarding = forwarder(*tool);
    std::multiset<std::string> held = openFiles(forwarding);
    EXPECT_EQ(held.count(pipeName(tool->standardInputWriter().get())), 0u);
    EXPECT_EQ(held.count(pipeName(tool->standardOutputReader().get())), 0u);
    EXPECT_EQ(held.count("/dev/null"), 2u);

    expectAnswer(*tool);
    endSession(*tool);
    EXPECT_EQ(reap(forwarding), 0);
    EXPECT_TRUE(recorded("bridge ended"));
    EXPECT_EQ(leftBehind(), std::set<pid_t> {});
    std::string complaints;
    EXPECT_TRUE(readFrom(tool->standardErrorReader().get(), complaints));
    EXPECT_EQ(complaints, "");
}

TEST_F(TrayForwarderTest, KillsABridgeThatOutstaysTheSession)
{
    // It never reads its input, so never sees its end.
    auto tool = startWindowCommandTool({ { "VT_FAKE_TRAY_DEAF", "1" } });
    ASSERT_TRUE(waitUntil([&] { return bridgeReady() > 0; }));
    pid_t bridge = bridgeReady();
    pid_t forwarding = forwarder(*tool);
    endSession(*tool);
    EXPECT_EQ(reap(forwarding, 20s), 0);
    EXPECT_EQ(kill(bridge, 0), -1);
    EXPECT_EQ(leftBehind(), std::set<pid_t> {});
}

TEST_F(TrayForwarderTest, StopsWhenTheBridgeStopsSpeakingTheProtocol)
{
    const std::string first = trayMessage(0, "icon");
    const std::string after = trayMessage(1, "later");
    const std::string notTray = "wine: the tray bridge wrote something that is not a tray message ";
    struct Case {
        const char* what;
        std::string stream;
        Changes changes;
        std::string complaint;
        bool bridgeToldToGo;
    };
    const std::vector<Case> cases {
        { "another code", first + trayMessage(0, "x", 75) + after, {},
          notTray + "(code 75, length 1): its icons are no longer forwarded\n", true },
        { "a record longer than the launcher takes", first + trayMessage(0, "", 74, kLargestRecord + 1) + after, {},
          notTray + "(code 74, length 271321): its icons are no longer forwarded\n", true },
        { "the bridge's own end", first, { { "VT_FAKE_TRAY_QUIT", "3" } },
          "wine: the tray bridge ended (status 3): tray icons no longer reach the launcher\n", false },
    };
    for (const Case& broken : cases) {
        fs::remove(record());
        writeFile(trayFile(), broken.stream);
        Changes changes = broken.changes;
        changes["VT_FAKE_TRAY"] = trayFile().string();
        LauncherTraySocket launcher(socketPath());
        auto tool = startWindowCommandTool(changes);
        EXPECT_EQ(launcher.nextMessage(), first) << broken.what;
        // The forwarder gives up and the bridge goes, while the session goes on.
        EXPECT_EQ(reap(forwarder(*tool)), 0) << broken.what;
        EXPECT_EQ(recorded("bridge ended"), broken.bridgeToldToGo) << broken.what;
        EXPECT_FALSE(launcher.connectionWaiting()) << broken.what;
        EXPECT_TRUE(tool->isRunning()) << broken.what;
        expectAnswer(*tool);
        endSession(*tool);
        std::string complaints;
        EXPECT_TRUE(readFrom(tool->standardErrorReader().get(), complaints));
        EXPECT_EQ(complaints, broken.complaint) << broken.what;
        EXPECT_EQ(leftBehind(), std::set<pid_t> {}) << broken.what;
    }
}

TEST_F(TrayForwarderTest, DropsMessagesWhileTheLauncherIsAwayAndForwardsWhenItIsBack)
{
    const std::string away = "wine: tray icon changes are dropped until the launcher takes one again: connect to "
        + socketPath().string() + ": ";
    auto lines = [](size_t count) {
        return [count](const std::string& text) {
            return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) >= count;
        };
    };
    writeFile(trayFile(), trayMessage(0, "one"));
    auto tool = startWindowCommandTool(
        { { "VT_FAKE_TRAY", trayFile().string() }, { "VT_FAKE_TRAY_LATER", (m_dir / "later").string() } });
    int complaints = tool->standardErrorReader().get();
    std::string said;
    ASSERT_TRUE(readFrom(complaints, said, lines(1)));
    EXPECT_EQ(said, away + "No such file or directory\n");
    ASSERT_TRUE(waitUntil([&] { return bridgeReady() > 0; }));

    // Each batch in a new file: the bridge's reading of the last one may
    // not have seen its end yet.
    auto later = [&](const std::string& messages) {
        writeFile(m_dir / "batch", messages);
        fs::rename(m_dir / "batch", m_dir / "later");
        kill(bridgeReady(), SIGUSR1);
    };
    LauncherTraySocket launcher(socketPath());
    later(trayMessage(1, "three"));
    EXPECT_EQ(launcher.nextMessage(), trayMessage(1, "three"));

    // A launcher that has gone leaves its socket behind. Two changes, one
    // line: a launcher that has gone stays gone, however many icons change.
    // The bridge writes both at once, so the forwarder reads them together
    // and has tried "five" too once it waits for the bridge again.
    launcher.stopListening();
    pid_t forwarding = forwarder(*tool);
    later(trayMessage(2, "four") + trayMessage(2, "five"));
    ASSERT_TRUE(readFrom(complaints, said, lines(2)));
    ASSERT_TRUE(waitUntil([&] { return waitsForTheBridge(forwarding); }));
    // Back again: what comes next arrives, and it said nothing more.
    fs::remove(socketPath());
    LauncherTraySocket back(socketPath());
    later(trayMessage(1, "six"));
    EXPECT_EQ(back.nextMessage(), trayMessage(1, "six"));

    endSession(*tool);
    EXPECT_EQ(reap(forwarding), 0);
    EXPECT_TRUE(readFrom(complaints, said));
    EXPECT_EQ(said, away + "No such file or directory\n" + away + "Connection refused\n");
}

TEST_F(TrayForwarderTest, DropsAMessageTheLauncherDoesNotTakeInTime)
{
    // Listening but reading nothing: the longest record does not fit in the
    // connection's buffer.
    LauncherTraySocket launcher(socketPath());
    writeFile(trayFile(), trayMessage(0, std::string(kLargestRecord, 'x')));
    auto tool = startWindowCommandTool({ { "VT_FAKE_TRAY", trayFile().string() } });
    std::string said;
    EXPECT_TRUE(readFrom(tool->standardErrorReader().get(), said, endsALine));
    EXPECT_EQ(said, "wine: tray icon changes are dropped until the launcher takes one again: write to "
                  + socketPath().string() + ": the launcher did not take the message within 3 s\n");
    endSession(*tool);
    EXPECT_EQ(reap(forwarder(*tool)), 0);
}

TEST_F(TrayForwarderTest, StartsNoBridgeWithoutTheLaunchersTrayOrTheBundlesBridge)
{
    const std::vector<std::pair<std::string, Changes>> cases {
        { "no tray socket", { { "VT_SYSTRAY_SOCKET", std::nullopt } } },
        { "no tag", { { "VT_WINDOW_TAG", std::nullopt } } },
        { "no traybridge.exe", {} },
    };
    for (const auto& [what, changes] : cases) {
        if (what == "no traybridge.exe")
            fs::remove(bridgeProgram());
        fs::remove(record());
        auto tool = startWindowCommandTool(changes);
        expectAnswer(*tool);
        // A forwarder comes to the test before the tool becomes Wine.
        EXPECT_EQ(leftBehind(), std::set<pid_t> { tool->processIdentifier() }) << what;
        endSession(*tool);
        EXPECT_EQ(runs().size(), 1u) << what;
        std::string complaints;
        EXPECT_TRUE(readFrom(tool->standardErrorReader().get(), complaints));
        EXPECT_EQ(complaints, "") << what;
    }
}

} // namespace
