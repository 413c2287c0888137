#include "zul/network/network_task.hpp"

#include <utility>

#include "zul/platform/dispatch_queue.hpp"

namespace zul {

const char* NetworkTaskError::what() const noexcept {
    switch (kind_) {
        case Kind::cancelled: return "cancelled";
        case Kind::noInternetConnection: return "noInternetConnection";
        case Kind::requestTimeOut: return "requestTimeOut";
        case Kind::unknown: return "unknown";
    }
    return "unknown";
}

std::shared_ptr<NetworkTask> NetworkTask::create(std::shared_ptr<const ServiceType> service, URLRequest request,
                                                 std::string token, Completion completion) {
    return std::make_shared<NetworkTask>(PrivateTag{}, std::move(service), std::move(request), std::move(token),
                                         std::move(completion));
}

NetworkTask::NetworkTask(PrivateTag, std::shared_ptr<const ServiceType> service, URLRequest request, std::string token,
                         Completion completion)
    : service_(std::move(service)),
      completion_(std::move(completion)),
      token_(std::move(token)),
      request_(std::move(request)) {}

URLRequest NetworkTask::request() const {
    std::lock_guard lock(mutex_);
    return request_;
}

URLRequest NetworkTask::takeRequest() {
    std::lock_guard lock(mutex_);
    return std::exchange(request_, URLRequest());
}

void NetworkTask::setRequest(URLRequest request) {
    std::lock_guard lock(mutex_);
    request_ = std::move(request);
}

std::shared_ptr<URLSessionTask> NetworkTask::task() const {
    std::lock_guard lock(mutex_);
    return task_;
}

void NetworkTask::setTask(std::shared_ptr<URLSessionTask> task) {
    std::lock_guard lock(mutex_);
    task_ = std::move(task);
    transfer_.store(task_.get(), std::memory_order_release);
}

std::shared_ptr<URLSessionTask> NetworkTask::takeTask() {
    std::lock_guard lock(mutex_);
    transfer_.store(nullptr, std::memory_order_release);
    return std::exchange(task_, nullptr);
}

std::optional<Data> NetworkTask::data() const {
    std::lock_guard lock(mutex_);
    return data_;
}

void NetworkTask::appendData(const Data& bytes) {
    std::lock_guard lock(mutex_);
    if (!data_) {
        data_ = bytes;
    } else {
        data_->insert(data_->end(), bytes.begin(), bytes.end());
    }
}

void NetworkTask::setData(std::optional<Data> data) {
    std::lock_guard lock(mutex_);
    data_ = std::move(data);
}

void NetworkTask::start(StubBehavior behavior, URLSession& session, bool keepSuspended) {
    switch (behavior.kind()) {
        case StubBehavior::Kind::never: {
            // A real transfer; left suspended when the router parks the request.
            std::shared_ptr<URLSessionTask> transfer = session.dataTask(request());
            setTask(transfer);
            if (!keepSuspended) transfer->resume();
            break;
        }
        case StubBehavior::Kind::immediate:
            perform(service_->sampleResponse(), 0);
            break;
        case StubBehavior::Kind::delayed:
            perform(service_->sampleResponse(), behavior.seconds());
            break;
    }
}

void NetworkTask::perform(std::optional<Data> data, double delay) {
    auto work = [weakSelf = weak_from_this(), data = std::move(data)]() mutable {
        const std::shared_ptr<NetworkTask> self = weakSelf.lock();
        if (!self) return;
        // A stub answers like a server that sent an empty 200 response.
        auto blank = std::make_shared<const HTTPURLResponse>(std::nullopt, stubStatusCode, HTTPHeaders());
        TaskResult result = convertResponseToResult(blank, std::move(data), std::nullopt, self->request());
        self->completion_(*self, std::move(result));
    };
    if (delay <= 0) {
        work();
    } else {
        DispatchQueue::global(QualityOfService::utility)->asyncAfter(dispatchTimeAfter(delay), std::move(work));
    }
}

NetworkTask::TaskResult NetworkTask::convertResponseToResult(const std::shared_ptr<const HTTPURLResponse>& response,
                                                            std::optional<Data> data,
                                                            const std::optional<URLError>& /*error*/,
                                                            URLRequest request) {
    const std::int64_t statusCode = response ? response->statusCode() : stubStatusCode;
    return TaskResult::success(
        Response{statusCode, data ? std::move(*data) : Data(), response, std::move(request)});
}

void NetworkTask::handleCompletion(const std::optional<URLError>& error) {
    // 1. Already cancelled: the transfer was taken away before it reported.
    const std::shared_ptr<URLSessionTask> transfer = takeTask();
    if (!transfer) {
        completion_(*this, TaskResult::failure(NetworkTaskError::cancelled()));
        return;
    }
    // 2. The transfer is over; let go of it.
    transfer->cancel();

    // 3. Transport failures, by code.
    if (error) {
        switch (error->code()) {
            case URLError::timedOut:
                completion_(*this, TaskResult::failure(NetworkTaskError::requestTimeOut()));
                return;
            case URLError::notConnectedToInternet:
                completion_(*this, TaskResult::failure(NetworkTaskError::noInternetConnection()));
                return;
            default:
                completion_(*this, TaskResult::failure(NetworkTaskError::unknown()));
                return;
        }
    }
    // 4. An HTTP response, whatever its status.
    if (std::shared_ptr<const HTTPURLResponse> response = transfer->response()) {
        const std::int64_t statusCode = response->statusCode();
        std::optional<Data> body;
        URLRequest sent;
        {
            // The body is the response's now; the request stays, for a replay after a delay.
            std::lock_guard lock(mutex_);
            body = std::move(data_);
            data_.reset();
            sent = request_;
        }
        completion_(*this, TaskResult::success(Response{statusCode, body ? std::move(*body) : Data(),
                                                        std::move(response), std::move(sent)}));
        return;
    }
    // 5. A transfer that ended without an HTTP response is taken for being offline.
    completion_(*this, TaskResult::failure(NetworkTaskError::noInternetConnection()));
}

void NetworkTask::resume() {
    if (std::shared_ptr<URLSessionTask> transfer = task();
        transfer && transfer->state() == URLSessionTaskState::suspended) {
        transfer->resume();
    }
}

void NetworkTask::cancel() {
    if (const std::shared_ptr<URLSessionTask> transfer = takeTask()) transfer->cancel();
}

}  // namespace zul
