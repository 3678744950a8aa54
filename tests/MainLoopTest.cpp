#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/MainLoop.hpp"
#include "base/NotificationCenter.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace std::chrono_literals;
using vt::test::waitUntil;

TEST(MainQueue, WorkerGetsResultComputedOnMainThread)
{
    std::atomic<int> answer { 0 };
    bool ranOnMain = false;
    std::thread worker([&] {
        answer = vt::runOnMainAndWait([&] {
            ranOnMain = vt::isMainThread();
            return 42;
        });
    });
    EXPECT_TRUE(waitUntil([&] { return answer != 0; }));
    worker.join();
    EXPECT_EQ(answer, 42);
    EXPECT_TRUE(ranOnMain);
}

TEST(MainQueue, ExceptionReachesTheWaitingWorker)
{
    std::string caught;
    std::atomic<bool> done { false };
    std::thread worker([&] {
        try {
            vt::runOnMainAndWait([]() -> int { throw std::runtime_error("refused"); });
        } catch (const std::exception& e) {
            caught = e.what();
        }
        done = true;
    });
    EXPECT_TRUE(waitUntil([&] { return done.load(); }));
    worker.join();
    EXPECT_EQ(caught, "refused");
}

TEST(MainQueue, OnMainThreadRunsAtOnce)
{
    EXPECT_TRUE(vt::isMainThread());
    EXPECT_EQ(vt::runOnMainAndWait([] { return 7; }), 7);
}

TEST(MainQueue, KeepsOrderAcrossManyPosts)
{
    std::vector<int> order;
    std::thread worker([&] {
        for (int i = 0; i < 100; ++i)
            vt::runOnMain([&order, i] { order.push_back(i); });
    });
    worker.join();
    EXPECT_TRUE(waitUntil([&] { return order.size() == 100; }));
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(order[i], i);
}

TEST(DelayedCalls, RunInDueOrderAndOnlyOnce)
{
    vt::DelayedCalls calls;
    std::vector<std::string> ran;
    calls.schedule(30ms, [&] { ran.push_back("late"); });
    calls.schedule(1ms, [&] { ran.push_back("early"); });
    EXPECT_EQ(calls.pending(), 2u);
    EXPECT_TRUE(waitUntil([&] { return ran.size() == 2; }));
    EXPECT_EQ(ran, (std::vector<std::string> { "early", "late" }));
    EXPECT_EQ(calls.pending(), 0u);
}

TEST(DelayedCalls, CancelAllStopsPendingCalls)
{
    bool ran = false;
    {
        vt::DelayedCalls calls;
        calls.schedule(1ms, [&] { ran = true; });
        calls.cancelAll();
        EXPECT_EQ(calls.pending(), 0u);
    }
    {
        vt::DelayedCalls calls;
        calls.schedule(1ms, [&] { ran = true; });
    } // destroyed with its owner
    bool marker = false;
    vt::DelayedCalls later;
    later.schedule(20ms, [&] { marker = true; });
    EXPECT_TRUE(waitUntil([&] { return marker; }));
    EXPECT_FALSE(ran);
}

TEST(DelayedCalls, CallMayCancelOthersAndScheduleMore)
{
    vt::DelayedCalls calls;
    std::vector<std::string> ran;
    calls.schedule(1ms, [&] {
        ran.push_back("first");
        calls.cancelAll();
        calls.schedule(1ms, [&] { ran.push_back("rescheduled"); });
    });
    calls.schedule(15ms, [&] { ran.push_back("cancelled"); });
    EXPECT_TRUE(waitUntil([&] { return ran.size() == 2; }));
    bool settled = false;
    vt::TimeoutSource settle("settle", 40ms, [&] { return !(settled = true); });
    EXPECT_TRUE(waitUntil([&] { return settled; }));
    EXPECT_EQ(ran, (std::vector<std::string> { "first", "rescheduled" }));
}

TEST(TimeoutSource, RepeatsUntilItAnswersFalseAndMayDestroyItself)
{
    int ticks = 0;
    vt::TimeoutSource repeating("repeat", 1ms, [&] { return ++ticks < 3; });
    EXPECT_TRUE(waitUntil([&] { return !repeating.isActive(); }));
    EXPECT_EQ(ticks, 3);

    auto self = std::make_unique<vt::TimeoutSource>();
    bool fired = false;
    *self = vt::TimeoutSource("self-destroying", 1ms, [&] {
        fired = true;
        self.reset();
        return true;
    });
    EXPECT_TRUE(waitUntil([&] { return fired && !self; }));
}

// Wine, inside the launcher, ends the process with exit() on its own thread
// while other threads may still post: what they post into must still be
// whole when the static destructors have run.
TEST(MainQueue, ThreadsThatPostWhileTheProcessExitsFindTheQueueAndTheCentreWhole)
{
    EXPECT_EXIT(
        {
            std::atomic<bool> posting { false };
            for (int i = 0; i < 2; ++i) {
                std::thread([&posting] {
                    for (;;) {
                        vt::runOnMain([] {});
                        vt::NotificationCenter::defaultCenter().post("vt test notice", nullptr);
                        posting = true;
                    }
                }).detach();
            }
            while (!posting)
                std::this_thread::yield();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}
