// The router end to end: services sent through plug-ins to a real HTTP server on loopback, or
// answered from stubs, with every completion on the main queue.

#include "zul/network/router.hpp"

#include <gtest/gtest.h>

#include <algorithm>
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
using namespace zul;
using test::HookLog, test::LocalService, test::ProbedService, test::ProbePlugin;
using Kind = NetworkRouterError::Kind;

std::string closedPort() { return "http://127.0.0.1:" + std::to_string(zul::test::unusedLoopbackPort()); }

void routes(httplib::Server& server) {
    using Req = httplib::Request;
    using Res = httplib::Response;
    auto echo = [](const Req& req, Res& res) {
        res.set_header("X-Echo-Method", req.method);
        res.set_content(req.method + " " + req.get_header_value("X-Probe") + " " + req.get_header_value("X-Service") +
                            " " + req.body, "text/plain");
    };
    server.Get("/echo", echo);
    server.Post("/echo", echo);
    server.Get("/fail", [](const Req&, Res& res) {
        res.status = 500;
        res.set_content(R"({"error":"boom"})", "application/json");
    });
    server.Get("/moved", [](const Req&, Res& res) {
        res.status = 302;
        res.set_header("Location", "/echo");
    });
    server.Get("/slow", [](const Req&, Res& res) {
        std::this_thread::sleep_for(2500ms);
        res.set_content("late", "text/plain");
    });
    server.Get("/json", [](const Req&, Res& res) {
        res.set_content(R"({"data": {"id": 7, "title": "Up"}, "a.b": {"id": 9, "title": "Dot"}})", "application/json");
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
    bool allOnMainThread() const {
        return std::all_of(threads.begin(), threads.end(), [](auto id) { return id == std::this_thread::get_id(); });
    }
};

/// Sends one service, checks whether it got a token, and returns its single outcome.
template <class S>
RouterResult sendOne(NetworkRouter& router, S service, bool sent = true) {
    Outcomes outcomes;
    EXPECT_EQ(router.request(std::move(service), outcomes.collect()).has_value(), sent);
    EXPECT_TRUE(outcomes.waitFor(1));
    EXPECT_TRUE(outcomes.allOnMainThread());
    return std::move(outcomes.results.at(0));
}

/// Starts a decoding request through `start` and returns its single outcome.
template <class R, class Start>
R decodeOne(Start start) {
    std::optional<R> result;
    start([&](R r) { result.emplace(std::move(r)); });
    EXPECT_TRUE(MainLoop::runUntil([&] { return result.has_value(); }, 10s));
    return std::move(result.value());
}

/// How many URL-session transfer threads this process has (by their names).
std::size_t transferThreads() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        count += std::string(std::istreambuf_iterator<char>(std::ifstream(entry.path() / "comm").rdbuf()), {}) ==
                 "zul-urlsession\n";
    return count;
}

/// The hook log all probes share, and the probe plug-in every router runs first (it acts only on
/// `ProbedService`s).
HookLog sharedLog;
ProbePlugin& globalProbe() {
    static std::shared_ptr<ProbePlugin> probe = [] {
        auto plugin = std::make_shared<ProbePlugin>("G", sharedLog, true);
        plugin->pluginName = "Global";
        NetworkRouter::addGlobalPlugin(plugin);
        return plugin;
    }();
    return *probe;
}

class RouterTest : public ::testing::Test {
protected:
    RouterTest() : server(routes) { global.reset(), log.clear(); }

    std::shared_ptr<ProbePlugin> routerProbe(std::optional<std::string> name = std::nullopt) {
        auto probe = std::make_shared<ProbePlugin>("R", log);
        probe->pluginName = std::move(name);
        return probe;
    }

    zul::test::LoopbackServer server;
    std::shared_ptr<NetworkRouter> router = NetworkRouter::create();
    ProbePlugin& global = globalProbe();
    HookLog& log = sharedLog;
};

TEST_F(RouterTest, SendsRequestsAndDeliversEachOutcomeOnceOnTheMainQueue) {
    router->setCustomHeaders(zul::HeaderMap{{"X-Service", "router"}});
    Outcomes outcomes;

    LocalService get(server.url(), "echo");
    get.fields = zul::HeaderMap{{"X-Probe", "from-service"}};
    const auto getToken = router->request(get, outcomes.collect());
    LocalService post(server.url(), "echo");
    post.method = zul::HTTPMethod::post;
    post.body = dataFromString("payload");
    post.fields = zul::HeaderMap{{"X-Service", "service wins"}};
    const auto postToken = router->request(post, outcomes.collect());
    router->request(LocalService(server.url(), "fail"), outcomes.collect());
    // The conveniences send data services, with the router's headers too.
    const zul::URL echo = *zul::URL::fromString(server.url("/echo"));
    router->get(echo, zul::HeaderMap{{"X-Probe", "h"}}, outcomes.collect());
    router->post(echo, dataFromString("body"), zul::NetworkRequestParameters{5.0}, outcomes.collect());
    // A burst: completions made together on the delegate queue travel to the main queue together;
    // none may be lost, doubled or delivered elsewhere.
    constexpr std::size_t count = 205;
    for (std::size_t i = 5; i < count; ++i) {
        get.fields = zul::HeaderMap{{"X-Probe", std::to_string(i)}};
        router->request(get, outcomes.collect());
    }

    ASSERT_TRUE(getToken && postToken);
    EXPECT_TRUE(zul::UUID::fromString(*getToken).has_value());
    EXPECT_NE(*getToken, *postToken);
    ASSERT_TRUE(outcomes.waitFor(count, 30s));
    MainLoop::runFor(50ms);  // a doubled completion would arrive now
    EXPECT_TRUE(outcomes.allOnMainThread());
    ASSERT_EQ(outcomes.results.size(), count);

    std::map<std::string, zul::Response> byBody;
    for (const RouterResult& result : outcomes.results) {
        ASSERT_TRUE(result.isSuccess()) << result.error().description();
        byBody.emplace(stringFromData(result.value().data), result.value());
    }
    ASSERT_EQ(byBody.size(), count);  // all bodies differ, so each request completed exactly once
    EXPECT_EQ(byBody.at("GET from-service router ").response->value("x-echo-method"), "GET");
    EXPECT_TRUE(byBody.count("POST  service wins payload"));
    EXPECT_TRUE(byBody.count("GET h router ") && byBody.count("POST  router body"));
    EXPECT_EQ(byBody.at(R"({"error":"boom"})").statusCode, 500);
    EXPECT_EQ(router->runningRequestCount(), 0u);
}

TEST_F(RouterTest, FailuresBeforeAndDuringTransport) {
    struct ApiService final : zul::ServiceType {
        zul::BaseURLOptions baseURL() const override { return zul::BaseURLOptions::apiService(); }
        std::string path() const override { return "x"; }
        zul::Task task() const override { return zul::Task::request(); }
    };
    // No environment: the build fails before sending, so there is no token.
    EXPECT_EQ(sendOne(*router, ApiService(), false).error().kind(), Kind::invalidEnvironment);

    Outcomes slow;
    LocalService timing(server.url(), "slow");
    timing.seconds = 1;
    router->request(timing, slow.collect());
    // A refused connection is not classified by the task, and the router reports it as cancelled.
    EXPECT_EQ(sendOne(*router, LocalService(closedPort(), "")).error().kind(), Kind::cancelled);
    ASSERT_TRUE(slow.waitFor(1));
    // A case without a payload is described by its name alone.
    EXPECT_EQ(slow.results[0].error().description(), "requestTimeOut");
}

TEST_F(RouterTest, GlobalPluginsActBeforeRouterPluginsInEveryHook) {
    router = NetworkRouter::create(nullptr, {routerProbe()});
    const RouterResult result = sendOne(*router, ProbedService(server.url(), "moved"));
    ASSERT_TRUE(result.isSuccess()) << result.error().description();
    EXPECT_EQ(result.value().statusCode, 200);  // the redirect was followed
    EXPECT_EQ(log.entries(), (std::vector<std::string>{
                                 "G.willTransmit", "R.willTransmit", "G.prepareTransmit", "R.prepareTransmit",
                                 "G.handleRedirect 302", "R.handleRedirect 302", "G.prepareReceive",
                                 "R.prepareReceive", "G.didReceive", "R.didReceive"}));

    // A global plug-in added while routers are in use acts on the next request, on the sending
    // thread and on the delegate queue alike, after the ones added before it.
    log.clear();
    auto late = std::make_shared<ProbePlugin>("L", log, true);
    NetworkRouter::addGlobalPlugin(late);
    ASSERT_TRUE(sendOne(*router, ProbedService(server.url(), "hello")).isSuccess());
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"G.willTransmit", "L.willTransmit", "R.willTransmit",
                                                       "G.prepareTransmit", "L.prepareTransmit", "R.prepareTransmit",
                                                       "G.prepareReceive", "L.prepareReceive", "R.prepareReceive",
                                                       "G.didReceive", "L.didReceive", "R.didReceive"}));
}

