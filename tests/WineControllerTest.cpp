// The Wine controller seam: what a driver registered through the C function
// receives, and in which order relative to the launcher's own dispatch.
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/VTFBHelperApp.hpp"
#include "base/NotificationCenter.hpp"
#include "standin/kit/TestSupport.hpp"
#include "vtlauncher/wine_controller.h"

using vt::Event;

namespace {

struct Terminated {};

// The delegate stays subscribed only where a test asks for it: the posted
// will-finish-launching would otherwise run the whole start-up.
class TestApp : public vt::VTFBHelperApp {
public:
    explicit TestApp(bool withDelegate = false)
    {
        if (!withDelegate)
            setDelegate(nullptr);
    }

protected:
    [[noreturn]] void exitAfterTermination() override { throw Terminated {}; }
};

// A controller that writes down every call it gets.
struct Recorder {
    std::vector<std::string> calls;
    bool consume = false;
    vt_terminate_reply terminateReply = VT_TERMINATE_NOW;
};

Recorder& recorder(void* context) { return *static_cast<Recorder*>(context); }

vt_wine_controller fullController(Recorder& rec)
{
    vt_wine_controller c {};
    c.size = sizeof c;
    c.context = &rec;
    c.handle_event = [](void* ctx, const vt_event* e) {
        recorder(ctx).calls.push_back("handle " + std::to_string(e->type));
        return recorder(ctx).consume;
    };
    c.did_send_event = [](void* ctx, const vt_event* e) {
        recorder(ctx).calls.push_back("did-send " + std::to_string(e->type));
    };
    c.application_will_become_active = [](void* ctx) { recorder(ctx).calls.push_back("will-become-active"); };
    c.application_did_become_active = [](void* ctx) { recorder(ctx).calls.push_back("did-become-active"); };
    c.application_will_terminate = [](void* ctx) { recorder(ctx).calls.push_back("will-terminate"); };
    c.should_terminate = [](void* ctx) { return recorder(ctx).terminateReply; };
    return c;
}

// The full controller that also follows launching, activation, hiding and
// the turns of the main loop.
vt_wine_controller lifeCycleController(Recorder& rec)
{
    vt_wine_controller c = fullController(rec);
    c.application_will_finish_launching = [](void* ctx) { recorder(ctx).calls.push_back("will-finish-launching"); };
    c.application_did_finish_launching = [](void* ctx) { recorder(ctx).calls.push_back("did-finish-launching"); };
    c.application_will_resign_active = [](void* ctx) { recorder(ctx).calls.push_back("will-resign-active"); };
    c.application_did_resign_active = [](void* ctx) { recorder(ctx).calls.push_back("did-resign-active"); };
    c.application_will_hide = [](void* ctx) { recorder(ctx).calls.push_back("will-hide"); };
    c.application_did_hide = [](void* ctx) { recorder(ctx).calls.push_back("did-hide"); };
    c.application_will_unhide = [](void* ctx) { recorder(ctx).calls.push_back("will-unhide"); };
    c.application_did_unhide = [](void* ctx) { recorder(ctx).calls.push_back("did-unhide"); };
    c.application_will_update = [](void* ctx) { recorder(ctx).calls.push_back("will-update"); };
    c.application_did_update = [](void* ctx) { recorder(ctx).calls.push_back("did-update"); };
    return c;
}

const char* allNotifications[] = {
    vt::ApplicationDidBecomeActiveNotification, vt::ApplicationDidChangeScreenParametersNotification,
    vt::ApplicationDidFinishLaunchingNotification, vt::ApplicationDidHideNotification,
    vt::ApplicationDidResignActiveNotification, vt::ApplicationDidUnhideNotification,
    vt::ApplicationDidUpdateNotification, vt::ApplicationWillBecomeActiveNotification,
    vt::ApplicationWillFinishLaunchingNotification, vt::ApplicationWillHideNotification,
    vt::ApplicationWillResignActiveNotification, vt::ApplicationWillTerminateNotification,
    vt::ApplicationWillUnhideNotification, vt::ApplicationWillUpdateNotification,
};

void postAll(const void* object)
{
    for (const char* name : allNotifications)
        vt::NotificationCenter::defaultCenter().post(name, object);
}

} // namespace

TEST(WineController, ReceivesExactlyTheNotificationsItImplements)
{
    TestApp app;
    Recorder rec;
    vt_wine_controller controller {};
    controller.size = sizeof controller;
    controller.context = &rec;
    controller.application_did_hide = [](void* ctx) { recorder(ctx).calls.push_back("did-hide"); };
    controller.application_will_update = [](void* ctx) { recorder(ctx).calls.push_back("will-update"); };
    vt_set_wine_controller(&controller);

    postAll(&app);
    EXPECT_EQ(rec.calls, (std::vector<std::string> { "did-hide", "will-update" }));

    rec.calls.clear();
    int someoneElse;
    postAll(&someoneElse);
    EXPECT_TRUE(rec.calls.empty()) << "notifications of other objects are not forwarded";
}

TEST(WineController, ReplacingOrClearingLeavesNoOldRegistration)
{
    TestApp app;
    Recorder first, second;
    vt_wine_controller a = fullController(first), b = fullController(second);

    vt_set_wine_controller(&a);
    vt_set_wine_controller(&a);
    vt::NotificationCenter::defaultCenter().post(vt::ApplicationDidBecomeActiveNotification, &app);
    EXPECT_EQ(first.calls, (std::vector<std::string> { "did-become-active" }));

    vt_set_wine_controller(&b);
    postAll(&app);
    EXPECT_EQ(first.calls.size(), 1u);
    EXPECT_EQ(second.calls, (std::vector<std::string> { "did-become-active", "will-become-active", "will-terminate" }));

    vt_set_wine_controller(nullptr);
    EXPECT_FALSE(app.hasWineController());
    second.calls.clear();
    app.sendEvent(Event { Event::Type::Activate, {}, {} });
    EXPECT_TRUE(second.calls.empty());
}

