#pragma once

/// `URLSession`: HTTP(S) transfers on a background thread, reported to a delegate one callback
/// at a time on a queue of the caller's choosing.
///
///     class Printer : public zul::URLSessionDelegate {
///         void didReceive(zul::URLSession&, zul::URLSessionTask&, const zul::Data& bytes) override { ... }
///         void didCompleteWithError(zul::URLSession&, zul::URLSessionTask& task,
///                                   const std::optional<zul::URLError>& error) override { ... }
///     };
///     auto delegate = std::make_shared<Printer>();
///     auto session = zul::URLSession::create(zul::URLSessionConfiguration::defaultConfiguration(),
///                                            delegate, zul::DispatchQueue::main());
///     auto task = session->dataTask(zul::URLRequest(zul::URL::fromString("https://example.com/")));
///     task->resume();
///
/// A task starts suspended; `resume` puts it on the wire. Redirects are not followed blindly: the
/// delegate is asked first (`willPerformHTTPRedirection`) and may follow, rewrite or refuse them.
/// Transport failures arrive as a `URLError` carrying the platform's negative codes.
///
/// Each session runs its transfers (libcurl, HTTP/1.1 and HTTP/2 over TLS, connection reuse,
/// proxies from the environment) on a thread of its own. It hands libcurl only as many transfers
/// as its connections can carry and keeps the rest in line, so any number of tasks may be
/// resumed at once.
///
/// The request time-out is idle time: a transfer fails with `URLError::timedOut` when no bytes
/// moved for `timeoutInterval()` whole seconds (the configuration's `timeoutIntervalForRequest`
/// when that is not positive), counted from when it leaves the line, connecting included.
///
/// Bodies arrive as the server sent them: libcurl decodes no content coding, so a request that
/// sets `Accept-Encoding` itself gets the encoded bytes.
///
/// The session holds its delegate weakly; keep the delegate alive for as long as its callbacks
/// matter. `invalidateAndCancel` cancels the tasks and retires the session; destroying it does
/// the same, ends its thread and closes its connections.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zul/platform/data.hpp"
#include "zul/platform/dispatch_queue.hpp"
#include "zul/platform/error.hpp"
#include "zul/platform/http_url_response.hpp"
#include "zul/platform/unique_function.hpp"
#include "zul/platform/url_request.hpp"

namespace zul {

class URLSession;
class URLSessionTask;

/// A transport failure. `code()` is one of the platform's negative codes below; anything the
/// transport does not classify is `unknown` (-1).
class URLError final : public Error {
public:
    enum Code : int {
        unknown = -1,
        cancelled = -999,
        badURL = -1000,
        timedOut = -1001,
        unsupportedURL = -1002,
        cannotFindHost = -1003,
        cannotConnectToHost = -1004,
        networkConnectionLost = -1005,
        httpTooManyRedirects = -1007,
        notConnectedToInternet = -1009,
        badServerResponse = -1011,
    };

    /// `message` is the transport's own explanation (for example libcurl's error text); it is
    /// reported by `description()` and never compared.
    explicit URLError(int code, std::string message = {});

    int code() const noexcept { return code_; }
    /// "NSURLErrorDomain", the domain of every code above.
    static constexpr const char* domain = "NSURLErrorDomain";

    /// The symbolic case, for example "timedOut"; "URLError" for a code not listed above.
    const char* what() const noexcept override;
    /// The transport's explanation given at construction (may be empty).
    const std::string& message() const noexcept { return message_; }
    /// For example `URLError(-1001 timedOut): Operation timed out after 2000 milliseconds`;
    /// without a message, just `URLError(-999 cancelled)`.
    std::string description() const override;

    friend bool operator==(const URLError& a, const URLError& b) noexcept { return a.code_ == b.code_; }

private:
    int code_;
    std::string message_;
};

/// The delegate of a session. Every callback arrives on the session's delegate queue, one at a
/// time, in the order the transfers produced them. Each has a default that does what a session
/// without a delegate would do.
class URLSessionDelegate {
public:
    virtual ~URLSessionDelegate() = default;

