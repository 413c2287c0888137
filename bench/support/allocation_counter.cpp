// Replaces the global operator new and delete so that benchmarks can report allocations per
// operation. Kept in its own translation unit: seen next to callers, GCC takes the malloc/free
// pair for a mismatch with new/delete.

#include "allocation_counter.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> allocations{0};
}  // namespace

std::size_t zul::bench::allocationCount() noexcept { return allocations.load(std::memory_order_relaxed); }

void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
