#pragma once

/// Dispatch queues: the main queue, serial queues made from a label, and the global concurrent
/// queues, with asynchronous, delayed and synchronous submission.
///
///     auto queue = zul::DispatchQueue::create("dev.example.worker");
///     queue->async([] { /* runs on a pool thread, one job at a time, in submission order */ });
///     queue->asyncAfter(zul::DispatchClock::now() + std::chrono::milliseconds(500), [] { /* later */ });
///     int answer = queue->sync([] { return 42; });   // runs the job, waits, returns its value
///     zul::DispatchQueue::main()->async([] { /* runs on the thread running zul::MainLoop */ });
///
/// Jobs of every queue run on one process-wide pool of worker threads (one per core, at least
/// two; the environment variable ZUL_DISPATCH_THREADS overrides the count), except jobs of the
/// main queue, which run on the thread that runs `MainLoop`. A job should not block for long:
/// blocking work belongs on a thread of its own.
///
/// A job that lets an exception escape stops the process with a message naming the queue.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "zul/platform/detail/function_ref.hpp"
#include "zul/platform/unique_function.hpp"

namespace zul {

/// The monotonic clock of deadlines. It does not jump with the wall clock.
using DispatchClock = std::chrono::steady_clock;
/// A point in time on `DispatchClock`.
using DispatchTime = DispatchClock::time_point;

/// A deadline `seconds` from now (fractions allowed).
inline DispatchTime dispatchTimeAfter(double seconds) {
    return DispatchClock::now() +
           std::chrono::duration_cast<DispatchClock::duration>(std::chrono::duration<double>(seconds));
}

/// How urgent a queue's work is. Recorded on the queue and reported by it; all queues share one
/// pool, so it does not change the order in which threads are given to work.
enum class QualityOfService { background, utility, default_, userInitiated, userInteractive, unspecified };

/// A queue of jobs. Serial queues run one job at a time in submission order; the global queues
/// are concurrent. Shared by `std::shared_ptr`; a queue stays alive while it has work pending.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
public:
    using Work = UniqueFunction<void()>;

    /// The main queue: serial, its jobs run on the thread running `MainLoop`.
    static const std::shared_ptr<DispatchQueue>& main();

    /// The global concurrent queue of a quality of service (`unspecified` gives `default_`'s).
    static const std::shared_ptr<DispatchQueue>& global(QualityOfService qos = QualityOfService::default_);

    /// A new serial queue. Its jobs run on the pool, or, when `target` is given, as jobs of
    /// `target` (a serial target serialises this queue's jobs with its own; the main queue as
    /// target makes them run on the main thread). Two queues made with one label are distinct.
    static std::shared_ptr<DispatchQueue> create(std::string label,
                                                 QualityOfService qos = QualityOfService::unspecified,
                                                 std::shared_ptr<DispatchQueue> target = nullptr);

    virtual ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    const std::string& label() const noexcept { return label_; }
    QualityOfService qos() const noexcept { return qos_; }
    bool isSerial() const noexcept { return serial_; }

    /// True when the calling thread is running a job of this queue, or of a queue that
    /// targets it.
    bool isCurrent() const noexcept;

    /// Submits `work` to run once, asynchronously; returns at once.
    virtual void async(Work work) = 0;

    /// Submits `work` to run once, asynchronously, no earlier than `deadline`. A deadline in the
    /// past submits at once. Jobs due together are submitted in deadline order.
    void asyncAfter(DispatchTime deadline, Work work);

    /// Runs `work` on this queue and waits for it; returns what it returns and rethrows what it
    /// throws. On a serial queue the job runs after the jobs submitted before it, and no other
    /// job of the queue runs meanwhile. The job may run on the calling thread (as it always does
    /// on a global queue); on the main queue it runs on the main thread.
    ///
    /// Calling `sync` on a serial queue from one of its own jobs (or from a job of a queue that
    /// targets it) would wait forever: it stops the process instead.
    template <class F>
    std::invoke_result_t<F&> sync(F&& work) {
        using R = std::invoke_result_t<F&>;
        if constexpr (std::is_void_v<R>) {
            syncRef(detail::FunctionRef<void()>(work));
        } else {
            std::optional<R> out;
            auto run = [&] { out.emplace(work()); };
            syncRef(detail::FunctionRef<void()>(run));
            return std::move(*out);
        }
    }

protected:
    DispatchQueue(std::string label, QualityOfService qos, bool serial);

    /// Runs `work` as `sync` describes; exceptions from `work` propagate.
    virtual void syncRef(detail::FunctionRef<void()> work) = 0;

private:
    std::string label_;
    QualityOfService qos_;
    bool serial_;
};

}  // namespace zul
