#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/NotificationCenter.hpp"

using vt::Notification;
using vt::NotificationCenter;

namespace {
int senderA, senderB, observer1, observer2;
}

TEST(NotificationCenter, MatchesByNameAndObject)
{
    NotificationCenter center;
    std::vector<std::string> seen;
    center.addObserver(&observer1, "Ping", &senderA, [&](const Notification& n) { seen.push_back("exact:" + n.name); });
    center.addObserver(&observer1, "Ping", nullptr, [&](const Notification& n) { seen.push_back("any-object:" + n.name); });
    center.addObserver(&observer2, "", &senderA, [&](const Notification& n) { seen.push_back("any-name:" + n.name); });

    center.post("Ping", &senderA);
    center.post("Ping", &senderB);
    center.post("Pong", &senderA);
    center.post("Pong", &senderB);

    EXPECT_EQ(seen, (std::vector<std::string> { "exact:Ping", "any-object:Ping", "any-name:Ping",
                                                "any-object:Ping", "any-name:Pong" }));
}

TEST(NotificationCenter, CarriesUserInfo)
{
    NotificationCenter center;
    std::string architecture;
    center.addObserver(&observer1, "Rejected", nullptr, [&](const Notification& n) {
        architecture = std::any_cast<std::string>(n.userInfo.at("Arch"));
    });
    center.post("Rejected", &senderA, { { "Arch", std::string("i386") } });
    EXPECT_EQ(architecture, "i386");
}

TEST(NotificationCenter, RemovesAllOrByNameOrByObject)
{
    NotificationCenter center;
    int calls = 0;
    auto count = [&](const Notification&) { ++calls; };
    center.addObserver(&observer1, "A", &senderA, count);
    center.addObserver(&observer1, "A", &senderB, count);
    center.addObserver(&observer1, "B", &senderA, count);
    center.addObserver(&observer2, "A", &senderA, count);

    center.removeObserver(&observer1, "A", &senderB);
    EXPECT_EQ(center.observationCount(&observer1), 2u);
    center.removeObserver(&observer1, "", &senderA); // every name from senderA
    EXPECT_EQ(center.observationCount(&observer1), 0u);

    center.post("A", &senderA);
    EXPECT_EQ(calls, 1); // observer2 only

    center.removeObserver(&observer2);
    center.post("A", &senderA);
    EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, ObserverRemovedDuringPostIsNotCalled)
{
    NotificationCenter center;
    bool secondCalled = false;
    center.addObserver(&observer1, "N", nullptr, [&](const Notification&) { center.removeObserver(&observer2); });
    center.addObserver(&observer2, "N", nullptr, [&](const Notification&) { secondCalled = true; });
    center.post("N", nullptr);
    EXPECT_FALSE(secondCalled);
}

TEST(NotificationCenter, HandlerMayRemoveItselfAndPostAgain)
{
    NotificationCenter center;
    int calls = 0;
    center.addObserver(&observer1, "N", nullptr, [&](const Notification&) {
        ++calls;
        center.removeObserver(&observer1);
        center.post("N", nullptr);
    });
    center.post("N", nullptr);
    EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, DeliversOnThePostingThreadUnderConcurrentUse)
{
    NotificationCenter center;
    std::atomic<int> delivered { 0 };
    std::atomic<int> wrongThread { 0 };
    thread_local std::thread::id poster;
    center.addObserver(&observer1, "N", nullptr, [&](const Notification&) {
        if (std::this_thread::get_id() != poster)
            ++wrongThread;
        ++delivered;
    });

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            poster = std::this_thread::get_id();
            int mine;
            for (int i = 0; i < 500; ++i) {
                center.addObserver(&mine, "Other", nullptr, [](const Notification&) {});
                center.post("N", &center);
                center.removeObserver(&mine);
            }
            (void)t;
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(delivered.load(), 2000);
    EXPECT_EQ(wrongThread.load(), 0);
    EXPECT_EQ(center.observationCount(&observer1), 1u);
}
