#include "shell/Application.hpp"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/MainLoop.hpp"
#include "base/NotificationCenter.hpp"
#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "base/posix_glue.hpp"
#include "shell/PrivateDirectory.hpp"
#include "source/VTBundle.hpp"

namespace vt {

namespace {
    Application* sharedApplication = nullptr;

    sigset_t signalSet(std::initializer_list<int> numbers)
    {
        sigset_t set;
        sigemptyset(&set);
        for (int signalNumber : numbers)
            sigaddset(&set, signalNumber);
        return set;
    }

    // The signals that ask the launcher to quit.
    sigset_t quitSignalSet() { return signalSet({ SIGTERM, SIGINT, SIGHUP }); }
    // Those of them taken by handlers, which run on whichever thread does
    // not block them: Wine, once inside, leaves them alone.
    sigset_t handledQuitSignalSet() { return signalSet({ SIGTERM, SIGHUP }); }
    // Signals that Wine, once it runs inside the launcher, handles for the
    // whole process and that may come from outside at any moment. No thread
    // of the launcher's ever takes them, so each thread blocks them from
    // the start and every thread started since inherits that, GLib's
    // helpers among them. SIGINT, a quit request until Wine runs inside, is
    // read from a descriptor by the main loop meanwhile; SIGQUIT and SIGUSR1
    // mean nothing to the launcher.
    sigset_t wineSignalSet() { return signalSet({ SIGINT, SIGQUIT, SIGUSR1 }); }

