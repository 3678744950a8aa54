// A walk through one launcher's life, told as it happens: the real vtlauncher
// in a bundle, beside the stand-in Vantor product on a private session bus.
// Nothing here is simulated inside the launcher; the product around it is.
#include <csignal>
#include <cstdio>
#include <iostream>

#include "standin/kit/LauncherHarness.hpp"
#include "standin/kit/StandinTools.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

[[noreturn]] void fail(const std::string& what, const LauncherHarness& h)
{
    std::cout << "\ndemo: " << what << " did not happen in time. The launcher's log:\n" << h.launcherLog() << std::flush;
    std::exit(1);
}

std::string quoted(const std::vector<std::string>& words)
{
    std::string text;
    for (const auto& word : words)
        text += (text.empty() ? "" : " ") + (word.find(' ') == std::string::npos ? word : "\"" + word + "\"");
    return text;
}

void say(const std::string& text) { std::cout << text << "\n" << std::flush; }

// The launcher's own log lines that contain `text`, without their stamps.
void showLog(const LauncherHarness& h, const std::string& text, int run = 0)
{
    std::istringstream lines(h.launcherLog(run));
    std::string line;
    while (std::getline(lines, line)) {
        auto bracket = line.find("] ");
        if (line.find(text) != std::string::npos && bracket != std::string::npos)
            say("     launcher: " + line.substr(bracket + 2));
    }
}

void showTool(const ToolRecord& record, const std::string& tag)
{
    say("     " + record.role + " (pid " + std::to_string(record.pid) + ") " + quoted(record.arguments()));
    say("       standard input/output: " + record.standardInput + "/" + record.standardOutput
        + ", working directory " + record.directory);
    say("       VT_WINDOW_TAG=" + record.environment.at("VT_WINDOW_TAG") + " (the launcher is " + tag
        + "), VT_LAUNCHER_BUNDLE_NAME=" + record.environment.at("VT_LAUNCHER_BUNDLE_NAME") + ", "
        + std::to_string(record.environment.size() - 2) + " more from the helper server");
}

void showCommands(const StandinTools& tools, size_t from)
{
    auto texts = tools.commandTexts();
    for (size_t i = from; i < texts.size(); ++i)
        say("     window command: " + texts[i]);
}

} // namespace

int main()
{
    LauncherHarness h;
    StandinTools tools(h.dir / "tools");
    tools.install(h.mainApp);
    h.launcherInfo["CFBundleDocumentTypes"] = vt::PlistArray {
        vt::PlistDict { { "CFBundleTypeExtensions", vt::PlistArray { "txt" } } } };
    tools.writeServerEnvironment(h.dir / "server.env", { { "WINEPREFIX", "/bottles/Office" } });
    // The main application is not running: the launcher starts it, and it
    // brings up the helper server, whose bottle needs two seconds.
    EnvironmentChanges product { { "VT_STANDIN_SERVE_HELPER", "1" }, { "VT_STANDIN_NOT_READY", "2" },
                                 { "VT_STANDIN_SERVER_ENV", (h.dir / "server.env").string() } };

    say("Vantor launcher demo: the real vtlauncher beside the stand-in Vantor product, on a private bus.");
    say("  main application: " + h.mainApp.string() + " (not running yet)");
    say("  tools:            " + (h.mainApp / "Contents/SharedSupport/Vantor/bin").string());

    say("\n1. The user opens Notepad.app (bottle \"Office\", menu entry \"Programs/Notepad.lnk\").");
    auto launcher = h.startLauncher({}, product);
    std::string tag = std::to_string(launcher->pid());
    if (!h.waitForLog("start-up done") || !tools.waitForRecords(2))
        fail("start-up", h);
    say("   The main application was started in the background to open the launcher's bundle:");
    for (const auto& line : readLines(h.mainAppRecord()))
        say("     main application: " + line);
    showLog(h, "looking for the helper server");
    showLog(h, "is not ready yet");
    showLog(h, "start-up done");
    say("   The window-command tool runs under wine, and the Windows program through vtmenu:");
    showTool(tools.records("wine").at(0), tag);
    auto menu = tools.records("vtmenu").at(0);
    showTool(menu, tag);

    say("\n2. The user opens Report.txt with Notepad: a declared document type goes to vtstart.");
    h.startLauncher({ (h.dir / "Report.txt").string() }, product)->waitForExit();
    if (!tools.waitForRecords("vtstart", 1))
        fail("opening the document", h);
    showTool(tools.records("vtstart").at(0), tag);

    say("\n3. The user clicks Notepad again: no second copy, the program's windows are raised.");
    size_t seen = tools.commandTexts().size();
    h.startLauncher({}, product)->waitForExit();
    if (!tools.waitForCommands(seen + 1))
        fail("activation", h);
    showCommands(tools, seen);
    std::string raised;
    for (const auto& line : readLines(h.serverRecord())) {
        if (line.find("RaiseWindowsWithTag") != std::string::npos)
            raised = line.substr(line.find(' ') + 1);
    }
    say("     helper server asked: " + raised);
    say("     vtmenu processes: " + std::to_string(tools.records("vtmenu").size()));

    say("\n4. The user quits, but the program has unsaved work and says no.");
    tools.setAnswer("queryendsession", "0");
    seen = tools.commandTexts().size();
    launcher->signal(SIGTERM);
    if (!tools.waitForCommands(seen + 3) || !h.waitForLog("quit cancelled"))
        fail("the refused quit", h);
    showCommands(tools, seen);
    say(std::string("     the launcher is ") + (launcher->running() ? "still running" : "gone (wrong!)"));

    say("\n5. The user saves and quits again; the program agrees.");
    tools.setAnswer("queryendsession", "1");
    seen = tools.commandTexts().size();
    launcher->signal(SIGTERM);
    auto status = launcher->waitForExit();
    showCommands(tools, seen);
    say("     the launcher exited with status " + (status ? std::to_string(*status) : std::string("?")));
    say(std::string("     vtmenu was ") + (tools.ending(menu.pid) ? "ended by someone (wrong!)" : "never signalled")
        + ": the Windows side ends the session itself.");
    return status == 0 ? 0 : 1;
}
