#include "core/logger_mailbox.hpp"

#include <iterator>

namespace zul::detail {

void LoggerMailbox::post(MessageRef message, DispatchQueue& hubQueue) {
    run_.push_back(std::move(message));
    if (run_.size() >= kMaxRun) {
        handOver();
    } else if (!kickQueued_) {
        kickQueued_ = true;
        hubQueue.async([mailbox = shared_from_this()] {
            mailbox->kickQueued_ = false;
            mailbox->handOver();
        });
    }
}

void LoggerMailbox::handOver() {
    if (run_.empty()) return;
    {
        std::lock_guard lock(mutex_);
        if (handedOver_.empty()) {
            handedOver_.swap(run_);  // the usual case: the logger has taken the last run
        } else {
            handedOver_.insert(handedOver_.end(), std::make_move_iterator(run_.begin()),
                               std::make_move_iterator(run_.end()));
        }
    }
    run_.clear();
    queue_->async([mailbox = shared_from_this()] { mailbox->logHandedOver(); });
}

void LoggerMailbox::logHandedOver() {
    {
        std::lock_guard lock(mutex_);
        logging_.swap(handedOver_);
    }
    for (const MessageRef& message : logging_) logger_->log(*message);
    logging_.clear();  // the messages go back to the pool here
}

}  // namespace zul::detail
