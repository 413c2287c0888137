// The transfer thread of a URLSession: one libcurl multi handle, the waiting lines in front of
// it (url_session_lines.cpp), and the reports it hands to the delegate queue.
//
// Each round of the loop takes the queued commands, puts waiting tasks on the wire while there
// is room, lets libcurl move bytes (`curl_multi_perform`), collects finished transfers, fails
// timed-out ones, and posts everything it produced for the delegate as one batch; then it sleeps in
// `curl_multi_poll` until a socket, a libcurl timer, a time-out deadline or its wake-up descriptor
// (a new command) needs it.

#include <algorithm>
#include <cstdlib>

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/url_session_engine.hpp"

namespace zul {

namespace {

void initialiseCurlOnce() {
    // libcurl's global set-up is not safe to race with other threads' first use of it: do it
    // once, before the first session's thread exists.
    static const bool initialised = [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("libcurl could not be initialised");
        return true;
    }();
    (void)initialised;
}

// Whole milliseconds from now to `deadline`, clamped to what curl_multi_poll takes.
int millisecondsUntil(DispatchTime deadline, DispatchTime now) {
    constexpr auto longest = std::chrono::milliseconds(60'000);
    if (deadline <= now) return 0;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
    return static_cast<int>(std::min(wait, longest).count());
}

URLError cancelledError() { return URLError(URLError::cancelled, "cancelled"); }

}  // namespace

// ---- Engine: set-up and tear-down.

URLSession::Engine::Engine(URLSessionConfiguration configuration_, std::weak_ptr<URLSessionDelegate> delegate_,
                           std::shared_ptr<DispatchQueue> delegateQueue_)
    : configuration(std::move(configuration_)),
      delegate(std::move(delegate_)),
      delegateQueue(delegateQueue_ ? std::move(delegateQueue_) : DispatchQueue::create("dev.zul.urlsession.delegate")) {
    initialiseCurlOnce();
    // Callbacks must arrive one at a time: a concurrent queue gets a serial queue in front of it.
    std::shared_ptr<DispatchQueue> serial = delegateQueue;
    if (!serial->isSerial()) serial = DispatchQueue::create("dev.zul.urlsession.delegate", serial->qos(), serial);
    channel_ = std::make_shared<DelegateChannel>(std::move(serial), delegate);

    readProxyEnvironment();
    maxActive_ = std::max<std::size_t>(1, configuration.maximumConnections);
    maxPerHost_ = std::clamp<std::size_t>(configuration.httpMaximumConnectionsPerHost, 1, maxActive_);
    multi_ = curl_multi_init();
    if (multi_ == nullptr) fatalError("curl_multi_init failed");
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) fatalError("cannot create a URL session's wake-up file descriptor");
    const long total = static_cast<long>(maxActive_);
    const long perHost = static_cast<long>(maxPerHost_);
    curl_multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, total);
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, perHost);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, total);
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
    active_.reserve(maxActive_);
}

URLSession::Engine::~Engine() {
    // stop() has run (the session's destructor calls it) unless the session never existed.
    if (thread_.joinable()) stop();
    for (auto& slot : slots_) curl_easy_cleanup(slot->easy);
    if (multi_ != nullptr) curl_multi_cleanup(multi_);
    if (wakeFd_ >= 0) ::close(wakeFd_);
}

void URLSession::Engine::start(const std::weak_ptr<URLSession>& session) {
    // The transfer thread starts with the first command: a session that only ever answers from
    // elsewhere (a router playing stubs) never costs a thread.
    channel_->setSession(session);
}

void URLSession::Engine::stop() {
    bool started = true;
    {
        const std::lock_guard lock(commandMutex_);
        if (!thread_.joinable() && !stopped_) {
            // Never started: nothing but this call touches the thread's state, and post()
            // refuses commands from now on, so the shutdown runs here instead.
            stopped_ = true;
            started = false;
        }
    }
    if (!started) {
        Command shutdown{Command::Kind::shutdown, nullptr, nullptr, nullptr};
        apply(shutdown);
        channel_->post(batch_);
        return;
    }
    post(Command{Command::Kind::shutdown, nullptr, nullptr, nullptr});
    if (thread_.joinable()) thread_.join();
}

