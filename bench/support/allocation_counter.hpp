#pragma once

#include <cstddef>

namespace zul::bench {

/// Heap allocations made through global operator new since the program started. Linking
/// allocation_counter.cpp into a benchmark replaces the global operator new to count them.
std::size_t allocationCount() noexcept;

}  // namespace zul::bench
