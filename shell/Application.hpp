// The application shell: the launcher's counterpart of a desktop application
// object. It turns the command line, second launches, signals and the D-Bus
// quit action into events, dispatches them to its delegate, posts the
// life-cycle notifications and carries out the quit question's replies.
//
// Single instance per launcher bundle: GApplication with the bundle's
// identifier as application id (non-unique when the identifier isn't a valid
// application id). A second launch hands its opening event to the running
// launcher and exits 0.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/MainLoop.hpp"
#include "base/NotificationCenter.hpp"
#include "base/glib_glue.hpp"
#include "base/posix_glue.hpp"
#include "shell/Event.hpp"
#include "shell/Menu.hpp"
#include "shell/SessionManagerClient.hpp"

namespace vt {

class VTBundle;

// Life-cycle notifications, posted with the application as object.
inline constexpr const char* ApplicationDidBecomeActiveNotification = "ApplicationDidBecomeActiveNotification";
inline constexpr const char* ApplicationDidChangeScreenParametersNotification = "ApplicationDidChangeScreenParametersNotification";
inline constexpr const char* ApplicationDidFinishLaunchingNotification = "ApplicationDidFinishLaunchingNotification";
inline constexpr const char* ApplicationDidHideNotification = "ApplicationDidHideNotification";
inline constexpr const char* ApplicationDidResignActiveNotification = "ApplicationDidResignActiveNotification";
inline constexpr const char* ApplicationDidUnhideNotification = "ApplicationDidUnhideNotification";
inline constexpr const char* ApplicationDidUpdateNotification = "ApplicationDidUpdateNotification";
inline constexpr const char* ApplicationWillBecomeActiveNotification = "ApplicationWillBecomeActiveNotification";
inline constexpr const char* ApplicationWillFinishLaunchingNotification = "ApplicationWillFinishLaunchingNotification";
inline constexpr const char* ApplicationWillHideNotification = "ApplicationWillHideNotification";
inline constexpr const char* ApplicationWillResignActiveNotification = "ApplicationWillResignActiveNotification";
inline constexpr const char* ApplicationWillTerminateNotification = "ApplicationWillTerminateNotification";
inline constexpr const char* ApplicationWillUnhideNotification = "ApplicationWillUnhideNotification";
inline constexpr const char* ApplicationWillUpdateNotification = "ApplicationWillUpdateNotification";

enum class TerminateReply { Cancel = 0, Now = 1, Later = 2 };
enum class OpenReply { Success = 0, Failure = 2 };

class Application;

// What the application asks and tells its delegate. Every method has a
// harmless default, as an application without a delegate would behave.
class ApplicationDelegate {
public:
    virtual ~ApplicationDelegate() = default;

    virtual void applicationWillFinishLaunching() {}
    virtual void applicationDidFinishLaunching() {}
    virtual void applicationDidBecomeActive() {}
    virtual void applicationWillTerminate() {}

    virtual bool applicationShouldOpenUntitledFile(Application&) { return true; }
    virtual bool applicationOpenUntitledFile(Application&) { return false; }
    virtual void openFiles(Application&, const std::vector<std::string>&) {}
    virtual bool applicationShouldHandleReopen(Application&, bool /*hasVisibleWindows*/) { return true; }
    virtual TerminateReply applicationShouldTerminate(Application&) { return TerminateReply::Now; }

    // The desktop's session manager: may the session end (a logout, a
    // shutdown)? The answer goes to replyToSessionQuery whenever it is known.
    virtual void applicationSessionMayEnd(Application& application);
    // The session ends: replyToSessionEnd once the program has been told.
    virtual void applicationSessionWillEnd(Application& application);
    virtual void applicationSessionEndCancelled(Application&) {}
};

class Application {
public:
    Application();
    virtual ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // The one application object of the process, or null.
    static Application* shared();

    // Runs the launcher: single-instance hand-over, launching, the main loop.
    // Returns the exit status.
    int run(int argc, char** argv);

    // Installs the delegate (not owned) and subscribes it to the life-cycle
    // notifications it is told about; null removes it.
    void setDelegate(ApplicationDelegate* delegate);
    ApplicationDelegate* delegate() const { return m_delegate; }

    // Every event passes through here; the base dispatches it to the delegate.
    virtual void sendEvent(const Event& event);

    // The events that one turn of the main loop brings (a forwarded launch,
    // the quit action, a quit signal): each is sent in turn, a failure
    // stopping at its own event (logged), and then the turn ends with
    // will-update and did-update.
    void sendEventsFromMainLoop(const std::vector<Event>& events) noexcept;

    // The get-URL handler: called with each URL of an opening event.
    void setGetURLHandler(std::function<void(const std::string&)> handler);

    // Asks the delegate whether to quit and acts on the reply.
    void terminate();
    void replyToApplicationShouldTerminate(bool shouldTerminate);
    void replyToOpenOrPrint(OpenReply reply);
    // The answers to the session manager; nothing without one.
    void replyToSessionQuery(bool mayEnd, const std::string& reason);
    void replyToSessionEnd();

