#pragma once

/// The main loop: runs the jobs of `DispatchQueue::main()`.
///
/// A host either hands its thread to the loop:
///
///     zul::MainLoop::run();          // returns after some job calls zul::MainLoop::stop()
///
/// or pumps the main queue from its own event loop: it watches `fileDescriptor()` for
/// readability and calls `drain()` when it is readable.
///
///     pollfd fd{zul::MainLoop::fileDescriptor(), POLLIN, 0};
///     ... poll(&fd, 1, timeout) ...; if (fd.revents & POLLIN) zul::MainLoop::drain();
///
/// The thread that runs or drains the loop is the main thread while it does so. Tests run the
/// loop for a bounded time with `runFor` or `runUntil`.

#include <chrono>
#include <functional>

namespace zul {

class MainLoop {
public:
    MainLoop() = delete;

    /// Runs main-queue jobs as they come, blocking, until `stop()` is called.
    static void run();

    /// Makes a `run()` in progress return once the job in progress (if any) ends. Has no effect
    /// when no `run()` is in progress. May be called from any thread.
    static void stop();

    /// Runs main-queue jobs for about `duration` (or until `stop()`).
    static void runFor(std::chrono::milliseconds duration);

    /// Runs main-queue jobs until `done()` returns true, or `timeout` passes, or `stop()` is
    /// called. Returns `done()`. `done()` is asked on this thread before the first job, after each
    /// batch of jobs, and at least every 5 ms, so it may depend on other threads' work.
    static bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    /// Runs the main-queue jobs that are pending, without blocking. Returns whether any ran.
    static bool drain();

    /// A file descriptor that becomes readable when main-queue work is pending; `drain()` makes
    /// it unreadable again. Owned by the library: do not close it.
    static int fileDescriptor();
};

}  // namespace zul
