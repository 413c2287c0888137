// The public face of URLSession and URLSessionTask: each call changes a task's state and hands
// the work to the session's engine (url_session_engine.cpp).

#include "platform/url_session_engine.hpp"

namespace zul {

// ---- Task state.

URLSessionTask::State::State(std::shared_ptr<URLSession::Engine> engine_, URLRequest request,
                             URLSession::CompletionHandler completion_)
    : engine(std::move(engine_)),
      currentRequest(std::move(request)),
      completion(std::move(completion_)),
      hasCompletionHandler(static_cast<bool>(completion)) {
    publishedHead.reserve(engine->headReserve());
}

URLSessionTask::State::~State() { engine->unregisterTask(*this); }

// ---- URLSessionTask.

URLSessionTask::URLSessionTask(std::uint64_t identifier, URLRequest request, std::shared_ptr<State> state)
    : identifier_(identifier), originalRequest_(std::move(request)), state_(std::move(state)) {
    state_->owner = this;
}

URLSessionTask::~URLSessionTask() = default;

URLRequest URLSessionTask::currentRequest() const {
    const std::lock_guard lock(state_->mutex);
    return state_->currentRequest;
}

std::shared_ptr<const HTTPURLResponse> URLSessionTask::response() const {
    const std::lock_guard lock(state_->mutex);
    return state_->responseLocked();
}

std::optional<URLError> URLSessionTask::error() const {
    const std::lock_guard lock(state_->mutex);
    return state_->error;
}

URLSessionTaskState URLSessionTask::state() const noexcept { return state_->state.load(std::memory_order_acquire); }

std::int64_t URLSessionTask::countOfBytesReceived() const noexcept {
    return state_->bytesReceived.load(std::memory_order_relaxed);
}

void URLSessionTask::resume() {
    auto expected = URLSessionTaskState::suspended;
    if (state_->state.compare_exchange_strong(expected, URLSessionTaskState::running, std::memory_order_acq_rel)) {
        state_->engine->resume(*state_);
    }
}

void URLSessionTask::cancel() {
    auto current = state_->state.load(std::memory_order_acquire);
    while (current == URLSessionTaskState::running || current == URLSessionTaskState::suspended) {
        if (state_->state.compare_exchange_weak(current, URLSessionTaskState::canceling, std::memory_order_acq_rel)) {
            state_->engine->cancel(*state_);
            return;
        }
    }
}

// ---- URLSession.

std::shared_ptr<URLSession> URLSession::create(URLSessionConfiguration configuration,
                                               std::shared_ptr<URLSessionDelegate> delegate,
                                               std::shared_ptr<DispatchQueue> delegateQueue) {
    auto engine = std::make_shared<Engine>(std::move(configuration), delegate, std::move(delegateQueue));
    std::shared_ptr<URLSession> session(new URLSession(engine));
    engine->start(session);
    return session;
}

URLSession::URLSession(std::shared_ptr<Engine> engine) : engine_(std::move(engine)) {}

URLSession::~URLSession() { engine_->stop(); }

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest request) {
    return dataTask(std::move(request), nullptr);
}

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest request, CompletionHandler completionHandler) {
    auto state = std::make_shared<URLSessionTask::State>(engine_, request, std::move(completionHandler));
    auto task = std::make_shared<URLSessionDataTask>(URLSessionDataTask::Key(), engine_->nextIdentifier(),
                                                     std::move(request), state);
    engine_->registerTask(*state);
    return task;
}

void URLSession::invalidateAndCancel() { engine_->invalidate(true); }

void URLSession::finishTasksAndInvalidate() { engine_->invalidate(false); }

const URLSessionConfiguration& URLSession::configuration() const noexcept { return engine_->configuration; }

const std::shared_ptr<DispatchQueue>& URLSession::delegateQueue() const noexcept { return engine_->delegateQueue; }

std::shared_ptr<URLSessionDelegate> URLSession::delegate() const { return engine_->delegate.lock(); }

}  // namespace zul
