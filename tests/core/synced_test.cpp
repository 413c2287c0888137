#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/wait.hpp"
#include "zul/core/dispatch.hpp"

namespace {

using namespace std::chrono_literals;

TEST(SyncedTest, AnAbsentLockNeverRunsTheClosure) {
    bool ran = false;
    zul::synced(nullptr, [&] { ran = true; });
    zul::synced(std::shared_ptr<int>(), [&] { ran = true; });  // through the pointer's own check
    EXPECT_FALSE(ran);
}

TEST(SyncedTest, NestsOnOneThreadAndReleasesWhenTheClosureThrows) {
    auto lock = std::make_shared<int>(0);
    int depth = 0;
    zul::synced(lock, [&] {
        zul::synced(lock.get(), [&] { zul::synced(lock, [&] { depth = 3; }); });
    });
    EXPECT_EQ(depth, 3);

    EXPECT_THROW(zul::synced(lock, [] { throw std::runtime_error("x"); }), std::runtime_error);
    std::atomic<bool> entered{false};
    std::thread([&] { zul::synced(lock, [&] { entered = true; }); }).join();
    EXPECT_TRUE(entered);
}

TEST(SyncedTest, CallsOnOneObjectExcludeEachOtherThroughSyncedOrAHeldMonitor) {
    // Threads entering through `synced` and through a held monitor exclude each other. Meanwhile
    // more objects than shards come and go: monitors are let go and claimed again for other
    // objects all the time, and each object must still have one at a time. The same thread nests
    // either way.
    long count = 0;
    const zul::detail::HeldMonitor held(&count);
    std::vector<long> others(300, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20000; ++i) {
                if (t % 2 == 0) {
                    zul::synced(&count, [&] { ++count; });
                } else {
                    held.run([&] { ++count; });
                }
                long& other = others[(static_cast<std::size_t>(i) * 7 + static_cast<std::size_t>(t)) % others.size()];
                zul::synced(&other, [&] { ++other; });
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(count, 80000);
    EXPECT_EQ(std::accumulate(others.begin(), others.end(), 0L), 80000);

    held.run([&] { zul::synced(&count, [&] { held.run([&] { count = 0; }); }); });
    EXPECT_EQ(count, 0);
    EXPECT_THROW(held.run([] { throw std::runtime_error("x"); }), std::runtime_error);
    std::thread([&] { zul::synced(&count, [&] { count = 1; }); }).join();  // released after the throw
    EXPECT_EQ(count, 1);
}

TEST(SyncedTest, EachObjectHasAMonitorOfItsOwnWhicheverBaseIsPassed) {
    struct Left {
        virtual ~Left() = default;
        int left = 0;
    };
    struct Right {
        virtual ~Right() = default;
        int right = 0;
    };
    struct Both final : Left, Right {};
    // Many objects in use at once, so that several share a shard of the monitor table.
    std::vector<Both> objects(200);
    const Right* asRight = &objects[0];
    const Left* asLeft = &objects[0];
    ASSERT_NE(static_cast<const void*>(asRight), static_cast<const void*>(asLeft));

    std::atomic<bool> holding{false};
    std::atomic<bool> othersEntered{false};
    std::atomic<bool> leftEntered{false};
    std::thread holder([&] {
        zul::synced(asRight, [&] {
            holding = true;
            EXPECT_TRUE(zul::test::waitUntil([&] { return othersEntered.load(); }));  // none waited for objects[0]
            std::this_thread::sleep_for(100ms);
            EXPECT_FALSE(leftEntered.load());  // the same object through its other base waits
        });
    });
    ASSERT_TRUE(zul::test::waitUntil([&] { return holding.load(); }));
    for (std::size_t i = 1; i < objects.size(); ++i) zul::synced(&objects[i], [] {});
    othersEntered = true;
    zul::synced(asLeft, [&] { leftEntered = true; });
    holder.join();
    EXPECT_TRUE(leftEntered);
}

}  // namespace
