#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/wait.hpp"
#include "zul/platform/dispatch_source.hpp"

namespace {

using namespace std::chrono_literals;
using zul::DispatchQueue;
using zul::DispatchSourceTimer;

TEST(DispatchSourceTimerTest, OneShotFiresOnceOnItsQueueOnlyAfterResume) {
    auto queue = DispatchQueue::create("test.timer.once");
    auto timer = DispatchSourceTimer::create(queue);
    std::atomic<int> fired{0};
    std::atomic<bool> onQueue{false};
    timer->setEventHandler([&] {
        onQueue = queue->isCurrent();
        fired.fetch_add(1);
    });
    timer->schedule(zul::dispatchTimeAfter(0.02));
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(fired.load(), 0);  // still suspended

    timer->resume();  // the deadline has passed: fires at once
    ASSERT_TRUE(zul::test::waitUntil([&] { return fired.load() == 1; }));
    EXPECT_TRUE(onQueue);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(fired.load(), 1);
}

TEST(DispatchSourceTimerTest, RepeatingTimerFiresUntilCancelledAndAClearedHandlerDoesNothing) {
    auto queue = DispatchQueue::create("test.timer.repeat");
    auto timer = DispatchSourceTimer::create(queue);
    std::atomic<int> fired{0};
    timer->setEventHandler([&] { fired.fetch_add(1); });
    timer->schedule(zul::DispatchClock::now(), 5ms, 1ms);
    timer->resume();
    timer->resume();  // a second resume changes nothing
    ASSERT_TRUE(zul::test::waitUntil([&] { return fired.load() >= 3; }));

    timer->setEventHandler(nullptr);
    queue->sync([] {});  // a delivery in flight finishes first
    const int afterClear = fired.load();
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(fired.load(), afterClear);

    std::atomic<int> second{0};
    timer->setEventHandler([&] { second.fetch_add(1); });
    ASSERT_TRUE(zul::test::waitUntil([&] { return second.load() >= 2; }));
    timer->cancel();
    EXPECT_TRUE(timer->isCancelled());
    queue->sync([] {});
    const int afterCancel = second.load();
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(second.load(), afterCancel);
    timer->resume();  // a cancelled timer stays cancelled
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(second.load(), afterCancel);
}

TEST(DispatchSourceTimerTest, SlowHandlersCoalesceFiringsInsteadOfQueueingThem) {
    auto queue = DispatchQueue::create("test.timer.slow");
    auto timer = DispatchSourceTimer::create(queue);
    std::atomic<int> fired{0};
    timer->setEventHandler([&] {
        fired.fetch_add(1);
        std::this_thread::sleep_for(50ms);
    });
    timer->schedule(zul::DispatchClock::now(), 2ms);
    timer->resume();
    std::this_thread::sleep_for(200ms);
    timer->cancel();
    queue->sync([] {});
    // About 100 periods went by while the handler could run about four times.
    EXPECT_GE(fired.load(), 1);
    EXPECT_LE(fired.load(), 8);
}

TEST(DispatchSourceTimerTest, ReschedulingReplacesThePendingFiringAndDroppingCancels) {
    auto queue = DispatchQueue::create("test.timer.reschedule");
    std::atomic<int> fired{0};
    {
        auto timer = DispatchSourceTimer::create(queue);
        timer->setEventHandler([&] { fired.fetch_add(1); });
        timer->schedule(zul::dispatchTimeAfter(0.03));
        timer->resume();
        timer->schedule(zul::dispatchTimeAfter(30.0));  // replaces the firing due in 30 ms
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(fired.load(), 0);
        timer->schedule(zul::DispatchClock::now(), 5ms);
        ASSERT_TRUE(zul::test::waitUntil([&] { return fired.load() >= 1; }));
    }
    // The last reference is gone: the timer stops.
    queue->sync([] {});
    const int afterDrop = fired.load();
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(fired.load(), afterDrop);
}

}  // namespace
