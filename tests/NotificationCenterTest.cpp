#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/NotificationCenter.hpp"

using namespace std::chrono_literals;
using vt::Notification;
using vt::NotificationCenter;
using vt::Observation;

namespace {
int senderA, senderB;
}

TEST(NotificationCenter, MatchesByNameAndObjectAndCarriesUserInfo)
{
    NotificationCenter center;
    std::vector<std::string> seen;
    auto exact = center.addObserver("Ping", &senderA, [&](const Notification& n) { seen.push_back("exact:" + n.name); });
    auto anyObject = center.addObserver("Ping", nullptr, [&](const Notification& n) {
        seen.push_back("any-object:" + n.userInfo.at("key"));
    });
    auto anyName = center.addObserver("", &senderA, [&](const Notification& n) { seen.push_back("any-name:" + n.name); });

    center.post("Ping", &senderA, { { "key", std::string("value") } });
    center.post("Pong", &senderA);
    center.post("Ping", &senderB, { { "key", std::string("b") } });
    EXPECT_EQ(seen, (std::vector<std::string> { "exact:Ping", "any-object:value", "any-name:Ping", "any-name:Pong",
                                                "any-object:b" }));
}

TEST(NotificationCenter, AnObservationEndsWithItsObjectOrByMoveAndReset)
{
    NotificationCenter center;
    int calls = 0;
    {
        auto scoped = center.addObserver("A", nullptr, [&](const Notification&) { ++calls; });
        center.post("A", nullptr);
    }
    center.post("A", nullptr);
    EXPECT_EQ(calls, 1);

    Observation kept = center.addObserver("A", nullptr, [&](const Notification&) { ++calls; });
    Observation moved = std::move(kept);
    center.post("A", nullptr);
    EXPECT_EQ(calls, 2);
    moved = center.addObserver("B", nullptr, [&](const Notification&) { calls += 10; });
    center.post("A", nullptr);
    EXPECT_EQ(calls, 2) << "assigning over an observation ends the old one";
    moved.reset();
    center.post("B", nullptr);
    EXPECT_EQ(calls, 2);
}

TEST(NotificationCenter, ObserverRemovedDuringAPostIsNotCalled)
{
    NotificationCenter center;
    bool secondCalled = false;
    Observation second;
    auto first = center.addObserver("N", nullptr, [&](const Notification&) { second.reset(); });
    second = center.addObserver("N", nullptr, [&](const Notification&) { secondCalled = true; });
    center.post("N", nullptr);
    EXPECT_FALSE(secondCalled);
}

TEST(NotificationCenter, HandlerMayRemoveItselfAndPostAgain)
{
    NotificationCenter center;
    int calls = 0;
    Observation self;
    self = center.addObserver("N", nullptr, [&](const Notification&) {
        ++calls;
        self.reset();
        center.post("N", nullptr);
    });
    center.post("N", nullptr);
    EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, RemovalOnAnotherThreadWaitsForARunningHandler)
{
    NotificationCenter center;
    std::promise<void> entered;
    std::atomic<bool> handlerFinished { false };
    std::atomic<int> calls { 0 };
    auto observation = center.addObserver("N", nullptr, [&](const Notification&) {
        if (++calls == 1)
            entered.set_value();
        // Widens the window in which the removal below must wait.
        std::this_thread::sleep_for(50ms);
        handlerFinished = true;
    });

    std::thread poster([&] { center.post("N", nullptr); });
    entered.get_future().wait();
    observation.reset();
    EXPECT_TRUE(handlerFinished) << "the removal returned while its handler still ran";
    poster.join();
    center.post("N", nullptr);
    EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, DeliversOnThePostingThreadUnderConcurrentUse)
{
    NotificationCenter center;
    std::atomic<int> delivered { 0 };
    std::atomic<int> wrongThread { 0 };
    thread_local std::thread::id poster;
    auto counting = center.addObserver("N", nullptr, [&](const Notification&) {
        if (std::this_thread::get_id() != poster)
            ++wrongThread;
        ++delivered;
    });

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            poster = std::this_thread::get_id();
            for (int i = 0; i < 500; ++i) {
                auto mine = center.addObserver("Other", nullptr, [](const Notification&) {});
                center.post("N", &center);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(delivered.load(), 2000);
    EXPECT_EQ(wrongThread.load(), 0);
}
