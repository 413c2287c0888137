// The logging hub.
//
// All hub state (`loggerItems_`, `internalLevels_`) lives on the hub's serial queue: `add`,
// `remove` and `levels` enter it synchronously, `send` asynchronously. `wanted_` mirrors that
// state for the callers' threads, so that a message nobody could receive costs one atomic load
// and never reaches the queue. Messages come from a pool (core/logger_message.hpp) and are
// shared between loggers by reference.
//
// The hub is never destroyed: the steps "if the hub no longer exists, stop" of the algorithms
// below can therefore never apply, and jobs reach the hub without holding it.

#include "zul/core/logging.hpp"

#include <chrono>
#include <vector>

#include "core/logger_mailbox.hpp"
#include "core/logger_message.hpp"
#include "zul/platform/error.hpp"
#include "zul/platform/uuid.hpp"

namespace zul {

namespace {

constexpr unsigned kAllLevels = 0b1111;

}  // namespace

ZulLogging::ZulLogging()
    : synchronizationQueue_(DispatchQueue::create(std::string(synchronizationQueueLabel))), internalLevels_(kAllLevels) {}

const std::shared_ptr<ZulLogging>& ZulLogging::shared() {
    // Never destroyed: messages may be sent until the process exits, from any thread, static
    // destructors included, and jobs on the queues refer to it.
    static const auto* hub = new std::shared_ptr<ZulLogging>(new ZulLogging());
    return *hub;
}

ZulLogging& ZulLogging::instance() {
    static ZulLogging& hub = *shared();
    return hub;
}

// Registration.

void ZulLogging::add(std::shared_ptr<ZulLogger> logger, ZulLog level) {
    if (logger == nullptr) fatalError("ZulLogging::add needs a logger, not null");
    synchronizationQueue_->sync([&] { appendItem(std::move(logger), level); });
}

void ZulLogging::appendItem(std::shared_ptr<ZulLogger> logger, ZulLog level) {
    // A queue of its own, whatever the logger: the identifier is not part of the label.
    auto queue = DispatchQueue::create(std::string(loggerQueueLabelPrefix) + UUID::random().uuidString());
    // Appended without a duplicate check: every registration is an item with its own queue.
    auto mailbox = std::make_shared<detail::LoggerMailbox>(logger, queue);
    loggerItems_.push_back(LoggerListItem{std::move(logger), level, std::move(queue), std::move(mailbox)});
    updateWanted();
}

// Removal.

void ZulLogging::remove(const ZulLogger& logger) {
    const std::string identifier = logger.identifier();
    synchronizationQueue_->sync([&] { removeItems(identifier); });
}

void ZulLogging::removeItems(const std::string& identifier) {
    // Every level's registrations go; the others keep their order. Messages already handed to a
    // removed item are still delivered: its mailbox, which holds the logger, lives on in the jobs
    // that deliver them.
    std::erase_if(loggerItems_, [&](const LoggerListItem& item) { return item.logger->identifier() == identifier; });
    updateWanted();
}

// Levels.

ZulLogLevels ZulLogging::levels() const {
    const unsigned bits = synchronizationQueue_->sync([this] { return internalLevels_; });
    ZulLogLevels levels;
    for (ZulLog level : ZulLog::allCases()) {
        if ((bits & level.bit()) != 0) levels.insert(level);
    }
    return levels;
}

void ZulLogging::setLevels(const ZulLogLevels& levels) {
    unsigned bits = 0;
    for (ZulLog level : levels) bits |= level.bit();
    synchronizationQueue_->sync([&] { replaceLevels(bits); });
}

void ZulLogging::replaceLevels(unsigned levels) {
    internalLevels_ = levels;
    updateWanted();
}

void ZulLogging::updateWanted() {
    unsigned wanted = 0;
    for (const LoggerListItem& item : loggerItems_) wanted |= item.level.bit();
    // Relaxed is enough: the operation that changed the state is waited for by its caller, and
    // that wait orders this store before whatever the caller does next.
    wanted_.store(wanted & internalLevels_, std::memory_order_relaxed);
}

// Sending.

void ZulLogging::loggableItems(const std::vector<LoggerListItem>& from, ZulLog level,
                               std::vector<const LoggerListItem*>& selected) {
    selected.clear();
    for (const LoggerListItem& item : from) {
        if (item.level == level) selected.push_back(&item);  // exact level: no "and above"
    }
}

void ZulLogging::deliver(ZulLog level, const detail::MessageText& text, const std::source_location& where) {
    // Step 2: the hub exists (see the top of this file). Step 3: the level must be on.
    if ((internalLevels_ & level.bit()) == 0) return;

    // Step 4: the registrations for exactly this level.
    loggableItems(loggerItems_, level, selected_);

    // Step 5: nobody to tell, and the text is never made.
    if (selected_.empty()) return;

    // Step 6: the text, made once, and the time at which the hub handles it.
    detail::MessageRef message = detail::MessageRef::make();
    if (text.make != nullptr) {
        message->setText(text.make(text.context));
    } else {
        message->setConstantText(text.constant);
    }
    message->setPosition(where);
    message->setTimestamp(std::chrono::system_clock::now());

    // Step 7: the same message to each, in list order, each on its own queue (by way of its
    // mailbox, which spares the logger's thread a wake-up per message).
    const std::size_t last = selected_.size() - 1;
    for (std::size_t i = 0; i < last; ++i) selected_[i]->mailbox->post(message, *synchronizationQueue_);
    selected_[last]->mailbox->post(std::move(message), *synchronizationQueue_);
    selected_.clear();
}

// Flushing.

void ZulLogging::flush() {
    // Once the hub's queue has reached this job, every message sent before has been handed to
    // its loggers' mailboxes; the job passes what waits there on to the loggers' queues, and
    // waiting on each of those queues then waits for the logging.
    const auto queues = synchronizationQueue_->sync([this] {
        std::vector<std::shared_ptr<DispatchQueue>> current;
        current.reserve(loggerItems_.size());
        for (const LoggerListItem& item : loggerItems_) {
            item.mailbox->handOver();
            current.push_back(item.queue);
        }
        return current;
    });
    for (const auto& queue : queues) queue->sync([] {});
}

}  // namespace zul
