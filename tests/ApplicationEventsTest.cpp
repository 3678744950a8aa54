// What the application object makes of its command line and of the events
// that reach it: opening events, menu items, activation.
#include <gtest/gtest.h>

#include "base/NotificationCenter.hpp"
#include "base/VTLog.hpp"
#include "shell/Application.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;

namespace {

std::vector<std::string> described(const std::vector<Event>& events)
{
    std::vector<std::string> texts;
    for (const auto& event : events)
        texts.push_back(event.description());
    return texts;
}

class RecordingDelegate : public ApplicationDelegate {
public:
    std::vector<std::string> calls;
    TerminateReply applicationShouldTerminate(Application&) override
    {
        calls.push_back("should-terminate");
        return TerminateReply::Cancel;
    }
    void applicationDidBecomeActive() override { calls.push_back("did-become-active"); }
};

} // namespace

TEST(OpeningEvents, ArgumentsAreURLsInOrderThenOneOpeningOfAllFiles)
{
    EXPECT_EQ(described(openingEventsForArguments({}, "/home/u")), (std::vector<std::string> { "open-untitled" }));
    EXPECT_EQ(described(openingEventsForArguments(
                  { "b.txt", "https://example.com/a?b", "/abs/c d.txt", "mailto:x@example.com", "file:///a%20b/%C3%A9" },
                  "/home/u")),
              (std::vector<std::string> { "open-url https://example.com/a?b", "open-url mailto:x@example.com",
                                          "open-files /home/u/b.txt /abs/c d.txt /a b/\xC3\xA9" }));
}

TEST(OpeningEvents, NamesThatLookLikeOptionsOrSchemesAreFiles)
{
    // The launcher has no options of its own: "--help" is a document.
    EXPECT_EQ(described(openingEventsForArguments({ "--help", "-v", "./a:b", "x/../y:z", "/x:y" }, "/w")),
              (std::vector<std::string> { "open-files /w/--help /w/-v /w/a:b /w/y:z /x:y" }));
}

TEST(ApplicationEvents, MenuItemsQuitActivateOrHide)
{
    Application app;
    RecordingDelegate delegate;
    app.setDelegate(&delegate);
    std::vector<std::string> posted;
    auto observation = NotificationCenter::defaultCenter().addObserver(
        "", &app, [&](const Notification& n) { posted.push_back(n.name); });

    app.sendEvent(Event { Event::Type::MenuItem, {}, "quit" });
    app.sendEvent(Event { Event::Type::MenuItem, {}, "activate" });
    EXPECT_EQ(delegate.calls, (std::vector<std::string> { "should-terminate", "did-become-active" }));
    EXPECT_EQ(posted, (std::vector<std::string> { ApplicationWillBecomeActiveNotification,
                                                  ApplicationDidBecomeActiveNotification }));

    {
        test::ScopedEnvironment environment;
        environment.set("VT_LOG", "1");
        readDebugLoggingSwitch();
        test::StderrCapture capture;
        app.sendEvent(Event { Event::Type::MenuItem, {}, "hide" });
        app.sendEvent(Event { Event::Type::MenuItem, {}, "no-such-action" });
        EXPECT_NE(capture.text().find("] event: menu-item hide\n"), std::string::npos) << capture.text();
        EXPECT_NE(capture.text().find("] hide\n"), std::string::npos) << capture.text();
    }
    readDebugLoggingSwitch();
    EXPECT_EQ(delegate.calls.size(), 2u) << "an unknown action does nothing";
    app.setDelegate(nullptr);
}