// ---- Registry of tasks (for cancelling them all, suspended ones included).

void URLSession::Engine::registerTask(URLSessionTask::State& state) {
    const std::lock_guard lock(registryMutex_);
    state.registryNext = registry_;
    if (registry_ != nullptr) registry_->registryPrevious = &state;
    registry_ = &state;
}

void URLSession::Engine::unregisterTask(URLSessionTask::State& state) noexcept {
    const std::lock_guard lock(registryMutex_);
    if (registry_ != &state && state.registryPrevious == nullptr) return;  // never registered
    if (state.registryPrevious != nullptr) {
        state.registryPrevious->registryNext = state.registryNext;
    } else {
        registry_ = state.registryNext;
    }
    if (state.registryNext != nullptr) state.registryNext->registryPrevious = state.registryPrevious;
    state.registryPrevious = state.registryNext = nullptr;
}

// ---- Commands (any thread).

void URLSession::Engine::post(Command command) {
    const std::lock_guard lock(commandMutex_);
    if (stopped_) return;  // the thread has cancelled every task it knew and is gone
    if (command.kind == Command::Kind::shutdown) stopped_ = true;
    commands_.push_back(std::move(command));
    if (!thread_.joinable()) {
        thread_ = std::thread([this] { run(); });
        pthread_setname_np(thread_.native_handle(), "zul-urlsession");
        wakePending_ = true;  // the new thread takes the commands before it first sleeps
        return;
    }
    // One wake-up per batch of commands: the thread takes them all at once and clears the flag
    // as it does, under the same lock.
    if (!std::exchange(wakePending_, true)) wake();
}

void URLSession::Engine::wake() noexcept {
    const std::uint64_t one = 1;
    // Fails only when the counter is about to overflow, and then the thread is awake anyway.
    [[maybe_unused]] const ssize_t written = ::write(wakeFd_, &one, sizeof one);
}

void URLSession::Engine::resume(URLSessionTask::State& state) {
    post(Command{Command::Kind::resume, state.owner->shared_from_this(), &state, nullptr});
}

void URLSession::Engine::cancel(URLSessionTask::State& state) {
    post(Command{Command::Kind::cancel, state.owner->shared_from_this(), &state, nullptr});
}

void URLSession::Engine::decideRedirect(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state,
                                        std::optional<URLRequest> request) {
    std::unique_ptr<URLRequest> next;
    if (request) next = std::make_unique<URLRequest>(std::move(*request));
    post(Command{Command::Kind::redirect, std::move(task), &state, std::move(next)});
}

void URLSession::Engine::invalidate(bool cancelRunning) {
    post(Command{cancelRunning ? Command::Kind::invalidate : Command::Kind::finishAndInvalidate, nullptr, nullptr,
                 nullptr});
}

// ---- The transfer thread.

