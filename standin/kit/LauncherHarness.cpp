#include "standin/kit/LauncherHarness.hpp"

#include <ctime>
#include <sstream>

#include "shell/HelperServerClient.hpp"

namespace vt::test {

LauncherHarness::LauncherHarness() { mainApp = desktop.addMainApp({ .bundle = dir / "Vantor.app" }); }

LauncherHarness::~LauncherHarness()
{
    // The main application was started detached by the launcher: it is not
    // our child, so end it explicitly before the bus goes.
    if (auto owner = busNameOwnerProcess(bus.address(), kVantorBundleIdentifier))
        terminateAndWait(*owner);
    m_helperServer.reset();
}

std::map<std::string, std::string> LauncherHarness::environment(const EnvironmentChanges& extra) const
{
    EnvironmentChanges changes = desktop.variables();
    changes["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
    changes["VT_STANDIN_RECORD"] = mainAppRecord().string();
    changes["VT_STANDIN_SERVER_RECORD"] = serverRecord().string();
    changes["VT_LOG"] = "1";
    for (const auto& [name, value] : extra)
        changes[name] = value;
    return environmentWith(changes);
}

void LauncherHarness::startHelperServer(const EnvironmentChanges& settings)
{
    m_helperServer = std::make_unique<TestProcess>(
        std::vector<std::string> { std::string(VT_STANDIN_DIR) + "/vt-standin-helper-server" }, environment(settings));
    if (!settings.count("VT_STANDIN_SERVER_DELAY_MS"))
        waitUntil([&] { return bus.hasOwner(vt::kHelperServerBusName); });
}

std::unique_ptr<TestProcess> LauncherHarness::startLauncher(const std::vector<std::string>& arguments,
                                                            const EnvironmentChanges& extra)
{
    if (launcher.empty())
        launcher = makeLauncherBundle(dir / "Notepad.app", launcherInfo, "Notepad");
    // A shell in between sends the launcher's standard error to a file; exec
    // keeps the process (and so the pid) the launcher's own.
    std::vector<std::string> argv { "/bin/sh", "-c", "cd \"$VT_TEST_CWD\" && exec \"$0\" \"$@\" 2>>\"$VT_TEST_LOG\"",
                                    launcher.string() };
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    EnvironmentChanges changes = extra;
    changes["VT_TEST_CWD"] = dir.path().string();
    changes["VT_TEST_LOG"] = (dir / ("launcher-" + std::to_string(m_runs++) + ".log")).string();
    return std::make_unique<TestProcess>(argv, environment(changes));
}

std::string LauncherHarness::launcherLog(int run) const
{
    return readFile(dir / ("launcher-" + std::to_string(run) + ".log"));
}

bool LauncherHarness::waitForLog(const std::string& text, int run, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return launcherLog(run).find(text) != std::string::npos; }, timeout);
}

std::vector<int64_t> logLineTimes(const std::string& log, const std::string& text)
{
    std::vector<int64_t> times;
    std::istringstream lines(log);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find(text) == std::string::npos)
            continue;
        // "YYYY-MM-DD HH:MM:SS.mmm name[pid] message"
        struct tm parts {};
        int milliseconds = 0;
        if (sscanf(line.c_str(), "%d-%d-%d %d:%d:%d.%d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                   &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &milliseconds) != 7)
            continue;
        parts.tm_year -= 1900;
        parts.tm_mon -= 1;
        parts.tm_isdst = -1;
        times.push_back(static_cast<int64_t>(mktime(&parts)) * 1000 + milliseconds);
    }
    return times;
}

} // namespace vt::test