TEST(ApplicationEvents, HidingAndActivationPostEachChangeOnce)
{
    Application app;
    std::vector<std::string> posted;
    auto observation = NotificationCenter::defaultCenter().addObserver("", &app, [&](const Notification& n) {
        // "ApplicationWillHideNotification" -> "WillHide"
        posted.push_back(n.name.substr(11, n.name.size() - 11 - 12));
    });
    auto take = [&] { return std::exchange(posted, {}); };
    using Names = std::vector<std::string>;

    app.hide();
    app.hide();
    EXPECT_EQ(take(), (Names { "WillHide", "DidHide" })) << "an inactive launcher has no activation to resign";
    app.unhideWithoutActivation();
    app.unhideWithoutActivation();
    app.unhide();
    EXPECT_EQ(take(), (Names { "WillUnhide", "DidUnhide" })) << "unhiding a shown launcher does nothing";

    app.activateIgnoringOtherApps();
    app.activateIgnoringOtherApps();
    EXPECT_EQ(take(), (Names { "WillBecomeActive", "DidBecomeActive", "WillBecomeActive", "DidBecomeActive" }));
    app.hide();
    EXPECT_EQ(take(), (Names { "WillResignActive", "DidResignActive", "WillHide", "DidHide" }));
    app.unhide();
    EXPECT_EQ(take(), (Names { "WillUnhide", "DidUnhide", "WillBecomeActive", "DidBecomeActive" }));
    EXPECT_TRUE(app.isActive());
    app.resignActive();
    app.resignActive();
    EXPECT_EQ(take(), (Names { "WillResignActive", "DidResignActive" }));
    EXPECT_FALSE(app.isActive());
    EXPECT_FALSE(app.isHidden());
}

namespace {
// Holds launching as the launcher's delegate does while start-up waits.
class WaitingDelegate : public RecordingDelegate {
public:
    explicit WaitingDelegate(Application& app) : m_app(app) {}
    void applicationWillFinishLaunching() override
    {
        calls.push_back("will-finish-launching");
        m_app.holdLaunching();
    }
    void applicationDidFinishLaunching() override { calls.push_back("did-finish-launching"); }
    bool applicationShouldOpenUntitledFile(Application&) override
    {
        calls.push_back("open-untitled");
        return false;
    }
    void openFiles(Application&, const std::vector<std::string>& paths) override
    {
        calls.push_back("open-files " + paths.at(0));
    }
    bool applicationShouldHandleReopen(Application&, bool) override
    {
        calls.push_back("reopen");
        return false;
    }

private:
    Application& m_app;
};
} // namespace

TEST(ApplicationEvents, WhileLaunchingWaitsEventsAreHeldInOrderAndAQuitIsAskedAtOnce)
{
    Application app;
    WaitingDelegate delegate(app);
    app.setDelegate(&delegate);
    auto observation = NotificationCenter::defaultCenter().addObserver(
        ApplicationDidUpdateNotification, &app, [&](const Notification&) { delegate.calls.push_back("update"); });

    app.finishLaunching({ Event { Event::Type::OpenUntitled, {}, {} } });
    EXPECT_TRUE(app.isLaunching());
    // A second launch with a file, then one without, then a quit signal
    // (refused by this delegate) and the menu's quit.
    app.sendEventsFromMainLoop({ Event { Event::Type::OpenFiles, { "/a.txt" }, {} } });
    app.sendEventsFromMainLoop({ Event { Event::Type::Reopen, {}, {} }, Event { Event::Type::Activate, {}, {} } });
    app.sendEventsFromMainLoop({ Event { Event::Type::QuitRequest, {}, {} } });
    app.sendEventsFromMainLoop({ Event { Event::Type::MenuItem, {}, "quit" } });
    EXPECT_EQ(delegate.calls, (std::vector<std::string> { "will-finish-launching", "should-terminate",
                                                          "should-terminate" }))
        << "quits at once, ending no turn; everything else waits";

    delegate.calls.clear();
    app.continueLaunching();
    EXPECT_FALSE(app.isLaunching());
    EXPECT_EQ(delegate.calls,
              (std::vector<std::string> { "open-untitled", "did-finish-launching", "did-become-active", "update",
                                          "open-files /a.txt", "update", "reopen", "did-become-active", "update" }));
    app.setDelegate(nullptr);
}
