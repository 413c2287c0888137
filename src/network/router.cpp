#include "zul/network/router.hpp"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <mutex>
#include <utility>

#include "network/plugin_chains.hpp"
#include "network/request_builder.hpp"
#include "zul/core/dispatch.hpp"
#include "zul/platform/uuid.hpp"

namespace zul {

// ---- the conveniences of the interface ----

std::optional<std::string> HTTPRouter::get(URL url, Completion completion) {
    return get(std::move(url), NetworkRequestParameters{}, std::nullopt, std::move(completion));
}

std::optional<std::string> HTTPRouter::get(URL url, NetworkRequestParameters parameters, Completion completion) {
    return get(std::move(url), parameters, std::nullopt, std::move(completion));
}

std::optional<std::string> HTTPRouter::get(URL url, std::optional<HeaderMap> headers, Completion completion) {
    return get(std::move(url), NetworkRequestParameters{}, std::move(headers), std::move(completion));
}

std::optional<std::string> HTTPRouter::get(URL url, NetworkRequestParameters parameters,
                                           std::optional<HeaderMap> headers, Completion completion) {
    return request(std::make_shared<const DataService>(DataService::get(std::move(url), parameters, std::move(headers))),
                   StubBehavior::never(), std::move(completion));
}

std::optional<std::string> HTTPRouter::post(URL url, std::optional<Data> data, Completion completion) {
    return post(std::move(url), std::move(data), NetworkRequestParameters{}, std::nullopt, std::move(completion));
}

std::optional<std::string> HTTPRouter::post(URL url, std::optional<Data> data, NetworkRequestParameters parameters,
                                            Completion completion) {
    return post(std::move(url), std::move(data), parameters, std::nullopt, std::move(completion));
}

std::optional<std::string> HTTPRouter::post(URL url, std::optional<Data> data, std::optional<HeaderMap> headers,
                                            Completion completion) {
    return post(std::move(url), std::move(data), NetworkRequestParameters{}, std::move(headers),
                std::move(completion));
}

std::optional<std::string> HTTPRouter::post(URL url, std::optional<Data> data, NetworkRequestParameters parameters,
                                            std::optional<HeaderMap> headers, Completion completion) {
    return request(std::make_shared<const DataService>(
                       DataService::post(std::move(url), std::move(data), parameters, std::move(headers))),
                   StubBehavior::never(), std::move(completion));
}

// ---- global plug-ins ----

namespace {

// Copy on write: a request takes a snapshot with one reference count, and adding a plug-in
// never disturbs a chain that is running. Every request reads the list twice, on the caller's
// thread and on the delegate queue, while it changes perhaps once per process: each thread keeps
// the snapshot it read last and takes the lock again only when the version has moved.
struct GlobalPlugins {
    std::mutex mutex;
    std::shared_ptr<const detail::PluginList> list = std::make_shared<const detail::PluginList>();
    std::atomic<std::uint64_t> version{1};  // raised, under `mutex`, with every change of `list`
};

GlobalPlugins& globalPluginStore() {
    static GlobalPlugins* store = new GlobalPlugins();  // never destroyed: routers may outlive statics
    return *store;
}

std::shared_ptr<const detail::PluginList> globalPlugins() {
    struct Snapshot {
        std::uint64_t version = 0;
        std::shared_ptr<const detail::PluginList> list;
    };
    thread_local Snapshot snapshot;
    GlobalPlugins& store = globalPluginStore();
    if (snapshot.version != store.version.load(std::memory_order_acquire)) {
        std::lock_guard lock(store.mutex);
        snapshot.list = store.list;
        snapshot.version = store.version.load(std::memory_order_relaxed);
    }
    return snapshot.list;
}

// How the router reports a failed task or a plug-in's failure.
NetworkRouterError routerError(const AnyError& error) {
    if (error.is<NetworkPluginError>()) return NetworkRouterError::delayed();
    if (const auto* taskError = error.as<NetworkTaskError>()) {
        switch (taskError->kind()) {
            case NetworkTaskError::Kind::noInternetConnection: return NetworkRouterError::noInternetConnection();
            case NetworkTaskError::Kind::requestTimeOut: return NetworkRouterError::requestTimeOut();
            case NetworkTaskError::Kind::cancelled: return NetworkRouterError::cancelled();
            case NetworkTaskError::Kind::unknown: return NetworkRouterError::cancelled();
        }
    }
    // Every failure not classified above is reported as cancelled.
    return NetworkRouterError::cancelled();
}

}  // namespace

void NetworkRouter::addGlobalPlugin(std::shared_ptr<NetworkPluginType> plugin) {
    GlobalPlugins& store = globalPluginStore();
    std::lock_guard lock(store.mutex);
    auto next = std::make_shared<detail::PluginList>(*store.list);
    next->push_back(std::move(plugin));
    store.list = std::move(next);
    store.version.fetch_add(1, std::memory_order_release);
}

// ---- construction ----

struct NetworkRouter::DelayedTaskData {
    std::shared_ptr<NetworkTask> task;
    StubBehavior behavior;
    SharedCompletion completion;
};

std::shared_ptr<NetworkRouter> NetworkRouter::create(std::shared_ptr<const NetworkEnvironment> environment,
                                                     PluginList plugins) {
    return create(std::move(environment), std::move(plugins), URLSessionConfiguration::defaultConfiguration());
}

std::shared_ptr<NetworkRouter> NetworkRouter::create(std::shared_ptr<const NetworkEnvironment> environment,
                                                     PluginList plugins, URLSessionConfiguration configuration) {
    return std::make_shared<NetworkRouter>(PrivateTag{}, std::move(environment), std::move(plugins),
                                           std::move(configuration));
}

// Completions made on the router's delegate queue, handed to the main queue together. The
// session reports a burst of finished transfers in one delegate-queue job; posting each
// completion on its own would wake the main thread once per completion, which on a busy
// device costs more than the completion itself. Instead the first completion of a job
// schedules a flush behind that job on the same queue, and the flush hands everything
// gathered to the main queue as one job, in the order it was made.
class NetworkRouter::MainQueueMailbox : public std::enable_shared_from_this<MainQueueMailbox> {
public:
    explicit MainQueueMailbox(std::shared_ptr<DispatchQueue> queue) : queue_(std::move(queue)) {}

