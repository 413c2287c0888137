#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/wait.hpp"
#include "zul/platform/dispatch_source.hpp"

namespace {

using namespace std::chrono_literals;
using zul::DispatchQueue;
using zul::DispatchSourceTimer;

// Waits out a delivery in flight on `queue`, then checks that `count` stays as it is.
void expectNoMoreFirings(DispatchQueue& queue, const std::atomic<int>& count) {
    queue.sync([] {});
    const int before = count.load();
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(count.load(), before);
}

TEST(DispatchSourceTimerTest, OneShotFiresOnceOnItsQueueOnlyAfterResumeReschedulingReplacesItAndDroppingCancels) {
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

    timer->schedule(zul::dispatchTimeAfter(0.03));
    timer->schedule(zul::dispatchTimeAfter(30.0));  // replaces the firing due in 30 ms
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(fired.load(), 1);
    timer->schedule(zul::DispatchClock::now(), 5ms);
    ASSERT_TRUE(zul::test::waitUntil([&] { return fired.load() >= 2; }));
    timer.reset();  // the last reference: the timer stops
    expectNoMoreFirings(*queue, fired);
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
    expectNoMoreFirings(*queue, fired);

    std::atomic<int> second{0};
    timer->setEventHandler([&] { second.fetch_add(1); });
    ASSERT_TRUE(zul::test::waitUntil([&] { return second.load() >= 2; }));
    timer->cancel();
    EXPECT_TRUE(timer->isCancelled());
    timer->resume();  // a cancelled timer stays cancelled
    expectNoMoreFirings(*queue, second);
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

}  // namespace
