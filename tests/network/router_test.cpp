// The router end to end: services sent through plug-ins to a real HTTP server on loopback, or
// answered from stubs, with every completion on the main queue.

#include "zul/network/router.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "network/router_support.hpp"
#include "support/loopback_server.hpp"
#include "support/wait.hpp"
#include "zul/core/codable.hpp"
#include "zul/platform/main_loop.hpp"
#include "zul/platform/uuid.hpp"

namespace {

using namespace std::chrono_literals;
using zul::AnyError;
using zul::Data;
using zul::MainLoop;
using zul::NetworkRouter;
using zul::NetworkRouterError;
using zul::RouterResult;
using zul::StubBehavior;
using zul::test::HookLog;
using zul::test::LocalService;
using zul::test::LoopbackServer;
using zul::test::ProbedService;
using zul::test::ProbePlugin;
using Kind = NetworkRouterError::Kind;

Data bytes(std::string_view text) { return Data(text.begin(), text.end()); }
std::string text(const Data& data) { return std::string(data.begin(), data.end()); }

void routes(httplib::Server& server) {
    auto echo = [](const httplib::Request& request, httplib::Response& response) {
        response.set_header("X-Echo-Method", request.method);
        response.set_content(request.method + " " + request.get_header_value("X-Probe") + " " +
                                 request.get_header_value("X-Service") + " " + request.body,
                             "text/plain");
    };
    server.Get("/echo", echo);
    server.Post("/echo", echo);
    server.Get("/fail", [](const httplib::Request&, httplib::Response& response) {
        response.status = 500;
        response.set_content(R"({"error":"boom"})", "application/json");
    });
    server.Get("/moved", [](const httplib::Request&, httplib::Response& response) {
        response.status = 302;
        response.set_header("Location", "/echo");
        response.set_content("moved", "text/plain");
    });
    server.Get("/slow", [](const httplib::Request&, httplib::Response& response) {
        std::this_thread::sleep_for(2500ms);
        response.set_content("late", "text/plain");
    });
    server.Get("/json", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(R"({"data": {"id": 7, "title": "Up"}, "a.b": {"id": 9, "title": "Dot"}})",
                             "application/json");
    });
}

/// The outcomes a test collects, each with the thread it arrived on.
struct Outcomes {
    std::vector<RouterResult> results;
    std::vector<std::thread::id> threads;

    zul::HTTPRouter::Completion collect() {
        return [this](RouterResult result) {
            results.push_back(std::move(result));
            threads.push_back(std::this_thread::get_id());
        };
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds timeout = 10s) {
        return MainLoop::runUntil([&] { return results.size() >= count; }, timeout);
    }
};

/// How many URL-session transfer threads this process has (by their names).
std::size_t transferThreads() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(entry.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (name == "zul-urlsession") ++count;
    }
    return count;
}

/// The probe plug-in every router runs first; it acts only on `ProbedService`s.
ProbePlugin& globalProbe(HookLog& log) {
    static std::shared_ptr<ProbePlugin> probe = [&] {
        auto plugin = std::make_shared<ProbePlugin>("G", log, true);
        plugin->pluginName = "Global";
        NetworkRouter::addGlobalPlugin(plugin);
        return plugin;
    }();
    return *probe;
}

HookLog& sharedLog() {
    static HookLog log;
    return log;
}

class RouterTest : public ::testing::Test {
protected:
    RouterTest() : server(routes), global(globalProbe(sharedLog())) {
        global.reset();
        sharedLog().clear();
    }
    ~RouterTest() override { global.reset(); }

    LoopbackServer server;
    ProbePlugin& global;
    HookLog& log = sharedLog();
};