    /// Body bytes of `task` arrived: everything gathered since the previous call, so large
    /// bodies come in a few large pieces. Called zero or more times before
    /// `didCompleteWithError`. The body of a redirect that is followed is not reported. The
    /// default ignores them.
    virtual void didReceive(URLSession& session, URLSessionTask& task, const Data& data);

    /// `task` finished: `error` is absent on success (whatever the HTTP status), and carries the
    /// transport failure otherwise (`URLError::cancelled` after `cancel`). The last callback of a
    /// task. The default does nothing.
    virtual void didCompleteWithError(URLSession& session, URLSessionTask& task,
                                      const std::optional<URLError>& error);

    /// The server answered `response` (a 3xx with a Location) and the session would go on with
    /// `newRequest`. Call `completionHandler` exactly once, on any thread, with the request to
    /// send (the same one, or a rewritten one) or absent to stop there: the task then completes
    /// with the redirect response itself as its response, and its body as the data. A task whose
    /// handler is never called stays waiting until it is cancelled. The default follows.
    virtual void willPerformHTTPRedirection(URLSession& session, URLSessionTask& task,
                                            const HTTPURLResponse& response, URLRequest newRequest,
                                            UniqueFunction<void(std::optional<URLRequest>)> completionHandler);

    /// The session was invalidated (`invalidateAndCancel` or `finishTasksAndInvalidate`) and will
    /// call nothing more. The default does nothing.
    virtual void didBecomeInvalid(URLSession& session);
};

/// How a session behaves. `defaultConfiguration()` gives the values below.
struct URLSessionConfiguration {
    static URLSessionConfiguration defaultConfiguration() { return URLSessionConfiguration(); }

    /// Idle time-out for requests whose own `timeoutInterval()` is not positive, in seconds.
    double timeoutIntervalForRequest = 60.0;
    /// Upper bound on the whole of one transfer, in seconds (default: 7 days).
    double timeoutIntervalForResource = 7.0 * 24 * 3600;
    /// Most connections the session keeps open at once, to all hosts together, and most
    /// transfers under way at once. Transfers beyond what these connections can carry wait in
    /// line, so any number of tasks can be resumed at once without running out of file
    /// descriptors.
    std::size_t maximumConnections = 64;
    /// Most connections to one origin (scheme, host, port), and so most HTTP/1.1 transfers to
    /// it at once. An origin that has answered over HTTP/2 carries up to `maximumConnections`
    /// transfers on its connections.
    std::size_t httpMaximumConnectionsPerHost = 16;
    /// Seconds an unused connection is kept for reuse before it is closed.
    double connectionIdleTimeout = 60.0;
    /// Headers sent with every request unless the request sets the same field.
    HTTPHeaders httpAdditionalHeaders;
    /// Proxy for every request, for example "http://proxy.local:3128". Absent: the standard
    /// environment variables (`http_proxy`, `https_proxy`, `all_proxy`, `no_proxy`) decide, as
    /// they stand when the session is created. Empty: no proxy, whatever the environment says.
    std::optional<std::string> proxy;
    /// Verify the server's TLS certificate and host name (keep this on outside tests).
    bool tlsVerifyPeer = true;
    /// Extra certificate authorities (a PEM file), in addition to the system's.
    std::optional<std::string> caInfoFile;
};

/// The platform's task states and their values.
enum class URLSessionTaskState : int { running = 0, suspended = 1, canceling = 2, completed = 3 };

/// One transfer. Made by a session, suspended; safe to use from any thread.
class URLSessionTask : public std::enable_shared_from_this<URLSessionTask> {
public:
    virtual ~URLSessionTask();
    URLSessionTask(const URLSessionTask&) = delete;
    URLSessionTask& operator=(const URLSessionTask&) = delete;

