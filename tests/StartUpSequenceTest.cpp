// The start-up waits as a state machine, driven by literal sequences of what
// the bus and the timers report.
#include <gtest/gtest.h>

#include "app/StartUpSequence.hpp"

using vt::StartUpSequence;
using Action = StartUpSequence::Action;
using State = StartUpSequence::State;
using Actions = std::vector<Action>;

TEST(StartUpSequence, FindsTheServerWaitsForTheBottleAndFinishes)
{
    StartUpSequence s;
    EXPECT_EQ(s.start(), (Actions { Action::LookUpHelperServer }));
    EXPECT_EQ(s.helperServerLookedUp(false), (Actions { Action::ShowThatItWaits, Action::StartTimer }));
    EXPECT_EQ(s.state(), State::WaitingToLookAgain);
    EXPECT_EQ(s.timerFired(), (Actions { Action::LookUpHelperServer }));
    EXPECT_EQ(s.attempts(), 2);
    EXPECT_EQ(s.helperServerLookedUp(true), (Actions { Action::AskWhetherBottleIsReady }));
    // Not ready, again and again: no limit.
    for (int poll = 0; poll < 100; ++poll) {
        ASSERT_EQ(s.bottleAnswered(false), (Actions { Action::ShowThatItWaits, Action::StartTimer }));
        ASSERT_EQ(s.state(), State::WaitingToAskAgain);
        ASSERT_EQ(s.timerFired(), (Actions { Action::AskWhetherBottleIsReady }));
    }
    EXPECT_EQ(s.bottleAnswered(true), (Actions { Action::FinishStartUp }));
    EXPECT_EQ(s.state(), State::Ready);
    EXPECT_TRUE(s.isOver());
}

TEST(StartUpSequence, GivesUpAfterTheTenthAttemptsOwnWait)
{
    StartUpSequence s;
    s.start();
    for (int attempt = 1; attempt < StartUpSequence::kHelperServerAttempts; ++attempt) {
        ASSERT_EQ(s.helperServerLookedUp(false), (Actions { Action::ShowThatItWaits, Action::StartTimer }));
        ASSERT_EQ(s.timerFired(), (Actions { Action::LookUpHelperServer }));
    }
    EXPECT_EQ(s.attempts(), 10);
    // The last failed attempt waits too, before the launcher gives up.
    EXPECT_EQ(s.helperServerLookedUp(false), (Actions { Action::ShowThatItWaits, Action::StartTimer }));
    EXPECT_EQ(s.timerFired(), (Actions { Action::GiveUpNoHelperServer }));
    EXPECT_EQ(s.state(), State::NoHelperServer);
    EXPECT_TRUE(s.isOver());
}

TEST(StartUpSequence, AServerThatFailsTheBottleQuestionIsGone)
{
    StartUpSequence s;
    s.start();
    s.helperServerLookedUp(true);
    s.bottleAnswered(false);
    s.timerFired();
    EXPECT_EQ(s.bottleAnswered(std::nullopt), (Actions { Action::GiveUpHelperServerGone }));
    EXPECT_EQ(s.state(), State::HelperServerGone);
}

TEST(StartUpSequence, InputThatDoesNotFitTheStateChangesNothing)
{
    StartUpSequence s;
    // Before it starts, and answers nobody asked for.
    EXPECT_TRUE(s.timerFired().empty());
    EXPECT_TRUE(s.bottleAnswered(true).empty());
    EXPECT_TRUE(s.helperServerLookedUp(true).empty());
    EXPECT_EQ(s.state(), State::NotStarted);
    s.start();
    EXPECT_TRUE(s.start().empty()) << "started once";
    EXPECT_TRUE(s.timerFired().empty()) << "a look-up is in flight, no timer";
    EXPECT_TRUE(s.bottleAnswered(true).empty());
    s.helperServerLookedUp(true);
    EXPECT_TRUE(s.helperServerLookedUp(false).empty()) << "a late look-up answer";
    EXPECT_EQ(s.bottleAnswered(true), (Actions { Action::FinishStartUp }));
    // Final: nothing moves it on.
    EXPECT_TRUE(s.timerFired().empty());
    EXPECT_TRUE(s.bottleAnswered(std::nullopt).empty());
    EXPECT_EQ(s.state(), State::Ready);
}
