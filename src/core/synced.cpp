// The monitors behind `synced`: one recursive mutex per object in use, found by the object's
// address. Monitors live in 64 shards, each a short list searched linearly; a monitor nobody
// holds or waits for is reused for the next object hashed to its shard, so steady use allocates
// nothing.

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "zul/core/dispatch.hpp"

namespace zul::detail {

struct Monitor {
    const void* key = nullptr;
    std::size_t users = 0;  // threads holding or waiting for `mutex`; guarded by the shard
    std::recursive_mutex mutex;
};

namespace {

struct Shard {
    std::mutex mutex;
    std::vector<std::unique_ptr<Monitor>> monitors;
};

constexpr std::size_t kShards = 64;

Shard& shardFor(const void* key) {
    static auto* shards = new std::array<Shard, kShards>();  // never destroyed: used until exit
    auto bits = reinterpret_cast<std::uintptr_t>(key);
    bits ^= bits >> 17;
    bits *= 0x9E3779B97F4A7C15ull;
    return (*shards)[(bits >> 58) % kShards];
}

}  // namespace

Monitor* enterMonitor(const void* key) {
    Shard& shard = shardFor(key);
    Monitor* monitor = nullptr;
    {
        std::lock_guard lock(shard.mutex);
        Monitor* unused = nullptr;
        for (auto& candidate : shard.monitors) {
            if (candidate->users > 0 && candidate->key == key) {
                monitor = candidate.get();
                break;
            }
            if (candidate->users == 0 && unused == nullptr) unused = candidate.get();
        }
        if (monitor == nullptr) {
            if (unused == nullptr) {
                shard.monitors.push_back(std::make_unique<Monitor>());
                unused = shard.monitors.back().get();
            }
            monitor = unused;
            monitor->key = key;
        }
        ++monitor->users;
    }
    monitor->mutex.lock();
    return monitor;
}

void exitMonitor(Monitor* monitor) noexcept {
    monitor->mutex.unlock();
    Shard& shard = shardFor(monitor->key);
    std::lock_guard lock(shard.mutex);
    --monitor->users;
}

}  // namespace zul::detail
