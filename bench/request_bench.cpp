// Building requests from a service description: the fixed cost every network call pays before
// any byte goes out, and the baseline the router's own overhead is judged against.
//
// The service is an apiService endpoint with five query parameters, a JSON body of five fields
// and three headers, built against an environment the way the router builds it. Besides time,
// the benchmark counts heap allocations per request (global operator new is replaced below).

#include <benchmark/benchmark.h>

#include "network/request_builder.hpp"
#include "support/allocation_counter.hpp"
#include "zul/network/service.hpp"

namespace {

struct Environment final : zul::NetworkEnvironment {
    std::string host() const override { return "api.example.com"; }
};

// What a typical service of an application looks like: members computed on each read.
struct SearchService final : zul::ServiceType {
    zul::BaseURLOptions baseURL() const override { return zul::BaseURLOptions::apiService(); }
    std::string path() const override { return "v2/catalogue/search"; }
    zul::HTTPMethod httpMethod() const override { return zul::HTTPMethod::post; }
    std::optional<zul::HeaderMap> headers() const override {
        return zul::HeaderMap{{"Accept", "application/json"}, {"X-Client", "tv/4.2"}, {"X-Request-Source", "home"}};
    }
    zul::Task task() const override {
        return zul::Task::requestCompositeParameters(
            zul::AnyMap{{"query", "star wars"}, {"limit", 20}, {"adult", false}, {"rating", 7.5}, {"genre", "sci-fi"}},
            zul::AnyMap{{"page", 2}, {"lang", "ru"}, {"region", "RU"}, {"device", "stb"}, {"v", 3}});
    }
};

void BM_BuildRequest(benchmark::State& state) {
    const SearchService service;
    const Environment environment;
    const zul::HeaderMap routerHeaders{{"Authorization", "Bearer 0123456789abcdef"}};
    const std::size_t before = zul::bench::allocationCount();
    for (auto _ : state) {
        zul::URLRequest request = zul::detail::buildRequest(service, &environment, &routerHeaders);
        benchmark::DoNotOptimize(request);
    }
    const double perRequest =
        static_cast<double>(zul::bench::allocationCount() - before) / static_cast<double>(state.iterations());
    state.counters["allocs/request"] = perRequest;
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BuildRequest)->Iterations(1'000'000)->Unit(benchmark::kNanosecond);

// The parts on their own, to see where the time goes.
void BM_URLParameterEncoder(benchmark::State& state) {
    const zul::AnyMap parameters{{"page", 2}, {"lang", "ru"}, {"region", "RU"}, {"device", "stb"}, {"v", 3}};
    const zul::URLRequest base(zul::URL::fromString("https://api.example.com/v2/catalogue/search"));
    for (auto _ : state) {
        zul::URLRequest request = base;
        zul::URLParameterEncoder::encode(&parameters, request);
        benchmark::DoNotOptimize(request);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_URLParameterEncoder);

void BM_JSONParameterEncoder(benchmark::State& state) {
    const zul::AnyMap parameters{
        {"query", "star wars"}, {"limit", 20}, {"adult", false}, {"rating", 7.5}, {"genre", "sci-fi"}};
    const zul::URLRequest base(zul::URL::fromString("https://api.example.com/v2/catalogue/search"));
    for (auto _ : state) {
        zul::URLRequest request = base;
        zul::JSONParameterEncoder::encode(&parameters, request);
        benchmark::DoNotOptimize(request);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_JSONParameterEncoder);

void BM_URLFromString(benchmark::State& state) {
    for (auto _ : state) {
        auto url = zul::URL::fromString("https://api.example.com/");
        benchmark::DoNotOptimize(url);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_URLFromString);

}  // namespace

BENCHMARK_MAIN();
