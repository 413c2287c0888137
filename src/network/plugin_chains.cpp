#include "network/plugin_chains.hpp"

#include <utility>

namespace zul::detail {

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

// Asks the plug-ins from `index` on (the primary list's, then the secondary's); each step starts
// only when the one before it accepted.
struct ValidationChain : std::enable_shared_from_this<ValidationChain> {
    SharedPluginList primary;
    SharedPluginList secondary;
    Response response;
    std::shared_ptr<const ServiceType> service;
    UniqueFunction<void(std::optional<NetworkRouterError>, Response)> completion;

    void ask(std::size_t index) {
        const std::size_t first = primary->size();
        if (index == first + secondary->size()) {
            completion(std::nullopt, std::move(response));
            return;
        }
        const auto& plugin = index < first ? (*primary)[index] : (*secondary)[index - first];
        makeFutureThatWrapsDidReceive(plugin, response, service)
            ->onResult([self = shared_from_this(), index](const Future<Void>::Outcome& outcome) {
                if (outcome.isFailure()) {
                    const auto* error = outcome.error().as<NetworkRouterError>();
                    self->completion(error != nullptr ? *error : NetworkRouterError::cancelled(),
                                     std::move(self->response));
                    return;
                }
                self->ask(index + 1);
            });
    }
};

}  // namespace

void findPluginThatInvalidatesResponse(Response response, const std::shared_ptr<const ServiceType>& service,
                                       SharedPluginList primary, SharedPluginList secondary,
                                       UniqueFunction<void(std::optional<NetworkRouterError>, Response)> completion) {
    if (primary->empty() && secondary->empty()) {
        completion(std::nullopt, std::move(response));
        return;
    }
    auto chain = std::make_shared<ValidationChain>();
    chain->primary = std::move(primary);
    chain->secondary = std::move(secondary);
    chain->response = std::move(response);
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
