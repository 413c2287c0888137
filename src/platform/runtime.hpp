#pragma once

// The process-wide execution contexts behind the dispatch queues, and the record of which
// queues the calling thread is running jobs of.

#include <asio/io_context.hpp>

#include "zul/platform/dispatch_queue.hpp"

namespace zul::detail {

/// The worker pool: one io_context run by a fixed set of threads, started on first use.
asio::io_context& poolContext();

/// The timer context: one io_context run by one thread, started on first use. Its handlers only
/// hand work to queues, so that expirations are processed one at a time, in deadline order.
asio::io_context& timerContext();

/// The main context: run by whichever thread runs or drains the main loop.
asio::io_context& mainContext();

/// Makes the main loop's file descriptor readable.
void signalMainLoop() noexcept;

/// Clears the main loop's file descriptor; returns it.
int mainLoopFd() noexcept;
void clearMainLoopSignal() noexcept;

/// While alive, records that the calling thread is running jobs of `queue`. Scopes nest: a
/// queue that targets another runs its jobs inside a job of its target.
class OwnerScope {
public:
    explicit OwnerScope(const DispatchQueue* queue) noexcept : queue_(queue), next_(top_) { top_ = this; }
    ~OwnerScope() { top_ = next_; }
    OwnerScope(const OwnerScope&) = delete;
    OwnerScope& operator=(const OwnerScope&) = delete;

    /// Whether the calling thread is inside a scope of `queue`.
    static bool owns(const DispatchQueue* queue) noexcept {
        for (const OwnerScope* scope = top_; scope != nullptr; scope = scope->next_) {
            if (scope->queue_ == queue) return true;
        }
        return false;
    }

private:
    const DispatchQueue* queue_;
    OwnerScope* next_;
    static thread_local OwnerScope* top_;
};

/// Runs a job; an exception escaping it stops the process with a message naming the queue.
void runJob(const DispatchQueue& queue, DispatchQueue::Work& work) noexcept;

}  // namespace zul::detail
