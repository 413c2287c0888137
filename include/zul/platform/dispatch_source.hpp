#pragma once

/// Timer sources: a one-shot or repeating timer whose handler runs on a chosen queue.
///
///     auto timer = zul::DispatchSourceTimer::create(queue);
///     timer->schedule(zul::dispatchTimeAfter(1.0), std::chrono::milliseconds(500));
///     timer->setEventHandler([] { /* on `queue`, at 1 s, then every 0.5 s */ });
///     timer->resume();
///     ...
///     timer->cancel();
///
/// A timer is made suspended: it fires only after `resume()`. A repeating timer whose handler is
/// still queued or running when the next period falls due coalesces the firings: the handler
/// runs once for them. Periods are measured from the first deadline, so a slow handler does not
/// make the timer drift. Dropping the last reference to a timer cancels it.

#include <chrono>
#include <memory>
#include <optional>

#include "zul/platform/dispatch_queue.hpp"

namespace zul {

class DispatchSourceTimer {
public:
    using Handler = UniqueFunction<void()>;

    /// A new suspended timer whose handler runs on `queue`.
    static std::shared_ptr<DispatchSourceTimer> create(std::shared_ptr<DispatchQueue> queue);

    virtual ~DispatchSourceTimer();
    DispatchSourceTimer(const DispatchSourceTimer&) = delete;
    DispatchSourceTimer& operator=(const DispatchSourceTimer&) = delete;

    /// Sets the first deadline, the repeat interval (absent: fire once) and the leeway (how late
    /// a firing may be; the timer never fires early). Rescheduling a running timer replaces its
    /// pending firing.
    virtual void schedule(DispatchTime deadline, std::optional<std::chrono::nanoseconds> repeating = std::nullopt,
                          std::chrono::nanoseconds leeway = std::chrono::nanoseconds::zero()) = 0;

    /// Sets the handler; an empty handler clears it (firings then do nothing).
    virtual void setEventHandler(Handler handler) = 0;

    /// Starts the timer. Resuming a running or cancelled timer does nothing.
    virtual void resume() = 0;

    /// Stops the timer for good: no firing is delivered after `cancel` returns, except a
    /// handler already running. The handler is released.
    virtual void cancel() = 0;

    virtual bool isCancelled() const = 0;

    /// The queue the handler runs on.
    virtual const std::shared_ptr<DispatchQueue>& queue() const noexcept = 0;

protected:
    DispatchSourceTimer() = default;
};

}  // namespace zul
