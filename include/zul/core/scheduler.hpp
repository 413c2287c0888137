#pragma once

/// Schedulers: a restartable, pausable timer that runs an action on a queue once or repeatedly,
/// and the time measurer behind its pauses.
///
///     auto queue = zul::DispatchQueue::create("dev.example.player");
///     auto ticker = zul::SchedulerMaker::createRepeatingScheduler(
///         1.0, queue, [](const std::shared_ptr<zul::Scheduler>& scheduler) {
///             // on `queue`, every second; scheduler->count() runs completed before this one
///         });
///     ticker->resume();      // nothing runs before the first resume
///     ticker->pause();       // remembers how much of the period was left
///     ticker->resume();      // ... and waits only that long
///     ticker->restart(0.5);  // a new period
///     ticker->stop();
///
/// Dropping the last reference to a scheduler stops it; its timer holds it only weakly. The
/// action may call the scheduler's own operations (`stop()`, `pause()`, `restart(...)`) from
/// inside itself.
///
/// A pause measures from the moment the scheduler was last started from scratch (the first
/// `resume()`, or one after a `stop()` or a finished one-time run), not from the last firing:
/// pausing a repeating scheduler after one or more whole periods resumes with nothing left, so it
/// fires at once on `resume()`.

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include "zul/platform/dispatch_queue.hpp"
#include "zul/platform/dispatch_source.hpp"
#include "zul/platform/unique_function.hpp"

namespace zul {

/// Measures the time since a mark.
class TimeMeasurer {
public:
    virtual ~TimeMeasurer() = default;

    /// Sets the start to now.
    virtual void mark() = 0;

    /// Seconds since the start, or absent when nothing was marked.
    virtual std::optional<double> elapsed() const = 0;
};

/// Measures on the monotonic clock (`DispatchClock`), which does not jump with the wall clock.
/// Not synchronised: use a measurer from one thread at a time.
class ZulTimeMeasurer : public TimeMeasurer {
public:
    /// A measurer with no start.
    static std::shared_ptr<ZulTimeMeasurer> create();

    void mark() override;

    /// Seconds since `mark()`, never more than 100: longer spans read as 100. A start later than
    /// now is a programming error and stops the process.
    std::optional<double> elapsed() const override;

    /// The last mark, if any.
    std::optional<DispatchTime> startTime() const noexcept { return startTime_; }

protected:
    ZulTimeMeasurer() = default;

    /// The current time; a subclass may substitute its own clock.
    virtual DispatchTime now() const;

private:
    std::optional<DispatchTime> startTime_;
};

/// A restartable, pausable timer.
class Scheduler {
public:
    /// What a scheduler runs at each firing, given the scheduler itself.
    using Action = UniqueFunction<void(const std::shared_ptr<Scheduler>&)>;

    virtual ~Scheduler() = default;

    /// True while started and neither paused, stopped nor finished.
    virtual bool isRunning() const = 0;

    /// True once a one-time scheduler has fired (and until it is started again).
    virtual bool hasOneTimeSchedulerFinished() const = 0;

    /// How many runs of the action have completed.
    virtual std::int64_t count() const = 0;

    /// The period in seconds.
    virtual double timeInterval() const = 0;

    /// The value the client gave at creation, never interpreted; empty when none was given.
    virtual const std::any& userInfo() const = 0;

    /// Stops the timer. A paused scheduler stays paused (and resumes with what it had left).
    virtual void stop() = 0;

    /// Stops the timer and remembers how much of the period was left. Only a running scheduler
    /// pauses; on any other this does nothing.
    virtual void pause() = 0;

    /// Starts the timer: a paused scheduler with what it had left, any other with the full period
    /// (or the first delay, while the action has never run). A running scheduler is left alone.
    virtual void resume() = 0;

    /// Stops, takes the new period, and resumes. A paused scheduler resumes with what it had
    /// left of the old period; a running, stopped or finished one with the new period.
    virtual void restart(double interval) = 0;
};

/// Makes a scheduler from a period in seconds, an optional first delay in seconds, whether it
/// repeats, a tolerance in seconds, the queue the action runs on, a user value, and the action.
using SchedulerCreator =
    std::function<std::shared_ptr<Scheduler>(double interval, std::optional<double> delay, bool repeats,
                                              double tolerance, std::shared_ptr<DispatchQueue> queue,
                                              std::any userInfo, Scheduler::Action action)>;

/// The scheduler of the library, built on a `DispatchSourceTimer`.
///
/// The action runs on the given queue (on a concurrent queue, two runs may overlap after a
/// `restart`; a serial queue keeps them apart). An exception escaping the action stops the
/// process, as it does for any job of a queue.
///
/// Periods and tolerances become whole milliseconds (truncated): a repeat interval or a tolerance
/// whose milliseconds are not finite or do not fit a 64-bit integer stops the process when the
/// timer is made (at `resume()`). A first deadline that is infinite, not a number, or beyond a
/// century means "never".
class ZulScheduler final : public Scheduler, public std::enable_shared_from_this<ZulScheduler> {
public:
    /// A stopped scheduler; nothing runs before `resume()`. `delay`, when present, replaces the
    /// period before the first run of the action (and only then).
    static std::shared_ptr<ZulScheduler> create(double interval, std::optional<double> delay, bool repeats,
                                                double tolerance, std::shared_ptr<DispatchQueue> queue,
                                                std::any userInfo, Action action);

