// Replaces the global operator new and delete so that benchmarks can report allocations per
// operation and peak heap use. Kept in its own translation unit: seen next to callers, GCC takes
// the malloc/free pair for a mismatch with new/delete.

#include "allocation_counter.hpp"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> allocations{0};
std::atomic<std::size_t> live{0};
std::atomic<std::size_t> peak{0};

void* allocate(std::size_t size) {
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) throw std::bad_alloc();
    allocations.fetch_add(1, std::memory_order_relaxed);
    const std::size_t now = live.fetch_add(malloc_usable_size(p), std::memory_order_relaxed) + malloc_usable_size(p);
    std::size_t highest = peak.load(std::memory_order_relaxed);
    while (now > highest && !peak.compare_exchange_weak(highest, now, std::memory_order_relaxed)) {
    }
    return p;
}

void release(void* p) noexcept {
    if (p == nullptr) return;
    live.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
    std::free(p);
}
}  // namespace

std::size_t zul::bench::allocationCount() noexcept { return allocations.load(std::memory_order_relaxed); }
std::size_t zul::bench::liveBytes() noexcept { return live.load(std::memory_order_relaxed); }
std::size_t zul::bench::peakBytes() noexcept { return peak.load(std::memory_order_relaxed); }
void zul::bench::resetPeakBytes() noexcept { peak.store(live.load(std::memory_order_relaxed), std::memory_order_relaxed); }

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