TEST_F(RouterTest, PluginsVetoRewriteAndReject) {
    auto local = routerProbe("Router");
    router = NetworkRouter::create(nullptr, {local});
    const ProbedService echo(server.url(), "echo");

    // willTransmit: the global plug-in's refusal wins and the router's is never asked.
    global.cancels = local->cancels = true;
    EXPECT_EQ(sendOne(*router, echo, false).error().description(), R"(cancelledByPlugin(name: Optional("Global")))");
    EXPECT_EQ(log.entries(), std::vector<std::string>{"G.willTransmit"});
    global.reset();
    local->reset();

    local->refuses = true;  // prepareTransmit: a refusal names the plug-in
    EXPECT_EQ(sendOne(*router, echo, false).error().description(), R"(preventedByPlugin(name: Optional("Router")))");
    local->reset();

    // didReceive: a rejected 200 becomes a failure; a plug-in without a name gives an absent name.
    local->pluginName.reset();
    local->rejects = true;
    EXPECT_EQ(sendOne(*router, echo).error().description(), "preventedByPlugin(name: nil)");
    local->reset();

    // handleRedirect: refusing stops at the redirect response itself.
    local->stopsRedirects = true;
    local->addedHeader = "rewritten";
    const RouterResult stopped = sendOne(*router, ProbedService(server.url(), "moved"));
    ASSERT_TRUE(stopped.isSuccess());
    EXPECT_EQ(stopped.value().statusCode, 302);
    EXPECT_EQ(stopped.value().request.value("X-Probe"), "rewritten");
}