    /// `create` as a `SchedulerCreator`: what `SchedulerMaker` uses unless given another.
    static std::shared_ptr<Scheduler> creator(double interval, std::optional<double> delay, bool repeats,
                                              double tolerance, std::shared_ptr<DispatchQueue> queue,
                                              std::any userInfo, Action action);

    ~ZulScheduler() override;
    ZulScheduler(const ZulScheduler&) = delete;
    ZulScheduler& operator=(const ZulScheduler&) = delete;

    bool isRunning() const override;
    bool hasOneTimeSchedulerFinished() const override;
    std::int64_t count() const override { return count_.load(); }
    double timeInterval() const override { return timeInterval_.load(); }
    const std::any& userInfo() const override { return userInfo_; }

    void stop() override;
    void pause() override;
    void resume() override;
    void restart(double interval) override;

    std::optional<double> delay() const noexcept { return delay_; }
    bool repeats() const noexcept { return repeats_; }
    double tolerance() const noexcept { return tolerance_; }
    const std::shared_ptr<DispatchQueue>& queue() const noexcept { return queue_; }

    /// "dev.zul.scheduler.sync.queue" followed by an upper-case UUID: the name of the private
    /// serial context that serialises the operations.
    const std::string& synchronizationQueueLabel() const noexcept { return synchronizationQueueLabel_; }

private:
    // The life cycle. `Suspended` carries the seconds left of the interrupted period.
    struct Suspended {
        double left;
        friend bool operator==(const Suspended&, const Suspended&) = default;
    };
    struct Uninitialized {
        friend bool operator==(const Uninitialized&, const Uninitialized&) = default;
    };
    struct Resumed {
        friend bool operator==(const Resumed&, const Resumed&) = default;
    };
    struct Cancelled {
        friend bool operator==(const Cancelled&, const Cancelled&) = default;
    };
    struct Finished {
        friend bool operator==(const Finished&, const Finished&) = default;
    };
    using State = std::variant<Suspended, Uninitialized, Resumed, Cancelled, Finished>;

    ZulScheduler(double interval, std::optional<double> delay, bool repeats, double tolerance,
                 std::shared_ptr<DispatchQueue> queue, std::any userInfo, Action action);

    // These run with `mutex_` held.
    std::shared_ptr<DispatchSourceTimer> makeTimer(double firstInterval);
    void resumeLocked();
    void cancelLocked();

    // Runs on `queue_` at each firing.
    void fire(const std::shared_ptr<Scheduler>& self);

    const std::optional<double> delay_;
    const bool repeats_;
    const std::shared_ptr<DispatchQueue> queue_;
    Action action_;
    const double tolerance_;
    // The synchronisation queue: it is only ever entered synchronously, so a mutex serialises
    // exactly as a private serial queue would.
    const std::string synchronizationQueueLabel_;
    mutable std::mutex mutex_;
    // Guarded by `mutex_` (the firing handler takes it for its one write to `state_`).
    std::shared_ptr<ZulTimeMeasurer> timeMeasurer_;
    State state_;
    std::shared_ptr<DispatchSourceTimer> timer_;
    // Read without the lock by clients; written by the handler and by `restart`.
    std::atomic<std::int64_t> count_;
    std::atomic<double> timeInterval_;
    const std::any userInfo_;
};

/// Makes schedulers through a replaceable creator function, so that callers (tests, hosts) can
/// substitute their own `Scheduler`. Without a creator, `ZulScheduler::creator` is used.
class SchedulerMaker {
public:
    SchedulerMaker() = delete;

    /// Passes every argument to `creator`.
    static std::shared_ptr<Scheduler> createScheduler(double interval, std::optional<double> delay, bool repeats,
                                                      double tolerance, std::shared_ptr<DispatchQueue> queue,
                                                      std::any userInfo, const SchedulerCreator& creator,
                                                      Scheduler::Action action);
    static std::shared_ptr<Scheduler> createScheduler(double interval, std::optional<double> delay, bool repeats,
                                                      double tolerance, std::shared_ptr<DispatchQueue> queue,
                                                      std::any userInfo, Scheduler::Action action);

    /// Runs once: no delay, tolerance 0.08 s, no user value.
    static std::shared_ptr<Scheduler> createOneTimeScheduler(double interval, std::shared_ptr<DispatchQueue> queue,
                                                             const SchedulerCreator& creator, Scheduler::Action action);
    static std::shared_ptr<Scheduler> createOneTimeScheduler(double interval, std::shared_ptr<DispatchQueue> queue,
                                                             Scheduler::Action action);

    /// Repeats every `interval` seconds: no delay, tolerance 0.08 s, no user value.
    static std::shared_ptr<Scheduler> createRepeatingScheduler(double interval, std::shared_ptr<DispatchQueue> queue,
                                                               const SchedulerCreator& creator,
                                                               Scheduler::Action action);
    static std::shared_ptr<Scheduler> createRepeatingScheduler(double interval, std::shared_ptr<DispatchQueue> queue,
                                                               Scheduler::Action action);
};

}  // namespace zul
