// Serial and global queues.
//
// A serial queue keeps its pending jobs in a vector under a mutex and is in one of three states:
// idle (nothing pending), scheduled (an activation has been handed to the queue's root and will
// claim the queue) or draining (one thread owns the queue and runs its jobs). Only the owner
// runs jobs, so jobs never overlap and run in submission order.
//
// `sync` on a queue rooted in the pool runs the job on the calling thread, as the platform's
// dispatch does: an idle queue is taken over at once; a scheduled queue is claimed and drained by
// the caller up to its own job; a draining queue gets a gate in its job list, and the owner hands
// the queue over when it reaches the gate. A blocked `sync` therefore never needs a free pool
// thread. Queues whose root is the main loop or another queue run `sync` jobs as ordinary jobs
// and wait for them, so that those jobs still run where the root runs them.

#include "zul/platform/dispatch_queue.hpp"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <condition_variable>
#include <exception>
#include <iterator>
#include <mutex>
#include <vector>

#include "platform/runtime.hpp"
#include "zul/platform/error.hpp"

namespace zul {

namespace {

// One waiter's permission to proceed. Opened while its mutex is held, so the waiter cannot
// return (and destroy the gate) before `open` has finished with it.
class Gate {
public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        condition_.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        condition_.wait(lock, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool open_ = false;
};

class SerialQueue final : public DispatchQueue {
public:
    enum class Root { pool, main, queue };

    SerialQueue(std::string label, QualityOfService qos, std::shared_ptr<DispatchQueue> target, Root root)
        : DispatchQueue(std::move(label), qos, true), target_(std::move(target)), root_(root) {}

    void async(Work work) override {
        bool schedule = false;
        {
            std::lock_guard lock(mutex_);
            pending_.push_back(Item{std::move(work), nullptr});
            if (state_ == State::idle) {
                state_ = State::scheduled;
                schedule = true;
            }
        }
        if (schedule) scheduleActivation();
    }

protected:
    void syncRef(detail::FunctionRef<void()> work) override {
        checkNotOwnedByCaller();
        if (root_ != Root::pool) {
            syncThroughJob(work);
            return;
        }
        Gate gate;
        enum class Mode { runNow, drainThenRun, waitThenRun } mode{};
        {
            std::lock_guard lock(mutex_);
            switch (state_) {
                case State::idle:
                    mode = Mode::runNow;
                    break;
                case State::scheduled:
                    mode = Mode::drainThenRun;
                    pending_.push_back(Item{nullptr, &gate});
                    break;
                case State::draining:
                    mode = Mode::waitThenRun;
                    pending_.push_back(Item{nullptr, &gate});
                    break;
            }
            state_ = State::draining;  // in the waiting case it already is; the owner changes
        }
        if (mode == Mode::drainThenRun) drainOwned();  // stops at the first gate, ours at the latest
        if (mode != Mode::runNow) gate.wait();

        struct Release {
            SerialQueue* queue;
            ~Release() { queue->release(); }
        } release{this};
        detail::OwnerScope owner(this);
        work();
    }

private:
    enum class State : unsigned char { idle, scheduled, draining };
    struct Item {
        Work work;
        Gate* gate;  // set for a `sync` waiting its turn; `work` is then empty
    };
    // Jobs one activation runs before it yields its pool thread to other queues.
    static constexpr std::size_t kJobsPerActivation = 4096;

    std::shared_ptr<SerialQueue> self() { return std::static_pointer_cast<SerialQueue>(shared_from_this()); }

    void scheduleActivation() {
        switch (root_) {
            case Root::pool:
                asio::post(detail::poolContext(), [queue = self()] { queue->activate(); });
                break;
            case Root::main:
                asio::post(detail::mainContext(), [queue = self()] { queue->activate(); });
                detail::signalMainLoop();
                break;
            case Root::queue:
                target_->async([queue = self()] { queue->activate(); });
                break;
        }
    }

    // An activation claims a scheduled queue; a stale one (the queue was claimed by a `sync`
    // caller in the meantime) finds it in another state and does nothing.
    void activate() {
        {
            std::lock_guard lock(mutex_);
            if (state_ != State::scheduled) return;
            state_ = State::draining;
        }
        drainOwned();
    }

    // Runs jobs while owning the queue. Returns after giving the queue up: idle when no job is
    // left, rescheduled after a long run, or handed to the thread waiting at a gate.
    void drainOwned() {
        detail::OwnerScope owner(this);
        std::size_t ran = 0;
        for (;;) {
            {
                std::unique_lock lock(mutex_);
                if (pending_.empty()) {
                    state_ = State::idle;
                    return;
                }
                if (ran >= kJobsPerActivation) {
                    state_ = State::scheduled;
                    lock.unlock();
                    scheduleActivation();
                    return;
                }
                batch_.swap(pending_);
            }
            for (std::size_t i = 0; i < batch_.size(); ++i) {
                if (Gate* gate = batch_[i].gate) {
                    {
                        std::lock_guard lock(mutex_);
                        pending_.insert(pending_.begin(),
                                        std::make_move_iterator(batch_.begin() + static_cast<std::ptrdiff_t>(i) + 1),
                                        std::make_move_iterator(batch_.end()));
                    }
                    batch_.clear();
                    gate->open();  // the waiting thread owns the queue from here on
                    return;
                }
                Work work = std::move(batch_[i].work);
                detail::runJob(*this, work);
                ++ran;
            }
            batch_.clear();
        }
    }