TEST_F(RouterTest, SendsRequestsAndDeliversEveryStatusOnTheMainQueue) {
    auto router = NetworkRouter::create();
    router->setCustomHeaders(zul::HeaderMap{{"X-Service", "router"}});
    Outcomes outcomes;

    LocalService get(server.url(), "echo");
    get.fields = zul::HeaderMap{{"X-Probe", "from-service"}};
    const auto getToken = router->request(get, outcomes.collect());
    LocalService post(server.url(), "echo");
    post.method = zul::HTTPMethod::post;
    post.body = bytes("payload");
    post.fields = zul::HeaderMap{{"X-Service", "service wins"}};
    const auto postToken = router->request(post, outcomes.collect());
    router->request(LocalService(server.url(), "fail"), outcomes.collect());

    ASSERT_TRUE(getToken.has_value() && postToken.has_value());
    EXPECT_EQ(getToken->size(), 36u);
    EXPECT_TRUE(zul::UUID::fromString(*getToken).has_value());
    EXPECT_NE(*getToken, *postToken);
    // Completions are never called from inside `request`.
    EXPECT_TRUE(outcomes.results.empty());
    ASSERT_TRUE(outcomes.waitFor(3));
    for (const auto thread : outcomes.threads) EXPECT_EQ(thread, std::this_thread::get_id());

    std::map<std::string, zul::Response> byBody;
    for (const RouterResult& result : outcomes.results) {
        ASSERT_TRUE(result.isSuccess()) << result.error().description();
        byBody.emplace(text(result.value().data), result.value());
    }
    ASSERT_TRUE(byBody.count("GET from-service router "));
    EXPECT_EQ(byBody.at("GET from-service router ").statusCode, 200);
    EXPECT_EQ(byBody.at("GET from-service router ").response->value("x-echo-method"), "GET");
    ASSERT_TRUE(byBody.count("POST  service wins payload"));
    ASSERT_TRUE(byBody.count(R"({"error":"boom"})"));
    EXPECT_EQ(byBody.at(R"({"error":"boom"})").statusCode, 500);
    EXPECT_EQ(router->runningRequestCount(), 0u);
}

