#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "support/wait.hpp"
#include "zul/core/dispatch.hpp"
#include "zul/platform/main_loop.hpp"

namespace {

using namespace std::chrono_literals;

TEST(ZulDispatchCustomTest, JobsFromManyThreadsNeverOverlapAndKeepEachThreadsOrder) {
    auto dispatcher = zul::ZulDispatchCustom::create("test.custom");
    EXPECT_EQ(dispatcher->queue()->label(), "test.custom");
    EXPECT_TRUE(dispatcher->queue()->isSerial());

    constexpr int kThreads = 4;
    constexpr int kJobs = 5000;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::vector<int>> seen(kThreads);  // touched only by the dispatcher's jobs
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kJobs; ++i) {
                dispatcher->async([&, t, i] {
                    if (inside.fetch_add(1) != 0) overlapped = true;
                    seen[static_cast<std::size_t>(t)].push_back(i);
                    inside.fetch_sub(1);
                });
            }
        });
    }
    for (auto& thread : threads) thread.join();
    dispatcher->queue()->sync([] {});  // after every job: the queue is serial
    EXPECT_FALSE(overlapped);
    std::vector<int> inOrder(kJobs);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (const auto& perThread : seen) EXPECT_EQ(perThread, inOrder);
}

TEST(ZulDispatchCustomTest, DelayedJobsRunInDeadlineOrderAndPastDeadlinesAtOnce) {
    auto dispatcher = zul::ZulDispatchCustom::create("test.custom.after");
    std::mutex mutex;
    std::vector<int> order;
    const auto now = zul::DispatchClock::now();
    for (int delay : {50, 10, 30, -5000}) {  // the last deadline is long past
        dispatcher->async(now + std::chrono::milliseconds(delay), [&, delay] {
            std::lock_guard lock(mutex);
            order.push_back(delay);
        });
    }
    ASSERT_TRUE(zul::test::waitUntil([&] {
        std::lock_guard lock(mutex);
        return order.size() == 4;
    }));
    std::lock_guard lock(mutex);
    EXPECT_EQ(order, (std::vector<int>{-5000, 10, 30, 50}));
}

TEST(ZulDispatchCustomTest, SameLabelMakesDistinctQueuesAndWorkOutlivesTheDispatcher) {
    auto first = zul::ZulDispatchCustom::create("test.same");
    auto second = zul::ZulDispatchCustom::create("test.same");
    EXPECT_NE(first->queue(), second->queue());

    std::atomic<bool> ran{false};
    first->async(zul::dispatchTimeAfter(0.03), [&] { ran = true; });
    first.reset();
    EXPECT_TRUE(zul::test::waitUntil([&] { return ran.load(); }));
}

TEST(ZulDispatchMainTest, JobsRunInOrderOnTheThreadRunningTheMainLoop) {
    std::shared_ptr<zul::Dispatcher> dispatcher = zul::ZulDispatchMain::create();
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    std::thread([&] {
        for (int i = 0; i < 50; ++i) {
            dispatcher->async([&, i] {
                order.push_back(i);
                threads.push_back(std::this_thread::get_id());
            });
        }
        dispatcher->async(zul::dispatchTimeAfter(0.01), [&] { order.push_back(50); });
    }).join();
    ASSERT_TRUE(zul::MainLoop::runUntil([&] { return order.size() == 51; }, 10s));
    for (int i = 0; i <= 50; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    for (const auto& id : threads) EXPECT_EQ(id, std::this_thread::get_id());
}

TEST(ZulDispatchTest, WrapsAnyQueue) {
    auto dispatcher = zul::ZulDispatch::create(zul::DispatchQueue::global(zul::QualityOfService::utility));
    std::atomic<bool> onGlobal{false};
    dispatcher->async([&] { onGlobal = zul::DispatchQueue::global(zul::QualityOfService::utility)->isCurrent(); });
    EXPECT_TRUE(zul::test::waitUntil([&] { return onGlobal.load(); }));
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
TEST(ZulDispatchDeathTest, TheQueueInitializersOfTheSubclassesStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zul::ZulDispatchMain::create(zul::DispatchQueue::main()),
                 "Fatal error: Use of unimplemented initializer 'init\\(queue:\\)' for class "
                 "'ZulFoundation\\.ZulDispatchMain'");
    EXPECT_DEATH(zul::ZulDispatchCustom::create(zul::DispatchQueue::global()),
                 "Fatal error: Use of unimplemented initializer 'init\\(queue:\\)' for class "
                 "'ZulFoundation\\.ZulDispatchCustom'");
}
#pragma GCC diagnostic pop

}  // namespace
