#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/wait.hpp"
#include "zul/platform/dispatch_queue.hpp"

namespace {

using namespace std::chrono_literals;
using zul::DispatchQueue;

// Records whether two jobs of a serial context ever overlap.
struct OverlapProbe {
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    void enter() {
        if (inside.fetch_add(1) != 0) overlapped = true;
        std::this_thread::yield();
    }
    void leave() { inside.fetch_sub(1); }
};

TEST(DispatchQueueTest, SerialQueueRunsJobsOneAtATimeInSubmissionOrderFromAnyNumberOfThreads) {
    auto queue = DispatchQueue::create("test.order");
    EXPECT_TRUE(queue->isSerial());
    EXPECT_EQ(queue->qos(), zul::QualityOfService::unspecified);

    constexpr int kJobs = 20000;
    std::vector<int> order;  // touched only by the queue's jobs
    OverlapProbe probe;
    for (int i = 0; i < kJobs; ++i) {
        queue->async([&, i] {
            probe.enter();
            order.push_back(i);
            probe.leave();
        });
    }
    queue->sync([] {});  // runs after them all, and publishes `order` to this thread
    ASSERT_EQ(order.size(), static_cast<std::size_t>(kJobs));
    for (int i = 0; i < kJobs; ++i) ASSERT_EQ(order[static_cast<std::size_t>(i)], i);

    // Sync and async jobs from several threads at once: still one at a time, and none lost.
    long counter = 0;  // unsynchronised on purpose: only the queue's jobs touch it
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                auto job = [&] {
                    probe.enter();
                    ++counter;
                    probe.leave();
                };
                if (i % 3 == 0) queue->sync(job);
                else queue->async(job);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(queue->sync([&] { return counter; }), kThreads * kRounds);
    EXPECT_FALSE(probe.overlapped);
}

TEST(DispatchQueueTest, SyncRunsAfterEarlierJobsReturnsItsValueRethrowsAndNests) {
    auto queue = DispatchQueue::create("test.sync");
    std::vector<int> seen;
    std::latch gate(1);
    queue->async([&] {
        gate.wait();  // keeps the queue busy until the sync below is waiting
        seen.push_back(1);
    });
    queue->async([&] { seen.push_back(2); });
    std::thread release([&] {
        std::this_thread::sleep_for(20ms);
        gate.count_down();
    });
    const std::size_t observed = queue->sync([&] {
        EXPECT_TRUE(queue->isCurrent());
        return seen.size();
    });
    release.join();
    EXPECT_EQ(observed, 2u);
    EXPECT_FALSE(queue->isCurrent());

    EXPECT_THROW(queue->sync([]() -> int { throw std::runtime_error("inside"); }), std::runtime_error);
    // The queue is usable after a job threw out of sync.
    EXPECT_EQ(queue->sync([] { return 5; }), 5);

    // A sync onto another queue from inside a job: both are current there.
    auto inner = DispatchQueue::create("test.inner");
    EXPECT_TRUE(queue->sync([&] { return inner->sync([&] { return queue->isCurrent() && inner->isCurrent(); }); }));
}

TEST(DispatchQueueTest, QueuesTargetingASerialQueueAreSerialisedWithIt) {
    auto target = DispatchQueue::create("test.target");
    auto first = DispatchQueue::create("test.child.1", zul::QualityOfService::utility, target);
    auto second = DispatchQueue::create("test.child.2", zul::QualityOfService::utility, target);
    OverlapProbe probe;
    std::atomic<int> done{0};
    std::atomic<bool> targetWasCurrent{true};
    constexpr int kJobs = 3000;
    for (int i = 0; i < kJobs; ++i) {
        auto job = [&] {
            probe.enter();
            if (!target->isCurrent()) targetWasCurrent = false;
            probe.leave();
            done.fetch_add(1);
        };
        (i % 3 == 0 ? first : i % 3 == 1 ? second : target)->async(job);
    }
    EXPECT_EQ(first->sync([&] { return target->isCurrent(); }), true);
    ASSERT_TRUE(zul::test::waitUntil([&] { return done.load() == kJobs; }));
    EXPECT_FALSE(probe.overlapped);
    EXPECT_TRUE(targetWasCurrent);
}

TEST(DispatchQueueTest, AsyncAfterRunsInDeadlineOrderNeverEarlyPastDeadlinesAtOnceAndKeepsTheQueueAlive) {
    std::vector<int> order;  // touched only by the queue's jobs, read once `ran` says they are done
    std::vector<bool> early;
    std::atomic<int> ran{0};
    std::atomic<bool> pastRan{false};
    std::weak_ptr<DispatchQueue> weak;
    {
        auto queue = DispatchQueue::create("test.after");  // dropped at once: its work keeps it
        weak = queue;
        const auto start = zul::DispatchClock::now();
        for (int delay : {90, 30, 60}) {
            const auto deadline = start + std::chrono::milliseconds(delay);
            queue->asyncAfter(deadline, [&, delay, deadline] {
                order.push_back(delay);
                early.push_back(zul::DispatchClock::now() < deadline);
                ran.fetch_add(1);
            });
        }
        queue->asyncAfter(start - 1s, [&] { pastRan = true; });
    }
    ASSERT_TRUE(zul::test::waitUntil([&] { return pastRan.load(); }));
    ASSERT_TRUE(zul::test::waitUntil([&] { return ran.load() == 3; }));
    EXPECT_EQ(order, (std::vector<int>{30, 60, 90}));
    EXPECT_EQ(early, (std::vector<bool>{false, false, false}));
    EXPECT_TRUE(zul::test::waitUntil([&] { return weak.expired(); }));
}

TEST(DispatchQueueTest, GlobalQueuesRunJobsSideBySideAndSyncOnTheCallingThread) {
    const auto& global = DispatchQueue::global();
    EXPECT_FALSE(global->isSerial());
    EXPECT_EQ(DispatchQueue::global(zul::QualityOfService::unspecified), global);
    EXPECT_EQ(DispatchQueue::global(zul::QualityOfService::utility)->qos(), zul::QualityOfService::utility);

    // Each job waits for the other: they complete only if they run at the same time.
    std::latch both(2);
    std::atomic<int> finished{0};
    for (int i = 0; i < 2; ++i) {
        global->async([&] {
            both.arrive_and_wait();
            finished.fetch_add(1);
        });
    }
    ASSERT_TRUE(zul::test::waitUntil([&] { return finished.load() == 2; }));

    const auto caller = std::this_thread::get_id();
    EXPECT_EQ(global->sync([] { return std::this_thread::get_id(); }), caller);
}

TEST(DispatchQueueDeathTest, SyncOntoTheQueueRunningTheCallerOrAnEscapingExceptionStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto queue = DispatchQueue::create("test.deadlock");
    EXPECT_DEATH(queue->sync([&] { queue->sync([] {}); }),
                 "Fatal error: DispatchQueue::sync called on queue \"test.deadlock\", which the current thread is "
                 "already running: it would wait forever");
    auto child = DispatchQueue::create("test.deadlock.child", zul::QualityOfService::unspecified, queue);
    EXPECT_DEATH(queue->sync([&] { child->sync([] {}); }), "called on queue \"test.deadlock.child\"");

    EXPECT_DEATH(
        {
            DispatchQueue::create("test.throws")->async([] { throw std::runtime_error("boom"); });
            std::this_thread::sleep_for(10s);
        },
        "Fatal error: uncaught exception in a job of queue \"test.throws\": boom");
}

}  // namespace