    // Gives up ownership after a `sync` job.
    void release() {
        {
            std::lock_guard lock(mutex_);
            if (pending_.empty()) {
                state_ = State::idle;
                return;
            }
            state_ = State::scheduled;
        }
        scheduleActivation();
    }

    void syncThroughJob(detail::FunctionRef<void()> work) {
        Gate gate;
        std::exception_ptr error;
        async([&] {
            try {
                work();
            } catch (...) {
                error = std::current_exception();
            }
            gate.open();
        });
        gate.wait();
        if (error) std::rethrow_exception(error);
    }

    void checkNotOwnedByCaller() const {
        for (const DispatchQueue* queue = this; queue != nullptr;) {
            if (detail::OwnerScope::owns(queue)) {
                fatalError("DispatchQueue::sync called on queue \"" + label() +
                           "\", which the current thread is already running: it would wait forever");
            }
            const auto* serial = dynamic_cast<const SerialQueue*>(queue);
            queue = serial != nullptr ? serial->target_.get() : nullptr;
        }
    }

    const std::shared_ptr<DispatchQueue> target_;
    const Root root_;
    std::mutex mutex_;
    std::vector<Item> pending_;
    std::vector<Item> batch_;  // used only by the owner
    State state_ = State::idle;
};

// A global queue: jobs go straight to the pool and may run side by side.
class GlobalQueue final : public DispatchQueue {
public:
    GlobalQueue(std::string label, QualityOfService qos) : DispatchQueue(std::move(label), qos, false) {}

    void async(Work work) override {
        asio::post(detail::poolContext(), [this, work = std::move(work)]() mutable {
            detail::OwnerScope owner(this);
            detail::runJob(*this, work);
        });
    }

protected:
    void syncRef(detail::FunctionRef<void()> work) override {
        detail::OwnerScope owner(this);
        work();
    }
};

std::shared_ptr<DispatchQueue> makeGlobal(QualityOfService qos) {
    static constexpr const char* kLabels[] = {"dev.zul.root.background-qos", "dev.zul.root.utility-qos",
                                              "dev.zul.root.default-qos", "dev.zul.root.user-initiated-qos",
                                              "dev.zul.root.user-interactive-qos"};
    return std::make_shared<GlobalQueue>(kLabels[static_cast<int>(qos)], qos);
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label, QualityOfService qos, bool serial)
    : label_(std::move(label)), qos_(qos), serial_(serial) {}

DispatchQueue::~DispatchQueue() = default;

bool DispatchQueue::isCurrent() const noexcept { return detail::OwnerScope::owns(this); }

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
    // Never destroyed: work may reach the main queue until the process exits.
    static const auto* queue = new std::shared_ptr<DispatchQueue>(std::make_shared<SerialQueue>(
        "dev.zul.main-thread", QualityOfService::userInteractive, nullptr, SerialQueue::Root::main));
    return *queue;
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::global(QualityOfService qos) {
    static const auto* queues = new std::shared_ptr<DispatchQueue>[5]{
        makeGlobal(QualityOfService::background), makeGlobal(QualityOfService::utility),
        makeGlobal(QualityOfService::default_), makeGlobal(QualityOfService::userInitiated),
        makeGlobal(QualityOfService::userInteractive)};
    if (qos == QualityOfService::unspecified) qos = QualityOfService::default_;
    return queues[static_cast<int>(qos)];
}

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label, QualityOfService qos,
                                                     std::shared_ptr<DispatchQueue> target) {
    const auto root = (target == nullptr || !target->isSerial()) ? SerialQueue::Root::pool : SerialQueue::Root::queue;
    if (root == SerialQueue::Root::pool) target = nullptr;
    return std::make_shared<SerialQueue>(std::move(label), qos, std::move(target), root);
}

void DispatchQueue::asyncAfter(DispatchTime deadline, Work work) {
    if (deadline <= DispatchClock::now()) {
        async(std::move(work));
        return;
    }
    auto timer = std::make_unique<asio::steady_timer>(detail::timerContext(), deadline);
    auto& armed = *timer;
    armed.async_wait([timer = std::move(timer), queue = shared_from_this(), work = std::move(work)](
                         const asio::error_code&) mutable { queue->async(std::move(work)); });
}

}  // namespace zul