TEST_F(RouterTest, ABurstOfCompletionsReachesTheMainQueueEachOnce) {
    // Completions made together on the delegate queue travel to the main queue together; none
    // may be lost, doubled or delivered elsewhere.
    auto router = NetworkRouter::create();
    constexpr std::size_t count = 200;
    std::map<std::string, int> calls;
    Outcomes outcomes;
    for (std::size_t i = 0; i < count; ++i) {
        LocalService get(server.url(), "echo");
        get.fields = zul::HeaderMap{{"X-Probe", std::to_string(i)}};
        auto collect = outcomes.collect();
        router->request(get, [&, collect = std::move(collect)](RouterResult result) mutable {
            if (result.isSuccess()) ++calls[text(result.value().data)];
            collect(std::move(result));
        });
    }
    ASSERT_TRUE(outcomes.waitFor(count, 30s));
    MainLoop::runFor(50ms);  // a doubled completion would arrive now
    EXPECT_EQ(outcomes.results.size(), count);
    EXPECT_EQ(calls.size(), count);
    for (const auto& [body, times] : calls) EXPECT_EQ(times, 1) << body;
    for (const auto thread : outcomes.threads) EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(RouterTest, ConveniencesSendDataServices) {
    auto router = NetworkRouter::create();
    Outcomes outcomes;
    const zul::URL echo = *zul::URL::fromString(server.url("/echo"));
    router->get(echo, zul::HeaderMap{{"X-Probe", "h"}}, outcomes.collect());
    router->post(echo, bytes("body"), zul::NetworkRequestParameters{5.0}, outcomes.collect());
    ASSERT_TRUE(outcomes.waitFor(2));
    std::set<std::string> bodies;
    for (const RouterResult& result : outcomes.results) bodies.insert(text(result.value().data));
    EXPECT_EQ(bodies, (std::set<std::string>{"GET h  ", "POST   body"}));
}

TEST_F(RouterTest, FailuresBeforeSendingReturnNoToken) {
    struct ApiService final : zul::ServiceType {
        zul::BaseURLOptions baseURL() const override { return zul::BaseURLOptions::apiService(); }
        std::string path() const override { return "x"; }
        zul::Task task() const override { return zul::Task::request(); }
    };
    auto router = NetworkRouter::create();
    Outcomes outcomes;
    EXPECT_FALSE(router->request(ApiService(), outcomes.collect()).has_value());
    ASSERT_TRUE(outcomes.waitFor(1));
    EXPECT_EQ(outcomes.results[0].error().kind(), Kind::invalidEnvironment);
    EXPECT_EQ(outcomes.threads[0], std::this_thread::get_id());
}

TEST_F(RouterTest, TransportFailuresAreMapped) {
    auto router = NetworkRouter::create();
    Outcomes slow;
    LocalService timing(server.url(), "slow");
    timing.seconds = 1;
    router->request(timing, slow.collect());
    Outcomes refused;
    router->request(LocalService("http://127.0.0.1:" + std::to_string(zul::test::unusedLoopbackPort()), ""),
                    refused.collect());
    ASSERT_TRUE(refused.waitFor(1));
    // A refused connection is not classified by the task, and the router reports it as cancelled.
    EXPECT_EQ(refused.results[0].error().kind(), Kind::cancelled);
    ASSERT_TRUE(slow.waitFor(1));
    EXPECT_EQ(slow.results[0].error().kind(), Kind::requestTimeOut);
}

TEST_F(RouterTest, GlobalPluginsActBeforeRouterPluginsInEveryHook) {
    auto local = std::make_shared<ProbePlugin>("R", log);
    local->pluginName = "Router";
    auto router = NetworkRouter::create(nullptr, {local});
    Outcomes outcomes;
    router->request(ProbedService(server.url(), "moved"), outcomes.collect());
    ASSERT_TRUE(outcomes.waitFor(1));
    ASSERT_TRUE(outcomes.results[0].isSuccess()) << outcomes.results[0].error().description();
    EXPECT_EQ(outcomes.results[0].value().statusCode, 200);  // the redirect was followed
    EXPECT_EQ(log.entries(), (std::vector<std::string>{
                                 "G.willTransmit", "R.willTransmit", "G.prepareTransmit", "R.prepareTransmit",
                                 "G.handleRedirect 302", "R.handleRedirect 302", "G.prepareReceive",
                                 "R.prepareReceive", "G.didReceive", "R.didReceive"}));
}

TEST_F(RouterTest, PluginsVetoRewriteAndReject) {
    auto local = std::make_shared<ProbePlugin>("R", log);
    local->pluginName = "Router";
    auto router = NetworkRouter::create(nullptr, {local});

    // willTransmit: the global plug-in's refusal wins and the router's is never asked.
    global.cancels = true;
    local->cancels = true;
    Outcomes cancelled;
    EXPECT_FALSE(router->request(ProbedService(server.url(), "echo"), cancelled.collect()).has_value());
    ASSERT_TRUE(cancelled.waitFor(1));
    EXPECT_EQ(cancelled.results[0].error().description(), R"(cancelledByPlugin(name: Optional("Global")))");
    EXPECT_EQ(log.entries(), std::vector<std::string>{"G.willTransmit"});
    global.reset();
    local->reset();

    // prepareTransmit: a refusal names the plug-in.
    local->refuses = true;
    Outcomes prevented;
    EXPECT_FALSE(router->request(ProbedService(server.url(), "echo"), prevented.collect()).has_value());
    ASSERT_TRUE(prevented.waitFor(1));
    EXPECT_EQ(prevented.results[0].error().description(), R"(preventedByPlugin(name: Optional("Router")))");
    local->reset();

    // didReceive: a rejected 200 becomes a failure; a plug-in without a name gives an absent name.
    local->pluginName.reset();
    local->rejects = true;
    Outcomes rejected;
    router->request(ProbedService(server.url(), "echo"), rejected.collect());
    ASSERT_TRUE(rejected.waitFor(1));
    EXPECT_EQ(rejected.results[0].error().description(), "preventedByPlugin(name: nil)");
    local->reset();

    // handleRedirect: refusing stops at the redirect response itself.
    local->stopsRedirects = true;
    local->addedHeader = "rewritten";
    Outcomes stopped;
    router->request(ProbedService(server.url(), "moved"), stopped.collect());
    ASSERT_TRUE(stopped.waitFor(1));
    ASSERT_TRUE(stopped.results[0].isSuccess());
    EXPECT_EQ(stopped.results[0].value().statusCode, 302);
    EXPECT_EQ(text(stopped.results[0].value().data), "moved");
    EXPECT_EQ(stopped.results[0].value().request.value("X-Probe"), "rewritten");
}

TEST_F(RouterTest, KeptSuspendedRequestsWaitForResumeAndRunInParkingOrder) {
    auto local = std::make_shared<ProbePlugin>("R", log);
    auto router = NetworkRouter::create(nullptr, {local});
    router->setKeepSuspended(true);
    Outcomes first;
    Outcomes second;
    const auto a = router->request(LocalService(server.url(), "echo"), first.collect());
    const auto b = router->request(LocalService(server.url(), "json"), second.collect());
    ASSERT_TRUE(a && b);
    EXPECT_EQ(router->parkedRequestCount(), 2u);
    MainLoop::runFor(300ms);
    EXPECT_EQ(server.requestCount(), 0u);
    EXPECT_TRUE(first.results.empty() && second.results.empty());
    EXPECT_TRUE(log.entries().empty());  // plug-ins prepare parked requests only when resumed

    router->resume(std::vector<std::string>{*b, *a, "unknown-token"});
    EXPECT_EQ(router->parkedRequestCount(), 0u);
    // Prepared in parking order, whatever the order of the tokens.
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"R.willTransmit", "R.prepareTransmit", "R.willTransmit",
                                                       "R.prepareTransmit"}));
    ASSERT_TRUE(first.waitFor(1));
    ASSERT_TRUE(second.waitFor(1));
    EXPECT_TRUE(first.results[0].isSuccess());
    EXPECT_EQ(second.results[0].value().statusCode, 200);
    EXPECT_EQ(server.requestCount(), 2u);
}

