// The waiting lines of a URLSession: one per origin, so that libcurl is only ever handed
// transfers its connections can carry, and origins are served in turn.

#include "platform/url_session_engine.hpp"

namespace zul {

namespace {

// The origin part of a URL's text: everything before the path ("https://user@host:8443").
std::string_view originOf(const URL& url) noexcept {
    const std::string_view text = url.absoluteString();
    const std::size_t authority = text.find("//");
    if (authority == std::string_view::npos) return text.substr(0, text.find(':') + 1);
    const std::size_t end = text.find_first_of("/?#", authority + 2);
    return text.substr(0, end);
}

}  // namespace

// Puts a task in the waiting line of its origin (at the front when it has waited its turn once
// already), and the origin in the ready list if it has room.
void URLSession::Engine::enqueue(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state, bool first) {
    state.phase = URLSessionTask::State::Phase::waiting;
    const std::optional<URL>& url = state.currentRequest.url();
    const std::string_view origin = url ? originOf(*url) : std::string_view();
    auto found = hosts_.find(origin);
    if (found == hosts_.end()) {
        auto line = std::make_unique<HostLine>();
        line->key.assign(origin);
        const std::string_view key = line->key;
        found = hosts_.emplace(key, std::move(line)).first;
    }
    HostLine& host = *found->second;
    if (first) {
        host.waiting.push_front(std::move(task));
    } else {
        host.waiting.push_back(std::move(task));
    }
    relist(host);
}

bool URLSession::Engine::hasRoom(const HostLine& host) const noexcept {
    return host.active < (host.multiplexed ? maxActive_ : maxPerHost_);
}

// Lists an origin that has tasks waiting and room for one more transfer, or forgets an origin
// that has neither waiting tasks nor transfers.
void URLSession::Engine::relist(HostLine& host) {
    if (host.listed) return;
    if (!host.waiting.empty()) {
        if (hasRoom(host)) {
            host.listed = true;
            ready_.push_back(&host);
        }
    } else if (host.active == 0) {
        hosts_.erase(hosts_.find(std::string_view(host.key)));  // destroys `host`
    }
}

void URLSession::Engine::leaveHost(URLSessionTask::State& state) {
    HostLine* host = std::exchange(state.host, nullptr);
    if (host == nullptr) return;
    --host->active;
    relist(*host);
}

// Starts waiting tasks while libcurl has room, one origin after the other, each origin's tasks in
// the order they were resumed.
void URLSession::Engine::startWaiting() {
    while (!ready_.empty() && active_.size() < maxActive_) {
        HostLine& host = *ready_.front();
        ready_.pop_front();
        host.listed = false;
        // Tasks cancelled while waiting were completed then; their places in line go here.
        while (!host.waiting.empty() && host.waiting.front()->state_->phase != URLSessionTask::State::Phase::waiting) {
            host.waiting.pop_front();
        }
        if (!host.waiting.empty()) {
            std::shared_ptr<URLSessionTask> task = std::move(host.waiting.front());
            host.waiting.pop_front();
            URLSessionTask::State& state = *task->state_;
            begin(std::move(task), state, host);
        }
        relist(host);
    }
}

}  // namespace zul
