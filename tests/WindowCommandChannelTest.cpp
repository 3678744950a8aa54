// The window-command channel: request lines, answers read as one piece, and
// a real tool process at the other end of the pipes.
#include <csignal>
#include <optional>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "base/MainLoop.hpp"
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

namespace {
// Sends one command and runs the main loop until its answer has come.
std::optional<bool> sendAndWait(WindowCommandChannel& channel, const std::string& text)
{
    std::optional<bool> answer;
    channel.sendMessageToTaggedWindows(text, [&](bool confirmed) { answer = confirmed; });
    EXPECT_FALSE(answer) << "answers come from the main loop, never inside the call";
    waitUntil([&] { return answer.has_value(); });
    return answer;
}
} // namespace

TEST(WindowCommandChannel, AToolThatGoesAwayRefusesEveryLaterCommandWithoutAWrite)
{
    test::TempDir dir;
    int ended = 0;
    WindowCommandChannel channel([&] { ++ended; });
    EXPECT_EQ(sendAndWait(channel, "haswindows"), false) << "no tool yet";

    // Answers the first request, records every byte it was sent, then leaves.
    auto tool = std::make_unique<VTTask>();
    tool->setLaunchPath("/bin/sh");
    tool->setArguments({ "-c", "read line; printf '%s\\n' \"$line\" > \"$0\"; echo helperDelegateCommand0:1; "
                               "cat >> \"$0\"",
                         (dir / "received").string() });
    ASSERT_TRUE(channel.start(std::move(tool)));
    EXPECT_EQ(sendAndWait(channel, "haswindows"), true);
    EXPECT_EQ(test::readFile(dir / "received"),
              "-t " + std::to_string(windowTag()) + " -c helperDelegateCommand0 -a haswindows\n");

    // The tool leaves when its input ends; kill it the hard way to be sure
    // the channel notices an end it did not cause.
    kill(channel.task()->processIdentifier(), SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return ended == 1; }));
    EXPECT_EQ(channel.task(), nullptr);
    EXPECT_EQ(sendAndWait(channel, "close"), false);
    EXPECT_EQ(ended, 1);
}

TEST(WindowCommandChannel, CommandsWaitForTheirTurnWithoutBlockingTheLoop)
{
    // The tool answers the first command only when told (a program asking its
    // user "Save changes?"), then every later one at once.
    test::TempDir dir;
    auto fifo = dir / "go";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    WindowCommandChannel channel([] {});
    auto tool = std::make_unique<VTTask>();
    tool->setLaunchPath("/bin/sh");
    tool->setArguments({ "-c",
                         "n=0; while read line; do [ $n = 0 ] && read go < \"$0\"; "
                         "echo helperDelegateCommand$n:$((n % 2 == 0)); n=$((n + 1)); done",
                         fifo.string() });
    ASSERT_TRUE(channel.start(std::move(tool)));
    std::vector<std::string> answers;
    for (const char* text : { "close", "queryendsession", "endsession" })
        channel.sendMessageToTaggedWindows(text, [&answers, text](bool confirmed) {
            answers.push_back(std::string(text) + (confirmed ? " yes" : " no"));
        });
    EXPECT_TRUE(channel.isBusy());
    // The loop turns (a timer fires) while the first answer is outstanding.
    bool ticked = false;
    TimeoutSource tick("test tick", std::chrono::milliseconds(50), [&] {
        ticked = true;
        return false;
    });
    ASSERT_TRUE(waitUntil([&] { return ticked; }));
    EXPECT_TRUE(answers.empty());
    test::writeFile(fifo, "go\n");
    ASSERT_TRUE(waitUntil([&] { return answers.size() == 3; }));
    EXPECT_EQ(answers, (std::vector<std::string> { "close yes", "queryendsession no", "endsession yes" }));
    EXPECT_FALSE(channel.isBusy());
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
    EXPECT_EQ(sendAndWait(channel, "close"), false);
}
