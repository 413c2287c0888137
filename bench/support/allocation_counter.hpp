#pragma once

#include <cstddef>

namespace zul::bench {

/// Heap allocations made through global operator new since the program started. Linking
/// allocation_counter.cpp into a benchmark replaces the global operator new to count them.
std::size_t allocationCount() noexcept;

/// Bytes currently allocated through operator new (as the allocator sized the blocks).
std::size_t liveBytes() noexcept;

/// The most bytes live at once since the last `resetPeakBytes()`.
std::size_t peakBytes() noexcept;

/// Starts a new peak measurement from the bytes live now.
void resetPeakBytes() noexcept;

}  // namespace zul::bench
