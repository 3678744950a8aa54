#include "shell/Application.hpp"

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <unistd.h>

#include "base/MainLoop.hpp"
#include "base/NotificationCenter.hpp"
#include "base/PlatformLog.hpp"
#include "source/VTBundle.hpp"
#include "base/VTLog.hpp"

namespace vt {

namespace {
    Application* sharedApplication = nullptr;

    bool hasNonFileScheme(const std::string& argument)
    {
        // A path like "./a:b" or "/x:y" is not a URI, whatever its colons.
        if (argument.empty() || argument[0] == '/' || argument[0] == '.')
            return false;
        GCharPtr scheme(g_uri_parse_scheme(argument.c_str()));
        return scheme && g_ascii_strcasecmp(scheme.get(), "file") != 0;
    }

    std::string absolutePathFor(const std::string& argument, const std::filesystem::path& workingDirectory)
    {
        if (g_str_has_prefix(argument.c_str(), "file:")) {
            GCharPtr path(g_filename_from_uri(argument.c_str(), nullptr, nullptr));
            if (path)
                return path.get();
        }
        std::filesystem::path path(argument);
        if (path.is_relative())
            path = workingDirectory / path;
        return path.lexically_normal().string();
    }

    std::vector<Event> openingEvents(const std::vector<std::string>& urls, const std::vector<std::string>& files)
    {
        std::vector<Event> events;
        for (const auto& url : urls)
            events.push_back(Event { Event::Type::OpenURL, { url }, {} });
        if (!files.empty())
            events.push_back(Event { Event::Type::OpenFiles, files, {} });
        if (events.empty())
            events.push_back(Event { Event::Type::OpenUntitled, {}, {} });
        return events;
    }
} // namespace

std::vector<Event> openingEventsForArguments(const std::vector<std::string>& arguments,
                                             const std::filesystem::path& workingDirectory)
{
    std::vector<std::string> urls, files;
    for (const auto& argument : arguments) {
        if (hasNonFileScheme(argument))
            urls.push_back(argument);
        else
            files.push_back(absolutePathFor(argument, workingDirectory));
    }
    return openingEvents(urls, files);
}

// Quit signals are caught on a thread of their own, so that a quit request
// reaches the launcher even while start-up blocks the main loop.
class Application::QuitSignals {
public:
    explicit QuitSignals(Application& application)
        : m_application(application)
        , m_context(adopt(g_main_context_new()))
        , m_loop(adopt(g_main_loop_new(m_context.get(), FALSE)))
    {
        for (int signalNumber : { SIGTERM, SIGINT, SIGHUP }) {
            m_sources.emplace_back("vt quit signal", signalNumber, [this] {
                requested();
                return true;
            }, m_context.get());
        }
        m_thread = std::thread([this] { g_main_loop_run(m_loop.get()); });
    }

    ~QuitSignals()
    {
        g_main_loop_quit(m_loop.get());
        m_thread.join();
        m_sources.clear();
    }

    // Sleeps for `duration` unless a quit request comes first; answers
    // whether one came (and takes it).
    bool sleepUnlessQuit(std::chrono::milliseconds duration)
    {
        std::unique_lock lock(m_mutex);
        m_cv.wait_for(lock, duration, [this] { return m_pending; });
        return std::exchange(m_pending, false);
    }

private:
    void requested()
    {
        {
            std::lock_guard lock(m_mutex);
            m_pending = true;
        }
        m_cv.notify_all();
        runOnMain([this] {
            bool pending;
            {
                std::lock_guard lock(m_mutex);
                pending = std::exchange(m_pending, false);
            }
            if (pending)
                m_application.sendEvent(Event { Event::Type::QuitRequest, {}, {} });
        });
    }