    /// Whether the caller runs on the queue whose jobs this mailbox follows.
    bool isCurrent() const noexcept { return queue_->isCurrent(); }

    void add(SharedCompletion completion, RouterResult result) {
        bool schedule = false;
        {
            std::lock_guard lock(mutex_);
            pending_.emplace_back(std::move(completion), std::move(result));
            schedule = !std::exchange(scheduled_, true);
        }
        if (schedule) queue_->async([self = shared_from_this()] { self->flush(); });
    }

private:
    using Item = std::pair<SharedCompletion, RouterResult>;

    void flush() {
        std::vector<Item> items;
        {
            // Moved out element by element: the pending list keeps its storage for the next
            // batch, and the batch for the main queue takes one allocation of the right size.
            std::lock_guard lock(mutex_);
            items.reserve(pending_.size());
            std::move(pending_.begin(), pending_.end(), std::back_inserter(items));
            pending_.clear();
            scheduled_ = false;
        }
        DispatchQueue::main()->async([items = std::move(items)]() mutable {
            for (auto& [completion, result] : items) (*completion)(std::move(result));
        });
    }

    const std::shared_ptr<DispatchQueue> queue_;
    std::mutex mutex_;
    std::vector<Item> pending_;
    bool scheduled_ = false;
};

NetworkRouter::NetworkRouter(PrivateTag, std::shared_ptr<const NetworkEnvironment> environment, PluginList plugins,
                             URLSessionConfiguration configuration)
    : monitor_(static_cast<const void*>(this)),
      environment_(std::move(environment)),
      plugins_(std::make_shared<const PluginList>(std::move(plugins))),
      configuration_(std::move(configuration)),
      queue_(DispatchQueue::create("dev.zul.network.router.delegate.queue")),
      mailbox_(std::make_shared<MainQueueMailbox>(queue_)) {}

NetworkRouter::~NetworkRouter() {
    std::vector<std::unique_ptr<DelayedTaskData>> parked;
    std::vector<std::shared_ptr<NetworkTask>> running;
    monitor_.run([&] {
        parked.swap(delayed_);
        running = requests_.takeAll();
    });
    for (const std::shared_ptr<NetworkTask>& task : running) task->cancel();
    // The session, destroyed with the router, ends its transfers and its thread.
}

URLSession& NetworkRouter::session() {
    std::call_once(sessionOnce_, [this] {
        session_ = URLSession::create(configuration_, std::shared_ptr<URLSessionDelegate>(shared_from_this()), queue_);
    });
    return *session_;
}

std::optional<HeaderMap> NetworkRouter::customHeaders() const {
    std::optional<HeaderMap> headers;
    monitor_.run([&] { headers = customHeaders_; });
    return headers;
}

void NetworkRouter::setCustomHeaders(std::optional<HeaderMap> headers) {
    monitor_.run([&] { customHeaders_ = std::move(headers); });
}

std::size_t NetworkRouter::runningRequestCount() const {
    std::size_t count = 0;
    monitor_.run([&] { count = requests_.size(); });
    return count;
}

std::size_t NetworkRouter::parkedRequestCount() const {
    std::size_t count = 0;
    monitor_.run([&] { count = delayed_.size(); });
    return count;
}

// ---- completions ----

NetworkRouter::SharedCompletion NetworkRouter::onMainQueue(Completion completion) {
    return std::make_shared<Completion>(std::move(completion));
}

void NetworkRouter::deliver(const SharedCompletion& completion, RouterResult result) {
    DispatchQueue::main()->async([completion, result = std::move(result)]() mutable { (*completion)(std::move(result)); });
}

void NetworkRouter::deliver(const std::shared_ptr<MainQueueMailbox>& mailbox, const SharedCompletion& completion,
                            RouterResult result) {
    if (mailbox->isCurrent()) {
        mailbox->add(completion, std::move(result));
    } else {
        deliver(completion, std::move(result));
    }
}

// ---- sending ----

std::optional<std::string> NetworkRouter::request(ServicePointer service, StubBehavior stubBehavior,
                                                  Completion callerCompletion) {
    // Every call of the caller's completion goes to the main queue.
    SharedCompletion completion = onMainQueue(std::move(callerCompletion));

    // 1. Build the request.
    std::optional<URLRequest> built;
    try {
        const std::optional<HeaderMap> headers = customHeaders();
        built = detail::buildRequest(*service, environment_.get(), headers ? &*headers : nullptr);
    } catch (const NetworkRouterError& error) {
        deliver(completion, RouterResult::failure(error));
        return std::nullopt;
    } catch (...) {
        // A custom task's own error: the router has no case for it and reports it as cancelled.
        deliver(completion, RouterResult::failure(NetworkRouterError::cancelled()));
        return std::nullopt;
    }

    // 2. The task, under a fresh token; it reports to the router, held weakly.
    auto task = NetworkTask::create(
        service, std::move(*built), UUID::random().uuidString(),
        [weakRouter = weak_from_this(), stubBehavior, completion](NetworkTask& finished,
                                                                  NetworkTask::TaskResult result) {
            const std::shared_ptr<NetworkRouter> router = weakRouter.lock();
            if (!router) {
                deliver(completion, RouterResult::failure(NetworkRouterError::cancelled()));
                return;
            }
            router->taskFinished(finished, std::move(result), stubBehavior, completion);
        });

    // 3. Register it.
    monitor_.run([&] { requests_.append(task); });

    // 4. Kept suspended by the service or by the router?
    const bool suspended = service->keepSuspended() || keepSuspended();

    if (!suspended) {
        // 5. Let the plug-ins veto or rewrite it. A refused task stays registered, never started
        //    (and nothing reads its request again). The request is taken out of the task for this,
        //    so that the first plug-in that changes it does not copy it first.
        Result<URLRequest, NetworkRouterError> prepared = preprocessedRequest(task->takeRequest(), *service);
        if (prepared.isFailure()) {
            deliver(completion, RouterResult::failure(prepared.error()));
            return std::nullopt;
        }
        task->setRequest(std::move(prepared).value());
    } else {
        // 6. Park it; the plug-ins prepare it when it is resumed.
        park(task, stubBehavior, completion);
    }

    // 7. Start it.
    std::string token = task->token();
    task->start(stubBehavior, session(), suspended);
    return token;
}

Result<URLRequest, NetworkRouterError> NetworkRouter::preprocessedRequest(URLRequest request,
                                                                          const ServiceType& service) const {
    using Prepared = Result<URLRequest, NetworkRouterError>;
    // 1. Global plug-ins, then the router's own.
    const std::shared_ptr<const detail::PluginList> globals = globalPlugins();
    const detail::PluginList* lists[] = {globals.get(), plugins_.get()};

    // 2. Any plug-in may cancel; the first that does ends the step.
    for (const detail::PluginList* list : lists) {
        for (const std::shared_ptr<NetworkPluginType>& plugin : *list) {
            if (plugin->willTransmit(request, service)) {
                return Prepared::failure(NetworkRouterError::cancelledByPlugin(plugin->name()));
            }
        }
    }
    // 3. Then each rewrites what the one before produced; the first refusal ends the step.
    std::optional<URLRequest> current(std::move(request));
    for (const detail::PluginList* list : lists) {
        for (const std::shared_ptr<NetworkPluginType>& plugin : *list) {
            current = plugin->prepareTransmit(std::move(*current), service);
            if (!current) {
                const auto refusal = RequestModificationError::preventedByPlugin(plugin);
                return Prepared::failure(NetworkRouterError::preventedByPlugin(refusal.plugin()->name()));
            }
        }
    }
    return Prepared::success(std::move(*current));
}

void NetworkRouter::park(std::shared_ptr<NetworkTask> task, StubBehavior behavior, SharedCompletion completion) {
    auto entry = std::make_unique<DelayedTaskData>(DelayedTaskData{std::move(task), behavior, std::move(completion)});
    monitor_.run([&] { delayed_.push_back(std::move(entry)); });
}

// ---- finishing ----

void NetworkRouter::taskFinished(NetworkTask& finished, NetworkTask::TaskResult result, StubBehavior behavior,
                                 const SharedCompletion& completion) {
    std::shared_ptr<NetworkTask> task = finished.shared_from_this();
    // Tokens are unique to their task, so the task itself is what to look for.
    monitor_.run([&] { requests_.remove(*task); });
    postprocessResult(task, std::move(result), behavior, completion);
}

void NetworkRouter::postprocessResult(const std::shared_ptr<NetworkTask>& task, NetworkTask::TaskResult result,
                                      StubBehavior behavior, const SharedCompletion& completion) {
    // 1. The task's result as plug-ins see it.
    PluginResult pluginResult = result.isSuccess() ? PluginResult::success(std::move(result).value())
                                                   : PluginResult::failure(AnyError(result.error()));
    const std::shared_ptr<const detail::PluginList> globals = globalPlugins();
    const std::shared_ptr<const ServiceType>& service = task->sharedService();

    auto finish = [weakRouter = weak_from_this(), mailbox = mailbox_, globals, plugins = plugins_, task, behavior,
                   completion](PluginResult modified) {
        if (modified.isSuccess()) {
            // 3. A response stands unless a plug-in rejects it.
            detail::findPluginThatInvalidatesResponse(
                std::move(modified).value(), task->sharedService(), globals, plugins,
                [mailbox, completion](std::optional<NetworkRouterError> rejection, Response response) {
                    if (rejection) {
                        deliver(mailbox, completion, RouterResult::failure(std::move(*rejection)));
                    } else {
                        deliver(mailbox, completion, RouterResult::success(std::move(response)));
                    }
                });
            return;
        }
        // 4. A failure, mapped; a postponed request is parked to be replayed by `resume`.
        NetworkRouterError error = routerError(modified.error());
        if (error.kind() == NetworkRouterError::Kind::delayed) {
            if (const std::shared_ptr<NetworkRouter> router = weakRouter.lock()) router->park(task, behavior, completion);
        }
        deliver(mailbox, completion, RouterResult::failure(std::move(error)));
    };

    // 2. The plug-ins' receive chain; it goes on on the thread of the last plug-in's answer, at
    //    once when they all answer at once.
    detail::networkModifyResponse(globals, plugins_, service, std::move(pluginResult), std::move(finish));
}

// ---- resuming and cancelling ----

void NetworkRouter::resume(const std::string& token) { resume(std::vector<std::string>{token}); }

void NetworkRouter::resume(const std::vector<std::string>& tokens) {
    const auto wanted = [&](const std::string& token) {
        return std::find(tokens.begin(), tokens.end(), token) != tokens.end();
    };
    // 1. Take the parked entries with these tokens, in parking order.
    std::vector<std::unique_ptr<DelayedTaskData>> taken;
    monitor_.run([&] {
        auto keep = std::stable_partition(delayed_.begin(), delayed_.end(),
                                          [&](const auto& entry) { return !wanted(entry->task->token()); });
        std::move(keep, delayed_.end(), std::back_inserter(taken));
        delayed_.erase(keep, delayed_.end());
    });

    for (std::unique_ptr<DelayedTaskData>& entry : taken) {
        NetworkTask& task = *entry->task;
        // 2. The plug-ins prepare the request now.
        Result<URLRequest, NetworkRouterError> prepared = preprocessedRequest(task.request(), task.service());
        if (prepared.isFailure()) {
            deliver(entry->completion, RouterResult::failure(prepared.error()));
            continue;
        }
        task.setRequest(std::move(prepared).value());
        // 3 and 4. Restart it and list it again. The task is listed before a stub plays, so that
        // an immediate answer finds it and takes it off the list again.
        if (entry->behavior.kind() == StubBehavior::Kind::never) {
            task.setTask(session().dataTask(task.request()));
            monitor_.run([&] { requests_.appendAgain(entry->task); });
        } else {
            monitor_.run([&] { requests_.appendAgain(entry->task); });
            task.start(entry->behavior, session(), false);
        }
    }

    // 5. Put the suspended transfers of these tokens on the wire.
    std::vector<std::shared_ptr<NetworkTask>> toResume;
    monitor_.run([&] {
        requests_.forEach([&](const std::shared_ptr<NetworkTask>& task) {
            if (wanted(task->token())) toResume.push_back(task);
        });
    });
    for (const std::shared_ptr<NetworkTask>& task : toResume) task->resume();
}

void NetworkRouter::cancel(const std::string& token) {
    std::shared_ptr<NetworkTask> found;
    monitor_.run([&] { found = requests_.removeToken(token); });
    if (found) found->cancel();
}

void NetworkRouter::cancelAllRequests() {
    monitor_.run([&] {
        for (const std::shared_ptr<NetworkTask>& task : requests_.takeAll()) task->cancel();
    });
}

// ---- the session's delegate ----

std::shared_ptr<NetworkTask> NetworkRouter::findTask(const URLSessionTask& transfer) const {
    std::shared_ptr<NetworkTask> found;
    monitor_.run([&] { found = requests_.find([&](const NetworkTask& task) { return task.owns(transfer); }); });
    return found;
}

void NetworkRouter::didReceive(URLSession& /*session*/, URLSessionTask& transfer, const Data& data) {
    if (std::shared_ptr<NetworkTask> task = findTask(transfer)) task->appendData(data);
}

void NetworkRouter::didCompleteWithError(URLSession& /*session*/, URLSessionTask& transfer,
                                         const std::optional<URLError>& error) {
    if (std::shared_ptr<NetworkTask> task = findTask(transfer)) task->handleCompletion(error);
}

void NetworkRouter::willPerformHTTPRedirection(URLSession& /*session*/, URLSessionTask& transfer,
                                               const HTTPURLResponse& response, URLRequest newRequest,
                                               UniqueFunction<void(std::optional<URLRequest>)> completionHandler) {
    // A redirect of a task the router no longer knows is left unanswered.
    std::shared_ptr<NetworkTask> task = findTask(transfer);
    if (!task || !task->task()) return;
    const std::shared_ptr<const detail::PluginList> globals = globalPlugins();
    completionHandler(detail::handleRedirect(*globals, *plugins_, task->service(), response, std::move(newRequest)));
}

void NetworkRouter::didFinishDownloadingTo(URLSession& /*session*/, URLSessionTask& transfer,
                                           const std::string& location) {
    std::shared_ptr<NetworkTask> task = findTask(transfer);
    if (!task || !task->task()) return;
    std::ifstream file(location, std::ios::binary);
    if (!file) return;
    Data bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) return;
    task->setData(std::move(bytes));
}

}  // namespace zul
