#include "app/VTFBHelperDelegate.hpp"

#include "app/VTFBHelperApp.hpp"
#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "loader/WineLoader.hpp"
#include "source/UserDefaults.hpp"
#include "source/VTBundle.hpp"
#include "source/VantorNames.hpp"
#include "source/WorkspaceAdditions.hpp"

namespace vt {

using namespace std::chrono_literals;

namespace {
    // The main application comes up behind the user's windows and stays out
    // of the recent items.
    constexpr uint32_t kLaunchInBackground = kLaunchDontSwitch | kLaunchDontAddToRecents;
} // namespace

VTFBHelperDelegate::VTFBHelperDelegate(VTFBHelperApp& application)
    : m_application(application)
    , m_program(m_settings, [this] { return launcherVariables(); }, [this] { programEnded(); })
    , m_windowCommands([this] {
        if (!m_program.isRunning())
            programEnded();
    })
{
}

VTFBHelperDelegate::~VTFBHelperDelegate()
{
    // Answers still on their way must not reach a delegate that has gone.
    g_cancellable_cancel(m_startUpCancellable.get());
}

std::optional<std::string> VTFBHelperDelegate::infoString(const char* key) const
{
    const VTBundle* bundle = m_application.mainBundle();
    return bundle ? bundle->stringForInfoDictionaryKey(key) : std::nullopt;
}

void VTFBHelperDelegate::applicationWillFinishLaunching()
{
    m_application.setGetURLHandler([this](const std::string& url) { handleGetURLEvent(url); });
    makeTrayIcons();

    // Starts the main application in the background if it isn't running and
    // hands it this launcher's bundle; the answer is not needed.
    if (const VTBundle* bundle = m_application.mainBundle()) {
        GCharPtr uri(g_filename_to_uri((bundle->bundlePath().string() + "/").c_str(), nullptr, nullptr));
        if (uri)
            VT_openURLs({ uri.get() }, std::string(kVantorBundleIdentifier), std::string(kVantorURLScheme),
                        kLaunchInBackground);
    }

    // The helper server and the bottle may keep the launcher waiting; the
    // opening events wait with it, and the main loop goes on meanwhile.
    m_application.holdLaunching();
    m_startUpCancellable = adopt(g_cancellable_new());
    perform(m_startUp.start());
}

void VTFBHelperDelegate::perform(const std::vector<StartUpSequence::Action>& actions)
{
    using Action = StartUpSequence::Action;
    for (Action action : actions) {
        switch (action) {
        case Action::LookUpHelperServer:
            HelperServerClient::lookUpAsync(m_startUpCancellable.get(),
                                            [this](std::unique_ptr<HelperServerClient> server) {
                VTLog("looking for the helper server, attempt %d: %s", m_startUp.attempts(),
                      server ? "found" : "not found");
                bool found = server != nullptr;
                if (found) {
                    m_helperServerProxy = std::move(server);
                    m_program.setHelperServer(m_helperServerProxy.get());
                    readBundleSettings();
                }
                perform(m_startUp.helperServerLookedUp(found));
            });
            break;
        case Action::AskWhetherBottleIsReady:
            m_helperServerProxy->isServerReadyForBottleAsync(
                m_settings.bottleName.value_or(""), m_startUpCancellable.get(),
                [this](std::optional<bool> ready, const std::string& error) {
                    if (!ready)
                        VTLog("asking whether the bottle is ready failed: %@", error);
                    else if (!*ready)
                        VTLog("bottle %@ is not ready yet", m_settings.bottleName.value_or("(none)"));
                    perform(m_startUp.bottleAnswered(ready));
                });
            break;
        case Action::ShowThatItWaits:
            showStatusItem(StatusItemMoment::BeforeWaiting);
            break;
        case Action::StartTimer:
            m_startUpTimer = TimeoutSource("vt start-up wait", StartUpSequence::kRetryInterval, [this] {
                perform(m_startUp.timerFired());
                return false;
            });
            break;
        case Action::FinishStartUp:
            finishStartUp();
            m_application.continueLaunching();
            break;
        case Action::GiveUpNoHelperServer:
            platformLog("Unable to locate a Vantor helper server.  We should really tell someone about this.\n");
            m_application.terminate();
            m_application.continueLaunching();
            break;
        case Action::GiveUpHelperServerGone:
            platformLog("The Vantor helper server was there, but now it's gone.\n");
            m_application.terminate();
            m_application.continueLaunching();
            break;
        }
    }
}

void VTFBHelperDelegate::finishStartUp()
{
    findProductTools();
    startSendWndCmd();
    // The item has shown the same rewritten menu since start-up began.
    formatMenuItemsWithBundleName(m_application.mainMenu());
    VTLog("start-up done: bottle %@, menu %@, tools in %@", m_settings.bottleName.value_or("(none)"),
          m_settings.menuPath.value_or("(none)"), m_settings.vantorRoot.value_or("(none)"));
}

void VTFBHelperDelegate::makeTrayIcons()
{
    // The tile's base icon is read or drawn when the tile is first painted.
    m_trayIcons = std::make_unique<TrayIconList>(
        [bundle = m_application.mainBundle()] { return applicationIcon(bundle); },
        [this](const GdkPixbuf& tile) {
            if (m_statusItem)
                m_statusItem->setIcon(tile);
        });
    m_launchNotify = std::make_unique<LaunchNotifySocket>(*m_trayIcons);
}

void VTFBHelperDelegate::showStatusItem(StatusItemMoment moment)
{
    // Made once: its icon and its bus name cost more than the rest of a
    // start without waits, so it waits for the first wait, or for the
    // program to have been started.
    if (std::exchange(m_statusItemShown, true))
        return;
    const VTBundle* bundle = m_application.mainBundle();
    std::string title = infoString("CFBundleName").value_or(
        bundle ? bundle->bundlePath().stem().string() : std::string("vtlauncher"));
    std::string id = bundle ? bundle->bundleIdentifier().value_or(title) : title;
    // Start-up may wait long for the helper server or the bottle; the item
    // says what for, and the menu is there to quit meanwhile.
    std::optional<std::string> toolTip;
    if (moment == StatusItemMoment::BeforeWaiting)
        toolTip = formatMessage("Getting %@ ready…", infoString("VTHelperAppBottleName").value_or(title));
    try {
        m_statusItem = std::make_unique<StatusNotifierItem>(id, title, *m_trayIcons->paintTile(),
                                                            StatusNotifierItem::Callbacks {
            // A click on the icon is a click on the launcher.
            .activate = [this] { m_application.sendEventsFromMainLoop({ Event { Event::Type::Activate, {}, {} } }); },
            .menuAction = [this](const std::string& action) {
                m_application.sendEventsFromMainLoop({ Event { Event::Type::MenuItem, {}, action } });
            },
        }, toolTip);
    } catch (const std::exception& error) {
        // Without a session bus that has been said already.
        if (m_application.hasSessionBus())
            platformLog("The launcher has no icon in the status area: %s", error.what());
        else
            VTLog("no icon in the status area: %s", error.what());
        return;
    }
    m_statusTitle = title;
    Menu menu = m_application.mainMenu();
    formatMenuItemsWithBundleName(menu);
    m_statusItem->setMenu(menu);
}

void VTFBHelperDelegate::readBundleSettings()
{
    const VTBundle* bundle = m_application.mainBundle();
    std::string plist = bundle ? (bundle->bundlePath() / "Contents/Info.plist").string() : "the launcher bundle";
    // What the Windows side is told comes from here: say plainly what the
    // bundle lacks rather than pass on an empty or garbled name.
    auto checkedString = [&](const char* key, const char* consequence) -> std::optional<std::string> {
        std::optional<std::string> value = infoString(key);
        if (!value) {
            platformLog("%@ has no %s string: %s.", plist, key, consequence);
        } else if (!g_utf8_validate(value->data(), static_cast<gssize>(value->size()), nullptr)) {
            platformLog("%@ has a %s that is not valid UTF-8: %s.", plist, key, consequence);
            value.reset();
        }
        return value;
    };
    m_settings.bundleName = checkedString("CFBundleName", "the Windows program gets an empty VT_LAUNCHER_BUNDLE_NAME");
    m_settings.bottleName = checkedString("VTHelperAppBottleName", "the tools are not told which bottle to use");
    m_settings.menuPath = infoString("VantorHelperMenuPath");
    const PlistValue* types = bundle ? bundle->objectForInfoDictionaryKey("CFBundleDocumentTypes") : nullptr;
    if (!types || !types->asArray())
        return;
    for (const auto& type : *types->asArray()) {
        const PlistValue* list = type.find("CFBundleTypeExtensions");
        if (!list || !list->asArray())
            continue;
        for (const auto& extension : *list->asArray()) {
            if (extension.asString())
                m_settings.documentExtensions.insert(*extension.asString());
        }
    }
}

void VTFBHelperDelegate::findProductTools()
{
    auto mainApplication = VT_absolutePathForAppBundleWithIdentifier(std::string(kVantorBundleIdentifier),
                                                                     std::string(kVantorURLScheme));
    auto bundle = mainApplication ? VTBundle::bundleWithPath(*mainApplication) : nullptr;
    if (!bundle) {
        VTLog("the Vantor application was not found; the product's tools are unknown");
        return;
    }
    std::filesystem::path root = bundle->sharedSupportPath() / "Vantor";
    m_settings.vantorRoot = root.string();
    m_settings.vtmenuPath = (root / "bin" / "vtmenu").string();
    m_settings.vtstartPath = (root / "bin" / "vtstart").string();
    m_settings.winePath = (root / "bin" / "wine").string();
}

void VTFBHelperDelegate::startSendWndCmd()
{
    m_windowCommands.start(
        m_program.createWineTaskWithLaunchPath(m_settings.winePath, windowCommandToolArguments(m_settings.bottleName)));
}

void VTFBHelperDelegate::formatMenuItemsWithBundleName(Menu& menu)
{
    std::optional<std::string> bundleName = infoString("CFBundleName");
    if (!bundleName) {
        VTLog("the bundle has no name; menu titles keep their %%@");
        return;
    }
    replaceInMenuTitles(menu, "%@", *bundleName);
}

void VTFBHelperDelegate::applicationDidFinishLaunching()
{
    // The program has been started: the item stands for it (again).
    if (m_statusItemShown) {
        if (m_statusItem)
            m_statusItem->setToolTip(m_statusTitle);
    } else {
        showStatusItem(StatusItemMoment::Launched);
    }
    if (m_launchNotify)
        m_launchNotify->monitorFeedbackSocket();
}

WindowsProgram::Environment VTFBHelperDelegate::launcherVariables()
{
    WindowsProgram::Environment variables;
    if (startLaunchNotify())
        variables["VT_SYSTRAY_SOCKET"] = m_launchNotify->launchNotifySocketName();
    std::string socketPath = wineLoaderSocketPath();
    if (!socketPath.empty())
        variables["VT_APPRUNNER_ALT_LOADER_SOCKET"] = socketPath;
    // The desktop's permission to take the focus, given with a click on the
    // icon: the window the program opens next may come to the front with it.
    if (m_statusItem) {
        std::string token = m_statusItem->takeActivationToken();
        if (!token.empty())
            variables["XDG_ACTIVATION_TOKEN"] = token;
    }
    return variables;
}

std::string VTFBHelperDelegate::wineLoaderSocketPath()
{
    // Asked first: once Wine runs inside, it changes the environment from
    // its own thread, and the defaults' path is found through the environment.
    if (wineRunsInside())
        return {};
    if (vantorDisableWineIntegration())
        return {};
    if (!m_wineLoader) {
        auto directory = m_privateDirectory.path();
        m_wineLoader = directory ? WineLoader::create(m_settings.vantorRoot.value_or(""), *directory,
                                                      WineLoader::Callbacks {
            .rejectedRequestForWrongArchitecture =
                [this](const std::string& architecture) { m_program.handBackForArchitecture(architecture); },
            .wineStarted = [] { VTLog("Wine runs inside the launcher now"); },
            .handOverFailed = [this](const std::string&) { wineHandOverFailed(); },
        })
                                 : nullptr;
        if (!m_wineLoader) {
            VTLog("no loader socket: Wine runs in processes of its own");
            return {};
        }
    }
    return m_wineLoader->socketPath();
}

bool VTFBHelperDelegate::startLaunchNotify()
{
    auto directory = m_privateDirectory.path();
    return m_launchNotify && directory && m_launchNotify->startLaunchNotify(*directory);
}

const std::vector<TrayIconEntry>& VTFBHelperDelegate::iconList() const
{
    static const std::vector<TrayIconEntry> none;
    return m_trayIcons ? m_trayIcons->iconList() : none;
}

bool VTFBHelperDelegate::applicationShouldOpenUntitledFile(Application&)
{
    // While the program runs, clicking the launcher again starts no second copy.
    return !m_program.isRunning();
}

bool VTFBHelperDelegate::applicationOpenUntitledFile(Application&)
{
    m_program.openUntitled();
    return true;
}

void VTFBHelperDelegate::openFiles(Application& application, const std::vector<std::string>& paths)
{
    application.replyToOpenOrPrint(m_program.openFiles(paths) ? OpenReply::Success : OpenReply::Failure);
}

void VTFBHelperDelegate::handleGetURLEvent(const std::string& url) { m_program.openURL(url); }

bool VTFBHelperDelegate::applicationShouldHandleReopen(Application&, bool hasVisibleWindows)
{
    return m_application.wineControllerShouldHandleReopen(hasVisibleWindows).value_or(true);
}

void VTFBHelperDelegate::wineHandOverFailed()
{
    // The loader is spent and no program runs inside: once the tools have
    // ended too there is nothing left for the launcher to stand for.
    if (!m_program.isRunning())
        programEnded();
}

void VTFBHelperDelegate::programEnded()
{
    m_endOfSession.programEnded();
    // A loader without a socket path has taken the program into this very
    // process: the launcher is the program now and must stay.
    if (!wineRunsInside())
        m_application.terminate();
    else
        VTLog("the program's tools have ended; Wine runs inside the launcher, which stays");
}

void VTFBHelperDelegate::activateMainApplication()
{
    // The main application in front means the launcher is no longer the active one.
    if (VT_activateRunningAppWithBundleIdentifier(kVantorBundleIdentifier))
        m_application.resignActive();
}

bool VTFBHelperDelegate::programIsRunning() const
{
    // Wine inside the launcher is the program itself, whatever the tools do.
    return m_program.isRunning() || wineRunsInside();
}

bool VTFBHelperDelegate::wineRunsInside() const { return m_wineLoader && m_wineLoader->wineRunsInside(); }

void VTFBHelperDelegate::applicationDidBecomeActive()
{
    // With Wine inside the launcher, its driver handles activation itself.
    if (m_application.hasWineController() || !programIsRunning())
        return;

    // At once, even while a quit waits for the program's "Save changes?":
    // the user finds the question in front. The window commands below wait
    // for their turn on the channel.
    if (m_helperServerProxy) {
        try {
            m_helperServerProxy->raiseWindowsWithTag(windowTag());
        } catch (const HelperServerError& error) {
            // The window commands below go on without it.
            platformLog("Cannot ask the Vantor helper server to raise the program's windows: %s.", error.what());
        }
    }
    // The icon the user could see when clicking, not one that came while
    // the tool was answering.
    std::optional<std::string> clickOldestIcon;
    if (!iconList().empty())
        clickOldestIcon = activateSystrayCommand(iconList().front());
    m_windowCommands.sendMessageToTaggedWindows("haswindows", [this, clickOldestIcon](bool hasWindows) {
        if (hasWindows) {
            activateMainApplication();
            m_application.hide();
            m_application.delayedCalls().schedule(50ms, [this] { m_application.unhideWithoutActivation(); });
            return;
        }
        // No window to raise: a click on the oldest tray icon is the next best thing.
        if (clickOldestIcon)
            m_windowCommands.sendMessageToTaggedWindows(*clickOldestIcon);
    });
}

TerminateReply VTFBHelperDelegate::applicationShouldTerminate(Application&)
{
    // Once Wine runs inside the launcher, its own controller decides.
    if (auto reply = m_application.wineControllerShouldTerminate())
        return *reply;
    if (!programIsRunning()) {
        perform(m_endOfSession.launcherEnds());
        return TerminateReply::Now;
    }
    // A Windows-style end of session: the program may refuse, and nothing is
    // ever killed, so the user's unsaved work survives a refused quit. The
    // program may ask its user first; the answer comes when it comes.
    EndOfSession::Actions actions = m_endOfSession.quit();
    // An answer known at once is the reply itself.
    std::optional<bool> reply;
    std::erase_if(actions, [&](const EndOfSession::Action& action) {
        if (action.kind != EndOfSession::Action::Kind::ReplyToQuit)
            return false;
        reply = action.yes;
        return true;
    });
    perform(actions);
    if (!reply)
        return TerminateReply::Later;
    if (*reply)
        perform(m_endOfSession.launcherEnds());
    return *reply ? TerminateReply::Now : TerminateReply::Cancel;
}

void VTFBHelperDelegate::applicationSessionMayEnd(Application&)
{
    if (auto reply = m_application.wineControllerShouldTerminate()) {
        // Wine's controller answers for the program, as for a quit.
        m_application.replyToSessionQuery(*reply != TerminateReply::Cancel, unsavedWorkReason());
        return;
    }
    if (!programIsRunning()) {
        m_application.replyToSessionQuery(true, {});
        return;
    }
    perform(m_endOfSession.queryEnd());
}

void VTFBHelperDelegate::applicationSessionWillEnd(Application&)
{
    if (m_application.hasWineController() || !programIsRunning()) {
        m_application.replyToSessionEnd();
        m_application.terminate();
        return;
    }
    // The launcher ends once the program has: its last process's end asks
    // for the quit, which has nothing left to ask then.
    perform(m_endOfSession.end());
}

std::string VTFBHelperDelegate::unsavedWorkReason() const
{
    // What the desktop's logout dialog shows beside the launcher.
    const std::string& name = m_settings.bundleName ? *m_settings.bundleName : std::string();
    return (name.empty() ? std::string("The program") : name) + " has unsaved work";
}

void VTFBHelperDelegate::applicationSessionEndCancelled(Application&) { perform(m_endOfSession.cancel()); }

void VTFBHelperDelegate::perform(const EndOfSession::Actions& actions)
{
    using Kind = EndOfSession::Action::Kind;
    for (const EndOfSession::Action& action : actions) {
        switch (action.kind) {
        case Kind::ActivateMainApplication:
            activateMainApplication();
            break;
        case Kind::Send:
            m_windowCommands.sendMessageToTaggedWindows(
                action.command, [this](bool confirmed) { perform(m_endOfSession.answered(confirmed)); });
            break;
        case Kind::Hide:
            m_application.hide();
            break;
        case Kind::ReplyToQuit:
            if (action.yes)
                perform(m_endOfSession.launcherEnds());
            m_application.replyToApplicationShouldTerminate(action.yes);
            break;
        case Kind::AnswerQuery:
            m_application.replyToSessionQuery(action.yes, unsavedWorkReason());
            break;
        case Kind::AnswerEnd:
            m_application.replyToSessionEnd();
            break;
        }
    }
}

void VTFBHelperDelegate::applicationWillTerminate()
{
    g_cancellable_cancel(m_startUpCancellable.get());
    m_startUpTimer.stop();
    m_program.stopObservingEnds();
    m_windowCommands.stopObservingEnd();
    m_application.delayedCalls().cancelAll();
    if (m_launchNotify)
        m_launchNotify->stop();
    // The sockets' owners have removed their files by now; whatever is left goes with the directory.
    m_privateDirectory.remove();
}

} // namespace vt