TEST_F(RouterTest, ParkedRequestsWaitForResumeAndRunInParkingOrder) {
    router = NetworkRouter::create(nullptr, {routerProbe()});
    router->setKeepSuspended(true);
    Outcomes outcomes;
    const auto a = router->request(LocalService(server.url(), "echo"), outcomes.collect());
    const auto b = router->request(LocalService(server.url(), "json"), outcomes.collect());
    ASSERT_TRUE(a && b);
    EXPECT_EQ(router->parkedRequestCount(), 2u);
    MainLoop::runFor(300ms);
    EXPECT_EQ(server.requestCount(), 0u);
    EXPECT_TRUE(outcomes.results.empty());
    EXPECT_TRUE(log.entries().empty());  // plug-ins prepare parked requests only when resumed

    router->resume(std::vector<std::string>{*b, *a, "unknown-token"});
    EXPECT_EQ(router->parkedRequestCount(), 0u);
    // Prepared in parking order, whatever the order of the tokens.
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"R.willTransmit", "R.prepareTransmit", "R.willTransmit",
                                                       "R.prepareTransmit"}));
    ASSERT_TRUE(outcomes.waitFor(2));
    for (const RouterResult& result : outcomes.results) EXPECT_EQ(result.value().statusCode, 200);
    EXPECT_EQ(server.requestCount(), 2u);
    EXPECT_EQ(router->runningRequestCount(), 0u);  // listed when made and again when resumed: both gone

    // A result a plug-in postpones is reported as delayed, parked, and sent again on resume.
    router->setKeepSuspended(false);
    global.delays = 1;
    Outcomes postponed;
    const auto token = router->request(ProbedService(server.url(), "echo"), postponed.collect());
    ASSERT_TRUE(postponed.waitFor(1));
    EXPECT_EQ(postponed.results[0].error().kind(), Kind::delayed);
    EXPECT_EQ(router->parkedRequestCount(), 1u);
    router->resume(*token);
    ASSERT_TRUE(postponed.waitFor(2));
    ASSERT_TRUE(postponed.results[1].isSuccess());
    EXPECT_EQ(postponed.results[1].value().statusCode, 200);
    EXPECT_EQ(server.requestCount(), 4u);
}

