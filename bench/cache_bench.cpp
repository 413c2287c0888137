// Reads and writes per second of a `ZulCache`, next to the obvious alternative: a
// std::unordered_map under one std::mutex, doing the same operations on the same keys.
//
// Each benchmark runs on 1 thread (the cost of one operation) and on 2 threads sharing one
// container (what sharding buys when threads meet). Figures are operations per second of
// wall-clock time summed over the threads (`items_per_second`, real time).
//
// Workloads, over 4096 keys that are all present before timing starts:
// - Read:  look a random key up and copy its value out.
// - Write: store a new value under a random key (always a replacement).
// - Mixed: 90 % reads, 10 % writes, the usual shape of a cache.
// Keys are URL-like texts of about 45 characters, as a cache of posters or titles would use, and
// values 64-bit integers. (Integer keys 0..n-1 would flatter the map: std::hash of an int is the
// int itself, which gives it a perfect hash with no collisions, something real keys never do.)
//
// Every read checks the value it got, and a benchmark reports an error instead of a figure when
// a value is missing or wrong, so that a broken build cannot produce a flattering number.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "zul/core/cache.hpp"

namespace {

constexpr int kKeys = 4096;

std::uint64_t valueFor(int key) { return static_cast<std::uint64_t>(key) * 2654435761u + 1; }

// The key texts, made once, so that the loop measures the containers and not formatting.
const std::vector<std::string>& keyTexts() {
    static const auto* texts = [] {
        auto* made = new std::vector<std::string>();
        for (int key = 0; key < kKeys; ++key) {
            made->push_back("https://images.example.com/posters/" + std::to_string(key * 7919) + ".jpg");
        }
        return made;
    }();
    return *texts;
}

// A small per-thread generator of keys (xorshift), so that threads do not walk in step.
class Keys {
    static constexpr std::uint64_t kSeed = 0x9E3779B97F4A7C15;

public:
    explicit Keys(int thread) : state_(kSeed * (static_cast<std::uint64_t>(thread) + 1)) {}
    int next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<int>(state_ % kKeys);
    }
    // One in ten operations is a write in the mixed workload.
    bool writeTurn() { return (state_ >> 40) % 10 == 0; }

private:
    std::uint64_t state_;
};

// The baseline: one map, one lock.
class MutexMap {
public:
    std::optional<std::uint64_t> value(const std::string& key) const {
        std::lock_guard lock(mutex_);
        auto found = map_.find(key);
        if (found == map_.end()) return std::nullopt;
        return found->second;
    }
    void insert(std::uint64_t value, const std::string& key) {
        std::lock_guard lock(mutex_);
        map_.insert_or_assign(key, value);
    }

private:
    mutable std::mutex mutex_;
    std::unordered_map<std::string, std::uint64_t> map_;
};

using Cache = zul::ZulCache<std::string, std::uint64_t>;

// One container per benchmark function and container type, filled once, shared by its threads.
template <class Container>
Container& shared();

template <>
Cache& shared<Cache>() {
    static const auto cache = [] {
        auto made = Cache::create();
        for (int key = 0; key < kKeys; ++key) made->insert(valueFor(key), keyTexts()[static_cast<std::size_t>(key)]);
        return made;
    }();
    return *cache;
}

template <>
MutexMap& shared<MutexMap>() {
    static MutexMap* map = [] {
        auto* made = new MutexMap();
        for (int key = 0; key < kKeys; ++key) made->insert(valueFor(key), keyTexts()[static_cast<std::size_t>(key)]);
        return made;
    }();
    return *map;
}

enum class Workload { read, write, mixed };

template <class Container, Workload kWorkload>
void run(benchmark::State& state) {
    Container& container = shared<Container>();
    const std::vector<std::string>& texts = keyTexts();
    Keys keys(state.thread_index());
    for (auto _ : state) {
        const int key = keys.next();
        const bool write = kWorkload == Workload::write || (kWorkload == Workload::mixed && keys.writeTurn());
        if (write) {
            container.insert(valueFor(key), texts[static_cast<std::size_t>(key)]);
        } else {
            auto value = container.value(texts[static_cast<std::size_t>(key)]);
            if (!value || *value != valueFor(key)) {
                // Nothing evicts here (no limits, no memory pressure), so every key is present.
                state.SkipWithError("a read did not return the value stored for its key");
                break;
            }
            benchmark::DoNotOptimize(value);
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

void BM_ZulCache_Read(benchmark::State& state) { run<Cache, Workload::read>(state); }
void BM_MutexMap_Read(benchmark::State& state) { run<MutexMap, Workload::read>(state); }
void BM_ZulCache_Write(benchmark::State& state) { run<Cache, Workload::write>(state); }
void BM_MutexMap_Write(benchmark::State& state) { run<MutexMap, Workload::write>(state); }
void BM_ZulCache_Mixed(benchmark::State& state) { run<Cache, Workload::mixed>(state); }
void BM_MutexMap_Mixed(benchmark::State& state) { run<MutexMap, Workload::mixed>(state); }

BENCHMARK(BM_ZulCache_Read)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MutexMap_Read)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ZulCache_Write)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MutexMap_Write)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ZulCache_Mixed)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MutexMap_Mixed)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