TEST_F(RouterTest, APostponedResultIsReportedAndReplayedOnResume) {
    auto router = NetworkRouter::create();
    global.delays = 1;
    Outcomes outcomes;
    const auto token = router->request(ProbedService(server.url(), "echo"), outcomes.collect());
    ASSERT_TRUE(outcomes.waitFor(1));
    EXPECT_EQ(outcomes.results[0].error().kind(), Kind::delayed);
    EXPECT_EQ(router->parkedRequestCount(), 1u);

    router->resume(*token);
    ASSERT_TRUE(outcomes.waitFor(2));
    ASSERT_TRUE(outcomes.results[1].isSuccess());
    EXPECT_EQ(outcomes.results[1].value().statusCode, 200);
    EXPECT_EQ(server.requestCount(), 2u);
}

TEST_F(RouterTest, CancelStopsKnownTokensAndIgnoresOthers) {
    auto router = NetworkRouter::create();
    Outcomes slow;
    const auto token = router->request(LocalService(server.url(), "slow"), slow.collect());
    Outcomes other;
    router->request(LocalService(server.url(), "slow"), other.collect());
    ASSERT_TRUE(zul::test::waitUntil([&] { return server.requestCount() == 2; }));

    router->cancel("not-a-token");
    EXPECT_EQ(router->runningRequestCount(), 2u);
    router->cancel(*token);
    EXPECT_EQ(router->runningRequestCount(), 1u);
    ASSERT_TRUE(other.waitFor(1));
    EXPECT_TRUE(other.results[0].isSuccess());
    MainLoop::runFor(200ms);
    EXPECT_TRUE(slow.results.empty());  // a cancelled request reports nothing

    router->request(LocalService(server.url(), "slow"), other.collect());
    router->cancelAllRequests();
    EXPECT_EQ(router->runningRequestCount(), 0u);
    MainLoop::runFor(300ms);
    EXPECT_EQ(other.results.size(), 1u);
}

