#pragma once

/// `NetworkRouter`: the library's HTTP client. Describe an endpoint as a `ServiceType`, hand it
/// to a router, and get a `Response` or a `NetworkRouterError` back on the main queue.
///
///     auto router = zul::NetworkRouter::create(environment, {std::make_shared<AuthPlugin>()});
///     router->request(std::make_shared<MovieService>(2), [](zul::RouterResult result) {
///         if (result.isSuccess()) show(result.value().data);        // any HTTP status arrives here
///         else report(result.error().description());              // e.g. "requestTimeOut"
///     });
///     router->get(zul::URL::fromString("https://example.com/ping"), [](zul::RouterResult) { ... });
///
/// Every outcome reaches its completion asynchronously on the main queue (run `zul::MainLoop` or
/// pump `DispatchQueue::main()`), never as an exception. A request returns its token, by which
/// it can be cancelled or, when it was kept suspended or postponed by a plug-in, resumed.
///
/// For JSON bodies, `requestDecodable<T>` decodes the body into a record:
///
///     router->requestDecodable<Movie>("data", service, zul::StubBehavior::never(),
///         [](zul::Result<zul::Decoded<Movie>, zul::NetworkRouterError> result) { ... });
///
/// `requestDecodable` is for bodies known to decode: one that does not stops the process.
/// `tryRequestDecodable` takes the same arguments and reports a body that does not decode as a
/// failure holding the `DecodingError` instead.

#include <any>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "zul/core/dispatch.hpp"
#include "zul/core/json_decoder.hpp"
#include "zul/network/detail/task_list.hpp"
#include "zul/network/network_task.hpp"
#include "zul/network/plugins.hpp"
#include "zul/network/records.hpp"
#include "zul/network/responses.hpp"
#include "zul/network/service.hpp"
#include "zul/platform/dispatch_queue.hpp"
#include "zul/platform/result.hpp"
#include "zul/platform/unique_function.hpp"
#include "zul/platform/url_session.hpp"

namespace zul {

/// What a router delivers: the response, whatever its status code, or the router's error.
using RouterResult = Result<Response, NetworkRouterError>;

/// A decoded body and the response it came in.
template <class T>
struct Decoded {
    T value;
    Response response;
};

/// The interface of an HTTP router: send services, cancel them. The `get` and `post`
/// conveniences send a `DataService` without stubbing.
class HTTPRouter {
public:
    /// Called once per outcome, on the main queue.
    using Completion = UniqueFunction<void(RouterResult)>;
    using ServicePointer = std::shared_ptr<const ServiceType>;

    virtual ~HTTPRouter() = default;

    /// Sends `service`, answered as `stubBehavior` says. Returns the request's token, or absent
    /// when the request failed before it could be sent (the completion has the error).
    virtual std::optional<std::string> request(ServicePointer service, StubBehavior stubBehavior,
                                               Completion completion) = 0;
    /// Sends `service` over the network.
    std::optional<std::string> request(ServicePointer service, Completion completion) {
        return request(std::move(service), StubBehavior::never(), std::move(completion));
    }
    /// Sends a service given by value (it is copied into shared ownership).
    template <class S>
        requires std::derived_from<std::remove_cvref_t<S>, ServiceType>
    std::optional<std::string> request(S&& service, StubBehavior stubBehavior, Completion completion) {
        return request(std::make_shared<const std::remove_cvref_t<S>>(std::forward<S>(service)), stubBehavior,
                       std::move(completion));
    }
    template <class S>
        requires std::derived_from<std::remove_cvref_t<S>, ServiceType>
    std::optional<std::string> request(S&& service, Completion completion) {
        return request(std::forward<S>(service), StubBehavior::never(), std::move(completion));
    }

    std::optional<std::string> get(URL url, Completion completion);
    std::optional<std::string> get(URL url, NetworkRequestParameters parameters, Completion completion);
    std::optional<std::string> get(URL url, std::optional<HeaderMap> headers, Completion completion);
    std::optional<std::string> get(URL url, NetworkRequestParameters parameters, std::optional<HeaderMap> headers,
                                   Completion completion);

    std::optional<std::string> post(URL url, std::optional<Data> data, Completion completion);
    std::optional<std::string> post(URL url, std::optional<Data> data, NetworkRequestParameters parameters,
                                    Completion completion);
    std::optional<std::string> post(URL url, std::optional<Data> data, std::optional<HeaderMap> headers,
                                    Completion completion);
    std::optional<std::string> post(URL url, std::optional<Data> data, NetworkRequestParameters parameters,
                                    std::optional<HeaderMap> headers, Completion completion);