void URLSession::Engine::run() {
    std::vector<Command> commands;
    for (;;) {
        {
            const std::lock_guard lock(commandMutex_);
            commands.swap(commands_);
            wakePending_ = false;
        }
        now_ = DispatchClock::now();
        for (Command& command : commands) apply(command);
        commands.clear();
        if (shuttingDown_) break;

        startWaiting();
        if (spareBodies_.empty()) channel_->takeSpareBuffers(spareBodies_);
        int running = 0;
        curl_multi_perform(multi_, &running);
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            void* slot = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &slot);
            finished(*static_cast<TransferSlot*>(slot), message->data.result);
        }
        if (now_ >= nextIdleCheck_) checkIdle();
        flushReceived();
        maybeBecomeInvalid();
        channel_->post(batch_);

        // Finished transfers made room: start the next ones at once rather than after a poll.
        if (!ready_.empty() && active_.size() < maxActive_) continue;
        // libcurl 7.88 can leave HTTP/2 streams waiting (for a connection that turned out to
        // multiplex, or on data it has already read) with neither a socket event nor a timer to
        // wake it: while transfers that may multiplex are active, it is called at least this
        // often.
        constexpr int multiplexedPollMs = 50;
        int wait = millisecondsUntil(nextIdleCheck_, now_);
        if (multiplexCandidates_ > 0) wait = std::min(wait, multiplexedPollMs);
        curl_waitfd wakeUp{wakeFd_, CURL_WAIT_POLLIN, 0};
        curl_multi_poll(multi_, &wakeUp, 1, wait, nullptr);
        if ((wakeUp.revents & CURL_WAIT_POLLIN) != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t drained = ::read(wakeFd_, &count, sizeof count);
        }
    }
    // Shutting down: every task has been told it was cancelled. The waiting lines may still
    // list some of them (cancelled tasks leave the line when it is next walked); they hold the
    // tasks, which hold this engine, so they go now.
    channel_->post(batch_);
    ready_.clear();
    hosts_.clear();
    // No command can arrive any more: post() refuses them after the shutdown. Close the
    // connections now rather than when the last task lets go of the engine.
    for (auto& slot : slots_) curl_easy_cleanup(slot->easy);
    slots_.clear();
    freeSlots_.clear();
    curl_multi_cleanup(multi_);
    multi_ = nullptr;
}

void URLSession::Engine::apply(Command& command) {
    switch (command.kind) {
    case Command::Kind::resume: {
        URLSessionTask::State& state = *command.state;
        if (state.phase != URLSessionTask::State::Phase::idle) break;
        if (invalidated_) {
            complete(std::move(command.task), state, cancelledError());
            break;
        }
        // A task cancelled between its resume and now is completed by the cancel command.
        if (state.state.load(std::memory_order_acquire) != URLSessionTaskState::running) break;
        state.startedAt = now_;
        ++live_;
        enqueue(std::move(command.task), state, false);
        break;
    }
    case Command::Kind::cancel:
        cancelTask(std::move(command.task), *command.state);
        break;
    case Command::Kind::redirect:
        applyRedirectDecision(command);
        break;
    case Command::Kind::invalidate:
        invalidated_ = true;
        cancelAll();
        break;
    case Command::Kind::finishAndInvalidate:
        invalidated_ = true;
        break;
    case Command::Kind::shutdown:
        invalidated_ = true;
        shuttingDown_ = true;
        cancelAll();
        break;
    }
}

// Hands a task to libcurl; the origin's line has made room for it.
void URLSession::Engine::begin(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state, HostLine& host) {
    TransferSlot& slot = acquireSlot();
    slot.state = &state;
    slot.lastActivity = now_;
    slot.uploaded = 0;
    state.slot = &slot;
    state.status = 0;
    slot.head.clear();
    state.headHasLocation = false;
    state.headersComplete = false;
    state.holdingRedirect = false;
    state.body.clear();
    if (std::optional<URLError> invalid = configure(slot, state)) {
        releaseSlot(slot);
        complete(std::move(task), state, std::move(invalid));
        return;
    }
    slot.task = std::move(task);
    state.phase = URLSessionTask::State::Phase::active;
    state.host = &host;
    ++host.active;
    slot.activeIndex = active_.size();
    active_.push_back(&slot);
    if (slot.mayMultiplex) ++multiplexCandidates_;
    nextIdleCheck_ = std::min({nextIdleCheck_, slot.lastActivity + slot.idleTimeout, slot.resourceDeadline});
    curl_multi_add_handle(multi_, slot.easy);
}

