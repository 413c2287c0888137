#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "zul/core/emitter.hpp"

namespace {

using zul::Emitter;
using zul::MemoryEmitter;

TEST(EmitterTest, SynchronousReactionsLeaveAfterTheValueTheyRefuseAndLateJoinersWait) {
    auto emitter = Emitter<int>::create(false);
    std::vector<std::string> seen;
    emitter->addReaction([&](const int& v) {
        seen.push_back("a" + std::to_string(v));
        return v < 2;  // leaves after 2
    });
    emitter->addReaction([&](const int& v) {
        seen.push_back("b" + std::to_string(v));
        if (v == 1) {
            // Joins during delivery: kept, and not given the value being delivered.
            emitter->addReaction([&](const int& w) {
                seen.push_back("c" + std::to_string(w));
                return true;
            });
        }
        return true;
    });
    emitter->invoke(1);
    emitter->invoke(2);
    emitter->invoke(3);
    EXPECT_EQ(seen, (std::vector<std::string>{"a1", "b1", "a2", "b2", "c2", "b3", "c3"}));
}

TEST(EmitterTest, MemoryEmitterReplaysWithTheAnswerReversedOnItsQueueWhenAsynchronous) {
    for (bool async : {false, true}) {
        SCOPED_TRACE(async ? "asynchronous" : "synchronous");
        auto emitter = MemoryEmitter<int>::create(async);
        std::vector<int> satisfied;  // both touched only by the reactions, which never run side by side
        std::vector<int> wanting;
        emitter->addReaction([&](const int& v) {  // no last value yet: subscribed as usual
            wanting.push_back(-v);
            return true;
        });
        emitter->invoke(5);  // remembered on the calling thread in both modes
        EXPECT_EQ(emitter->last(), 5);
        emitter->addReaction([&](const int& v) {
            satisfied.push_back(v);
            return true;  // satisfied by the replay: never subscribed
        });
        emitter->addReaction([&](const int& v) {
            wanting.push_back(v);
            return false;  // wants more: subscribed, then leaves after its first delivered value
        });
        emitter->serialQueue()->sync([] {});  // an asynchronous replay subscribes from its queue
        emitter->invoke(6);
        emitter->invoke(7);
        emitter->serialQueue()->sync([] {});
        EXPECT_EQ(satisfied, std::vector<int>{5});
        EXPECT_EQ(wanting, (std::vector<int>{-5, 5, -6, 6, -7}));
    }
}

TEST(EmitterTest, AsynchronousDeliveryReturnsAtOnceRunsInOrderOnTheEmittersQueueAndEndsWithTheEmitter) {
    auto emitter = Emitter<int>::create(true);
    auto queue = emitter->serialQueue();
    EXPECT_TRUE(queue->label().starts_with("Emitter-"));
    std::latch gate(1);
    std::vector<int> seen;  // touched only on the emitter's queue
    std::atomic<bool> onQueue{true};
    emitter->addReaction([&](const int& v) {
        gate.wait();
        if (!queue->isCurrent()) onQueue = false;
        seen.push_back(v);
        return v != 3;
    });
    emitter->invoke(1);  // returns while the reaction waits at the gate: a synchronous one would hang here
    gate.count_down();
    for (int v : {2, 3}) emitter->invoke(v);
    emitter->invoke(4);  // after 3 the reaction has left
    queue->sync([] {});  // every delivery is over
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(onQueue);

    // Jobs of an emitter that is gone are dropped.
    std::latch held(1);
    queue->async([&] { held.wait(); });  // holds the queue while the emitter goes away
    std::atomic<int> calls{0};
    emitter->addReaction([&](const int&) {
        ++calls;
        return true;
    });
    emitter->invoke(5);
    emitter.reset();
    held.count_down();
    queue->sync([] {});
    EXPECT_EQ(calls.load(), 0);
}

TEST(EmitterTest, ConcurrentInvokesOfAnAsynchronousMemoryEmitterDeliverEveryValueOnce) {
    auto emitter = MemoryEmitter<int>::create(true);
    std::atomic<int> delivered{0};
    emitter->addReaction([&](const int&) {
        ++delivered;
        return true;
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) emitter->invoke(t * 1000 + i);
        });
    }
    for (auto& thread : threads) thread.join();
    emitter->serialQueue()->sync([] {});
    EXPECT_EQ(delivered.load(), 2000);
    ASSERT_TRUE(emitter->last().has_value());
}

}  // namespace
