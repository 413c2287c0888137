#include "network/plugin_chains.hpp"

#include <atomic>
#include <utility>

namespace zul::detail {

namespace {

// What every step of a chain needs: the plug-ins in order (global ones first), the service, and
// the step whose answer is awaited. Steps run one after another, so a plug-in's answer goes on
// only while its step is the awaited one: only its first answer counts, as only the first
// completion of a future reaches the callbacks already waiting for it. Shared by the steps,
// because a plug-in may answer after the call that asked it has returned.
template <class Completion>
struct Chain {
    Chain(SharedPluginList primary_, SharedPluginList secondary_, std::shared_ptr<const ServiceType> service_,
          Completion completion_)
        : primary(std::move(primary_)),
          secondary(std::move(secondary_)),
          service(std::move(service_)),
          completion(std::move(completion_)),
          count(primary->size() + secondary->size()) {}

    const std::shared_ptr<NetworkPluginType>& plugin(std::size_t index) const {
        const std::size_t first = primary->size();
        return index < first ? (*primary)[index] : (*secondary)[index - first];
    }
    // True the first time step `index` answers; the next step is then the awaited one.
    bool firstAnswer(std::size_t index) {
        return awaited.compare_exchange_strong(index, index + 1, std::memory_order_acq_rel);
    }

    const SharedPluginList primary;
    const SharedPluginList secondary;
    const std::shared_ptr<const ServiceType> service;
    Completion completion;
    const std::size_t count;
    std::atomic<std::size_t> awaited{0};
};

using ModifyChain = Chain<UniqueFunction<void(PluginResult)>>;

// The response under validation stays here while the plug-ins look at it, one at a time.
struct ValidationChain : Chain<UniqueFunction<void(std::optional<NetworkRouterError>, Response)>> {
    using Chain::Chain;
    Response response;
};

// Step `index` of the modification chain: the plug-in rewrites the previous step's output, and
// its answer starts the next step on whichever thread gave it.
void modifyStep(const std::shared_ptr<ModifyChain>& chain, std::size_t index, PluginResult result) {
    if (index == chain->count) {
        chain->completion(std::move(result));
        return;
    }
    chain->plugin(index)->prepareReceive(std::move(result), *chain->service,
                                         [chain, index](PluginResult modified) {
                                             if (chain->firstAnswer(index)) modifyStep(chain, index + 1, std::move(modified));
                                         });
}

// Step `index` of the validation chain: asked only when every plug-in before it accepted.
void validationStep(const std::shared_ptr<ValidationChain>& chain, std::size_t index) {
    if (index == chain->count) {
        chain->completion(std::nullopt, std::move(chain->response));
        return;
    }
    chain->plugin(index)->didReceive(chain->response, *chain->service, [chain, index](bool invalid) {
        if (!chain->firstAnswer(index)) return;
        if (invalid) {
            chain->completion(NetworkRouterError::preventedByPlugin(chain->plugin(index)->name()),
                              std::move(chain->response));
        } else {
            validationStep(chain, index + 1);
        }
    });
}

}  // namespace

void networkModifyResponse(SharedPluginList primary, SharedPluginList secondary,
                           std::shared_ptr<const ServiceType> service, PluginResult result,
                           UniqueFunction<void(PluginResult)> completion) {
    // 1. With no plug-ins the task's result is the outcome, unchanged.
    if (primary->empty() && secondary->empty()) {
        completion(std::move(result));
        return;
    }
    // 2. One step per plug-in, each fed the previous one's output; 3. the last output is the
    //    chain's result.
    auto chain = std::make_shared<ModifyChain>(std::move(primary), std::move(secondary), std::move(service),
                                               std::move(completion));
    modifyStep(chain, 0, std::move(result));
}

void findPluginThatInvalidatesResponse(Response response, std::shared_ptr<const ServiceType> service,
                                       SharedPluginList primary, SharedPluginList secondary,
                                       UniqueFunction<void(std::optional<NetworkRouterError>, Response)> completion) {
    if (primary->empty() && secondary->empty()) {
        completion(std::nullopt, std::move(response));
        return;
    }
    auto chain = std::make_shared<ValidationChain>(std::move(primary), std::move(secondary), std::move(service),
                                                   std::move(completion));
    chain->response = std::move(response);
    validationStep(chain, 0);
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