    // Takes every quit signal that came while they were blocked; whether one did.
    bool takeBlockedQuitSignals(const sigset_t& set)
    {
        const timespec now { 0, 0 };
        bool taken = false;
        for (;;) {
            if (::sigtimedwait(&set, nullptr, &now) > 0)
                taken = true;
            else if (errno != EINTR)
                return taken;
        }
    }
} // namespace

Application::Application() { sharedApplication = this; }

Application::~Application()
{
    if (sharedApplication == this)
        sharedApplication = nullptr;
}

Application* Application::shared() { return sharedApplication; }

void Application::setMainBundle(std::unique_ptr<VTBundle> bundle)
{
    m_mainBundle = std::move(bundle);
    m_mainMenu = m_mainBundle ? loadBundleMenu(m_mainBundle->bundlePath()) : defaultMenu();
}

void Application::setDelegate(ApplicationDelegate* delegate)
{
    m_delegateObservations.clear();
    m_delegate = delegate;
    if (!delegate)
        return;
    auto subscribe = [&](const char* name, void (ApplicationDelegate::*method)()) {
        m_delegateObservations.push_back(NotificationCenter::defaultCenter().addObserver(
            name, this, [delegate, method](const Notification&) { (delegate->*method)(); }));
    };
    subscribe(ApplicationWillFinishLaunchingNotification, &ApplicationDelegate::applicationWillFinishLaunching);
    subscribe(ApplicationDidFinishLaunchingNotification, &ApplicationDelegate::applicationDidFinishLaunching);
    subscribe(ApplicationDidBecomeActiveNotification, &ApplicationDelegate::applicationDidBecomeActive);
    subscribe(ApplicationWillTerminateNotification, &ApplicationDelegate::applicationWillTerminate);
}

void Application::setGetURLHandler(std::function<void(const std::string&)> handler)
{
    m_getURLHandler = std::move(handler);
}

void Application::postNotification(const char* name) { NotificationCenter::defaultCenter().post(name, this); }

void Application::sendEvent(const Event& event) { dispatch(event); }

void Application::dispatch(const Event& event)
{
    if (m_ending)
        return;
    VTLog("event: %@", event);
    switch (event.type) {
    case Event::Type::OpenUntitled:
        if (!m_delegate || m_delegate->applicationShouldOpenUntitledFile(*this)) {
            if (m_delegate)
                m_delegate->applicationOpenUntitledFile(*this);
        }
        return;
    case Event::Type::OpenFiles:
        if (m_delegate)
            m_delegate->openFiles(*this, event.items);
        return;
    case Event::Type::OpenURL:
        if (m_getURLHandler && !event.items.empty())
            m_getURLHandler(event.items.front());
        return;
    case Event::Type::Reopen:
        // The launcher never has visible windows of its own, so an agreed
        // reopen goes on to the untitled-file questions.
        if (!m_delegate || m_delegate->applicationShouldHandleReopen(*this, false))
            dispatch(Event { Event::Type::OpenUntitled, {}, {} });
        return;
    case Event::Type::Activate:
        activate();
        return;
    case Event::Type::QuitRequest:
        terminate();
        return;
    case Event::Type::MenuItem:
        if (event.action == "quit")
            terminate();
        else if (event.action == "hide")
            hide();
        else if (event.action == "activate")
            activate();
        return;
    }
}

void Application::activate()
{
    // Every activation is posted, also while active: the delegate answers
    // each click on the launcher.
    setHidden(false);
    postNotification(ApplicationWillBecomeActiveNotification);
    m_active = true;
    postNotification(ApplicationDidBecomeActiveNotification);
}

void Application::resignActive()
{
    if (!m_active)
        return;
    postNotification(ApplicationWillResignActiveNotification);
    m_active = false;
    postNotification(ApplicationDidResignActiveNotification);
}

void Application::setHidden(bool hidden)
{
    if (m_hidden == hidden)
        return;
    postNotification(hidden ? ApplicationWillHideNotification : ApplicationWillUnhideNotification);
    m_hidden = hidden;
    postNotification(hidden ? ApplicationDidHideNotification : ApplicationDidUnhideNotification);
}

void Application::update() noexcept
{
    try {
        postNotification(ApplicationWillUpdateNotification);
        postNotification(ApplicationDidUpdateNotification);
    } catch (const std::exception& e) {
        platformLog("cannot post the update notifications: %s", e.what());
    } catch (...) {
        platformLog("cannot post the update notifications");
    }
}

void Application::terminate()
{
    if (m_ending)
        return;
    if (m_awaitingTerminateReply)
        return; // the earlier question is still open
    TerminateReply reply = m_delegate ? m_delegate->applicationShouldTerminate(*this) : TerminateReply::Now;
    switch (reply) {
    case TerminateReply::Now:
        postNotification(ApplicationWillTerminateNotification);
        exitAfterTermination();
        return;
    case TerminateReply::Cancel:
        VTLog("quit cancelled");
        return;
    case TerminateReply::Later:
        m_awaitingTerminateReply = true;
        return;
    }
}

void Application::replyToApplicationShouldTerminate(bool shouldTerminate)
{
    if (!std::exchange(m_awaitingTerminateReply, false))
        return;
    if (!shouldTerminate)
        VTLog("quit cancelled");
    if (shouldTerminate) {
        postNotification(ApplicationWillTerminateNotification);
        exitAfterTermination();
    }
}

void ApplicationDelegate::applicationSessionMayEnd(Application& application)
{
    application.replyToSessionQuery(true, {});
}

void ApplicationDelegate::applicationSessionWillEnd(Application& application)
{
    application.replyToSessionEnd();
    application.terminate();
}

void Application::replyToSessionQuery(bool mayEnd, const std::string& reason)
{
    VTLog("the session %s end%s%@", mayEnd ? "may" : "may not", mayEnd ? "" : ": ", mayEnd ? std::string() : reason);
    if (m_sessionManager)
        m_sessionManager->answerQueryEnd(mayEnd, reason);
}

void Application::replyToSessionEnd()
{
    if (m_sessionManager)
        m_sessionManager->answerEnd();
}

void Application::joinTheSession(const std::string& identifier)
{
    SessionManagerClient::Session session {
        .bus = m_gapplication ? g_application_get_dbus_connection(m_gapplication.get()) : nullptr,
        .applicationId = identifier,
        .startupId = m_startupId,
        .xsmpAddress = std::getenv("SESSION_MANAGER") ? std::getenv("SESSION_MANAGER") : "",
        .program = m_mainBundle->executablePath().value_or(std::filesystem::path()).string(),
    };
    SessionPhases phases {
        .queryEnd = [this] { if (m_delegate && !m_ending) m_delegate->applicationSessionMayEnd(*this); },
        .end = [this] { if (m_delegate && !m_ending) m_delegate->applicationSessionWillEnd(*this); },
        .cancel = [this] { if (m_delegate && !m_ending) m_delegate->applicationSessionEndCancelled(*this); },
        .stop = [this] { sendEventsFromMainLoop({ Event { Event::Type::QuitRequest, {}, {} } }); },
    };
    m_sessionManager = std::make_unique<SessionManagerClient>(std::move(session), std::move(phases));
}

void Application::replyToOpenOrPrint(OpenReply reply)
{
    VTLog("open reply %d", static_cast<int>(reply));
}

void Application::hide()
{
    VTLog("hide");
    resignActive();
    setHidden(true);
}

void Application::unhide()
{
    VTLog("unhide");
    if (m_hidden)
        activate();
}

void Application::unhideWithoutActivation()
{
    VTLog("unhide without activation");
    setHidden(false);
}

void Application::activateIgnoringOtherApps()
{
    VTLog("activate ignoring other applications");
    activate();
}

void Application::leaveTheSession()
{
    if (m_sessionManager)
        m_sessionManager->unregister();
    if (m_gapplication) {
        if (GDBusConnection* bus = g_application_get_dbus_connection(m_gapplication.get()))
            g_dbus_connection_flush_sync(bus, nullptr, nullptr);
    }
}

void Application::exitAfterTermination()
{
    m_ending = true;
    // One more quit signal now would only cut the ending short. Blocked
    // while their sources go (GLib then puts the default action back) and
    // until they are ignored, so none can slip in between.
    const sigset_t quitSignals = handledQuitSignalSet();
    pthread_sigmask(SIG_BLOCK, &quitSignals, nullptr);
    m_quitSignals.clear();
    for (int signalNumber : { SIGTERM, SIGHUP })
        signal(signalNumber, SIG_IGN);
    pthread_sigmask(SIG_UNBLOCK, &quitSignals, nullptr);
    m_interrupts = {};
    m_interruptDescriptor.reset();
    m_delayedCalls.cancelAll();
    leaveTheSession();
    std::fflush(nullptr);
    // A thread that cannot be joined (Wine's, inside the launcher) may still
    // touch what returning from main would destroy: end here, with nothing
    // run after the decision. Otherwise the loop returns and everything is
    // taken down in order.
    if (threadsOutliveTheLoop())
        _exit(0);
    if (m_loop)
        g_main_loop_quit(m_loop.get());
}

bool Application::isQuitEvent(const Event& event)
{
    return event.type == Event::Type::QuitRequest || (event.type == Event::Type::MenuItem && event.action == "quit");
}

void Application::holdLaunching() { ++m_launchHolds; }

void Application::continueLaunching()
{
    if (m_launchHolds > 0 && --m_launchHolds == 0 && m_launching)
        completeLaunching();
}

void Application::finishLaunching(const std::vector<Event>& openingEvents)
{
    m_launching = true;
    m_openingEvents = openingEvents;
    postNotification(ApplicationWillFinishLaunchingNotification);
    // The delegate may hold launching while start-up waits; it continues
    // from the main loop then.
    if (m_launching && m_launchHolds == 0)
        completeLaunching();
}

void Application::completeLaunching()
{
    m_launching = false;
    if (m_ending)
        return;
    for (const auto& event : std::exchange(m_openingEvents, {})) {
        sendEvent(event);
        if (m_ending)
            return;
    }
    postNotification(ApplicationDidFinishLaunchingNotification);
    // A launch by the user makes the launcher the active application once.
    sendEvent(Event { Event::Type::Activate, {}, {} });
    if (m_ending)
        return;
    // The launch is the main loop's first turn.
    update();
    // What came while start-up waited, each turn as it came, as a loop that
    // had been blocked would have delivered it.
    for (auto& turn : std::exchange(m_heldTurns, {}))
        sendEventsFromMainLoop(turn);
}

void Application::sendEventsFromMainLoop(const std::vector<Event>& events) noexcept
{
    if (m_ending)
        return;
    if (m_launching) {
        // A quit is asked at once, so a launcher that waits for its bottle
        // still quits when told; it ends no turn of its own (the launch's
        // update follows). Everything else waits for start-up to finish.
        std::vector<Event> held;
        for (const auto& event : events) {
            if (isQuitEvent(event))
                sendEventFromCallback(event);
            else
                held.push_back(event);
            if (m_ending)
                return;
        }
        if (!held.empty())
            m_heldTurns.push_back(std::move(held));
        return;
    }
    for (const auto& event : events) {
        sendEventFromCallback(event);
        if (m_ending)
            return;
    }
    update();
}

void Application::sendEventFromCallback(const Event& event) noexcept
{
    try {
        sendEvent(event);
    } catch (const std::exception& e) {
        platformLog("cannot handle the event %@: %s", event, e.what());
    } catch (...) {
        platformLog("cannot handle the event %@", event);
    }
}

void Application::onOpen(GApplication*, GFile** files, gint count, gchar*, gpointer data) noexcept
{
    auto* self = static_cast<Application*>(data);
    std::vector<Event> events;
    try {
        std::vector<std::string> urls, paths;
        for (gint i = 0; i < count; ++i) {
            if (g_file_has_uri_scheme(files[i], "file")) {
                GCharPtr path(g_file_get_path(files[i]));
                if (path)
                    paths.emplace_back(path.get());
            } else {
                GCharPtr uri(g_file_get_uri(files[i]));
                urls.emplace_back(uri.get());
            }
        }
        events = openingEvents(urls, paths);
    } catch (...) {
        platformLog("cannot take a forwarded opening");
        return;
    }
    self->sendEventsFromMainLoop(events);
}

void Application::onActivate(GApplication*, gpointer data) noexcept
{
    auto* self = static_cast<Application*>(data);
    self->sendEventsFromMainLoop({ Event { Event::Type::Reopen, {}, {} }, Event { Event::Type::Activate, {}, {} } });
}

void Application::onQuitAction(GSimpleAction*, GVariant*, gpointer data) noexcept
{
    auto* self = static_cast<Application*>(data);
    // Later, from the main loop: the bus gets its answer when this returns,
    // and an agreed quit must not end the process before it has gone out.
    try {
        self->m_mainQueue.post([self] { self->sendEventsFromMainLoop({ Event { Event::Type::QuitRequest, {}, {} } }); });
    } catch (...) {
        platformLog("cannot take the quit action");
    }
}

void Application::registerWithSessionBus(std::optional<std::string> identifier)
{
    GApplicationFlags flags = G_APPLICATION_HANDLES_OPEN;
    if (!identifier || !g_application_id_is_valid(identifier->c_str())) {
        identifier.reset();
        flags = static_cast<GApplicationFlags>(flags | G_APPLICATION_NON_UNIQUE);
    }
    m_gapplication = adopt(g_application_new(identifier ? identifier->c_str() : nullptr, flags));
    // The application object lives as long as this: its handlers need no disconnecting.
    g_signal_connect(m_gapplication.get(), "open", G_CALLBACK(onOpen), this);
    g_signal_connect(m_gapplication.get(), "activate", G_CALLBACK(onActivate), this);
    GPtr<GSimpleAction> quit = adopt(g_simple_action_new("quit", nullptr));
    g_signal_connect(quit.get(), "activate", G_CALLBACK(onQuitAction), this);
    g_action_map_add_action(G_ACTION_MAP(m_gapplication.get()), G_ACTION(quit.get()));

    GErrorHolder error;
    if (!g_application_register(m_gapplication.get(), nullptr, error))
        platformLog("cannot register %@ with the session bus (%@); running as a separate instance",
                    identifier.value_or("the launcher"), error.message());
}

void Application::forwardToRunningLauncher(const std::vector<std::string>& arguments,
                                           const std::filesystem::path& workingDirectory)
{
    if (arguments.empty()) {
        g_application_activate(m_gapplication.get());
    } else {
        std::vector<GPtr<GFile>> files;
        std::vector<GFile*> raw;
        for (const auto& argument : arguments) {
            files.push_back(isURLArgument(argument)
                                ? adopt(g_file_new_for_uri(argument.c_str()))
                                : adopt(g_file_new_for_path(absolutePathForArgument(argument, workingDirectory).c_str())));
            raw.push_back(files.back().get());
        }
        g_application_open(m_gapplication.get(), raw.data(), static_cast<gint>(raw.size()), "");
    }
    if (GDBusConnection* bus = g_application_get_dbus_connection(m_gapplication.get()))
        g_dbus_connection_flush_sync(bus, nullptr, nullptr);
}

// Ends a turn of the main loop for good once Wine has begun to end the
// process from a thread of its own: the exit handlers and destructors
// that follow never run beside launcher code that is half-way through
// something. A main thread that does not come round within a while
// (stuck in a call) is not waited for, nor one that cannot say goodbye to
// the session manager within it.
void Application::stopMainLoopAtWinesExit() noexcept
{
    if (isMainThread())
        return;
    // First of all, the sockets' directory: while this waits, Wine may
    // still be told by its server to end at once (_exit), and nothing
    // after this would run.
    PrivateDirectory::removeAllOfThisProcess();
    struct Stop {
        std::mutex mutex;
        std::condition_variable changed;
        bool stopped = false;
    };
    static Stop* stop = new Stop; // never destroyed: the process is ending
    try {
        runOnMain([] {
            // Wine ends the process once this turn stops: the session
            // manager hears of the end first.
            if (Application* application = Application::shared())
                application->leaveTheSession();
            {
                std::lock_guard lock(stop->mutex);
                stop->stopped = true;
            }
            stop->changed.notify_all();
            for (;;)
                ::pause();
        });
        std::unique_lock lock(stop->mutex);
        stop->changed.wait_for(lock, std::chrono::seconds(2), [] { return stop->stopped; });
    } catch (...) {
    }
}

void Application::wineWillRunInside()
{
    // Wine installs its handler as it starts and unblocks SIGINT on its own
    // threads: one that comes meanwhile waits for them.
    m_interrupts = {};
    m_interruptDescriptor.reset();
    static const bool registered [[maybe_unused]] = std::atexit(stopMainLoopAtWinesExit) == 0;
}

int Application::run(int argc, char** argv)
{
    // Quit signals are blocked from the first moment until the main loop
    // takes them: one that comes while the launcher starts up is the first
    // quit request, not an end by the default action with half of it made.
    // Every thread started meanwhile (the bus's among them) keeps them
    // blocked, so they reach the main thread once it unblocks them.
    const sigset_t quitSignals = quitSignalSet();
    pthread_sigmask(SIG_BLOCK, &quitSignals, nullptr);
    const sigset_t wineSignals = wineSignalSet();
    pthread_sigmask(SIG_BLOCK, &wineSignals, nullptr);

    // A window-command tool that has gone away must show up as a failed
    // write, not end the launcher.
    signal(SIGPIPE, SIG_IGN);

    // The session manager's startup id is this process's alone, as a
    // toolkit takes it: taken before any thread exists, so that no process
    // of the program is started with it.
    if (const char* startupId = std::getenv("DESKTOP_AUTOSTART_ID")) {
        m_startupId = startupId;
        unsetenv("DESKTOP_AUTOSTART_ID");
    }

    std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    // Everything the launcher does comes from its bundle: without one it
    // says so in one line and ends at once.
    auto bundlePath = VTBundle::mainBundlePathFromExecutable(argc > 0 ? argv[0] : nullptr);
    if (!bundlePath) {
        platformLog("vtlauncher must run from a launcher bundle (<bundle>/Contents/MacOS/<name>); %s is not in one",
                    argc > 0 && argv[0] ? argv[0] : "it");
        return 1;
    }
    std::string problem;
    std::unique_ptr<VTBundle> bundle = VTBundle::bundleWithPath(*bundlePath, &problem);
    if (!bundle) {
        platformLog("%@ cannot be used: %@; the launcher cannot run without it",
                    *bundlePath / "Contents" / "Info.plist", problem);
        return 1;
    }
    setMainBundle(std::move(bundle));

    // Without a session bus the launcher finds no helper server and shows no
    // icon; say why at once, before the attempts that follow.
    // (The connection is held until the application has registered on it,
    // so that it is made once.)
    GErrorHolder busError;
    GPtr<GDBusConnection> bus = adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, busError));
    m_hasSessionBus = bus != nullptr;
    if (!m_hasSessionBus)
        platformLog("no D-Bus session bus: %@", busError.message());

    registerWithSessionBus(m_hasSessionBus ? m_mainBundle->bundleIdentifier() : std::nullopt);
    bus.reset();
    std::filesystem::path workingDirectory = std::filesystem::current_path();
    if (g_application_get_is_remote(m_gapplication.get())) {
        // Another launcher of this bundle runs: hand the opening over to it.
        forwardToRunningLauncher(arguments, workingDirectory);
        return 0;
    }
    joinTheSession(m_mainBundle->bundleIdentifier().value_or(""));

    // From now on quit signals are main-loop events; one that came
    // meanwhile is asked before anything has started.
    bool quitEarly = takeBlockedQuitSignals(quitSignals);
    for (int signalNumber : { SIGTERM, SIGHUP }) {
        m_quitSignals.emplace_back("vt quit signal", signalNumber, [this] {
            sendEventsFromMainLoop({ Event { Event::Type::QuitRequest, {}, {} } });
            return true;
        });
    }
    const sigset_t interrupt = signalSet({ SIGINT });
    m_interruptDescriptor.reset(::signalfd(-1, &interrupt, SFD_NONBLOCK | SFD_CLOEXEC));
    if (m_interruptDescriptor) {
        m_interrupts = UnixFdSource("vt interrupt signal", m_interruptDescriptor.get(), [this] {
            signalfd_siginfo taken {};
            bool any = false;
            while (::read(m_interruptDescriptor.get(), &taken, sizeof taken) == sizeof taken)
                any = true;
            if (any)
                sendEventsFromMainLoop({ Event { Event::Type::QuitRequest, {}, {} } });
            return true;
        });
    }
    const sigset_t handled = handledQuitSignalSet();
    pthread_sigmask(SIG_UNBLOCK, &handled, nullptr);
    m_loop = adopt(g_main_loop_new(nullptr, FALSE));
    g_application_hold(m_gapplication.get());
    // Agreed, it ends the launcher here.
    if (quitEarly)
        sendEvent(Event { Event::Type::QuitRequest, {}, {} });
    if (!m_ending)
        finishLaunching(openingEventsForArguments(arguments, workingDirectory));
    if (!m_ending)
        g_main_loop_run(m_loop.get());
    return 0;
}

} // namespace vt
