#include "standin/kit/StandinWorld.hpp"

#include <cstdlib>
#include <stdexcept>

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
} // namespace

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
