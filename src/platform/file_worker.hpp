#pragma once

// A thread of the library's own for blocking file work (writing and flushing files to the
// device), so that a slow disk never holds up a thread of the dispatch pool.

#include "zul/platform/unique_function.hpp"

namespace zul::detail {

/// Runs `job` on the file thread ("zul-files"), after the jobs submitted before it. The thread is
/// started on first use and runs for the life of the process; a job must not throw.
void submitFileWork(UniqueFunction<void()> job);

/// Waits until the jobs submitted before the call have finished (for tests that remove the
/// files those jobs write).
void waitForFileWork();

}  // namespace zul::detail
