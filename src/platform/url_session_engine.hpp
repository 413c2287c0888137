#pragma once

// The inside of URLSession: a task's shared state, the engine that runs one libcurl multi handle
// on its own transfer thread, and the channel that hands the engine's reports to the delegate
// queue. Shared by the url_session*.cpp sources only.
//
// Threads and who touches what:
// - Any thread: the public task and session calls. They change a task's atomic state and queue a
//   command for the transfer thread (`Engine::post`), nothing more.
// - The transfer thread: everything libcurl touches, the waiting line, and the fields of
//   `URLSessionTask::State` marked "transfer thread".
// - The delegate queue: the delegate's callbacks and completion handlers, in the order the
//   transfer thread produced them, in batches (`DelegateChannel`).

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/header_fields.hpp"
#include "zul/platform/url_session.hpp"

namespace zul {

namespace detail {

/// The platform code for a libcurl failure (`osErrno`: CURLINFO_OS_ERRNO), with libcurl's text.
URLError urlErrorFromCurl(CURLcode code, long osErrno, std::string_view message);

/// The idle time-out of a request: its own interval, or `configured` when that is not positive,
/// in whole seconds (2.5 counts as 2), and never under one second.
std::chrono::seconds idleTimeout(double requestInterval, double configured) noexcept;

/// Whether `status` is a redirect the session follows when it carries a Location.
constexpr bool isRedirectStatus(std::int64_t status) noexcept {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

/// The request to send after `current` was answered `status` with `location`: the Location
/// resolved against the current URL; 301/302 turn POST into GET, 303 turns any method but HEAD
/// into GET (both dropping the body); 307/308 keep method and body; other headers stay. Absent
/// when the Location cannot be resolved to a valid URL.
std::optional<URLRequest> redirectedRequest(const URLRequest& current, std::int64_t status, std::string_view location);

}  // namespace detail

/// The tasks waiting for one origin (scheme, host and port, as written in the URL), and how
/// many of its transfers libcurl has.
struct HostLine {
    std::string key;
    std::deque<std::shared_ptr<URLSessionTask>> waiting;
    std::size_t active = 0;
    bool listed = false;       // in Engine::ready_
    bool multiplexed = false;  // has answered over HTTP/2: its connections carry many transfers
};

/// One libcurl easy handle with what belongs to it while a transfer uses it. The engine keeps
/// them for the next transfer: the options every transfer shares are set once, the others by
/// each transfer.
struct TransferSlot {
    TransferSlot() = default;
    TransferSlot(const TransferSlot&) = delete;
    TransferSlot& operator=(const TransferSlot&) = delete;
    ~TransferSlot() {
        curl_slist_free_all(headers);
        curl_url_cleanup(url);
    }

    CURL* easy = nullptr;
    // The URL libcurl sends to, parsed, and the text it was parsed from. Handing libcurl a parsed
    // URL (CURLOPT_CURLU) instead of text spares it a parse and a rebuild per transfer, about a
    // sixth of its work for a small GET; the handle is parsed again only when the URL changes.
    CURLU* url = nullptr;
    std::string urlText;
    // The header lines set on the handle, and what they were made from: the next transfer with
    // the same fields (the usual case) sends them as they are.
    curl_slist* headers = nullptr;
    HTTPHeaders headersFrom;
    bool headersSet = false;
    bool headersNoExpect = false;  // with the "Expect:" line that stops libcurl waiting
    std::string head;              // field lines of the head being read, as received
    URLSessionTask::State* state = nullptr;
    std::shared_ptr<URLSessionTask> task;  // keeps the task alive while it is on the wire
    URLSession::Engine* engine = nullptr;
    std::size_t activeIndex = 0;           // position in Engine::active_
    DispatchTime lastActivity;             // when bytes last moved
    curl_off_t uploaded = 0;               // request bytes sent, at the last idle check
    bool mayMultiplex = false;             // over TLS, where HTTP/2 may carry it
    const std::string* proxy = nullptr;    // the proxy option set on the handle, if any
    bool plainGet = true;                  // the handle's method options are libcurl's defaults
    long connectTimeoutMs = -1;            // as set on the handle
    std::chrono::seconds idleTimeout{60};
    DispatchTime resourceDeadline;         // when the configuration's resource time-out ends it
    char errorText[CURL_ERROR_SIZE] = {};
};

class URLSessionTask::State {
public:
    State(std::shared_ptr<URLSession::Engine> engine, URLRequest request, URLSession::CompletionHandler completion);
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    const std::shared_ptr<URLSession::Engine> engine;
    URLSessionTask* owner = nullptr;  // the task this state belongs to; it outlives the state's use
    std::atomic<URLSessionTaskState> state{URLSessionTaskState::suspended};
    std::atomic<std::int64_t> bytesReceived{0};

