// A walk through one launcher's life, told as it happens: the real vtlauncher
// in a bundle, beside the stand-in Vantor product on a private session bus.
// Nothing here is simulated inside the launcher; the product around it is.
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include <unistd.h>

#include "standin/kit/StandinWorld.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

void say(const std::string& text) { std::cout << text << "\n" << std::flush; }

// Ends the story when something it waited for did not happen.
void expect(bool happened, const std::string& what, StandinWorld& w)
{
    if (happened)
        return;
    say("\ndemo: " + what + " did not happen in time. The launcher's log:\n" + w.launcherLog());
    std::exit(1);
}

std::string quoted(const std::vector<std::string>& words)
{
    std::string text;
    for (const auto& word : words)
        text += (text.empty() ? "" : " ") + (word.find(' ') == std::string::npos ? word : "\"" + word + "\"");
    return text;
}

// The launcher's own log lines that contain `text`, without their stamps.
void showLog(const StandinWorld& w, const std::string& text)
{
    std::istringstream lines(w.launcherLog());
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

// Shows the window commands from the `from`-th on, once there are `count`.
void showCommands(StandinWorld& w, size_t from, size_t count, const std::string& what)
{
    expect(w.records.waitFor("request", count), what, w);
    auto texts = w.records.commandTexts();
    for (size_t i = from; i < texts.size(); ++i)
        say("     window command: " + texts[i]);
}

} // namespace

int main()
{
    StandinWorld w;
    w.launcherInfo["CFBundleDocumentTypes"] = vt::PlistArray {
        vt::PlistDict { { "CFBundleTypeExtensions", vt::PlistArray { "txt" } } } };
    w.serverDictionary["WINEPREFIX"] = "/bottles/Office";
    // The main application is not running: the launcher starts it, and it
    // brings up the helper server, whose bottle needs two seconds.
    EnvironmentChanges product { { "VT_STANDIN_SERVE_HELPER", "1" }, { "VT_STANDIN_NOT_READY", "2" } };

    say("Vantor launcher demo: the real vtlauncher beside the stand-in Vantor product, on a private bus.");
    say("  main application: " + w.mainApp.string() + " (not running yet)");
    say("  tools:            " + (w.mainApp / "Contents/SharedSupport/Vantor/bin").string());

    say("\n1. The user opens Notepad.app (bottle \"Office\", menu entry \"Programs/Notepad.lnk\").");
    auto& launcher = w.startLauncher({}, product);
    std::string tag = std::to_string(launcher.pid());
    expect(w.waitForLog("start-up done") && w.records.waitForTools(2), "start-up", w);
    say("   The main application was started in the background to open the launcher's bundle:");
    for (const auto& event : w.records.texts("main-app"))
        say("     main application: " + event);
    showLog(w, "looking for the helper server");
    showLog(w, "is not ready yet");
    showLog(w, "start-up done");
    say("   The window-command tool runs under wine, and the Windows program through vtmenu:");
    showTool(w.records.tools("wine").at(0), tag);
    auto menu = w.records.tools("vtmenu").at(0);
    showTool(menu, tag);

    say("\n2. The user opens Report.txt with Notepad: a declared document type goes to vtstart.");
    w.startLauncher({ (w.dir / "Report.txt").string() }, product).waitForExit();
    expect(w.records.waitForTools(1, "vtstart"), "opening the document", w);
    showTool(w.records.tools("vtstart").at(0), tag);

    say("\n3. The user clicks Notepad again: no second copy, the program's windows are raised.");
    size_t seen = w.records.texts("request").size();
    w.startLauncher({}, product).waitForExit();
    showCommands(w, seen, seen + 1, "activation");
    say("     helper server asked: " + w.records.texts("call").back());
    say("     vtmenu processes: " + std::to_string(w.records.tools("vtmenu").size()));

    say("\n4. The user quits, but the program has unsaved work and says no.");
    w.setAnswer("queryendsession", "0");
    seen = w.records.texts("request").size();
    launcher.signal(SIGTERM);
    showCommands(w, seen, seen + 3, "the refused quit");
    expect(w.waitForLog("quit cancelled"), "the refused quit", w);
    say(std::string("     the launcher is ") + (launcher.running() ? "still running" : "gone (wrong!)"));

    say("\n5. The user saves and quits again; the program agrees.");
    w.setAnswer("queryendsession", "1");
    seen = w.records.texts("request").size();
    launcher.signal(SIGTERM);
    auto status = launcher.waitForExit();
    showCommands(w, seen, seen + 4, "the agreed quit");
    say("     the launcher exited with status " + (status ? std::to_string(*status) : std::string("?")));
    terminateAndWait(menu.pid);
    expect(waitUntil([&] { return w.records.endedBy(menu.pid).has_value(); }), "the end of the program", w);
    bool byLauncher = w.records.endedBy(menu.pid) != getpid();
    say(std::string("     vtmenu was ") + (byLauncher ? "ended by the launcher (wrong!)" : "never signalled by the launcher")
        + ": the Windows side ends the session itself.");
    return status == 0 && !byLauncher ? 0 : 1;
}