void URLSession::Engine::finished(TransferSlot& slot, CURLcode code) {
    URLSessionTask::State& state = *slot.state;
    std::shared_ptr<URLSessionTask> task = std::move(slot.task);
    std::optional<URLError> error;
    if (slot.mayMultiplex && state.host != nullptr && !state.host->multiplexed) {
        long version = 0;
        curl_easy_getinfo(slot.easy, CURLINFO_HTTP_VERSION, &version);
        if (version >= CURL_HTTP_VERSION_2_0) state.host->multiplexed = true;
    }
    if (code != CURLE_OK) {
        long osErrno = 0;
        curl_easy_getinfo(slot.easy, CURLINFO_OS_ERRNO, &osErrno);
        error = detail::urlErrorFromCurl(code, osErrno, slot.errorText);
    }
    releaseSlot(slot);
    if (!error && state.holdingRedirect) {
        followOrAsk(std::move(task), state);
        return;
    }
    complete(std::move(task), state, std::move(error));
}

// A 3xx with a Location has arrived in full: build the next request as the platform does and
// let the delegate decide, unless the task has gone round too often.
void URLSession::Engine::followOrAsk(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state) {
    constexpr unsigned redirectLimit = 16;
    if (state.redirects >= redirectLimit) {
        state.body.clear();
        complete(std::move(task), state,
                 URLError(URLError::httpTooManyRedirects, "stopped after " + std::to_string(redirectLimit) + " redirects"));
        return;
    }
    std::shared_ptr<const HTTPURLResponse> response;
    std::optional<URLRequest> next;
    {
        const std::lock_guard lock(state.mutex);
        response = state.responseLocked();
        if (const auto location = response->value("Location")) {
            next = detail::redirectedRequest(state.currentRequest, state.status, *location);
        }
    }
    if (!next) {
        // A Location that names no valid URL: the 3xx is the answer, as if it were refused.
        complete(std::move(task), state, std::nullopt);
        return;
    }
    state.phase = URLSessionTask::State::Phase::awaitingRedirect;
    DelegateEvent event;
    event.kind = DelegateEvent::Kind::redirect;
    event.task = std::move(task);
    event.state = &state;
    event.response = std::move(response);
    event.request = std::make_unique<URLRequest>(std::move(*next));
    batch_.push_back(std::move(event));
}

void URLSession::Engine::applyRedirectDecision(Command& command) {
    URLSessionTask::State& state = *command.state;
    if (state.phase != URLSessionTask::State::Phase::awaitingRedirect) return;  // cancelled meanwhile
    if (!command.request) {
        // Refused: the redirect response is the outcome, with its body.
        complete(std::move(command.task), state, std::nullopt);
        return;
    }
    ++state.redirects;
    {
        const std::lock_guard lock(state.mutex);
        state.currentRequest = std::move(*command.request);
    }
    state.body.clear();
    // It has waited its turn once: it goes first.
    enqueue(std::move(command.task), state, true);
}

void URLSession::Engine::cancelTask(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state) {
    switch (state.phase) {
    case URLSessionTask::State::Phase::done:
        return;
    case URLSessionTask::State::Phase::active: {
        TransferSlot& slot = *state.slot;
        if (!task) task = std::move(slot.task);
        slot.task.reset();
        releaseSlot(slot);
        break;
    }
    case URLSessionTask::State::Phase::idle:
    case URLSessionTask::State::Phase::waiting:
    case URLSessionTask::State::Phase::awaitingRedirect:
        break;
    }
    state.body.clear();
    complete(std::move(task), state, cancelledError());
}

void URLSession::Engine::cancelAll() {
    // Collected under the registry lock, cancelled outside it: dropping the last reference to a
    // task unregisters it, which takes that lock.
    std::vector<std::shared_ptr<URLSessionTask>> tasks;
    {
        const std::lock_guard lock(registryMutex_);
        for (URLSessionTask::State* state = registry_; state != nullptr; state = state->registryNext) {
            if (state->phase == URLSessionTask::State::Phase::done) continue;
            if (auto task = state->owner->weak_from_this().lock()) tasks.push_back(std::move(task));
        }
    }
    for (auto& task : tasks) {
        URLSessionTask::State& state = *task->state_;
        auto current = state.state.load(std::memory_order_acquire);
        while ((current == URLSessionTaskState::running || current == URLSessionTaskState::suspended) &&
               !state.state.compare_exchange_weak(current, URLSessionTaskState::canceling, std::memory_order_acq_rel)) {
        }
        cancelTask(std::move(task), state);
    }
}

