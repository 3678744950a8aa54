#include "app/VTFBHelperApp.hpp"

#include <cstddef>
#include <cstring>

#include "app/VTFBHelperDelegate.hpp"
#include "base/MainLoop.hpp"
#include "base/PlatformLog.hpp"

namespace vt {

// The C and C++ names of events and replies are the same numbers.
static_assert(static_cast<int>(Event::Type::OpenUntitled) == VT_EVENT_OPEN_UNTITLED);
static_assert(static_cast<int>(Event::Type::OpenFiles) == VT_EVENT_OPEN_FILES);
static_assert(static_cast<int>(Event::Type::OpenURL) == VT_EVENT_OPEN_URL);
static_assert(static_cast<int>(Event::Type::Reopen) == VT_EVENT_REOPEN);
static_assert(static_cast<int>(Event::Type::Activate) == VT_EVENT_ACTIVATE);
static_assert(static_cast<int>(Event::Type::QuitRequest) == VT_EVENT_QUIT_REQUEST);
static_assert(static_cast<int>(Event::Type::MenuItem) == VT_EVENT_MENU_ITEM);
static_assert(static_cast<int>(TerminateReply::Cancel) == VT_TERMINATE_CANCEL);
static_assert(static_cast<int>(TerminateReply::Now) == VT_TERMINATE_NOW);
static_assert(static_cast<int>(TerminateReply::Later) == VT_TERMINATE_LATER);

namespace {
    // The life-cycle notifications a controller may take, in the order in
    // which registrations are made and removed.
    struct ForwardedNotification {
        const char* name;
        vt_notification_callback vt_wine_controller::*callback;
    };
    constexpr ForwardedNotification forwardedNotifications[] = {
        { ApplicationDidBecomeActiveNotification, &vt_wine_controller::application_did_become_active },
        { ApplicationDidChangeScreenParametersNotification, &vt_wine_controller::application_did_change_screen_parameters },
        { ApplicationDidFinishLaunchingNotification, &vt_wine_controller::application_did_finish_launching },
        { ApplicationDidHideNotification, &vt_wine_controller::application_did_hide },
        { ApplicationDidResignActiveNotification, &vt_wine_controller::application_did_resign_active },
        { ApplicationDidUnhideNotification, &vt_wine_controller::application_did_unhide },
        { ApplicationDidUpdateNotification, &vt_wine_controller::application_did_update },
        { ApplicationWillBecomeActiveNotification, &vt_wine_controller::application_will_become_active },
        { ApplicationWillFinishLaunchingNotification, &vt_wine_controller::application_will_finish_launching },
        { ApplicationWillHideNotification, &vt_wine_controller::application_will_hide },
        { ApplicationWillResignActiveNotification, &vt_wine_controller::application_will_resign_active },
        { ApplicationWillTerminateNotification, &vt_wine_controller::application_will_terminate },
        { ApplicationWillUnhideNotification, &vt_wine_controller::application_will_unhide },
        { ApplicationWillUpdateNotification, &vt_wine_controller::application_will_update },
    };

