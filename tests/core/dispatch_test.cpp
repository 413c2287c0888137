#include <gtest/gtest.h>

#include <atomic>
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

// The order of delayed jobs, and of the main queue's jobs, is the queue's own; here, that the
// dispatchers hand each job to the right queue with its deadline.
TEST(ZulDispatchCustomTest, SameLabelMakesDistinctQueuesAndDelayedWorkRunsNoEarlierThanItsDeadlineAfterTheDispatcherIsGone) {
    auto first = zul::ZulDispatchCustom::create("test.same");
    auto second = zul::ZulDispatchCustom::create("test.same");
    EXPECT_NE(first->queue(), second->queue());

    std::atomic<bool> ran{false};
    std::atomic<bool> early{false};
    const auto deadline = zul::dispatchTimeAfter(0.03);
    first->async(deadline, [&] {
        early = zul::DispatchClock::now() < deadline;
        ran = true;
    });
    first.reset();
    EXPECT_TRUE(zul::test::waitUntil([&] { return ran.load(); }));
    EXPECT_FALSE(early.load());
}

TEST(ZulDispatchMainTest, JobsRunOnTheThreadRunningTheMainLoop) {
    std::shared_ptr<zul::Dispatcher> dispatcher = zul::ZulDispatchMain::create();
    std::vector<std::thread::id> threads;  // touched only on the main thread
    std::thread([&] {
        dispatcher->async([&] { threads.push_back(std::this_thread::get_id()); });
        dispatcher->async(zul::dispatchTimeAfter(0.01), [&] { threads.push_back(std::this_thread::get_id()); });
    }).join();
    ASSERT_TRUE(zul::MainLoop::runUntil([&] { return threads.size() == 2; }, 10s));
    EXPECT_EQ(threads, std::vector(2, std::this_thread::get_id()));
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
