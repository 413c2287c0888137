#pragma once

/// `NetworkTask`: one request of a router in flight. It owns the prepared request and the
/// session's transfer (or plays the service's sample instead), gathers the body and turns the
/// outcome into a `Response` or a `NetworkTaskError` for the router. Applications meet it only as
/// a `Cancellable`.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "zul/network/records.hpp"
#include "zul/network/service.hpp"
#include "zul/platform/data.hpp"
#include "zul/platform/error.hpp"
#include "zul/platform/result.hpp"
#include "zul/platform/unique_function.hpp"
#include "zul/platform/url_request.hpp"
#include "zul/platform/url_session.hpp"

namespace zul {

/// How a transfer ended when it produced no response: the transport's code classified.
class NetworkTaskError final : public Error {
public:
    enum class Kind { cancelled, noInternetConnection, requestTimeOut, unknown };

    static NetworkTaskError cancelled() noexcept { return NetworkTaskError(Kind::cancelled); }
    static NetworkTaskError noInternetConnection() noexcept { return NetworkTaskError(Kind::noInternetConnection); }
    static NetworkTaskError requestTimeOut() noexcept { return NetworkTaskError(Kind::requestTimeOut); }
    static NetworkTaskError unknown() noexcept { return NetworkTaskError(Kind::unknown); }

    Kind kind() const noexcept { return kind_; }
    /// The case name, for example "requestTimeOut".
    const char* what() const noexcept override;

    friend bool operator==(const NetworkTaskError& a, const NetworkTaskError& b) noexcept { return a.kind_ == b.kind_; }

private:
    explicit NetworkTaskError(Kind kind) noexcept : kind_(kind) {}
    Kind kind_;
};

/// A request that can be resumed or cancelled by whoever holds it.
class Cancellable {
public:
    virtual ~Cancellable() = default;
    /// The request's token.
    virtual const std::string& token() const = 0;
    /// Starts the transfer if it was created suspended.
    virtual void resume() = 0;
    /// Stops the transfer. Its completion is then never called.
    virtual void cancel() = 0;
};

class NetworkTask final : public Cancellable, public std::enable_shared_from_this<NetworkTask> {
public:
    using TaskResult = Result<Response, NetworkTaskError>;
    /// Called with the task and its outcome; installed by the router.
    using Completion = UniqueFunction<void(NetworkTask& task, TaskResult result)>;

    static std::shared_ptr<NetworkTask> create(std::shared_ptr<const ServiceType> service, URLRequest request,
                                               std::string token, Completion completion);

    const ServiceType& service() const noexcept { return *service_; }
    const std::shared_ptr<const ServiceType>& sharedService() const noexcept { return service_; }

    /// The request as prepared so far (the router replaces it after the plug-ins' preparation).
    URLRequest request() const;
    void setRequest(URLRequest request);
    /// Moves the request out, leaving an empty one: the only holder of a request changes it in
    /// place, where a copy would be made on its first change.
    URLRequest takeRequest();

    /// The session's transfer; null for stubs and once completed or cancelled.
    std::shared_ptr<URLSessionTask> task() const;
    void setTask(std::shared_ptr<URLSessionTask> task);
    /// Whether `candidate` is this task's transfer. Takes no lock: the session's delegate asks
    /// it of every running task to find the one a callback is for.
    bool owns(const URLSessionTask& candidate) const noexcept {
        return transfer_.load(std::memory_order_acquire) == &candidate;
    }

    /// The body received so far.
    std::optional<Data> data() const;
    /// Appends received bytes; the first bytes become the body.
    void appendData(const Data& bytes);
    void setData(std::optional<Data> data);

    /// Starts the request: a real transfer on `session` (`never`; left suspended when
    /// `keepSuspended`), or the service's sample at once (`immediate`, before `start` returns) or
    /// after some seconds on a utility-quality global queue (`delayed`).
    void start(StubBehavior behavior, URLSession& session, bool keepSuspended);

    /// Turns the end of the transfer into the outcome and calls the completion: a cancelled task
    /// gives `cancelled`; an error is classified by its code (-1001 `requestTimeOut`, -1009
    /// `noInternetConnection`, any other `unknown`); without error the HTTP response makes a
    /// `Response`, and no HTTP response at all counts as `noInternetConnection`.
    void handleCompletion(const std::optional<URLError>& error);

    /// A response from its parts: status 200 when there is no response object, an empty body
    /// when there is no data. Status codes are not judged.
    static TaskResult convertResponseToResult(const std::shared_ptr<const HTTPURLResponse>& response,
                                              std::optional<Data> data, const std::optional<URLError>& error,
                                              URLRequest request);

    /// The status code of the blank HTTP response that stubbed answers carry.
    static constexpr std::int64_t stubStatusCode = 200;

    // Cancellable
    const std::string& token() const override { return token_; }
    void resume() override;
    void cancel() override;

private:
    struct PrivateTag {};

public:
    NetworkTask(PrivateTag, std::shared_ptr<const ServiceType> service, URLRequest request, std::string token,
                Completion completion);

private:
    /// Answers from `data` after `delay` seconds (at once when not positive).
    void perform(std::optional<Data> data, double delay);
    /// Takes the transfer away (null when there was none).
    std::shared_ptr<URLSessionTask> takeTask();

    const std::shared_ptr<const ServiceType> service_;
    Completion completion_;
    const std::string token_;

    // The fields below are touched from the caller's thread, the session's queue and stub
    // queues; one small lock keeps each access whole.
    mutable std::mutex mutex_;
    URLRequest request_;
    std::shared_ptr<URLSessionTask> task_;
    std::atomic<const URLSessionTask*> transfer_{nullptr};  // task_.get(), readable without the lock
    std::optional<Data> data_;
};

}  // namespace zul

template <>
struct std::hash<zul::NetworkTaskError> {
    std::size_t operator()(const zul::NetworkTaskError& error) const noexcept {
        return static_cast<std::size_t>(error.kind());
    }
};
