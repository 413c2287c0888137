#include "zul/platform/dispatch_source.hpp"

#include <asio/steady_timer.hpp>
#include <mutex>

#include "platform/runtime.hpp"
#include "zul/platform/error.hpp"

namespace zul {

namespace {

// Shortest repeat interval: a zero period would keep the timer thread busy for nothing.
constexpr std::chrono::nanoseconds kMinimumInterval = std::chrono::milliseconds(1);

class TimerSource final : public DispatchSourceTimer, public std::enable_shared_from_this<TimerSource> {
public:
    explicit TimerSource(std::shared_ptr<DispatchQueue> queue)
        : queue_(std::move(queue)), timer_(detail::timerContext()) {}

    void schedule(DispatchTime deadline, std::optional<std::chrono::nanoseconds> repeating,
                  std::chrono::nanoseconds leeway) override {
        std::lock_guard lock(mutex_);
        deadline_ = deadline;
        interval_ = repeating ? std::optional(std::max(*repeating, kMinimumInterval)) : std::nullopt;
        leeway_ = leeway;
        scheduled_ = true;
        arm();
    }

    void setEventHandler(Handler handler) override {
        auto shared = handler ? std::make_shared<Handler>(std::move(handler)) : nullptr;
        std::lock_guard lock(mutex_);
        if (!cancelled_) handler_.swap(shared);
        // The old handler is released outside the lock, as it may own anything.
        [[maybe_unused]] auto released = std::move(shared);
    }

    void resume() override {
        std::lock_guard lock(mutex_);
        if (resumed_ || cancelled_) return;
        resumed_ = true;
        arm();
    }

    void cancel() override {
        std::shared_ptr<Handler> released;
        std::lock_guard lock(mutex_);
        if (cancelled_) return;
        cancelled_ = true;
        ++generation_;
        timer_.cancel();
        released.swap(handler_);
    }

    bool isCancelled() const override {
        std::lock_guard lock(mutex_);
        return cancelled_;
    }

    const std::shared_ptr<DispatchQueue>& queue() const noexcept override { return queue_; }

private:
    // Starts waiting for the current deadline. Called with the mutex held.
    void arm() {
        if (!resumed_ || !scheduled_ || cancelled_) return;
        const auto generation = ++generation_;
        timer_.expires_at(deadline_);
        timer_.async_wait([weak = weak_from_this(), generation](const asio::error_code& error) {
            if (error) return;
            if (auto self = weak.lock()) self->fired(generation);
        });
    }

    // On the timer thread, at a deadline: hands one delivery to the queue unless one is still
    // pending, and waits for the next period.
    void fired(std::uint64_t generation) {
        bool deliver = false;
        {
            std::lock_guard lock(mutex_);
            if (cancelled_ || generation != generation_) return;
            if (!deliveryPending_) {
                deliveryPending_ = true;
                deliver = true;
            }
            if (interval_) {
                const auto now = DispatchClock::now();
                deadline_ += *interval_;
                if (deadline_ <= now) deadline_ += ((now - deadline_) / *interval_ + 1) * *interval_;
                arm();
            }
        }
        if (deliver) {
            queue_->async([weak = weak_from_this()] {
                if (auto self = weak.lock()) self->deliver();
            });
        }
    }

    // On the handler's queue.
    void deliver() {
        std::shared_ptr<Handler> handler;
        {
            std::lock_guard lock(mutex_);
            deliveryPending_ = false;
            if (cancelled_) return;
            handler = handler_;
        }
        if (handler) (*handler)();
    }

    const std::shared_ptr<DispatchQueue> queue_;
    mutable std::mutex mutex_;
    asio::steady_timer timer_;
    std::shared_ptr<Handler> handler_;
    DispatchTime deadline_{};
    std::optional<std::chrono::nanoseconds> interval_;
    std::chrono::nanoseconds leeway_{};
    std::uint64_t generation_ = 0;
    bool scheduled_ = false;
    bool resumed_ = false;
    bool cancelled_ = false;
    bool deliveryPending_ = false;
};

}  // namespace

std::shared_ptr<DispatchSourceTimer> DispatchSourceTimer::create(std::shared_ptr<DispatchQueue> queue) {
    if (queue == nullptr) fatalError("DispatchSourceTimer::create needs a queue");
    return std::make_shared<TimerSource>(std::move(queue));
}

DispatchSourceTimer::~DispatchSourceTimer() = default;

}  // namespace zul