// The one way a task ends: its state becomes completed, and its last bytes and outcome go to
// the delegate queue together.
void URLSession::Engine::complete(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state,
                                  std::optional<URLError> error) {
    const bool wasLive = state.phase == URLSessionTask::State::Phase::waiting ||
                         state.phase == URLSessionTask::State::Phase::active ||
                         state.phase == URLSessionTask::State::Phase::awaitingRedirect;
    state.phase = URLSessionTask::State::Phase::done;
    state.slot = nullptr;
    if (wasLive) --live_;
    const URLSessionTaskState previous = state.state.exchange(URLSessionTaskState::completed, std::memory_order_acq_rel);
    if (previous == URLSessionTaskState::completed) return;
    // A cancel that raced with the end of the transfer wins: the caller asked for it first.
    if (previous == URLSessionTaskState::canceling && (!error || error->code() != URLError::cancelled)) {
        error = cancelledError();
        state.body.clear();
    }
    {
        const std::lock_guard lock(state.mutex);
        state.error = error;
    }
    DelegateEvent event;
    event.kind = DelegateEvent::Kind::complete;
    event.task = std::move(task);
    event.state = &state;
    event.data = std::move(state.body);
    event.error = std::move(error);
    batch_.push_back(std::move(event));
}

// The time-outs: a transfer fails when the resource time-out has passed since its task began,
// or when no bytes have moved for its whole idle interval. Bytes received are noted by the
// callbacks; bytes sent are read from libcurl here, only for transfers that look idle.
void URLSession::Engine::checkIdle() {
    nextIdleCheck_ = DispatchTime::max();
    for (std::size_t i = 0; i < active_.size();) {
        TransferSlot& slot = *active_[i];
        if (now_ >= slot.resourceDeadline) {
            timeOut(slot, "the resource time-out has passed");
            continue;
        }
        if (now_ - slot.lastActivity >= slot.idleTimeout) {
            curl_off_t uploaded = 0;
            curl_easy_getinfo(slot.easy, CURLINFO_SIZE_UPLOAD_T, &uploaded);
            if (uploaded != slot.uploaded) {
                slot.uploaded = uploaded;
                slot.lastActivity = now_;
            } else {
                timeOut(slot, "no bytes moved for " + std::to_string(slot.idleTimeout.count()) + " seconds");
                continue;
            }
        }
        nextIdleCheck_ = std::min({nextIdleCheck_, slot.lastActivity + slot.idleTimeout, slot.resourceDeadline});
        ++i;
    }
}

// Ends an active transfer with a time-out; the last active slot moves into its place.
void URLSession::Engine::timeOut(TransferSlot& slot, std::string message) {
    URLSessionTask::State& state = *slot.state;
    std::shared_ptr<URLSessionTask> task = std::move(slot.task);
    releaseSlot(slot);
    complete(std::move(task), state, URLError(URLError::timedOut, std::move(message)));
}

// One didReceive per task per round, with everything that arrived for it in the round.
void URLSession::Engine::flushReceived() {
    for (URLSessionTask::State* state : received_) {
        state->queuedForDelivery = false;
        if (state->phase != URLSessionTask::State::Phase::active || state->body.empty()) continue;
        DelegateEvent event;
        event.kind = DelegateEvent::Kind::data;
        event.task = state->slot->task;
        event.state = state;
        event.data = std::move(state->body);
        state->body = Data();
        batch_.push_back(std::move(event));
    }
    received_.clear();
}

void URLSession::Engine::maybeBecomeInvalid() {
    if (!invalidated_ || invalidPosted_ || live_ != 0) return;
    invalidPosted_ = true;
    DelegateEvent event;
    event.kind = DelegateEvent::Kind::invalid;
    batch_.push_back(std::move(event));
}

}  // namespace zul