TEST_F(RouterTest, StubsAnswerFromTheSampleWithoutTheNetwork) {
    const std::size_t threadsBefore = transferThreads();
    auto router = NetworkRouter::create();
    Outcomes immediate;
    LocalService sampled(server.url(), "echo");
    sampled.sample = bytes("sample");
    router->request(sampled, StubBehavior::immediate(), immediate.collect());
    EXPECT_TRUE(immediate.results.empty());  // still delivered through the main queue
    ASSERT_TRUE(immediate.waitFor(1));
    EXPECT_EQ(immediate.results[0].value().statusCode, 200);
    EXPECT_EQ(text(immediate.results[0].value().data), "sample");

    Outcomes delayed;
    const auto start = std::chrono::steady_clock::now();
    router->request(LocalService(server.url(), "echo"), StubBehavior::delayed(0.3), delayed.collect());
    MainLoop::runFor(50ms);
    EXPECT_TRUE(delayed.results.empty());
    ASSERT_TRUE(delayed.waitFor(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 280ms);
    EXPECT_TRUE(delayed.results[0].value().data.empty());
    EXPECT_EQ(server.requestCount(), 0u);
    // Nothing went near the network, so no transfer thread was started for it.
    EXPECT_EQ(transferThreads(), threadsBefore);
}

struct Title {
    std::int64_t id = 0;
    std::string title;
    ZUL_CODABLE(Title, id, title)
};

TEST_F(RouterTest, DecodesBodiesWholeOrBelowOneKey) {
    auto router = NetworkRouter::create();
    std::vector<zul::Result<zul::Decoded<Title>, NetworkRouterError>> results;
    auto collect = [&](zul::Result<zul::Decoded<Title>, NetworkRouterError> result) {
        results.push_back(std::move(result));
    };
    auto json = std::make_shared<LocalService>(server.url(), "json");
    router->requestDecodable<Title>("data", json, StubBehavior::never(), collect);
    ASSERT_TRUE(MainLoop::runUntil([&] { return results.size() == 1; }, 10s));
    router->requestDecodable<Title>("a.b", json, StubBehavior::never(), collect);
    ASSERT_TRUE(MainLoop::runUntil([&] { return results.size() == 2; }, 10s));
    EXPECT_EQ(results[0].value().value.title, "Up");
    EXPECT_EQ(results[0].value().response.statusCode, 200);
    EXPECT_EQ(results[1].value().value.id, 9);

    auto whole = std::make_shared<LocalService>(server.url(), "json");
    whole->sample = bytes(R"({"id": 3, "title": "Stub"})");
    router->requestDecodable<Title>(std::nullopt, whole, StubBehavior::immediate(), collect);
    ASSERT_TRUE(MainLoop::runUntil([&] { return results.size() == 3; }, 10s));
    EXPECT_EQ(results[2].value().value.title, "Stub");

    // Failures before decoding pass through.
    global.cancels = true;
    router->requestDecodable<Title>("data", std::make_shared<ProbedService>(server.url(), "json"),
                                    StubBehavior::never(), collect);
    ASSERT_TRUE(MainLoop::runUntil([&] { return results.size() == 4; }, 10s));
    EXPECT_EQ(results[3].error().kind(), Kind::cancelledByPlugin);
}

TEST_F(RouterTest, TryRequestDecodableReportsBodiesThatDoNotDecode) {
    auto router = NetworkRouter::create();
    std::vector<zul::Result<zul::Decoded<Title>, AnyError>> results;
    auto collect = [&](zul::Result<zul::Decoded<Title>, AnyError> result) { results.push_back(std::move(result)); };
    router->tryRequestDecodable<Title>("missing", std::make_shared<LocalService>(server.url(), "json"),
                                       StubBehavior::never(), collect);
    ASSERT_TRUE(MainLoop::runUntil([&] { return results.size() == 1; }, 10s));
    router->tryRequestDecodable<Title>(
        "data",
        std::make_shared<LocalService>("http://127.0.0.1:" + std::to_string(zul::test::unusedLoopbackPort()), ""),
        StubBehavior::never(), collect);
    ASSERT_TRUE(MainLoop::runUntil([&] { return results.size() == 2; }, 10s));
    const auto* decoding = results[0].error().as<zul::DecodingError>();
    ASSERT_NE(decoding, nullptr);
    EXPECT_EQ(decoding->kind(), zul::DecodingError::Kind::dataCorrupted);
    EXPECT_NE(decoding->description().find("Keypath keyPath not found"), std::string::npos);
    ASSERT_TRUE(results[1].error().is<NetworkRouterError>());
    EXPECT_EQ(results[1].error().as<NetworkRouterError>()->kind(), Kind::cancelled);
}

TEST_F(RouterTest, ARouterDestroyedWithRequestsInFlightCancelsThem) {
    Outcomes outcomes;
    {
        auto router = NetworkRouter::create();
        router->request(LocalService(server.url(), "slow"), outcomes.collect());
        router->setKeepSuspended(true);
        router->request(LocalService(server.url(), "echo"), outcomes.collect());
        ASSERT_TRUE(zul::test::waitUntil([&] { return server.requestCount() == 1; }));
    }
    MainLoop::runFor(300ms);
    EXPECT_TRUE(outcomes.results.empty());
}

using RouterDeathTest = RouterTest;

TEST_F(RouterDeathTest, RequestDecodableStopsOnABodyThatDoesNotDecode) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto router = NetworkRouter::create();
            bool called = false;
            router->requestDecodable<Title>(
                "missing", std::make_shared<LocalService>(server.url(), "json"), StubBehavior::never(),
                [&](zul::Result<zul::Decoded<Title>, NetworkRouterError>) { called = true; });
            MainLoop::runUntil([&] { return called; }, 10s);
        },
        "catchToResult");
}

}  // namespace