    // Activation and hiding. The launcher has no window of its own, so these
    // only log, keep the state and post the will/did notifications of each
    // change. A hidden launcher is never the active one: hiding resigns
    // activation first, and an activation unhides first.
    bool isActive() const { return m_active; }
    bool isHidden() const { return m_hidden; }
    // The user has turned to another application (the main application has
    // been brought forward, say); nothing happens unless the launcher is active.
    void resignActive();
    void hide();
    // Unhides and activates; nothing happens unless the launcher is hidden.
    void unhide();
    void unhideWithoutActivation();
    void activateIgnoringOtherApps();

    // The launcher's own bundle, read at start-up; null outside a bundle.
    const VTBundle* mainBundle() const { return m_mainBundle.get(); }
    void setMainBundle(std::unique_ptr<VTBundle> bundle);

    Menu& mainMenu() { return m_mainMenu; }

    // Whether the session bus could be reached when the launcher started.
    bool hasSessionBus() const { return m_hasSessionBus; }

    // Calls scheduled with the application as their target.
    DelayedCalls& delayedCalls() { return m_delayedCalls; }

    // Launching: will-finish-launching, the opening events, did-finish-
    // launching, then one activation. Tests drive it without a command line.
    void finishLaunching(const std::vector<Event>& openingEvents);
    // While start-up waits (the delegate holds launching from inside
    // will-finish-launching and continues it from the main loop), the
    // opening events wait with it, and so does every event that arrives
    // meanwhile, delivered afterwards in order; a quit is asked at once.
    void holdLaunching();
    void continueLaunching();
    bool isLaunching() const { return m_launching; }
    // An agreed quit has been carried out: no event is dispatched any more
    // and the main loop returns.
    bool isEnding() const { return m_ending; }

    // Wine is about to run inside this process, on a thread of its own that
    // is started next; main thread, before that thread exists. Wine handles
    // SIGINT, SIGQUIT and SIGUSR1 process-wide and finds its thread's data
    // from the thread the handler runs on, so no thread of the launcher's
    // ever takes them (all block them from the start), and SIGINT stops
    // being a quit request: from now on it is the Windows program's Ctrl+C,
    // as when Wine runs in a terminal. SIGTERM and SIGHUP stay quit
    // requests. When Wine ends the process from one of its threads (the
    // program has ended), the session manager hears of the launcher's end
    // and the main loop is stopped at the end of its turn before anything
    // is torn down, so no code of the launcher is half-way through anything
    // when the process goes.
    void wineWillRunInside();

protected:
    // Ends the launcher after an agreed quit, with status 0: the quit
    // signals are no longer taken, everything sent on the bus (the answer to
    // a quit asked for there) is flushed out, and the main loop returns, or,
    // when a thread that cannot be joined still runs, the process ends at
    // once.
    virtual void exitAfterTermination();
    // Whether a thread runs that cannot be joined before the process ends.
    virtual bool threadsOutliveTheLoop() const { return false; }

private:
    static bool isQuitEvent(const Event& event);
    // Registered with atexit once Wine runs inside; see wineWillRunInside.
    static void stopMainLoopAtWinesExit() noexcept;
    // The session manager forgets the launcher (an end it waits to hear
    // about is answered first), and all of it is on the bus.
    void leaveTheSession();
    void completeLaunching();

    void postNotification(const char* name);
    void activate();
    void setHidden(bool hidden);
    // The end of a main-loop turn: will-update, then did-update.
    void update() noexcept;
    void dispatch(const Event& event);
    // Events from callbacks: an exception stops here, logged.
    void sendEventFromCallback(const Event& event) noexcept;
    void registerWithSessionBus(std::optional<std::string> identifier);
    void joinTheSession(const std::string& identifier);
    void forwardToRunningLauncher(const std::vector<std::string>& arguments,
                                  const std::filesystem::path& workingDirectory);

    static void onOpen(GApplication*, GFile**, gint, gchar*, gpointer) noexcept;
    static void onActivate(GApplication*, gpointer) noexcept;
    static void onQuitAction(GSimpleAction*, GVariant*, gpointer) noexcept;

    ApplicationDelegate* m_delegate = nullptr;
    std::vector<Observation> m_delegateObservations;
    std::function<void(const std::string&)> m_getURLHandler;
    std::unique_ptr<VTBundle> m_mainBundle;
    Menu m_mainMenu;
    DelayedCalls m_delayedCalls;
    GPtr<GApplication> m_gapplication;
    GPtr<GMainLoop> m_loop;
    std::vector<UnixSignalSource> m_quitSignals;
    // SIGINT, read here while it is a quit request.
    Fd m_interruptDescriptor;
    UnixFdSource m_interrupts;
    bool m_launching = false;
    int m_launchHolds = 0;
    std::vector<Event> m_openingEvents;
    std::vector<std::vector<Event>> m_heldTurns;
    bool m_ending = false;
    bool m_awaitingTerminateReply = false;
    bool m_active = false;
    bool m_hidden = false;
    bool m_hasSessionBus = true;
    // DESKTOP_AUTOSTART_ID, taken from the environment at start so that no
    // process of the program inherits it.
    std::string m_startupId;
    std::unique_ptr<SessionManagerClient> m_sessionManager;
    MainQueueToken m_mainQueue;
};

} // namespace vt