    Application& m_application;
    GPtr<GMainContext> m_context;
    GPtr<GMainLoop> m_loop;
    std::vector<UnixSignalSource> m_sources;
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_pending = false;
};

Application::Application() { sharedApplication = this; }

Application::~Application()
{
    if (m_delegate)
        NotificationCenter::defaultCenter().removeObserver(m_delegate, {}, this);
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
    auto& center = NotificationCenter::defaultCenter();
    if (m_delegate)
        center.removeObserver(m_delegate, {}, this);
    m_delegate = delegate;
    if (!delegate)
        return;
    auto subscribe = [&](const char* name, void (ApplicationDelegate::*method)()) {
        center.addObserver(delegate, name, this, [delegate, method](const Notification&) { (delegate->*method)(); });
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

std::string Event::description() const
{
    static const char* const names[] = { "", "open-untitled", "open-files", "open-url", "reopen",
                                         "activate", "quit-request", "menu-item" };
    std::string text = names[static_cast<int>(type)];
    for (const auto& item : items)
        text += " " + item;
    if (!action.empty())
        text += " " + action;
    return text;
}

void Application::dispatch(const Event& event)
{
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
    postNotification(ApplicationWillBecomeActiveNotification);
    postNotification(ApplicationDidBecomeActiveNotification);
}

void Application::terminate()
{
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
    if (shouldTerminate) {
        postNotification(ApplicationWillTerminateNotification);
        exitAfterTermination();
    }
}

void Application::replyToOpenOrPrint(OpenReply reply)
{
    m_lastOpenReply = reply;
    VTLog("open reply %d", static_cast<int>(reply));
}

void Application::hide() { VTLog("hide"); }
void Application::unhide() { VTLog("unhide"); }
void Application::unhideWithoutActivation() { VTLog("unhide without activation"); }
void Application::activateIgnoringOtherApps() { VTLog("activate ignoring other applications"); }

void Application::exitAfterTermination()
{
    std::fflush(nullptr);
    std::exit(0);
}

bool Application::sleepDuringLaunch(std::chrono::milliseconds duration)
{
    if (!m_quitSignals) {
        g_usleep(static_cast<gulong>(duration.count()) * 1000);
        return false;
    }
    if (!m_quitSignals->sleepUnlessQuit(duration))
        return false;
    sendEvent(Event { Event::Type::QuitRequest, {}, {} });
    return true;
}

void Application::finishLaunching(const std::vector<Event>& openingEvents)
{
    postNotification(ApplicationWillFinishLaunchingNotification);
    for (const auto& event : openingEvents)
        sendEvent(event);
    postNotification(ApplicationDidFinishLaunchingNotification);
    // A launch by the user makes the launcher the active application once.
    sendEvent(Event { Event::Type::Activate, {}, {} });
}

void Application::onOpen(GApplication*, GFile** files, gint count, gchar*, gpointer data) noexcept
{
    auto* self = static_cast<Application*>(data);
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
        for (const auto& event : openingEvents(urls, paths))
            self->sendEvent(event);
    } catch (const std::exception& e) {
        platformLog("cannot handle a forwarded opening: %s", e.what());
    }
}

void Application::onActivate(GApplication*, gpointer data) noexcept
{
    auto* self = static_cast<Application*>(data);
    try {
        self->sendEvent(Event { Event::Type::Reopen, {}, {} });
        self->sendEvent(Event { Event::Type::Activate, {}, {} });
    } catch (const std::exception& e) {
        platformLog("cannot handle a forwarded launch: %s", e.what());
    }
}

int Application::run(int argc, char** argv)
{
    // A window-command tool that has gone away must show up as a failed
    // write, not end the launcher.
    signal(SIGPIPE, SIG_IGN);

    std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    if (auto bundlePath = VTBundle::mainBundlePathFromExecutable(argc > 0 ? argv[0] : nullptr))
        setMainBundle(VTBundle::bundleWithPath(*bundlePath));
    if (!m_mainBundle) {
        platformLog("vtlauncher must run from a launcher bundle (<bundle>/Contents/MacOS/<name>)");
        m_mainMenu = defaultMenu();
    }

    std::optional<std::string> identifier = m_mainBundle ? m_mainBundle->bundleIdentifier() : std::nullopt;
    GApplicationFlags flags = G_APPLICATION_HANDLES_OPEN;
    if (!identifier || !g_application_id_is_valid(identifier->c_str())) {
        identifier.reset();
        flags = static_cast<GApplicationFlags>(flags | G_APPLICATION_NON_UNIQUE);
    }
    m_gapplication = adopt(g_application_new(identifier ? identifier->c_str() : nullptr, flags));
    g_signal_connect(m_gapplication.get(), "open", G_CALLBACK(onOpen), this);
    g_signal_connect(m_gapplication.get(), "activate", G_CALLBACK(onActivate), this);

    GPtr<GSimpleAction> quit = adopt(g_simple_action_new("quit", nullptr));
    g_signal_connect(quit.get(), "activate",
                     G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) noexcept {
                         static_cast<Application*>(data)->sendEvent(Event { Event::Type::QuitRequest, {}, {} });
                     }),
                     this);
    g_action_map_add_action(G_ACTION_MAP(m_gapplication.get()), G_ACTION(quit.get()));

    GErrorHolder error;
    if (!g_application_register(m_gapplication.get(), nullptr, error))
        platformLog("cannot register %@ with the session bus (%@); running as a separate instance",
                    identifier.value_or("the launcher"), std::string(error.message()));

    std::filesystem::path workingDirectory = std::filesystem::current_path();
    if (g_application_get_is_remote(m_gapplication.get())) {
        // Another launcher of this bundle runs: hand the opening over to it.
        if (arguments.empty()) {
            g_application_activate(m_gapplication.get());
        } else {
            std::vector<GPtr<GFile>> files;
            std::vector<GFile*> raw;
            for (const auto& argument : arguments) {
                files.push_back(hasNonFileScheme(argument)
                                    ? adopt(g_file_new_for_uri(argument.c_str()))
                                    : adopt(g_file_new_for_path(absolutePathFor(argument, workingDirectory).c_str())));
                raw.push_back(files.back().get());
            }
            g_application_open(m_gapplication.get(), raw.data(), static_cast<gint>(raw.size()), "");
        }
        if (GDBusConnection* bus = g_application_get_dbus_connection(m_gapplication.get()))
            g_dbus_connection_flush_sync(bus, nullptr, nullptr);
        return 0;
    }

    m_quitSignals = std::make_unique<QuitSignals>(*this);
    m_loop = adopt(g_main_loop_new(nullptr, FALSE));
    g_application_hold(m_gapplication.get());
    finishLaunching(openingEventsForArguments(arguments, workingDirectory));
    g_main_loop_run(m_loop.get());
    return 0;
}

} // namespace vt
