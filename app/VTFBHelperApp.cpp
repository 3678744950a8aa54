#include "app/VTFBHelperApp.hpp"

#include "app/VTFBHelperDelegate.hpp"
#include "base/NotificationCenter.hpp"
#include "base/PlatformLog.hpp"

namespace vt {

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

VTFBHelperApp* VTFBHelperApp::shared() { return dynamic_cast<VTFBHelperApp*>(Application::shared()); }

void VTFBHelperApp::setWineController(const vt_wine_controller* controller)
{
    auto& center = NotificationCenter::defaultCenter();
    // The registrations are keyed by the controller slot, so the old
    // controller's are all gone before the new one's are made.
    const void* observer = &m_wineController;
    if (m_wineController) {
        for (const auto& row : forwardedNotifications) {
            if ((*m_wineController).*row.callback)
                center.removeObserver(observer, row.name, this);
        }
    }
    m_wineController.reset();
    if (!controller)
        return;
    m_wineController = *controller;
    for (const auto& row : forwardedNotifications) {
        vt_notification_callback callback = (*m_wineController).*row.callback;
        if (!callback)
            continue;
        void* context = m_wineController->context;
        center.addObserver(observer, row.name, this, [callback, context](const Notification&) { callback(context); });
    }
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

extern "C" VT_EXPORT void vt_set_wine_controller(const vt_wine_controller* controller)
{
    if (auto* application = vt::VTFBHelperApp::shared())
        application->setWineController(controller);
    else
        vt::platformLog("vt_set_wine_controller: there is no launcher application to register with");
}

extern "C" VT_EXPORT void vt_reply_to_application_should_terminate(bool shouldTerminate)
{
    if (auto* application = vt::VTFBHelperApp::shared())
        application->replyToApplicationShouldTerminate(shouldTerminate);
}
