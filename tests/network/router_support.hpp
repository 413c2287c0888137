#pragma once

// Services, plug-ins and checks that the network tests share.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "support/thrown.hpp"
#include "zul/network/plugins.hpp"
#include "zul/network/service.hpp"

namespace zul::test {

/// The router error `body` throws (a test failure when it throws none).
template <class F>
NetworkRouterError routerError(F&& body) {
    return thrown<NetworkRouterError>(std::forward<F>(body));
}

/// A service on a full base address, configurable field by field.
struct LocalService : ServiceType {
    std::string base, route;
    HTTPMethod method = HTTPMethod::get;
    std::optional<Data> body, sample;
    std::optional<HeaderMap> fields;
    double seconds = 15.0;

    LocalService(std::string baseURL, std::string path) : base(std::move(baseURL)), route(std::move(path)) {}
    BaseURLOptions baseURL() const override { return BaseURLOptions::custom(*URL::fromString(base)); }
    std::string path() const override { return route; }
    HTTPMethod httpMethod() const override { return method; }
    std::optional<HeaderMap> headers() const override { return fields; }
    Task task() const override { return body ? Task::requestWithData(body, {}) : Task::request(); }
    double timeout() const override { return seconds; }
    std::optional<Data> sampleResponse() const override { return sample; }
};

/// The only service a probe made with `onlyProbedServices` acts on, so that a probe registered
/// globally does not disturb other tests.
struct ProbedService final : LocalService {
    using LocalService::LocalService;
};

/// A shared, ordered record of the hooks plug-ins saw.
class HookLog {
public:
    void add(std::string entry) { std::lock_guard lock(mutex_); entries_.push_back(std::move(entry)); }
    std::vector<std::string> entries() const { std::lock_guard lock(mutex_); return entries_; }
    void clear() { std::lock_guard lock(mutex_); entries_.clear(); }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> entries_;
};

/// Records each hook as "<tag>.<hook>" and does what its switches say.
class ProbePlugin final : public NetworkPluginType {
public:
    ProbePlugin(std::string tag, HookLog& log, bool onlyProbedServices = false)
        : tag_(std::move(tag)), log_(log), onlyProbed_(onlyProbedServices) {}

    std::optional<std::string> pluginName;
    std::atomic<bool> cancels{false}, refuses{false}, rejects{false}, stopsRedirects{false};
    std::atomic<int> delays{0};  // prepareReceive postpones this many results
    std::string addedHeader;     // prepareTransmit sets "X-Probe: <addedHeader>" when not empty

    void reset() { cancels = refuses = rejects = stopsRedirects = false; delays = 0; }

    std::optional<std::string> name() const override { return pluginName; }
    bool willTransmit(const URLRequest&, const ServiceType& service) override {
        return log(service, "willTransmit") && cancels;
    }
    std::optional<URLRequest> prepareTransmit(URLRequest request, const ServiceType& service) override {
        if (!log(service, "prepareTransmit")) return request;
        if (refuses) return std::nullopt;
        if (!addedHeader.empty()) request.addValue(addedHeader, "X-Probe");
        return request;
    }
    void prepareReceive(PluginResult result, const ServiceType& service,
                        UniqueFunction<void(PluginResult)> completion) override {
        if (log(service, "prepareReceive") && delays.fetch_sub(1) > 0)
            return completion(PluginResult::failure(NetworkPluginError::delay()));
        completion(std::move(result));
    }
    void didReceive(const Response&, const ServiceType& service, UniqueFunction<void(bool)> completion) override {
        completion(log(service, "didReceive") && rejects);
    }
    std::optional<URLRequest> handleRedirect(const HTTPURLResponse& response, URLRequest request,
                                             const ServiceType& service) override {
        if (log(service, "handleRedirect " + std::to_string(response.statusCode())) && stopsRedirects)
            return std::nullopt;
        return request;
    }

private:
    /// Records the hook if this probe acts on the service, and says whether it does.
    bool log(const ServiceType& service, const std::string& hook) {
        if (onlyProbed_ && dynamic_cast<const ProbedService*>(&service) == nullptr) return false;
        log_.add(tag_ + "." + hook);
        return true;
    }
    std::string tag_;
    HookLog& log_;
    bool onlyProbed_;
};

}  // namespace zul::test