    // Read from any thread, written by the transfer thread (and at creation).
    mutable std::mutex mutex;
    URLRequest currentRequest;
    std::optional<URLError> error;
    // The last complete response head, as the transfer thread read it. It becomes an
    // HTTPURLResponse only when somebody asks (`responseLocked`), on the asking thread: the
    // transfer thread, which every transfer passes through, only copies bytes.
    // Field lines as received, each ended by "\r\n" or '\n'. Its storage is reserved by the thread
    // that makes the task, which is usually the thread that lets go of the response again: a
    // buffer the transfer thread allocated would be freed on another thread, and glibc takes the
    // transfer thread's arena lock for every such free beyond a handful, against libcurl's own
    // allocations on the transfer thread.
    std::string publishedHead;
    std::int64_t publishedStatus = 0;
    bool headPublished = false;
    std::shared_ptr<const HTTPURLResponse> response;  // made from the published head

    /// The response, made from the published head on first use. `mutex` must be held.
    std::shared_ptr<const HTTPURLResponse> responseLocked();

    // Delegate queue only: called once with the outcome instead of the delegate.
    URLSession::CompletionHandler completion;
    const bool hasCompletionHandler;

    // The engine's registry of its tasks (guarded by Engine::registryMutex_).
    State* registryPrevious = nullptr;
    State* registryNext = nullptr;

    // Transfer thread.
    enum class Phase : std::uint8_t { idle, waiting, active, awaitingRedirect, done };
    Phase phase = Phase::idle;
    TransferSlot* slot = nullptr;
    HostLine* host = nullptr;       // while waiting or active
    unsigned redirects = 0;
    DispatchTime startedAt;         // for the resource time-out
    Data body;                      // bytes gathered and not yet delivered
    bool queuedForDelivery = false; // listed in Engine::received_ this round
    // The response head being read.
    std::int64_t status = 0;
    bool headHasLocation = false;
    bool headersComplete = false;
    bool holdingRedirect = false;   // a 3xx with a Location: its body is not delivered yet
};

/// A report for the delegate queue.
struct DelegateEvent {
    enum class Kind : std::uint8_t { data, complete, redirect, invalid };
    Kind kind = Kind::data;
    std::shared_ptr<URLSessionTask> task;
    URLSessionTask::State* state = nullptr;
    Data data;
    std::optional<URLError> error;
    std::shared_ptr<const HTTPURLResponse> response;  // redirect
    std::unique_ptr<URLRequest> request;              // redirect
};

/// Hands batches of events to the delegate queue: one queue job runs everything gathered until
/// it starts, so a burst of completions costs one job, not one each.
class DelegateChannel : public std::enable_shared_from_this<DelegateChannel> {
public:
    DelegateChannel(std::shared_ptr<DispatchQueue> queue, std::weak_ptr<URLSessionDelegate> delegate)
        : queue_(std::move(queue)), delegate_(std::move(delegate)) {}

    void setSession(std::weak_ptr<URLSession> session) { session_ = std::move(session); }
    /// Appends `events` (emptied) and schedules a delivery unless one is scheduled.
    void post(std::vector<DelegateEvent>& events);
    void post(DelegateEvent event);
    /// Moves the body buffers the delegate has finished with into `into`, emptied but with their
    /// storage, so that the transfer thread fills them again instead of allocating buffers that
    /// another thread frees.
    void takeSpareBuffers(std::vector<Data>& into);

private:
    void deliver();
    void run(DelegateEvent& event, URLSession* session, URLSessionDelegate* delegate);

    const std::shared_ptr<DispatchQueue> queue_;
    const std::weak_ptr<URLSessionDelegate> delegate_;
    std::weak_ptr<URLSession> session_;  // set once, before any task exists

    std::mutex mutex_;
    std::vector<DelegateEvent> pending_;
    std::vector<Data> spares_;  // at most kSpareBuffers, none larger than kSpareCapacity
    bool scheduled_ = false;
    static constexpr std::size_t kSpareBuffers = 32;
    static constexpr std::size_t kSpareCapacity = 64 * 1024;

    // Delegate queue only.
    std::vector<DelegateEvent> delivering_;  // the batch being delivered
    bool invalidDelivered_ = false;          // nothing reaches the delegate after it
};

class URLSession::Engine {
public:
    Engine(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
           std::shared_ptr<DispatchQueue> delegateQueue);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Starts the transfer thread; `session` is what the delegate's callbacks are given.
    void start(const std::weak_ptr<URLSession>& session);
    /// Cancels every task and joins the transfer thread. Commands arriving later are dropped.
    void stop();

