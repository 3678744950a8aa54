// The product's tools vtmenu, vtstart and wine as the launcher runs them, in
// front of a fake Wine: a shell script that records each run (its arguments,
// environment and descriptors) and then does what the test asks of it: exit
// with a status, leave a process behind that outlives it by a moment, wait
// for a signal, or echo its standard input as the window-command tool would.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include <poll.h>
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
} >> "$record"
ls -l /proc/self/fd | sed -n 's/.* \([0-9][0-9]*\) -> \(.*\)$/fd \1 \2/p' >> "$record"
case "$1" in
*sendwndcmd.exe)
    while IFS= read -r line; do
        printf 'echo:%s\n' "$line"
    done
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
        kill "$sleeper"
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
                                  "VT_FAKE_STATUS" })
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

} // namespace
