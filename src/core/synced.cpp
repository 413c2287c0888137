// The monitors behind `synced`: one recursive mutex per object in use, found by the object's
// address. Monitors live in 64 shards, each a short list searched linearly; a monitor nobody
// holds or waits for is reused for the next object hashed to its shard, so steady use allocates
// nothing. Entering takes the shard's lock to find or claim a monitor; leaving only counts the
// thread out, without it, so that a monitor's user pays for one shard lock, not two. An object
// that takes its monitor on every call may hold it claimed for its whole life (HeldMonitor) and
// skip the shard altogether.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "zul/core/dispatch.hpp"

namespace zul::detail {

struct Monitor {
    const void* key = nullptr;
    // Threads holding or waiting for `mutex`. Raised under the shard's lock, lowered without it;
    // only a monitor seen at zero under the shard's lock changes `key`, so a count that drops
    // while the shard is searched is harmless.
    std::atomic<std::size_t> users{0};
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

Monitor* claimMonitor(const void* key) {
    Shard& shard = shardFor(key);
    Monitor* monitor = nullptr;
    {
        std::lock_guard lock(shard.mutex);
        Monitor* unused = nullptr;
        for (auto& candidate : shard.monitors) {
            const bool inUse = candidate->users.load(std::memory_order_acquire) > 0;
            if (inUse && candidate->key == key) {
                monitor = candidate.get();
                break;
            }
            if (!inUse && unused == nullptr) unused = candidate.get();
        }
        if (monitor == nullptr) {
            if (unused == nullptr) {
                shard.monitors.push_back(std::make_unique<Monitor>());
                unused = shard.monitors.back().get();
            }
            monitor = unused;
            monitor->key = key;
        }
        monitor->users.fetch_add(1, std::memory_order_relaxed);
    }
    return monitor;
}

void releaseMonitor(Monitor* monitor) noexcept { monitor->users.fetch_sub(1, std::memory_order_release); }

void lockMonitor(Monitor* monitor) { monitor->mutex.lock(); }

void unlockMonitor(Monitor* monitor) noexcept { monitor->mutex.unlock(); }

Monitor* enterMonitor(const void* key) {
    Monitor* monitor = claimMonitor(key);
    monitor->mutex.lock();
    return monitor;
}

void exitMonitor(Monitor* monitor) noexcept {
    monitor->mutex.unlock();
    releaseMonitor(monitor);
}

}  // namespace zul::detail
