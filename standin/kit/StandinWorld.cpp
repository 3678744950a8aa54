#include "standin/kit/StandinWorld.hpp"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <vector>

#include "shell/HelperServerClient.hpp"

namespace vt::test {

namespace {
    std::filesystem::path standinProgram(const char* name) { return std::filesystem::path(VT_STANDIN_DIR) / name; }

    // Whole or not at all: the stand-in programs read these files at any time.
    void replaceFile(const std::filesystem::path& path, const std::string& contents)
    {
        std::filesystem::path temporary = path;
        writeFile(temporary += ".tmp", contents);
        std::filesystem::rename(temporary, path);
    }

    struct ToolProcess {
        pid_t pid;
        bool readsInput; // a pipe or a socket: the window-command channel
        std::string commandLine;
    };

    // The running processes of the stand-in tools, by whatever name they
    // were started, that report to `records`: the tools of one world. A
    // zombie has neither executable nor environment and is not among them.
    std::vector<ToolProcess> toolProcessesReportingTo(const std::filesystem::path& records)
    {
        std::error_code error;
        const std::set<std::filesystem::path> programs {
            std::filesystem::weakly_canonical(standinProgram("vt-standin-tool"), error),
            std::filesystem::weakly_canonical(standinProgram("vt-standin-sendwndcmd"), error),
        };
        const std::string tie = std::string(standin::kRecordsVariable) + "=" + records.string();
        std::vector<ToolProcess> found;
        for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
            const std::string name = entry.path().filename();
            if (name.find_first_not_of("0123456789") != std::string::npos)
                continue;
            std::error_code gone;
            if (!programs.count(std::filesystem::read_symlink(entry.path() / "exe", gone)) || gone)
                continue;
            std::string environment = readFile(entry.path() / "environ");
            if (('\0' + environment).find('\0' + tie + '\0') == std::string::npos)
                continue;
            const std::string input = std::filesystem::read_symlink(entry.path() / "fd/0", gone);
            std::string commandLine = readFile(entry.path() / "cmdline");
            std::replace(commandLine.begin(), commandLine.end(), '\0', ' ');
            found.push_back(
                { std::stoi(name), input.starts_with("pipe:") || input.starts_with("socket:"), commandLine });
        }
        return found;
    }
} // namespace

StandinWorld::LeftBehind::~LeftBehind()
{
    if (report.empty())
        return;
    std::fprintf(stderr, "%s", report.c_str());
    std::abort();
}

StandinWorld::StandinWorld()
{
    mainApp = desktop.addMainApp({ .bundle = dir / "Vantor.app" });
    std::filesystem::path bin = mainApp / "Contents/SharedSupport/Vantor/bin";
    std::filesystem::create_directories(bin);
    for (const char* role : { "vtmenu", "vtstart", "wine" })
        std::filesystem::create_symlink(standinProgram("vt-standin-tool"), bin / role);
    serverDictionary = {
        { standin::kRecordsVariable, records.path().string() },
        { "VT_STANDIN_ANSWERS", (dir / "answers").string() },
        { "PATH", "/usr/local/bin:/usr/bin:/bin" },
        { "LANG", "C.UTF-8" },
    };
    // Sanitizer builds of the tools must run as this test runs.
    for (const char* name : { "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS" }) {
        if (const char* value = std::getenv(name))
            serverDictionary[name] = value;
    }
}

