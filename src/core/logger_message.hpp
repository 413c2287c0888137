#pragma once

// The message the logging hub builds once and shares between the loggers it goes to, and the
// pool that recycles messages, so that a message costs no allocation of its own in steady use.
//
// The hub takes a message from the pool (on its queue), fills it and hands references to the
// loggers' queues; the last reference to go puts the message back, on whichever logger's queue
// that happens. A recycled message keeps its text (unless that is large) until the next text
// replaces it on the hub's thread: texts that deferred texts make are thus allocated and freed on
// the hub's own thread, where the allocator serves them from its thread cache.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <source_location>
#include <string>
#include <string_view>
#include <utility>

#include "zul/core/logging.hpp"

namespace zul::detail {

class MessageRef;

class LoggerMessage final : public ZulLoggerMessage {
public:
    std::string_view text() const override { return text_; }
    std::string_view file() const override { return where_.file_name(); }
    std::string_view function() const override { return where_.function_name(); }
    std::int64_t line() const override { return static_cast<std::int64_t>(where_.line()); }
    Date timestamp() const override { return timestamp_; }

    /// A text made for this message, taken over.
    void setText(std::string text) noexcept {
        storage_ = std::move(text);
        text_ = storage_;
    }
    /// A constant text, viewed where it is.
    void setConstantText(std::string_view text) noexcept { text_ = text; }

    /// The call site: its constant texts are measured only if a logger asks for them.
    void setPosition(const std::source_location& where) noexcept { where_ = where; }
    void setTimestamp(Date timestamp) noexcept { timestamp_ = timestamp; }

private:
    friend class MessageRef;
    friend class MessagePool;

    std::string storage_;  // the text, when it is not a constant one
    std::string_view text_;
    std::source_location where_;
    Date timestamp_;
    std::atomic<std::uint32_t> references_{0};
    LoggerMessage* next_ = nullptr;  // while pooled
};

/// A shared reference to a pooled message (the size of one pointer, so that a logger's job
/// stays small). The last reference to go returns the message to the pool.
class MessageRef {
public:
    MessageRef() noexcept = default;
    MessageRef(const MessageRef& other) noexcept : message_(other.message_) {
        if (message_ != nullptr) message_->references_.fetch_add(1, std::memory_order_relaxed);
    }
    MessageRef(MessageRef&& other) noexcept : message_(std::exchange(other.message_, nullptr)) {}
    MessageRef& operator=(MessageRef other) noexcept {
        std::swap(message_, other.message_);
        return *this;
    }
    ~MessageRef() { release(); }

    /// Takes a message from the pool with one reference, this one.
    static MessageRef make();

    LoggerMessage& operator*() const noexcept { return *message_; }
    LoggerMessage* operator->() const noexcept { return message_; }

private:
    explicit MessageRef(LoggerMessage* message) noexcept : message_(message) {}
    void release() noexcept;

    LoggerMessage* message_ = nullptr;
};

/// The recycled messages. Taken from on the hub's queue only; given back from any thread.
///
/// Given messages go to a lock-free list; the hub takes that list whole when it has used up the
/// messages it took before, keeps up to `kMaxIdle` of them and frees the rest. Messages are thus
/// freed on the thread that allocated them, and what a burst left behind is given back to the
/// allocator by the next messages sent.
class MessagePool {
public:
    static MessagePool& shared();

    LoggerMessage* take();
    void give(LoggerMessage* message) noexcept;

    /// Messages kept for reuse, at most.
    static constexpr std::size_t kMaxIdle = 1024;
    /// A text buffer larger than this is freed rather than kept with its message.
    static constexpr std::size_t kMaxKeptText = 256;

private:
    LoggerMessage* idle_ = nullptr;  // the hub's queue only
    std::atomic<LoggerMessage*> returned_{nullptr};
};

}  // namespace zul::detail