    /// Unique within its session, counting from 1.
    std::uint64_t taskIdentifier() const noexcept { return identifier_; }
    /// The request the task was made with.
    const URLRequest& originalRequest() const noexcept { return originalRequest_; }
    /// The request being sent now: after a followed redirect, the redirected one.
    URLRequest currentRequest() const;
    /// The final response once its headers have arrived; null before, and for transfers that
    /// produced no HTTP response.
    std::shared_ptr<const HTTPURLResponse> response() const;
    /// The failure the task completed with, if any.
    std::optional<URLError> error() const;
    URLSessionTaskState state() const noexcept;

    /// Starts a suspended task. Does nothing in any other state. A task of an invalidated
    /// session completes with `URLError::cancelled` instead (and destroying a session has
    /// already cancelled its tasks).
    void resume();
    /// Stops the task: it reports `URLError::cancelled` to the delegate and ends `completed`.
    /// Does nothing once the task is canceling or completed.
    void cancel();

    std::int64_t countOfBytesReceived() const noexcept;

    class State;  // shared with the session's transfer thread

protected:
    URLSessionTask(std::uint64_t identifier, URLRequest request, std::shared_ptr<State> state);

private:
    friend class URLSession;
    std::uint64_t identifier_;
    URLRequest originalRequest_;
    std::shared_ptr<State> state_;
};

/// A task whose body arrives in memory, through `didReceive` or a completion handler.
class URLSessionDataTask final : public URLSessionTask {
    struct Key {
        explicit Key() = default;
    };
    friend class URLSession;

public:
    /// Made by `URLSession::dataTask` only (`Key` cannot be named elsewhere); public so that the
    /// task and its count share one allocation.
    URLSessionDataTask(Key, std::uint64_t identifier, URLRequest request, std::shared_ptr<State> state)
        : URLSessionTask(identifier, std::move(request), std::move(state)) {}
};

class URLSession : public std::enable_shared_from_this<URLSession> {
public:
    /// Called once, on the delegate queue, with the body (absent on failure), the response (null
    /// when none arrived) and the error (absent on success).
    using CompletionHandler = UniqueFunction<void(std::optional<Data> data,
                                                  std::shared_ptr<const HTTPURLResponse> response,
                                                  std::optional<URLError> error)>;

    /// A session with its own transfer thread. `delegate` may be null and is held weakly.
    /// Without a `delegateQueue` the session makes a serial queue of its own.
    static std::shared_ptr<URLSession> create(URLSessionConfiguration configuration = URLSessionConfiguration::defaultConfiguration(),
                                              std::shared_ptr<URLSessionDelegate> delegate = nullptr,
                                              std::shared_ptr<DispatchQueue> delegateQueue = nullptr);

    /// Cancels every task, like `invalidateAndCancel`, waits for the transfer thread to end and
    /// closes the connections. Completion handlers are still called (with `URLError::cancelled`
    /// for what was cut short); the delegate, which needs the session, is not called any more.
    ~URLSession();
    URLSession(const URLSession&) = delete;
    URLSession& operator=(const URLSession&) = delete;

    /// A suspended task for `request`, reported to the delegate.
    std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request);
    /// A suspended task for `request` whose outcome goes to `completionHandler` instead of the
    /// delegate's `didReceive` and `didCompleteWithError` (redirects still ask the delegate).
    std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request, CompletionHandler completionHandler);

    /// Cancels every task (suspended ones too) and refuses new ones; the delegate then gets
    /// `didBecomeInvalid`, its last callback. Tasks resumed afterwards complete with
    /// `URLError::cancelled` (their completion handlers are called; the delegate is not).
    void invalidateAndCancel();
    /// Lets resumed tasks finish (suspended ones are not waited for) and refuses new ones; the
    /// delegate then gets `didBecomeInvalid`, its last callback.
    void finishTasksAndInvalidate();

    const URLSessionConfiguration& configuration() const noexcept;
    const std::shared_ptr<DispatchQueue>& delegateQueue() const noexcept;
    /// The delegate, if it still exists.
    std::shared_ptr<URLSessionDelegate> delegate() const;

    class Engine;  // the transfer thread and its libcurl multi handle

private:
    explicit URLSession(std::shared_ptr<Engine> engine);
    std::shared_ptr<Engine> engine_;
};

}  // namespace zul
