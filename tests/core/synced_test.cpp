#include <gtest/gtest.h>

#include <atomic>
#include <memory>
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
    const int* none = nullptr;
    zul::synced(none, [&] { ran = true; });
    zul::synced(std::shared_ptr<int>(), [&] { ran = true; });
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

TEST(SyncedTest, CallsOnOneObjectExcludeEachOther) {
    // One object, and then many: with more objects than shards, monitors are let go and claimed
    // again for other objects all the time, and each object must still have one at a time.
    for (const std::size_t objectCount : {std::size_t{1}, std::size_t{300}}) {
        std::vector<long> counts(objectCount, 0);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 20000; ++i) {
                    long& count = counts[(static_cast<std::size_t>(i) * 7 + static_cast<std::size_t>(t)) % objectCount];
                    zul::synced(&count, [&] { ++count; });
                }
            });
        }
        for (auto& thread : threads) thread.join();
        long total = 0;
        for (const long count : counts) total += count;
        EXPECT_EQ(total, 80000) << objectCount << " objects";
    }
}

TEST(SyncedTest, AHeldMonitorIsTheObjectsOwnMonitor) {
    // Threads entering through `synced` and through a held monitor exclude each other, while
    // other objects come and go through the same shards; the same thread nests either way.
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

    held.run([&] { zul::synced(&count, [&] { held.run([&] { count = 0; }); }); });
    EXPECT_EQ(count, 0);
    EXPECT_THROW(held.run([] { throw std::runtime_error("x"); }), std::runtime_error);
    std::thread([&] { zul::synced(&count, [&] { count = 1; }); }).join();  // released after the throw
    EXPECT_EQ(count, 1);
}

TEST(SyncedTest, DistinctObjectsHaveDistinctMonitors) {
    // Many objects in use at once, so that several share a shard of the monitor table.
    std::vector<int> objects(200);
    std::atomic<bool> holding{false};
    std::atomic<bool> release{false};
    std::thread holder([&] {
        zul::synced(&objects[0], [&] {
            holding = true;
            while (!release) std::this_thread::sleep_for(1ms);
        });
    });
    ASSERT_TRUE(zul::test::waitUntil([&] { return holding.load(); }));
    int entered = 0;
    for (std::size_t i = 1; i < objects.size(); ++i) zul::synced(&objects[i], [&] { ++entered; });
    EXPECT_EQ(entered, 199);  // none of them waited for objects[0]
    release = true;
    holder.join();
}

TEST(SyncedTest, TheMonitorBelongsToTheWholeObjectWhicheverBaseIsPassed) {
    struct Left {
        virtual ~Left() = default;
        int left = 0;
    };
    struct Right {
        virtual ~Right() = default;
        int right = 0;
    };
    struct Both final : Left, Right {};
    Both object;
    const Right* asRight = &object;
    const Left* asLeft = &object;
    ASSERT_NE(static_cast<const void*>(asRight), static_cast<const void*>(asLeft));

    std::atomic<bool> holding{false};
    std::atomic<bool> otherEntered{false};
    std::thread holder([&] {
        zul::synced(asRight, [&] {
            holding = true;
            std::this_thread::sleep_for(100ms);
            EXPECT_FALSE(otherEntered.load());  // still excluded while held
        });
    });
    ASSERT_TRUE(zul::test::waitUntil([&] { return holding.load(); }));
    zul::synced(asLeft, [&] { otherEntered = true; });
    holder.join();
    EXPECT_TRUE(otherEntered);
}

}  // namespace
