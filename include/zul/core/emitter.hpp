#pragma once

/// Emitters: a minimal publish/subscribe channel.
///
///     auto progress = zul::MemoryEmitter<double>::create(/*async=*/false);
///     progress->addReaction([](const double& p) { draw(p); return true; });   // true: stay subscribed
///     progress->invoke(0.5);
///
/// A reaction answers whether it wants further values: false unsubscribes it after the value it
/// was given. A synchronous emitter does everything on the caller's thread and must be used from
/// one thread at a time. An asynchronous one returns at once and delivers on its own serial queue,
/// in `invoke` order, never two deliveries at once; its jobs hold it weakly, so an emitter that is
/// gone drops them.
///
/// A `MemoryEmitter` remembers the last value and replays it to a reaction as it subscribes. There
/// the answer means the opposite: a reaction that answers true to the replayed value is satisfied
/// and is not subscribed; one that answers false is subscribed and sees the values that follow.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zul/platform/dispatch_queue.hpp"
#include "zul/platform/uuid.hpp"

namespace zul {

template <class Value>
class SubscribableEmitter {
public:
    /// Takes a value; answers whether to stay subscribed.
    using Reaction = std::function<bool(const Value&)>;

    virtual ~SubscribableEmitter() = default;
    virtual void addReaction(Reaction reaction) = 0;
};

template <class Value>
class PublisherEmitter : public SubscribableEmitter<Value> {
public:
    virtual void invoke(const Value& value) = 0;
};

template <class Value>
class Emitter : public PublisherEmitter<Value>, public std::enable_shared_from_this<Emitter<Value>> {
public:
    using Reaction = typename SubscribableEmitter<Value>::Reaction;

    static std::shared_ptr<Emitter> create(bool async) { return std::shared_ptr<Emitter>(new Emitter(async)); }

    void addReaction(Reaction reaction) override { appendReaction(std::move(reaction)); }
    void invoke(const Value& value) override { deliver(value); }

    bool isAsync() const noexcept { return async_; }
    /// The private queue, labelled "Emitter-" and a UUID, on which an asynchronous emitter works.
    const std::shared_ptr<DispatchQueue>& serialQueue() const noexcept { return serialQueue_; }

protected:
    explicit Emitter(bool async)
        : serialQueue_(DispatchQueue::create("Emitter-" + UUID::random().uuidString())), async_(async) {}

    void appendReaction(Reaction reaction) {
        if (!async_) {
            reactions_.push_back(std::move(reaction));
            return;
        }
        serialQueue_->async([weak = this->weak_from_this(), reaction = std::move(reaction)]() mutable {
            if (auto self = weak.lock()) self->reactions_.push_back(std::move(reaction));
        });
    }

    void deliver(const Value& value) {
        if (!async_) {
            // Every reaction of the list as it is now, once each, in order; a reaction added by a
            // callback meanwhile is kept and waits for the next value.
            const std::size_t count = reactions_.size();
            std::vector<bool> leaving(count, false);
            for (std::size_t i = 0; i < count; ++i) {
                Reaction reaction = reactions_[i];  // a callback may grow the list under us
                leaving[i] = !reaction(value);
            }
            std::vector<Reaction> kept;
            kept.reserve(reactions_.size());
            for (std::size_t i = 0; i < reactions_.size(); ++i) {
                if (i >= count || !leaving[i]) kept.push_back(std::move(reactions_[i]));
            }
            reactions_ = std::move(kept);
            return;
        }
        serialQueue_->async([weak = this->weak_from_this(), value] {
            auto self = weak.lock();
            if (!self) return;
            std::vector<Reaction> kept;
            for (Reaction& reaction : self->reactions_) {
                if (reaction(value)) kept.push_back(std::move(reaction));
            }
            self->reactions_ = std::move(kept);
        });
    }

    const std::shared_ptr<DispatchQueue> serialQueue_;
    const bool async_;
    // Touched by the caller's thread (synchronous) or only by jobs on `serialQueue_` (asynchronous).
    std::vector<Reaction> reactions_;
};

template <class Value>
class MemoryEmitter final : public Emitter<Value> {
public:
    using Reaction = typename Emitter<Value>::Reaction;

    static std::shared_ptr<MemoryEmitter> create(bool async) {
        return std::shared_ptr<MemoryEmitter>(new MemoryEmitter(async));
    }

    void invoke(const Value& value) override {
        {
            std::lock_guard lock(mutex_);
            last_ = value;  // on the calling thread, in both modes
        }
        this->deliver(value);
    }

    void addReaction(Reaction reaction) override {
        std::optional<Value> replay;
        {
            std::lock_guard lock(mutex_);
            replay = last_;
        }
        if (!replay) {
            this->appendReaction(std::move(reaction));
        } else if (!this->async_) {
            // Satisfied by the last value (true): not subscribed. Wants more (false): subscribed.
            if (!reaction(*replay)) this->appendReaction(std::move(reaction));
        } else {
            auto weak = std::weak_ptr<Emitter<Value>>(this->shared_from_this());
            this->serialQueue_->async([weak, reaction = std::move(reaction), value = std::move(*replay)]() mutable {
                auto self = weak.lock();
                if (!self) return;
                if (!reaction(value)) static_cast<MemoryEmitter&>(*self).appendReaction(std::move(reaction));
            });
        }
    }

    /// The last value invoked, if any.
    std::optional<Value> last() const {
        std::lock_guard lock(mutex_);
        return last_;
    }

private:
    explicit MemoryEmitter(bool async) : Emitter<Value>(async) {}

    mutable std::mutex mutex_;  // `last_` is written by callers, read by subscribers, on any thread
    std::optional<Value> last_;
};

}  // namespace zul