TEST_F(RouterTest, CancelStopsKnownTokensAndADestroyedRouterAllItsRequests) {
    const LocalService slowService(server.url(), "slow");
    Outcomes cancelled, other;
    const auto token = router->request(slowService, cancelled.collect());
    router->request(slowService, other.collect());
    ASSERT_TRUE(zul::test::waitUntil([&] { return server.requestCount() == 2; }));

    router->cancel("not-a-token");
    EXPECT_EQ(router->runningRequestCount(), 2u);
    router->cancel(*token);
    EXPECT_EQ(router->runningRequestCount(), 1u);
    ASSERT_TRUE(other.waitFor(1));
    EXPECT_TRUE(other.results[0].isSuccess());

    // Destroyed with one request in flight and one parked.
    router->request(slowService, cancelled.collect());
    router->setKeepSuspended(true);
    router->request(LocalService(server.url(), "echo"), cancelled.collect());
    ASSERT_TRUE(zul::test::waitUntil([&] { return server.requestCount() == 3; }));
    router.reset();
    MainLoop::runFor(300ms);
    EXPECT_TRUE(cancelled.results.empty());  // a cancelled request reports nothing
}

TEST_F(RouterTest, StubsAnswerFromTheSampleWithoutTheNetwork) {
    const std::size_t threadsBefore = transferThreads();
    Outcomes immediate, delayed;
    LocalService sampled(server.url(), "echo");
    sampled.sample = dataFromString("sample");
    router->request(sampled, StubBehavior::immediate(), immediate.collect());
    EXPECT_TRUE(immediate.results.empty());  // still delivered through the main queue
    ASSERT_TRUE(immediate.waitFor(1));
    EXPECT_EQ(immediate.results[0].value().statusCode, 200);
    EXPECT_EQ(stringFromData(immediate.results[0].value().data), "sample");

    const auto start = std::chrono::steady_clock::now();
    router->request(LocalService(server.url(), "echo"), StubBehavior::delayed(0.3), delayed.collect());
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
using Decoded = zul::Result<zul::Decoded<Title>, NetworkRouterError>;
using TriedDecoded = zul::Result<zul::Decoded<Title>, AnyError>;

TEST_F(RouterTest, DecodesBodiesWholeOrBelowOneKeyPath) {
    const auto decode = [&](std::optional<std::string> keyPath, auto service, StubBehavior stub) {
        return decodeOne<Decoded>([&](auto done) { router->requestDecodable<Title>(keyPath, service, stub, done); });
    };
    auto json = std::make_shared<LocalService>(server.url(), "json");
    const Decoded data = decode("data", json, StubBehavior::never());
    EXPECT_EQ(data.value().value.title, "Up");
    EXPECT_EQ(data.value().response.statusCode, 200);

    auto whole = std::make_shared<LocalService>(server.url(), "json");
    whole->sample = dataFromString(R"({"id": 3, "title": "Stub"})");
    EXPECT_EQ(decode(std::nullopt, whole, StubBehavior::immediate()).value().value.title, "Stub");

    global.cancels = true;  // failures before decoding pass through
    const auto probed = std::make_shared<ProbedService>(server.url(), "json");
    EXPECT_EQ(decode("data", probed, StubBehavior::never()).error().kind(), Kind::cancelledByPlugin);

    // tryRequestDecodable reports a body that does not decode.
    const TriedDecoded missing = decodeOne<TriedDecoded>(
        [&](auto done) { router->tryRequestDecodable<Title>("missing", json, StubBehavior::never(), done); });
    const auto* decoding = missing.error().as<zul::DecodingError>();
    ASSERT_NE(decoding, nullptr);
    EXPECT_NE(decoding->description().find("Keypath keyPath not found"), std::string::npos);
}

using RouterDeathTest = RouterTest;

TEST_F(RouterDeathTest, RequestDecodableStopsOnABodyThatDoesNotDecode) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            bool called = false;
            router->requestDecodable<Title>("missing", std::make_shared<LocalService>(server.url(), "json"),
                                            StubBehavior::never(), [&](Decoded) { called = true; });
            MainLoop::runUntil([&] { return called; }, 10s);
        },
        "catchToResult");
}

}  // namespace
