// The delegate side of a URLSession: batches of the transfer thread's reports, delivered on the
// delegate queue one job at a time, and the delegate's defaults.

#include <algorithm>
#include <iterator>

#include "platform/url_session_engine.hpp"

namespace zul {

// ---- Delegate defaults: what a session without a delegate does.

void URLSessionDelegate::didReceive(URLSession&, URLSessionTask&, const Data&) {}

void URLSessionDelegate::didCompleteWithError(URLSession&, URLSessionTask&, const std::optional<URLError>&) {}

void URLSessionDelegate::willPerformHTTPRedirection(URLSession&, URLSessionTask&, const HTTPURLResponse&,
                                                    URLRequest newRequest,
                                                    UniqueFunction<void(std::optional<URLRequest>)> completionHandler) {
    completionHandler(std::move(newRequest));
}

void URLSessionDelegate::didBecomeInvalid(URLSession&) {}

// ---- DelegateChannel.

void DelegateChannel::post(std::vector<DelegateEvent>& events) {
    if (events.empty()) return;
    bool schedule = false;
    {
        const std::lock_guard lock(mutex_);
        // Moved element by element, so that both sides keep their vectors' storage from one
        // batch to the next instead of allocating on one thread and freeing on another.
        std::move(events.begin(), events.end(), std::back_inserter(pending_));
        schedule = !std::exchange(scheduled_, true);
    }
    events.clear();
    if (schedule) queue_->async([self = shared_from_this()] { self->deliver(); });
}

void DelegateChannel::post(DelegateEvent event) {
    std::vector<DelegateEvent> one;
    one.push_back(std::move(event));
    post(one);
}

void DelegateChannel::deliver() {
    {
        const std::lock_guard lock(mutex_);
        delivering_.swap(pending_);
        scheduled_ = false;  // what arrives from now on goes to the next job, which runs after this one
    }
    // The session and the delegate are taken once per batch. Without a session (it is being
    // destroyed) the delegate cannot be called, but completion handlers still are.
    const std::shared_ptr<URLSession> session = session_.lock();
    const std::shared_ptr<URLSessionDelegate> delegate = session ? delegate_.lock() : nullptr;
    for (DelegateEvent& event : delivering_) run(event, session.get(), delegate.get());
    {
        // Bodies the delegate only looked at go back to the transfer thread (a completion
        // handler was given its body to keep).
        const std::lock_guard lock(mutex_);
        for (DelegateEvent& event : delivering_) {
            if (spares_.size() == kSpareBuffers) break;
            const std::size_t capacity = event.data.capacity();
            if (capacity == 0 || capacity > kSpareCapacity) continue;
            event.data.clear();
            spares_.push_back(std::move(event.data));
        }
    }
    delivering_.clear();
}

void DelegateChannel::takeSpareBuffers(std::vector<Data>& into) {
    const std::lock_guard lock(mutex_);
    std::move(spares_.begin(), spares_.end(), std::back_inserter(into));
    spares_.clear();
}

void DelegateChannel::run(DelegateEvent& event, URLSession* session, URLSessionDelegate* delegate) {
    if (invalidDelivered_) delegate = nullptr;
    switch (event.kind) {
    case DelegateEvent::Kind::data:
        if (delegate != nullptr) delegate->didReceive(*session, *event.task, event.data);
        break;
    case DelegateEvent::Kind::complete:
        if (event.state->hasCompletionHandler) {
            auto handler = std::move(event.state->completion);
            std::optional<Data> data;
            if (!event.error) data = std::move(event.data);
            handler(std::move(data), event.task->response(), std::move(event.error));
        } else if (delegate != nullptr) {
            if (!event.data.empty()) delegate->didReceive(*session, *event.task, event.data);
            delegate->didCompleteWithError(*session, *event.task, event.error);
        }
        break;
    case DelegateEvent::Kind::redirect: {
        std::shared_ptr<URLSession::Engine> engine = event.state->engine;
        URLSessionTask::State* state = event.state;
        UniqueFunction<void(std::optional<URLRequest>)> decide =
            [engine, task = event.task, state](std::optional<URLRequest> request) {
                engine->decideRedirect(task, *state, std::move(request));
            };
        if (delegate != nullptr) {
            delegate->willPerformHTTPRedirection(*session, *event.task, *event.response, std::move(*event.request),
                                                 std::move(decide));
        } else {
            decide(std::move(*event.request));
        }
        break;
    }
    case DelegateEvent::Kind::invalid:
        if (delegate != nullptr) delegate->didBecomeInvalid(*session);
        invalidDelivered_ = true;
        break;
    }
}

}  // namespace zul
