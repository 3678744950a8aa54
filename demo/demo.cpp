// A walk through one launcher's life, told as it happens: the real vtlauncher
// in a bundle, beside the stand-in Vantor product on a private session bus.
// Nothing here is simulated inside the launcher; the product around it is.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include <unistd.h>

#include "standin/kit/StandinWorld.hpp"
#include "standin/kit/StatusNotifierWatcher.hpp"

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
    auto loader = record.environment.find("VT_APPRUNNER_ALT_LOADER_SOCKET");
    bool hasLoader = loader != record.environment.end();
    bool hasTray = record.environment.count("VT_SYSTRAY_SOCKET") != 0;
    say("       VT_WINDOW_TAG=" + record.environment.at("VT_WINDOW_TAG") + " (the launcher is " + tag
        + "), VT_LAUNCHER_BUNDLE_NAME=" + record.environment.at("VT_LAUNCHER_BUNDLE_NAME") + ", "
        + std::to_string(record.environment.size() - 2 - hasLoader - hasTray) + " more from the helper server");
    if (hasTray)
        say("       VT_SYSTRAY_SOCKET=" + record.environment.at("VT_SYSTRAY_SOCKET"));
    if (hasLoader)
        say("       VT_APPRUNNER_ALT_LOADER_SOCKET=" + loader->second);
}

// Shows the window commands from the `from`-th on, once there are `count`.
void showCommands(StandinWorld& w, size_t from, size_t count, const std::string& what)
{
    expect(w.records.waitFor("request", count), what, w);
    auto texts = w.records.commandTexts();
    for (size_t i = from; i < texts.size(); ++i)
        say("     window command: " + texts[i]);
}

// Writes the tile the status area shows now as a PNG in `folder`.
std::string saveTile(StatusNotifierWatcher& watcher, const std::filesystem::path& folder, const std::string& name)
{
    auto tile = watcher.iconPixmap();
    std::string path = (folder / (name + ".png")).string();
    if (!tile || !gdk_pixbuf_save(tile.get(), path.c_str(), "png", nullptr, nullptr))
        return "(not written)";
    return path;
}

// The Wine side's tray sends one message with the stand-in tray sender.
bool sendTrayIcon(StandinWorld& w, const std::string& socket, const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv { (std::filesystem::path(VT_STANDIN_DIR) / "vt-standin-traysender").string() };
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    TestProcess sender(argv, w.environment({ { "VT_SYSTRAY_SOCKET", socket } }));
    return sender.waitForExit() == 0;
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

    // The desktop's status area, as a stand-in watcher that reads the
    // launcher's item; the tiles it shows go to PNG files.
    StatusNotifierWatcher watcher(w.bus.address());
    std::filesystem::path tiles = std::filesystem::canonical("/proc/self/exe").parent_path() / "tiles";
    std::filesystem::create_directories(tiles);

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
    say("   vtmenu's Wine loader hands the start over through VT_APPRUNNER_ALT_LOADER_SOCKET:");
    expect(waitUntil([&] { return !w.records.wineInits().empty(); }), "the hand-over", w);
    auto wine = w.records.wineInits().at(0);
    say("     loader: " + w.records.all("loader").at(0).value("outcome") + "; the socket is "
        + (std::filesystem::exists(menu.environment.at("VT_APPRUNNER_ALT_LOADER_SOCKET")) ? "still there (wrong!)"
                                                                                          : "gone"));
    say("     Wine now runs inside the launcher (pid " + std::to_string(wine.pid) + "): wine_init " + quoted(wine.argv));
    say("       WINESERVERSOCKET=" + (wine.serverSocket ? wine.serverSocket->value : "?") + ", WINE_WAIT_CHILD_PIPE="
        + (wine.waitChildPipe ? wine.waitChildPipe->value : "?") + ", its display driver's controller "
        + wine.controller);
    for (const auto& call : w.records.texts("mmap"))
        say("       reserved for Wine: " + call);

    say("\n2. The program puts two icons in its tray: they become badges on the launcher's icon in the status area.");
    expect(watcher.waitForRegistration().has_value(), "the status-notifier item's registration", w);
    say("     status area: item " + watcher.registeredItems().at(0) + ", title \"" + watcher.stringProperty("Title")
        + "\", tooltip \"" + watcher.toolTipText() + "\"");
    say("     tile before: " + saveTile(watcher, tiles, "tile-0"));
    std::string traySocket = menu.environment.at("VT_SYSTRAY_SOCKET");
    const std::vector<std::vector<std::string>> icons {
        { "add", "--hwnd", "65636", "--id", "1", "--size", "16", "--colour", "d83b01", "--mask", "ring" },
        { "add", "--hwnd", "65640", "--id", "1", "--size", "32", "--colour", "2b88d8", "--mask", "opaque" },
    };
    for (size_t i = 0; i < icons.size(); ++i) {
        unsigned seen = watcher.signalCount("NewIcon");
        expect(sendTrayIcon(w, traySocket, icons[i]) && watcher.waitForSignal("NewIcon", seen + 1),
               "tray icon " + std::to_string(i + 1), w);
        say("     tray sender: " + quoted(icons[i]));
        say("       tile now: " + saveTile(watcher, tiles, "tile-" + std::to_string(i + 1)));
    }

    say("\n3. The user opens Report.txt with Notepad: a declared document type goes to vtstart.");
    w.startLauncher({ (w.dir / "Report.txt").string() }, product).waitForExit();
    expect(w.records.waitForTools(1, "vtstart"), "opening the document", w);
    showTool(w.records.tools("vtstart").at(0), tag);

    say("\n4. The user clicks Notepad again: no second copy; Wine's controller inside the launcher takes it.");
    size_t calls = w.records.texts("controller").size();
    w.startLauncher({}, product).waitForExit();
    expect(waitUntil([&] {
        auto texts = w.records.texts("controller");
        return std::find(texts.begin() + calls, texts.end(), "application_did_become_active yes") != texts.end();
    }), "activation", w);
    auto controllerCalls = w.records.texts("controller");
    for (size_t i = calls; i < controllerCalls.size(); ++i)
        say("     controller: " + controllerCalls[i]);
    say("     vtmenu processes: " + std::to_string(w.records.tools("vtmenu").size()));
    size_t seen = w.records.texts("request").size();

    say("\n5. The user quits, but the program has unsaved work and says no.");
    w.setAnswer("queryendsession", "0");
    seen = w.records.texts("request").size();
    launcher.signal(SIGTERM);
    showCommands(w, seen, seen + 3, "the refused quit");
    expect(w.waitForLog("quit cancelled"), "the refused quit", w);
    say(std::string("     the launcher is ") + (launcher.running() ? "still running" : "gone (wrong!)"));

    say("\n6. The user saves and quits again; the program agrees.");
    w.setAnswer("queryendsession", "1");
    seen = w.records.texts("request").size();
    launcher.signal(SIGTERM);
    auto status = launcher.waitForExit();
    showCommands(w, seen, seen + 4, "the agreed quit");
    say("     the launcher exited with status " + (status ? std::to_string(*status) : std::string("?")));
    // vtmenu waits on the wait-children pipe, which Wine inside the launcher held.
    expect(waitUntil([&] { return w.records.endedBy(menu.pid).has_value(); }), "the end of the program", w);
    bool byLauncher = w.records.endedBy(menu.pid) != 0;
    say(std::string("     vtmenu ") + (byLauncher ? "was ended by a signal (wrong!)" : "ended by itself")
        + ": nothing was killed; the Windows side ended the session itself.");
    return status == 0 && !byLauncher ? 0 : 1;
}
