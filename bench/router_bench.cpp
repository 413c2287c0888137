// The network router against raw libcurl multi, on the same transfers: GETs of a small body from
// a local server, a fixed number in flight. Run through bench/run_router_bench.sh, which starts
// nginx on a free port and passes its address in ZUL_BENCH_URL.
//
// The router runs with one global and one router plug-in (each adds a header), so the figure
// includes the plug-in chains, the futures behind them and the hop of every completion to the
// main queue. The raw loop sends the same two headers, so that both put the same requests on the
// wire. The router's session may open as many connections to the server as there are requests
// in flight, as the raw loop does; the default of 16 per host would compare different things.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "zul/network/router.hpp"
#include "zul/platform/main_loop.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int kRequests = 20000;
constexpr int kInFlight = 64;
constexpr int kBurst = 10000;

std::string targetURL() {
    const char* url = std::getenv("ZUL_BENCH_URL");
    return url != nullptr ? url : "";
}

class HeaderPlugin final : public zul::NetworkPluginType {
public:
    explicit HeaderPlugin(std::string value) : value_(std::move(value)) {}
    std::optional<zul::URLRequest> prepareTransmit(zul::URLRequest request, const zul::ServiceType&) override {
        request.setValue(value_, "X-Bench-" + value_);
        return request;
    }

private:
    std::string value_;
};

std::shared_ptr<zul::NetworkRouter> makeRouter() {
    static const bool registered = [] {
        zul::NetworkRouter::addGlobalPlugin(std::make_shared<HeaderPlugin>("Global"));
        return true;
    }();
    (void)registered;
    zul::URLSessionConfiguration configuration = zul::URLSessionConfiguration::defaultConfiguration();
    configuration.httpMaximumConnectionsPerHost = kInFlight;
    return zul::NetworkRouter::create(nullptr, {std::make_shared<HeaderPlugin>("Router")}, configuration);
}

void reportPeakMemory(benchmark::State& state) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peak_rss_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// ---- the router: each completion, on the main queue, sends the next request ----

void BM_Router(benchmark::State& state) {
    const std::string url = targetURL();
    if (url.empty()) return state.SkipWithError("ZUL_BENCH_URL is not set: run bench/run_router_bench.sh");
    const zul::URL target = *zul::URL::fromString(url);
    auto router = makeRouter();
    for (auto _ : state) {
        int sent = 0;
        int done = 0;
        int failed = 0;
        std::function<void()> sendOne = [&] {
            ++sent;
            router->get(target, [&](zul::RouterResult result) {
                ++done;
                if (result.isFailure() || result.value().data.size() != 1024) ++failed;
                if (sent < kRequests) sendOne();
            });
        };
        for (int i = 0; i < kInFlight; ++i) sendOne();
        zul::MainLoop::runUntil([&] { return done == kRequests; }, 600s);
        if (failed != 0) state.SkipWithError((std::to_string(failed) + " requests failed").c_str());
    }
    state.SetItemsProcessed(state.iterations() * kRequests);
    reportPeakMemory(state);
}

// ---- raw libcurl multi: the same GETs, the same number in flight, on one thread ----

size_t collect(char* data, size_t size, size_t count, void* user) {
    auto* body = static_cast<std::string*>(user);
    body->append(data, size * count);
    return size * count;
}

void BM_RawCurlMulti(benchmark::State& state) {
    const std::string url = targetURL();
    if (url.empty()) return state.SkipWithError("ZUL_BENCH_URL is not set: run bench/run_router_bench.sh");
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, static_cast<long>(kInFlight));
    std::vector<CURL*> handles(kInFlight);
    std::vector<std::string> bodies(kInFlight);
    for (int i = 0; i < kInFlight; ++i) handles[static_cast<size_t>(i)] = curl_easy_init();
    // The headers the router's two plug-ins add, so that both put the same bytes on the wire.
    curl_slist* headers = curl_slist_append(nullptr, "X-Bench-Global: Global");
    headers = curl_slist_append(headers, "X-Bench-Router: Router");
    const auto start = [&](size_t slot) {
        CURL* easy = handles[slot];
        bodies[slot].clear();
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &bodies[slot]);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, reinterpret_cast<void*>(slot));
        curl_multi_add_handle(multi, easy);
    };
    for (auto _ : state) {
        int sent = 0;
        int done = 0;
        int failed = 0;
        for (size_t slot = 0; slot < handles.size(); ++slot, ++sent) start(slot);
        while (done < kRequests) {
            int running = 0;
            curl_multi_perform(multi, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg != CURLMSG_DONE) continue;
                CURL* easy = message->easy_handle;
                void* slotPointer = nullptr;
                curl_easy_getinfo(easy, CURLINFO_PRIVATE, &slotPointer);
                const auto slot = reinterpret_cast<size_t>(slotPointer);
                long status = 0;
                curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
                if (message->data.result != CURLE_OK || status != 200 || bodies[slot].size() != 1024) ++failed;
                curl_multi_remove_handle(multi, easy);
                ++done;
                if (sent < kRequests) {
                    start(slot);
                    ++sent;
                }
            }
            if (done < kRequests) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
        if (failed != 0) state.SkipWithError((std::to_string(failed) + " requests failed").c_str());
    }
    for (CURL* easy : handles) curl_easy_cleanup(easy);
    curl_multi_cleanup(multi);
    curl_slist_free_all(headers);
    state.SetItemsProcessed(state.iterations() * kRequests);
    reportPeakMemory(state);
}

// ---- ten thousand requests issued at once ----

void BM_RouterBurst(benchmark::State& state) {
    const std::string url = targetURL();
    if (url.empty()) return state.SkipWithError("ZUL_BENCH_URL is not set: run bench/run_router_bench.sh");
    const zul::URL target = *zul::URL::fromString(url);
    for (auto _ : state) {
        auto router = makeRouter();
        int done = 0;
        int failed = 0;
        for (int i = 0; i < kBurst; ++i) {
            router->get(target, [&](zul::RouterResult result) {
                ++done;
                if (result.isFailure()) ++failed;
            });
        }
        zul::MainLoop::runUntil([&] { return done == kBurst; }, 600s);
        if (failed != 0) state.SkipWithError((std::to_string(failed) + " requests failed").c_str());
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
    reportPeakMemory(state);
}

}  // namespace

BENCHMARK(BM_RawCurlMulti)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(3);
BENCHMARK(BM_Router)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(3);
BENCHMARK(BM_RouterBurst)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(3);

BENCHMARK_MAIN();
