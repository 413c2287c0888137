#include "core/logger_message.hpp"

namespace zul::detail {

MessageRef MessageRef::make() {
    LoggerMessage* message = MessagePool::shared().take();
    message->references_.store(1, std::memory_order_relaxed);
    return MessageRef(message);
}

void MessageRef::release() noexcept {
    LoggerMessage* message = std::exchange(message_, nullptr);
    if (message == nullptr) return;
    // A sole holder needs no read-modify-write: only holders make new references, so the count
    // cannot grow under it. The acquire orders the other holders' reads before the recycling.
    if (message->references_.load(std::memory_order_acquire) != 1 &&
        message->references_.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    MessagePool::shared().give(message);
}

MessagePool& MessagePool::shared() {
    // Never destroyed, like the hub: messages come back until the process exits.
    static auto* pool = new MessagePool();
    return *pool;
}

LoggerMessage* MessagePool::take() {
    if (idle_ == nullptr) {
        LoggerMessage* returned = returned_.exchange(nullptr, std::memory_order_acquire);
        std::size_t kept = 0;
        while (returned != nullptr) {
            LoggerMessage* next = returned->next_;
            if (kept < kMaxIdle) {
                returned->next_ = idle_;
                idle_ = returned;
                ++kept;
            } else {
                delete returned;
            }
            returned = next;
        }
        if (idle_ == nullptr) return new LoggerMessage();
    }
    LoggerMessage* message = idle_;
    idle_ = message->next_;
    return message;
}

void MessagePool::give(LoggerMessage* message) noexcept {
    if (message->storage_.capacity() > kMaxKeptText) std::string().swap(message->storage_);
    message->next_ = returned_.load(std::memory_order_relaxed);
    while (!returned_.compare_exchange_weak(message->next_, message, std::memory_order_release,
                                            std::memory_order_relaxed)) {
    }
}

}  // namespace zul::detail
