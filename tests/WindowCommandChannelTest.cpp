// The window-command channel: request lines, answers read as one piece, and
// a real tool process at the other end of the pipes.
#include <csignal>

#include <gtest/gtest.h>

#include "integration/WindowCommandChannel.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;
using vt::test::waitUntil;

TEST(WindowCommandAnswers, OnlyTheCommandsOwnIdentifierWithOneNumberCounts)
{
    const std::string id = "helperDelegateCommand0";
    EXPECT_EQ(parseWindowCommandAnswer("helperDelegateCommand0:1", id), true);
    EXPECT_EQ(parseWindowCommandAnswer("helperDelegateCommand0:2\n", id), true);
    EXPECT_EQ(parseWindowCommandAnswer("helperDelegateCommand0: 7 windows", id), true);
    EXPECT_EQ(parseWindowCommandAnswer("helperDelegateCommand0:0\n", id), false);
    EXPECT_EQ(parseWindowCommandAnswer("helperDelegateCommand0:none", id), false) << "no number reads as 0";

    for (const char* mismatch : { "", "helperDelegateCommand1:1", "helperDelegateCommand0:1:x", "helperDelegateCommand0",
                                  "helperDelegateCommand0:1\nhelperDelegateCommand1:1\n", " helperDelegateCommand0:1",
                                  "helperDelegateCommand00:1" })
        EXPECT_EQ(parseWindowCommandAnswer(mismatch, id), std::nullopt) << mismatch;
}

TEST(WindowCommandRequests, CarryTagIdentifierAndTextAsTheyStand)
{
    EXPECT_EQ(windowCommandRequest(4242, "helperDelegateCommand0", "haswindows"),
              "-t 4242 -c helperDelegateCommand0 -a haswindows\n");
    EXPECT_EQ(activateSystrayCommand(TrayIconEntry { {}, 1, 65636, 1025 }), "activatesystray -h 65636 -m 1025 -s 1");
    EXPECT_EQ(windowCommandToolArguments("Office"),
              (std::vector<std::string> { "--bottle", "Office", "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" }));
    EXPECT_TRUE(windowCommandToolArguments(std::nullopt).size() == 1u) << "the list ends at the missing bottle";
}

TEST(WindowCommandChannel, AToolThatGoesAwayRefusesEveryLaterCommandWithoutAWrite)
{
    test::TempDir dir;
    int ended = 0;
    WindowCommandChannel channel([&] { ++ended; });
    EXPECT_FALSE(channel.sendMessageToTaggedWindows("haswindows")) << "no tool yet";

    // Answers the first request, records every byte it was sent, then leaves.
    auto tool = std::make_unique<VTTask>();
    tool->setLaunchPath("/bin/sh");
    tool->setArguments({ "-c", "read line; printf '%s\\n' \"$line\" > \"$0\"; echo helperDelegateCommand0:1; "
                               "cat >> \"$0\"",
                         (dir / "received").string() });
    ASSERT_TRUE(channel.start(std::move(tool)));
    EXPECT_TRUE(channel.sendMessageToTaggedWindows("haswindows"));
    EXPECT_EQ(test::readFile(dir / "received"),
              "-t " + std::to_string(windowTag()) + " -c helperDelegateCommand0 -a haswindows\n");

    // The tool leaves when its input ends; kill it the hard way to be sure
    // the channel notices an end it did not cause.
    kill(channel.task()->processIdentifier(), SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return ended == 1; }));
    EXPECT_EQ(channel.task(), nullptr);
    EXPECT_FALSE(channel.sendMessageToTaggedWindows("close"));
    EXPECT_EQ(ended, 1);
}

TEST(WindowCommandChannel, AToolThatCannotRunLeavesNoChannel)
{
    WindowCommandChannel channel([] {});
    auto tool = std::make_unique<VTTask>();
    tool->setLaunchPath("/nonexistent/wine");
    test::StderrCapture capture;
    EXPECT_FALSE(channel.start(std::move(tool)));
    EXPECT_NE(capture.text().find("Cannot start the window-command tool: cannot launch '/nonexistent/wine'"),
              std::string::npos);
    EXPECT_FALSE(channel.sendMessageToTaggedWindows("close"));
}
