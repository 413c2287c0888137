#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>
#include <vector>

#include "zul/platform/dispatch_queue.hpp"
#include "zul/platform/main_loop.hpp"

namespace {

using namespace std::chrono_literals;
using zul::DispatchQueue;
using zul::MainLoop;

bool readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

TEST(MainLoopTest, MainJobsRunInOrderOnTheThreadRunningTheLoop) {
    const auto& main = DispatchQueue::main();
    EXPECT_TRUE(main->isSerial());
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    // Submitted from another thread, run on this one.
    std::thread submitter([&] {
        for (int i = 0; i < 100; ++i) {
            main->async([&, i] {
                order.push_back(i);
                threads.push_back(std::this_thread::get_id());
                EXPECT_TRUE(DispatchQueue::main()->isCurrent());
            });
        }
    });
    submitter.join();
    ASSERT_TRUE(MainLoop::runUntil([&] { return order.size() == 100; }, 10s));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    for (const auto& id : threads) EXPECT_EQ(id, std::this_thread::get_id());
    EXPECT_FALSE(main->isCurrent());
}

TEST(MainLoopTest, StopFromAJobEndsRun) {
    std::atomic<int> ran{0};
    DispatchQueue::main()->async([&] { ran = 1; });
    DispatchQueue::main()->asyncAfter(zul::dispatchTimeAfter(0.02), [&] {
        ran = 2;
        MainLoop::stop();
    });
    MainLoop::run();  // returns only through stop()
    EXPECT_EQ(ran.load(), 2);
}

TEST(MainLoopTest, HostsPumpTheLoopThroughItsFileDescriptor) {
    const int fd = MainLoop::fileDescriptor();
    MainLoop::drain();
    EXPECT_FALSE(MainLoop::drain());

    int ran = 0;
    std::thread([&] { DispatchQueue::main()->async([&] { ++ran; }); }).join();
    pollfd entry{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 5000), 1);
    EXPECT_EQ(ran, 0);  // nothing runs until the host drains
    EXPECT_TRUE(MainLoop::drain());
    EXPECT_EQ(ran, 1);
    EXPECT_FALSE(readable(fd));
}

TEST(MainLoopTest, SyncFromAnotherThreadAndQueuesTargetingTheMainQueueRunOnTheMainThread) {
    std::atomic<bool> finished{false};
    std::thread::id ranOn;
    std::thread worker([&] {
        ranOn = DispatchQueue::main()->sync([] { return std::this_thread::get_id(); });
        finished = true;
    });
    EXPECT_TRUE(MainLoop::runUntil([&] { return finished.load(); }, 10s));
    worker.join();
    EXPECT_EQ(ranOn, std::this_thread::get_id());

    auto child = DispatchQueue::create("test.main.child", zul::QualityOfService::unspecified, DispatchQueue::main());
    std::atomic<bool> onMain{false};
    child->async([&] { onMain = DispatchQueue::main()->isCurrent() && child->isCurrent(); });
    EXPECT_TRUE(MainLoop::runUntil([&] { return onMain.load(); }, 10s));
}

TEST(MainLoopDeathTest, SyncOntoTheMainQueueFromAMainJobStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            DispatchQueue::main()->async([] { DispatchQueue::main()->sync([] {}); });
            MainLoop::runFor(5s);
        },
        "called on queue \"dev.zul.main-thread\", which the current thread is already running");
}

}  // namespace