    /// What a new task reserves for its response head: the largest head read so far, up to a
    /// bound.
    std::size_t headReserve() const noexcept { return headReserve_.load(std::memory_order_relaxed); }
    std::uint64_t nextIdentifier() noexcept { return nextIdentifier_.fetch_add(1, std::memory_order_relaxed); }
    void registerTask(URLSessionTask::State& state);
    void unregisterTask(URLSessionTask::State& state) noexcept;

    // Any thread.
    void resume(URLSessionTask::State& state);
    void cancel(URLSessionTask::State& state);
    void decideRedirect(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state,
                        std::optional<URLRequest> request);
    void invalidate(bool cancelRunning);

    const URLSessionConfiguration configuration;
    const std::weak_ptr<URLSessionDelegate> delegate;
    const std::shared_ptr<DispatchQueue> delegateQueue;  // as the caller gave it, or our own

    // libcurl callbacks (url_session_transfer.cpp).
    static std::size_t onHeader(char* buffer, std::size_t size, std::size_t count, void* slot);
    static std::size_t onBody(char* buffer, std::size_t size, std::size_t count, void* slot);

private:
    struct Command {
        enum class Kind : std::uint8_t { resume, cancel, redirect, invalidate, finishAndInvalidate, shutdown };
        Kind kind;
        std::shared_ptr<URLSessionTask> task;
        URLSessionTask::State* state = nullptr;
        std::unique_ptr<URLRequest> request;  // redirect: the request to follow, null to stop
    };

    void post(Command command);
    void wake() noexcept;  // commandMutex_ held
    void run();
    void apply(Command& command);
    void enqueue(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state, bool first);
    bool hasRoom(const HostLine& host) const noexcept;
    void relist(HostLine& host);
    void leaveHost(URLSessionTask::State& state);
    void startWaiting();
    void begin(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state, HostLine& host);
    void finished(TransferSlot& slot, CURLcode code);
    void followOrAsk(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state);
    void applyRedirectDecision(Command& command);
    void cancelTask(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state);
    void cancelAll();
    void complete(std::shared_ptr<URLSessionTask> task, URLSessionTask::State& state, std::optional<URLError> error);
    void checkIdle();
    void timeOut(TransferSlot& slot, std::string message);
    void flushReceived();
    void maybeBecomeInvalid();

    // url_session_transfer.cpp
    void readProxyEnvironment();
    TransferSlot& acquireSlot();
    void setSharedOptions(TransferSlot& slot);
    void releaseSlot(TransferSlot& slot);
    std::optional<URLError> configure(TransferSlot& slot, URLSessionTask::State& state);

    std::shared_ptr<DelegateChannel> channel_;
    std::atomic<std::uint64_t> nextIdentifier_{1};
    std::atomic<std::size_t> headReserve_{0};

    std::mutex registryMutex_;
    URLSessionTask::State* registry_ = nullptr;

    std::mutex commandMutex_;
    std::vector<Command> commands_;
    // Wakes the transfer thread from curl_multi_poll. An eventfd costs a fraction of libcurl's
    // own wake-up, which sends a byte over a loopback socket pair.
    int wakeFd_ = -1;
    bool wakePending_ = false;
    bool stopped_ = false;

    std::thread thread_;  // made by the first command, under commandMutex_

    // Transfer thread.
    CURLM* multi_ = nullptr;
    std::size_t maxActive_ = 1;
    std::size_t maxPerHost_ = 1;
    // Waiting lines by origin, and the origins that have tasks waiting and room for them, taken
    // in turn. Keyed by views of the lines' own keys.
    std::unordered_map<std::string_view, std::unique_ptr<HostLine>> hosts_;
    std::deque<HostLine*> ready_;
    std::vector<TransferSlot*> active_;
    std::vector<std::unique_ptr<TransferSlot>> slots_;  // every slot made
    std::vector<TransferSlot*> freeSlots_;
    std::vector<URLSessionTask::State*> received_;    // tasks with undelivered bytes this round
    std::vector<Data> spareBodies_;                   // emptied body buffers to fill again
    std::vector<DelegateEvent> batch_;
    std::size_t live_ = 0;                            // resumed and not completed
    std::size_t multiplexCandidates_ = 0;             // active slots with mayMultiplex
    bool invalidated_ = false;
    bool invalidPosted_ = false;
    bool shuttingDown_ = false;
    DispatchTime now_;
    DispatchTime nextIdleCheck_ = DispatchTime::max();
    std::string headerLine_;  // reused to build "Name: value" lines
    // Proxies by scheme, read from the environment once instead of by libcurl on every transfer
    // ("" = none). Unused when the configuration names a proxy.
    std::string httpProxy_;
    std::string httpsProxy_;
    std::string noProxy_;
};

}  // namespace zul
