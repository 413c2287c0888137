#include "zul/core/scheduler.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>

#include "zul/platform/error.hpp"
#include "zul/platform/uuid.hpp"

namespace zul {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::int64_t kElapsedCapNanoseconds = 100'000'000'000;  // 100 s
constexpr double kNanosecondsPerSecond = 1'000'000'000.0;
constexpr double kTolerance = 0.08;  // seconds, for the maker's one-time and repeating schedulers

// The longest span handed to a timer: far beyond any real use, and short enough that a deadline
// or a repeat built from it cannot overflow the clock. Anything longer (infinity included) is
// "not in this process's lifetime" either way.
constexpr nanoseconds kLongest = std::chrono::hours(24 * 365 * 100);

std::string formatDouble(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

[[noreturn]] void noSuchInteger(double value, const char* what, const char* reason) {
    fatalError(std::string("Double value cannot be converted to Int because ") + reason + " (" + what + ": " +
               formatDouble(value) + " ms)");
}

// A double turned into a whole number the way the platform's integer conversion does it:
// truncated toward zero, and a programming error when no 64-bit integer is that number.
std::int64_t wholeMilliseconds(double value, const char* what) {
    if (!std::isfinite(value)) noSuchInteger(value, what, "it is either infinite or NaN");
    const double whole = std::trunc(value);
    if (whole >= 0x1p63) noSuchInteger(value, what, "the result would be greater than Int.max");
    if (whole < -0x1p63) noSuchInteger(value, what, "the result would be less than Int.min");
    return static_cast<std::int64_t>(whole);
}

nanoseconds clamped(std::int64_t wholeMs) {
    constexpr std::int64_t longest = std::chrono::duration_cast<milliseconds>(kLongest).count();
    return milliseconds(std::clamp(wholeMs, -longest, longest));
}

// Now plus `seconds`, saturating: not a number or too far ahead is "never", too far back is
// "long ago" (due at once).
DispatchTime deadlineAfter(double seconds) {
    const DispatchTime now = DispatchClock::now();
    const double span = seconds * kNanosecondsPerSecond;
    const auto longest = static_cast<double>(kLongest.count());
    if (std::isnan(span) || span >= longest) return now + kLongest;
    if (span <= -longest) return now - kLongest;
    return now + nanoseconds(static_cast<std::int64_t>(span));
}

}  // namespace

// --- ZulTimeMeasurer ---------------------------------------------------------------------------

std::shared_ptr<ZulTimeMeasurer> ZulTimeMeasurer::create() {
    return std::shared_ptr<ZulTimeMeasurer>(new ZulTimeMeasurer());
}

void ZulTimeMeasurer::mark() { startTime_ = now(); }

std::optional<double> ZulTimeMeasurer::elapsed() const {
    if (!startTime_) return std::nullopt;
    const DispatchTime current = now();
    if (current < *startTime_) fatalError("ZulTimeMeasurer: the current time is earlier than the marked start");
    const std::int64_t span = std::chrono::duration_cast<nanoseconds>(current - *startTime_).count();
    // Capped on purpose: a pause never has more than 100 s to account for.
    return static_cast<double>(std::min(span, kElapsedCapNanoseconds)) / kNanosecondsPerSecond;
}

DispatchTime ZulTimeMeasurer::now() const { return DispatchClock::now(); }

// --- ZulScheduler ------------------------------------------------------------------------------

ZulScheduler::ZulScheduler(double interval, std::optional<double> delay, bool repeats, double tolerance,
                           std::shared_ptr<DispatchQueue> queue, std::any userInfo, Action action)
    : delay_(delay),
      repeats_(repeats),
      queue_(std::move(queue)),
      action_(std::move(action)),
      tolerance_(tolerance),
      synchronizationQueueLabel_("dev.zul.scheduler.sync.queue" + UUID::random().uuidString()),
      timeMeasurer_(ZulTimeMeasurer::create()),
      state_(Uninitialized{}),
      count_(0),
      timeInterval_(interval),
      userInfo_(std::move(userInfo)) {
    if (queue_ == nullptr) fatalError("ZulScheduler needs a queue for its action");
    if (!action_) fatalError("ZulScheduler needs an action");
}

std::shared_ptr<ZulScheduler> ZulScheduler::create(double interval, std::optional<double> delay, bool repeats,
                                                   double tolerance, std::shared_ptr<DispatchQueue> queue,
                                                   std::any userInfo, Action action) {
    return std::shared_ptr<ZulScheduler>(
        new ZulScheduler(interval, delay, repeats, tolerance, std::move(queue), std::move(userInfo), std::move(action)));
}

std::shared_ptr<Scheduler> ZulScheduler::creator(double interval, std::optional<double> delay, bool repeats,
                                                 double tolerance, std::shared_ptr<DispatchQueue> queue,
                                                 std::any userInfo, Action action) {
    return create(interval, delay, repeats, tolerance, std::move(queue), std::move(userInfo), std::move(action));
}

ZulScheduler::~ZulScheduler() {
    std::lock_guard lock(mutex_);
    cancelLocked();
}

bool ZulScheduler::isRunning() const {
    std::lock_guard lock(mutex_);
    return std::holds_alternative<Resumed>(state_);
}

bool ZulScheduler::hasOneTimeSchedulerFinished() const {
    std::lock_guard lock(mutex_);
    return std::holds_alternative<Finished>(state_);
}

void ZulScheduler::stop() {
    std::lock_guard lock(mutex_);
    cancelLocked();
}

void ZulScheduler::pause() {
    std::lock_guard lock(mutex_);
    if (!std::holds_alternative<Resumed>(state_)) return;
    const double elapsed = timeMeasurer_->elapsed().value_or(0.0);
    state_ = Suspended{std::max(timeInterval_.load() - elapsed, 0.0)};
    if (timer_) timer_->cancel();  // stays in `timer_`, cancelled, until the next resume replaces it
}

void ZulScheduler::resume() {
    std::lock_guard lock(mutex_);
    resumeLocked();
}

void ZulScheduler::restart(double interval) {
    // Two steps, as two separate visits to the synchronisation context.
    {
        std::lock_guard lock(mutex_);
        cancelLocked();
        timeInterval_.store(interval);
    }
    std::lock_guard lock(mutex_);
    resumeLocked();
}

void ZulScheduler::resumeLocked() {
    if (std::holds_alternative<Resumed>(state_)) return;
    if (const auto* suspended = std::get_if<Suspended>(&state_)) {
        // The start is not marked again: a later pause still measures from the first start.
        timer_ = makeTimer(suspended->left);
    } else {  // uninitialized, cancelled or finished
        timer_ = makeTimer(timeInterval_.load());
        timeMeasurer_->mark();
    }
    state_ = Resumed{};
    if (timer_) timer_->resume();
}

void ZulScheduler::cancelLocked() {
    if (std::holds_alternative<Suspended>(state_) || std::holds_alternative<Cancelled>(state_)) return;
    if (timer_) {
        timer_->setEventHandler(nullptr);
        if (std::holds_alternative<Uninitialized>(state_)) {
            // A timer source that never started must be started before it may be cancelled.
            timer_->resume();
            timer_->cancel();
        } else {  // resumed or finished
            timer_->cancel();
        }
    }
    state_ = Cancelled{};
}

std::shared_ptr<DispatchSourceTimer> ZulScheduler::makeTimer(double firstInterval) {
    auto timer = DispatchSourceTimer::create(queue_);
    const DispatchTime deadline = deadlineAfter(delay_ && count_.load() == 0 ? *delay_ : firstInterval);
    std::optional<nanoseconds> repeating;
    if (repeats_) repeating = clamped(wholeMilliseconds(timeInterval_.load() * 1000, "repeat interval"));
    const nanoseconds leeway = clamped(wholeMilliseconds(tolerance_ * 1000, "tolerance"));
    timer->schedule(deadline, repeating, leeway);
    timer->setEventHandler([weak = weak_from_this()] {
        std::shared_ptr<Scheduler> self = weak.lock();
        if (self) static_cast<ZulScheduler&>(*self).fire(self);
    });
    return timer;  // suspended: the caller resumes it
}

void ZulScheduler::fire(const std::shared_ptr<Scheduler>& self) {
    if (!repeats_) {
        // Before the action, so that the action sees itself finished. The lock is not held while
        // the action runs, so the action may call the scheduler's operations.
        std::lock_guard lock(mutex_);
        state_ = Finished{};
    }
    action_(self);
    if (count_.fetch_add(1) == std::numeric_limits<std::int64_t>::max()) fatalError("ZulScheduler: count overflowed");
}

// --- SchedulerMaker ----------------------------------------------------------------------------

std::shared_ptr<Scheduler> SchedulerMaker::createScheduler(double interval, std::optional<double> delay, bool repeats,
                                                           double tolerance, std::shared_ptr<DispatchQueue> queue,
                                                           std::any userInfo, const SchedulerCreator& creator,
                                                           Scheduler::Action action) {
    return creator(interval, delay, repeats, tolerance, std::move(queue), std::move(userInfo), std::move(action));
}

std::shared_ptr<Scheduler> SchedulerMaker::createScheduler(double interval, std::optional<double> delay, bool repeats,
                                                           double tolerance, std::shared_ptr<DispatchQueue> queue,
                                                           std::any userInfo, Scheduler::Action action) {
    return ZulScheduler::creator(interval, delay, repeats, tolerance, std::move(queue), std::move(userInfo),
                                 std::move(action));
}

std::shared_ptr<Scheduler> SchedulerMaker::createOneTimeScheduler(double interval,
                                                                  std::shared_ptr<DispatchQueue> queue,
                                                                  const SchedulerCreator& creator,
                                                                  Scheduler::Action action) {
    return creator(interval, std::nullopt, false, kTolerance, std::move(queue), std::any(), std::move(action));
}

std::shared_ptr<Scheduler> SchedulerMaker::createOneTimeScheduler(double interval,
                                                                  std::shared_ptr<DispatchQueue> queue,
                                                                  Scheduler::Action action) {
    return ZulScheduler::creator(interval, std::nullopt, false, kTolerance, std::move(queue), std::any(),
                                 std::move(action));
}

std::shared_ptr<Scheduler> SchedulerMaker::createRepeatingScheduler(double interval,
                                                                    std::shared_ptr<DispatchQueue> queue,
                                                                    const SchedulerCreator& creator,
                                                                    Scheduler::Action action) {
    return creator(interval, std::nullopt, true, kTolerance, std::move(queue), std::any(), std::move(action));
}

std::shared_ptr<Scheduler> SchedulerMaker::createRepeatingScheduler(double interval,
                                                                    std::shared_ptr<DispatchQueue> queue,
                                                                    Scheduler::Action action) {
    return ZulScheduler::creator(interval, std::nullopt, true, kTolerance, std::move(queue), std::any(),
                                 std::move(action));
}

}  // namespace zul