    // The C view of an event; valid while `event` lives.
    struct CEvent {
        explicit CEvent(const Event& event)
        {
            for (const auto& item : event.items)
                items.push_back(item.c_str());
            value.type = static_cast<vt_event_type>(event.type);
            value.items = items.empty() ? nullptr : items.data();
            value.item_count = items.size();
            value.action = event.action.empty() ? nullptr : event.action.c_str();
        }
        std::vector<const char*> items;
        vt_event value {};
    };
} // namespace

VTFBHelperApp::VTFBHelperApp() : m_helperDelegate(std::make_unique<VTFBHelperDelegate>(*this))
{
    setDelegate(m_helperDelegate.get());
}

VTFBHelperApp::~VTFBHelperApp()
{
    setWineController(nullptr);
    setDelegate(nullptr);
}

bool VTFBHelperApp::threadsOutliveTheLoop() const { return m_helperDelegate->wineRunsInside(); }

VTFBHelperApp* VTFBHelperApp::shared() { return dynamic_cast<VTFBHelperApp*>(Application::shared()); }

void VTFBHelperApp::setWineController(const vt_wine_controller* controller)
{
    // The old controller's registrations are all gone before the new one's are made.
    m_controllerObservations.clear();
    m_wineController.reset();
    if (!controller)
        return;
    if (controller->size < offsetof(vt_wine_controller, context) + sizeof controller->context) {
        platformLog("vt_set_wine_controller: a controller of %zu bytes is too small to register", controller->size);
        return;
    }
    // A driver built against a shorter header has none of the later callbacks.
    vt_wine_controller copy {};
    std::memcpy(&copy, controller, std::min(controller->size, sizeof copy));
    copy.size = sizeof copy;
    m_wineController = copy;
    for (const auto& row : forwardedNotifications) {
        vt_notification_callback callback = copy.*row.callback;
        if (!callback)
            continue;
        void* context = copy.context;
        m_controllerObservations.push_back(NotificationCenter::defaultCenter().addObserver(
            row.name, this, [callback, context](const Notification&) { callback(context); }));
    }
}

std::optional<TerminateReply> VTFBHelperApp::wineControllerShouldTerminate()
{
    if (!m_wineController || !m_wineController->should_terminate)
        return std::nullopt;
    int answer = m_wineController->should_terminate(m_wineController->context);
    if (answer < VT_TERMINATE_CANCEL || answer > VT_TERMINATE_LATER) {
        platformLog("The Wine controller answered the quit question with %d, which is no reply; the quit is cancelled.",
                    answer);
        return TerminateReply::Cancel;
    }
    return static_cast<TerminateReply>(answer);
}

std::optional<bool> VTFBHelperApp::wineControllerShouldHandleReopen(bool hasVisibleWindows)
{
    if (!m_wineController || !m_wineController->should_handle_reopen)
        return std::nullopt;
    return m_wineController->should_handle_reopen(m_wineController->context, hasVisibleWindows);
}

void VTFBHelperApp::sendEvent(const Event& event)
{
    if (!m_wineController) {
        Application::sendEvent(event);
        return;
    }
    CEvent cEvent(event);
    if (m_wineController->handle_event && m_wineController->handle_event(m_wineController->context, &cEvent.value))
        return;
    Application::sendEvent(event);
    // Read again: the dispatch may have replaced or cleared the controller.
    if (m_wineController && m_wineController->did_send_event)
        m_wineController->did_send_event(m_wineController->context, &cEvent.value);
}

} // namespace vt

namespace {
    // The driver calls in from C, and queued work runs from the main loop:
    // nothing may be thrown at either.
    template <typename F> void loggingFailures(const char* function, F&& work) noexcept
    {
        try {
            work();
        } catch (const std::exception& e) {
            vt::platformLog("%s: %s", function, e.what());
        } catch (...) {
            vt::platformLog("%s: an unexpected failure", function);
        }
    }
} // namespace

// The driver registers from the thread Wine runs on. Events are sent and
// notifications posted on the main thread, so the registration is made there
// too, and the driver waits for it: when this returns the controller is in
// place and the driver may reuse its structure.
extern "C" VT_EXPORT void vt_set_wine_controller(const vt_wine_controller* controller)
{
    loggingFailures("vt_set_wine_controller", [controller] {
        vt::runOnMainAndWait([controller] {
            if (auto* application = vt::VTFBHelperApp::shared())
                application->setWineController(controller);
            else
                vt::platformLog("vt_set_wine_controller: there is no launcher application to register with");
        });
    });
}

// Queued, also on the main thread: a reply given from inside should_terminate
// comes before the question is marked open and would be lost, and an agreed
// quit ends the process, which must not happen beneath the driver's call.
extern "C" VT_EXPORT void vt_reply_to_application_should_terminate(bool shouldTerminate)
{
    loggingFailures("vt_reply_to_application_should_terminate", [shouldTerminate] {
        vt::runOnMain([shouldTerminate] {
            loggingFailures("vt_reply_to_application_should_terminate", [shouldTerminate] {
                if (auto* application = vt::VTFBHelperApp::shared())
                    application->replyToApplicationShouldTerminate(shouldTerminate);
            });
        });
    });
}
