#include "network/plugin_chains.hpp"

#include <utility>

namespace zul::detail {

PluginList concatenated(const PluginList& primary, const PluginList& secondary) {
    PluginList all;
    all.reserve(primary.size() + secondary.size());
    all.insert(all.end(), primary.begin(), primary.end());
    all.insert(all.end(), secondary.begin(), secondary.end());
    return all;
}

std::shared_ptr<Future<Response>> networkModifyResponse(const PluginList& primary, const PluginList& secondary,
                                                        const std::shared_ptr<const ServiceType>& service,
                                                        PluginResult result) {
    // 1. A future that already holds the task's result.
    auto future = Future<Response>::create([&](const Future<Response>::Completion& complete) {
        complete(std::move(result));
    });
    // 2. One step per plug-in: when the previous step resolves, its result goes through
    //    prepareReceive, and what the plug-in hands back resolves this step.
    for (const PluginList* list : {&primary, &secondary}) {
        for (const std::shared_ptr<NetworkPluginType>& plugin : *list) {
            auto previous = std::move(future);
            future = Future<Response>::create([&](const Future<Response>::Completion& complete) {
                previous->onResult([plugin, service, complete](const PluginResult& outcome) {
                    plugin->prepareReceive(outcome, *service,
                                           [complete](PluginResult modified) { complete(std::move(modified)); });
                });
            });
        }
    }
    // 3. The last step is the chain's result.
    return future;
}

std::shared_ptr<Future<Void>> makeFutureThatWrapsDidReceive(const std::shared_ptr<NetworkPluginType>& plugin,
                                                            const Response& response,
                                                            const std::shared_ptr<const ServiceType>& service) {
    return Future<Void>::create([&](const Future<Void>::Completion& complete) {
        plugin->didReceive(response, *service, [plugin, complete](bool invalid) {
            if (invalid) {
                complete(Future<Void>::Outcome::failure(NetworkRouterError::preventedByPlugin(plugin->name())));
            } else {
                complete(Future<Void>::Outcome::success(Void{}));
            }
        });
    });
}

namespace {

// Asks the plug-ins from `index` on; each step starts only when the one before it accepted.
struct ValidationChain : std::enable_shared_from_this<ValidationChain> {
    PluginList plugins;
    Response response;
    std::shared_ptr<const ServiceType> service;
    UniqueFunction<void(std::optional<NetworkRouterError>)> completion;

    void ask(std::size_t index) {
        if (index == plugins.size()) {
            completion(std::nullopt);
            return;
        }
        makeFutureThatWrapsDidReceive(plugins[index], response, service)
            ->onResult([self = shared_from_this(), index](const Future<Void>::Outcome& outcome) {
                if (outcome.isFailure()) {
                    if (const auto* error = outcome.error().as<NetworkRouterError>()) {
                        self->completion(*error);
                    } else {
                        self->completion(NetworkRouterError::cancelled());
                    }
                    return;
                }
                self->ask(index + 1);
            });
    }
};

}  // namespace

void findPluginThatInvalidatesResponse(const Response& response, const std::shared_ptr<const ServiceType>& service,
                                       const PluginList& primary, const PluginList& secondary,
                                       UniqueFunction<void(std::optional<NetworkRouterError>)> completion) {
    if (primary.empty() && secondary.empty()) {
        completion(std::nullopt);
        return;
    }
    auto chain = std::make_shared<ValidationChain>();
    chain->plugins = concatenated(primary, secondary);
    chain->response = response;
    chain->service = service;
    chain->completion = std::move(completion);
    chain->ask(0);
}

std::optional<URLRequest> handleRedirect(const PluginList& primary, const PluginList& secondary,
                                         const ServiceType& service, const HTTPURLResponse& response,
                                         URLRequest redirectRequest) {
    std::optional<URLRequest> request(std::move(redirectRequest));
    for (const PluginList* list : {&primary, &secondary}) {
        for (const std::shared_ptr<NetworkPluginType>& plugin : *list) {
            request = plugin->handleRedirect(response, std::move(*request), service);
            if (!request) return std::nullopt;
        }
    }
    return request;
}

}  // namespace zul::detail
