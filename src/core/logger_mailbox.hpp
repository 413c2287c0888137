#pragma once

// How the logging hub hands messages to one registration's queue.
//
// Handing each message to the logger's queue as a job of its own would wake the logger's thread
// once per message whenever the logger is quicker than the hub, which is the common case: a
// thread wake-up costs more than everything else a message costs. A registration therefore has a
// mailbox: the hub collects messages in it and, for the first message since the last hand-over,
// queues a "kick" on its own queue, behind the messages already waiting there. When the hub
// reaches the kick, it hands the collected run over (under a lock, once per run) and submits one
// job to the logger's queue that logs everything handed over, in order. So the logger's thread
// is woken once per run of the hub rather than once per message, and a long run is handed over
// every `kMaxRun` messages, so that the logger works alongside the hub instead of after it.
//
// Each logger still receives every message, in hub order, on its own queue, never on the hub's.
// The kicks and the logging jobs hold the mailbox, and the mailbox holds the logger: a removed
// registration still logs what it was handed before its removal.

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "core/logger_message.hpp"
#include "zul/core/logging.hpp"

namespace zul::detail {

class LoggerMailbox : public std::enable_shared_from_this<LoggerMailbox> {
public:
    LoggerMailbox(std::shared_ptr<ZulLogger> logger, std::shared_ptr<DispatchQueue> queue) noexcept
        : logger_(std::move(logger)), queue_(std::move(queue)) {}

    /// On the hub's queue: hands `message` to the logger's queue.
    void post(MessageRef message, DispatchQueue& hubQueue);

    /// On the hub's queue: hands what is waiting to the logger's queue now, without a kick.
    void handOver();

    /// Messages appended before the hub hands a run over without waiting for its kick.
    static constexpr std::size_t kMaxRun = 256;

private:
    void logHandedOver();  // on the logger's queue

    const std::shared_ptr<ZulLogger> logger_;
    const std::shared_ptr<DispatchQueue> queue_;

    std::vector<MessageRef> run_;  // the hub's queue only: collected since the last hand-over
    bool kickQueued_ = false;      // the hub's queue only

    std::mutex mutex_;
    std::vector<MessageRef> handedOver_;  // under `mutex_`

    std::vector<MessageRef> logging_;  // the logger's queue only
};

}  // namespace zul::detail