TEST(WineController, SeesEventsBeforeAndAfterTheLaunchersDispatch)
{
    TestApp app;
    Recorder rec;
    vt_wine_controller controller = fullController(rec);
    vt_set_wine_controller(&controller);

    app.sendEvent(Event { Event::Type::Activate, {}, {} });
    EXPECT_EQ(rec.calls, (std::vector<std::string> { "handle 5", "will-become-active", "did-become-active",
                                                     "did-send 5" }));

    rec.calls.clear();
    rec.consume = true;
    app.sendEvent(Event { Event::Type::Activate, {}, {} });
    EXPECT_EQ(rec.calls, (std::vector<std::string> { "handle 5" })) << "a consumed event goes no further";
}

TEST(WineController, AnswersTheQuitQuestionItselfIncludingLater)
{
    TestApp app(true);
    Recorder rec;
    vt_wine_controller controller = fullController(rec);
    vt_set_wine_controller(&controller);

    rec.terminateReply = VT_TERMINATE_CANCEL;
    EXPECT_NO_THROW(app.terminate());

    rec.terminateReply = VT_TERMINATE_LATER;
    EXPECT_NO_THROW(app.terminate());
    EXPECT_NO_THROW(app.terminate()) << "a second request while the answer is pending asks nothing";
    rec.calls.clear();
    EXPECT_THROW(app.replyToApplicationShouldTerminate(true), Terminated);
    EXPECT_EQ(rec.calls, (std::vector<std::string> { "will-terminate" }));
}

TEST(WineController, AnAnswerThatIsNoReplyCancelsTheQuit)
{
    TestApp app(true);
    vt_wine_controller controller {};
    controller.size = sizeof controller;
    controller.should_terminate = [](void*) { return static_cast<vt_terminate_reply>(7); };
    vt_set_wine_controller(&controller);
    vt::test::StderrCapture capture;
    EXPECT_NO_THROW(app.terminate()) << "nothing was agreed: the launcher goes on";
    EXPECT_NE(capture.text().find("answered the quit question with 7, which is no reply; the quit is cancelled."),
              std::string::npos)
        << capture.text();
}

TEST(WineController, ADriverBuiltAgainstAShorterHeaderKeepsWorking)
{
    TestApp app;
    Recorder rec;
    vt_wine_controller controller = fullController(rec);
    // Built when the structure ended after handle_event: nothing later is read.
    controller.size = offsetof(vt_wine_controller, did_send_event);
    vt_set_wine_controller(&controller);
    app.sendEvent(Event { Event::Type::Activate, {}, {} });
    EXPECT_EQ(rec.calls, (std::vector<std::string> { "handle 5" }));

    vt_wine_controller tooSmall = fullController(rec);
    tooSmall.size = sizeof(size_t);
    vt::test::StderrCapture capture;
    vt_set_wine_controller(&tooSmall);
    EXPECT_FALSE(app.hasWineController());
    EXPECT_NE(capture.text().find("vt_set_wine_controller: a controller of " + std::to_string(sizeof(size_t))
                                  + " bytes is too small to register"),
              std::string::npos);
}


TEST(WineController, FollowsLaunchingHidingAndEachTurnOfTheMainLoop)
{
    TestApp app;
    Recorder rec;
    vt_wine_controller controller = lifeCycleController(rec);
    vt_set_wine_controller(&controller);
    using Calls = std::vector<std::string>;

    app.finishLaunching({});
    EXPECT_EQ(rec.calls, (Calls { "will-finish-launching", "did-finish-launching", "handle 5", "will-become-active",
                                  "did-become-active", "did-send 5", "will-update", "did-update" }));

    rec.calls.clear();
    app.hide();
    app.hide();
    EXPECT_EQ(rec.calls, (Calls { "will-resign-active", "did-resign-active", "will-hide", "did-hide" }));

    // A second launch without documents: one turn, two events, one update.
    rec.calls.clear();
    app.sendEventsFromMainLoop({ Event { Event::Type::Reopen, {}, {} }, Event { Event::Type::Activate, {}, {} } });
    EXPECT_EQ(rec.calls, (Calls { "handle 4", "did-send 4", "handle 5", "will-unhide", "did-unhide",
                                  "will-become-active", "did-become-active", "did-send 5", "will-update",
                                  "did-update" }));
}

// Registering from Wine's own thread is proved end to end (LoaderHandOver).
TEST(WineController, AReplyGivenInsideTheQuestionWaitsForTheMainLoop)
{
    TestApp app(true);
    Recorder rec;
    vt_wine_controller controller = fullController(rec);
    // A reply given before the question has even been answered must not be lost.
    controller.should_terminate = [](void*) {
        vt_reply_to_application_should_terminate(true);
        return VT_TERMINATE_LATER;
    };
    vt_set_wine_controller(&controller);

    vt::test::StderrCapture capture; // the test's stand-in for ending the process is logged
    EXPECT_NO_THROW(app.terminate()) << "the reply waits for the main loop";
    EXPECT_TRUE(rec.calls.empty());
    EXPECT_TRUE(vt::test::waitUntil([&] { return !rec.calls.empty(); }));
    EXPECT_EQ(rec.calls, (std::vector<std::string> { "will-terminate" }));
}
