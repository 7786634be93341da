#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "TestKit.h"
#include "support/Event.h"
#include "support/EventObserver.h"
#include "support/NotificationCenter.h"

namespace pointlane {
namespace {

TEST(NotificationCenterTest, HandlerMayRemoveItsOwnRegistration) {
    NotificationCenter center;
    NotificationCenter::Token token;
    int calls = 0;
    token = center.addObserver("x", [&] {
        ++calls;
        center.removeObserver(token);  // must not wait for itself
    });
    center.post("x");
    center.post("x");
    EXPECT_EQ(calls, 1);
}

TEST(EventTest, ConvertsExactlyTheFourTexts) {
    EXPECT_EQ(eventFrom("gameTableDidChange"), Event::gameTableDidChange);
    EXPECT_EQ(eventFrom("electionTableDidChange"), Event::electionTableDidChange);
    EXPECT_EQ(eventFrom("GameTableDidChange"), std::nullopt);
    EXPECT_EQ(eventFrom(""), std::nullopt);
    EXPECT_EQ(toString(Event::playerTableDidChange), "playerTableDidChange");
}

struct CountingObserver : EventObserver {
    std::atomic<int> calls{0};
    ~CountingObserver() { removeObservers(); }
};

TEST(EventObserverTest, DeliversByNameOncePerRegistrationUntilRemoved) {
    CountingObserver observer;
    CountingObserver other;
    observer.registerEvent(Event::dealTableDidChange, [&] { ++observer.calls; });
    observer.registerEvent(Event::dealTableDidChange, [&] { ++observer.calls; });
    other.registerEvent(Event::gameTableDidChange, [&] { ++other.calls; });
    post(Event::dealTableDidChange);
    EXPECT_EQ(observer.calls, 2);  // both registrations ran before post returned
    EXPECT_EQ(other.calls, 0);
    post(Event::electionTableDidChange);  // nobody listens: nothing happens
    observer.removeObservers();
    EXPECT_TRUE(observer.observers.empty());
    post(Event::dealTableDidChange);
    EXPECT_EQ(observer.calls, 2);
    post(Event::gameTableDidChange);
    EXPECT_EQ(other.calls, 1);
}

// An observer destroyed on one thread while another thread keeps posting must never be touched
// after its destructor has removed its registration.
TEST(NotificationCenterConcurrencyTest, RemovalWaitsForARunningDelivery) {
    NotificationCenter center;
    std::atomic<bool> stop{false};
    std::atomic<int> delivered{0};
    std::thread poster([&] {
        while (!stop) {
            center.post("tick");
        }
    });
    for (int round = 0; round < 200; ++round) {
        auto alive = std::make_unique<std::atomic<int>>(0);
        auto* counter = alive.get();
        auto token = center.addObserver("tick", [counter, &delivered] {
            counter->fetch_add(1);
            std::this_thread::yield();
            counter->fetch_add(1);  // still inside the delivery: the counter must be alive
            ++delivered;
        });
        testkit::waitUntil([&] { return counter->load() > 0; }, std::chrono::seconds(5));
        center.removeObserver(token);
        const int seen = counter->load();
        EXPECT_EQ(seen % 2, 0) << "removal returned while a delivery was half done";
        alive.reset();  // ASan/TSan flag any later use
    }
    stop = true;
    poster.join();
    EXPECT_GT(delivered.load(), 0);
}

}  // namespace
}  // namespace pointlane