    /// Stops the request with this token; its completion is not called. Unknown tokens are
    /// ignored.
    virtual void cancel(const std::string& token) = 0;
    /// Stops every running request of the router; their completions are not called.
    virtual void cancelAllRequests() = 0;
};

class NetworkRouter final : public HTTPRouter,
                            public URLSessionDelegate,
                            public std::enable_shared_from_this<NetworkRouter> {
    struct PrivateTag {};

public:
    using PluginList = std::vector<std::shared_ptr<NetworkPluginType>>;

    /// A plug-in refused to prepare a request; reaches callers as
    /// `NetworkRouterError::preventedByPlugin(name)`.
    class RequestModificationError final : public Error {
    public:
        static RequestModificationError preventedByPlugin(std::shared_ptr<NetworkPluginType> plugin) {
            return RequestModificationError(std::move(plugin));
        }
        const std::shared_ptr<NetworkPluginType>& plugin() const noexcept { return plugin_; }
        const char* what() const noexcept override { return "preventedByPlugin"; }

    private:
        explicit RequestModificationError(std::shared_ptr<NetworkPluginType> plugin) : plugin_(std::move(plugin)) {}
        std::shared_ptr<NetworkPluginType> plugin_;
    };

    /// A router for `environment` (the host of `apiService` services; may be null) with its own
    /// plug-ins, which act after the global ones.
    static std::shared_ptr<NetworkRouter> create(std::shared_ptr<const NetworkEnvironment> environment = nullptr,
                                                 PluginList plugins = {});
    /// The same, with the session configuration of your choice (connection cap, proxy, TLS).
    static std::shared_ptr<NetworkRouter> create(std::shared_ptr<const NetworkEnvironment> environment,
                                                 PluginList plugins, URLSessionConfiguration configuration);

    /// Adds a plug-in that every router runs, before its own. Registering one twice runs it twice.
    static void addGlobalPlugin(std::shared_ptr<NetworkPluginType> plugin);

    /// Cancels what is still running; parked requests are dropped. No completion is called for
    /// them.
    ~NetworkRouter() override;

    /// Headers added to every request; a service's own headers of the same name win.
    std::optional<HeaderMap> customHeaders() const;
    void setCustomHeaders(std::optional<HeaderMap> headers);

    /// When true, every new request is created suspended and parked until `resume(token)`.
    bool keepSuspended() const noexcept { return keepSuspended_.load(std::memory_order_relaxed); }
    void setKeepSuspended(bool keep) noexcept { keepSuspended_.store(keep, std::memory_order_relaxed); }

    const std::shared_ptr<const NetworkEnvironment>& environment() const noexcept { return environment_; }
    const PluginList& plugins() const noexcept { return *plugins_; }

    using HTTPRouter::request;
    std::optional<std::string> request(ServicePointer service, StubBehavior stubBehavior,
                                       Completion completion) override;
    void cancel(const std::string& token) override;
    void cancelAllRequests() override;

    /// Sends the parked requests with these tokens (kept suspended, or postponed by a plug-in),
    /// in the order they were parked. Unknown tokens are ignored.
    void resume(const std::string& token);
    void resume(const std::vector<std::string>& tokens);

    /// Sends `service` and decodes its JSON body as a `T`, whole or, with a non-empty `keyPath`,
    /// from the value under that top-level key (matched exactly: "a.b" is one key). Transport
    /// and plug-in failures arrive as failures. A body that does not decode stops the process:
    /// use `tryRequestDecodable` where that can happen.
    template <Decodable T>
    std::optional<std::string> requestDecodable(std::optional<std::string> keyPath, ServicePointer service,
                                                StubBehavior stubBehavior,
                                                UniqueFunction<void(Result<Decoded<T>, NetworkRouterError>)> completion);

    /// As `requestDecodable`, but a body that does not decode is reported as a failure holding
    /// the `DecodingError`; other failures hold the `NetworkRouterError`.
    template <Decodable T>
    std::optional<std::string> tryRequestDecodable(std::optional<std::string> keyPath, ServicePointer service,
                                                   StubBehavior stubBehavior,
                                                   UniqueFunction<void(Result<Decoded<T>, AnyError>)> completion);

    /// Requests registered and not yet finished, cancelled or torn down (parked ones included).
    std::size_t runningRequestCount() const;
    /// Requests parked until `resume`.
    std::size_t parkedRequestCount() const;

    // Session delegate: called by the router's session on its delegate queue.
    void didReceive(URLSession& session, URLSessionTask& task, const Data& data) override;
    void didCompleteWithError(URLSession& session, URLSessionTask& task,
                              const std::optional<URLError>& error) override;
    void willPerformHTTPRedirection(URLSession& session, URLSessionTask& task, const HTTPURLResponse& response,
                                    URLRequest newRequest,
                                    UniqueFunction<void(std::optional<URLRequest>)> completionHandler) override;
    /// A download finished into the file at `location`: its bytes become the task's body. A file
    /// that cannot be read leaves the body as it was.
    void didFinishDownloadingTo(URLSession& session, URLSessionTask& task, const std::string& location);

    NetworkRouter(PrivateTag, std::shared_ptr<const NetworkEnvironment> environment, PluginList plugins,
                  URLSessionConfiguration configuration);

private:
    struct DelayedTaskData;
    class MainQueueMailbox;
    using SharedCompletion = std::shared_ptr<Completion>;

    static SharedCompletion onMainQueue(Completion completion);
    static void deliver(const SharedCompletion& completion, RouterResult result);
    static void deliver(const std::shared_ptr<MainQueueMailbox>& mailbox, const SharedCompletion& completion,
                        RouterResult result);
    URLSession& session();
    std::shared_ptr<NetworkTask> findTask(const URLSessionTask& transfer) const;
    Result<URLRequest, NetworkRouterError> preprocessedRequest(URLRequest request, const ServiceType& service) const;
    void taskFinished(NetworkTask& task, NetworkTask::TaskResult result, StubBehavior behavior,
                      const SharedCompletion& completion);
    void postprocessResult(const std::shared_ptr<NetworkTask>& task, NetworkTask::TaskResult result,
                           StubBehavior behavior, const SharedCompletion& completion);
    void park(std::shared_ptr<NetworkTask> task, StubBehavior behavior, SharedCompletion completion);

    template <class T>
    static T decodeBody(const std::optional<std::string>& keyPath, const Response& response);

    // The router's lock: the monitor `synced(this, ...)` takes, held claimed for the router's life
    // so that the router's own calls (several per request) skip finding it.
    const detail::HeldMonitor monitor_;
    const std::shared_ptr<const NetworkEnvironment> environment_;
    const std::shared_ptr<const PluginList> plugins_;  // shared with the chains that run them
    const URLSessionConfiguration configuration_;
    std::atomic<bool> keepSuspended_{false};
    std::optional<HeaderMap> customHeaders_;                // guarded by the router's monitor
    detail::TaskList requests_;                             // guarded by the router's monitor
    std::vector<std::unique_ptr<DelayedTaskData>> delayed_; // guarded by the router's monitor
    std::shared_ptr<DispatchQueue> queue_;                  // the session's delegate queue
    std::shared_ptr<MainQueueMailbox> mailbox_;             // completions made on queue_, for the main queue
    std::once_flag sessionOnce_;
    std::shared_ptr<URLSession> session_;
};

// ---- decoding ----

template <class T>
T NetworkRouter::decodeBody(const std::optional<std::string>& keyPath, const Response& response) {
    JSONDecoder decoder;
    decoder.userInfo.insertOrAssign(responseContext, std::any(response));
    if (!keyPath || keyPath->empty()) return decoder.decode<T>(response.data);
    decoder.userInfo.insertOrAssign(decodingContext, std::any(*keyPath));
    return decoder.decode<ResponseResult<T>>(response.data).result;
}

template <Decodable T>
std::optional<std::string> NetworkRouter::requestDecodable(
    std::optional<std::string> keyPath, ServicePointer service, StubBehavior stubBehavior,
    UniqueFunction<void(Result<Decoded<T>, NetworkRouterError>)> completion) {
    // The router's own completion already runs on the main queue, so decoding happens there and
    // the caller's completion is handed on from there, asynchronously, as every completion is.
    auto caller = std::make_shared<decltype(completion)>(std::move(completion));
    return request(std::move(service), stubBehavior,
                   [caller, keyPath = std::move(keyPath)](RouterResult result) {
                       // Decoding errors are not router errors: the unconditional conversion of
                       // the throwing flatMap stops the process on them.
                       Result<Decoded<T>, NetworkRouterError> decoded = result.flatMap([&](const Response& response) {
                           return Decoded<T>{decodeBody<T>(keyPath, response), response};
                       });
                       DispatchQueue::main()->async([caller, decoded = std::move(decoded)]() mutable {
                           (*caller)(std::move(decoded));
                       });
                   });
}

template <Decodable T>
std::optional<std::string> NetworkRouter::tryRequestDecodable(
    std::optional<std::string> keyPath, ServicePointer service, StubBehavior stubBehavior,
    UniqueFunction<void(Result<Decoded<T>, AnyError>)> completion) {
    auto caller = std::make_shared<decltype(completion)>(std::move(completion));
    return request(std::move(service), stubBehavior,
                   [caller, keyPath = std::move(keyPath)](RouterResult result) {
                       Result<Decoded<T>, AnyError> decoded =
                           result.isFailure()
                               ? Result<Decoded<T>, AnyError>::failure(AnyError(result.error()))
                               : Result<Decoded<T>, AnyError>::catchToResult([&] {
                                     return Decoded<T>{decodeBody<T>(keyPath, result.value()), result.value()};
                                 });
                       DispatchQueue::main()->async([caller, decoded = std::move(decoded)]() mutable {
                           (*caller)(std::move(decoded));
                       });
                   });
}

}  // namespace zul