StandinWorld::~StandinWorld()
{
    // The main application was started detached by the launcher and the
    // tools are the launcher's children: none is ours to reap, so each is
    // ended explicitly, the main application before the bus goes.
    if (auto owner = busNameOwnerProcess(bus.address(), kVantorBundleIdentifier))
        terminateAndWait(*owner);
    for (const ToolRecord& tool : records.tools()) {
        if (!records.endedBy(tool.pid))
            terminateAndWait(tool.pid);
    }
    m_launcherRuns.clear();
    m_helperServer.reset();

    // A tool on a launcher's window-command channel ends by itself once its
    // launcher is gone: its input ends. The others (vtmenu, vtstart) outlive
    // their launcher, as the program they stand for does, so those the world
    // has not seen yet (a launcher may start one just before it is killed)
    // are ended as the seen ones were.
    std::set<pid_t> ended;
    std::vector<ToolProcess> left;
    bool clean = waitUntil([&] {
        left = toolProcessesReportingTo(records.path());
        for (const ToolProcess& tool : left) {
            if (!tool.readsInput && ended.insert(tool.pid).second)
                kill(tool.pid, SIGTERM);
        }
        return left.empty();
    });
    if (clean)
        return;
    std::string report = "*** The stand-in world in " + dir.path().string() + " left tools running:\n";
    for (const ToolProcess& tool : left) {
        report += "***   pid " + std::to_string(tool.pid) + ": " + tool.commandLine + "\n";
        kill(tool.pid, SIGKILL);
    }
    m_leftBehind.report = report;
}

void StandinWorld::setAnswer(const std::string& command, const std::string& answer)
{
    m_answers[command] = answer;
    std::string script;
    for (const auto& [key, value] : m_answers)
        script += key + "=" + value + "\n";
    replaceFile(dir / "answers", script);
}

std::map<std::string, std::string> StandinWorld::environment(const EnvironmentChanges& extra) const
{
    EnvironmentChanges changes = desktop.variables();
    changes["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
    changes[standin::kRecordsVariable] = records.path().string();
    changes["VT_STANDIN_SERVER_ENV"] = (dir / "server.env").string();
    changes["VT_LOG"] = "1";
    // The session the tests run in is not the world's: its session manager
    // would take the world's launchers for clients of its own.
    changes["SESSION_MANAGER"] = std::nullopt;
    changes["DESKTOP_AUTOSTART_ID"] = std::nullopt;
    for (const auto& [name, value] : extra)
        changes[name] = value;
    return environmentWith(changes);
}

void StandinWorld::writeServerDictionary() const
{
    std::string dictionary;
    for (const auto& [name, value] : serverDictionary) {
        if (value.find('\n') != std::string::npos)
            throw std::invalid_argument("the helper server's dictionary holds one line per variable: " + name);
        dictionary += name + "=" + value + "\n";
    }
    replaceFile(dir / "server.env", dictionary);
}

void StandinWorld::startHelperServer(const EnvironmentChanges& settings)
{
    writeServerDictionary();
    m_helperServer = std::make_unique<TestProcess>(
        std::vector<std::string> { standinProgram("vt-standin-helper-server").string() }, environment(settings));
    if (!settings.count("VT_STANDIN_SERVER_DELAY_MS"))
        waitUntil([&] { return bus.hasOwner(kHelperServerBusName); });
}

void StandinWorld::signalHelperServer(int signalNumber)
{
    if (!m_helperServer)
        throw std::logic_error("no helper server to signal");
    m_helperServer->signal(signalNumber);
}

TestProcess& StandinWorld::startLauncher(const std::vector<std::string>& arguments, const EnvironmentChanges& extra)
{
    if (launcher.empty()) {
        launcherInfo["CFBundleExecutable"] = "Notepad";
        writeInfoPlist(dir / "Notepad.app", launcherInfo);
        launcher = installExecutable(dir / "Notepad.app", "Notepad", launcherBinary);
    }
    // The main application it starts may serve the helper server itself.
    writeServerDictionary();
    std::vector<std::string> argv { launcher.string() };
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return *m_launcherRuns.emplace_back(std::make_unique<TestProcess>(
        argv, environment(extra), ProcessSetup { .directory = dir.path(), .keepStandardError = true }));
}

std::string StandinWorld::launcherLog(size_t run) const { return m_launcherRuns.at(run)->standardError(); }

bool StandinWorld::waitForLog(const std::string& text, size_t run, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return launcherLog(run).find(text) != std::string::npos; }, timeout);
}

} // namespace vt::test
