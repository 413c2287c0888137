// Network tasks on their own, and the plug-in chains the router runs over them.

#include "zul/network/network_task.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "network/plugin_chains.hpp"
#include "zul/network/detail/task_list.hpp"
#include "network/router_support.hpp"
#include "support/wait.hpp"
#include "zul/platform/dispatch_queue.hpp"

namespace {

using namespace std::chrono_literals;
using namespace zul;
using test::HookLog, test::LocalService, test::ProbePlugin;

struct Recorder {
    std::mutex mutex;
    std::vector<NetworkTask::TaskResult> results;
    std::vector<std::thread::id> threads;

    NetworkTask::Completion completion() {
        return [this](NetworkTask&, NetworkTask::TaskResult result) {
            std::lock_guard lock(mutex);
            results.push_back(std::move(result));
            threads.push_back(std::this_thread::get_id());
        };
    }
    std::size_t count() {
        std::lock_guard lock(mutex);
        return results.size();
    }
};

std::shared_ptr<NetworkTask> makeTask(Recorder& recorder, std::optional<Data> sample = std::nullopt,
                                      std::string token = "token") {
    auto service = std::make_shared<LocalService>("http://127.0.0.1:9/", "x");
    service->sample = std::move(sample);
    return NetworkTask::create(service, zul::URLRequest(zul::URL::fromString("http://127.0.0.1:9/x")),
                               std::move(token), recorder.completion());
}

TEST(NetworkTaskTest, StubsAnswerFromTheSample) {
    auto session = zul::URLSession::create();
    Recorder immediate;
    auto task = makeTask(immediate, Data{'o', 'k'});
    task->start(StubBehavior::immediate(), *session, true);  // keepSuspended does not hold stubs
    ASSERT_EQ(immediate.count(), 1u);  // before start returned, on this thread
    EXPECT_EQ(immediate.threads[0], std::this_thread::get_id());
    EXPECT_EQ(immediate.results[0].value().data, (Data{'o', 'k'}));
    EXPECT_EQ(task->task(), nullptr);

    // A task gone before its delayed stub plays answers nothing.
    Recorder dropped;
    makeTask(dropped)->start(StubBehavior::delayed(0.05), *session, false);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(dropped.count(), 0u);
}

TEST(NetworkTaskTest, CompletionsAreClassified) {
    auto session = zul::URLSession::create();
    const auto outcome = [&](std::optional<URLError> error) {
        Recorder recorder;
        auto task = makeTask(recorder);
        task->start(StubBehavior::never(), *session, true);  // created, never resumed
        EXPECT_NE(task->task(), nullptr);
        EXPECT_EQ(task->task()->state(), zul::URLSessionTaskState::suspended);
        task->handleCompletion(error);
        // A second report finds the transfer gone.
        task->handleCompletion(std::nullopt);
        EXPECT_EQ(recorder.results.size(), 2u);
        EXPECT_EQ(recorder.results[1].error(), NetworkTaskError::cancelled());
        return recorder.results[0];
    };
    // (A time-out and a refused connection are classified end to end in the router tests.)
    EXPECT_EQ(outcome(URLError(URLError::notConnectedToInternet)).error(), NetworkTaskError::noInternetConnection());
    EXPECT_EQ(outcome(URLError(URLError::cancelled)).error(), NetworkTaskError::unknown());
    // No error but no HTTP response either: taken for being offline; data without one is a 200.
    EXPECT_EQ(outcome(std::nullopt).error(), NetworkTaskError::noInternetConnection());
    const URLRequest request(URL::fromString("http://h/"));
    EXPECT_EQ(NetworkTask::convertResponseToResult(nullptr, Data{1}, std::nullopt, request).value().statusCode, 200);

    // Cancelling through the interface drops the transfer; no completion is called.
    Recorder cancelled;
    auto task = makeTask(cancelled);
    task->start(StubBehavior::never(), *session, true);
    const auto transfer = task->task();
    task->cancel();
    EXPECT_EQ(task->task(), nullptr);
    EXPECT_TRUE(zul::test::waitUntil([&] { return transfer->state() == zul::URLSessionTaskState::completed; }));
    EXPECT_EQ(cancelled.count(), 0u);
}

/// Answers prepareReceive later, from another thread, turning failures into a 299 response.
class AsyncRepair final : public zul::NetworkPluginType {
public:
    void prepareReceive(PluginResult result, const zul::ServiceType&,
                        zul::UniqueFunction<void(PluginResult)> completion) override {
        zul::DispatchQueue::global()->asyncAfter(zul::dispatchTimeAfter(0.05),
            [result = std::move(result), completion = std::move(completion)]() mutable {
                completion(result.isFailure() ? PluginResult::success(Response{299, {}, nullptr, URLRequest()})
                                              : std::move(result));
            });
    }
};

TEST(TaskListTest, KeepsOrderThroughHolesAndSqueezesAndTakesOffEveryListing) {
    Recorder recorder;
    std::vector<std::shared_ptr<NetworkTask>> tasks;
    for (int i = 0; i < 200; ++i) tasks.push_back(makeTask(recorder, std::nullopt, "t" + std::to_string(i)));
    const auto listed = [](const zul::detail::TaskList& list) {
        std::vector<std::string> tokens;
        list.forEach([&](const std::shared_ptr<NetworkTask>& task) { tokens.push_back(task->token()); });
        return tokens;
    };
    zul::detail::TaskList list;
    for (const auto& task : tasks) list.append(task);
    // Every third taken off, out of order and more than enough to squeeze the holes out.
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i) {
        if (i % 3 != 0) expected.push_back("t" + std::to_string(i));
    }
    for (int i = 198; i >= 0; i -= 3) EXPECT_TRUE(list.remove(*tasks[static_cast<std::size_t>(i)]));
    EXPECT_FALSE(list.remove(*tasks[0]));
    EXPECT_EQ(list.size(), expected.size());
    EXPECT_EQ(listed(list), expected);
    // The front taken off in the order requests usually finish in.
    for (int i = 1; i < 100; ++i) {
        if (i % 3 != 0) list.remove(*tasks[static_cast<std::size_t>(i)]);
    }
    expected.erase(expected.begin(), std::find(expected.begin(), expected.end(), "t100"));
    EXPECT_EQ(listed(list), expected);
    EXPECT_EQ(list.find([](const NetworkTask& task) { return task.token() == "t101"; }), tasks[101]);
    EXPECT_EQ(list.find([](const NetworkTask& task) { return task.token() == "t50"; }), nullptr);

    // A task listed again goes wholly, by itself or by token; others stay.
    list.appendAgain(tasks[101]);
    list.appendAgain(tasks[0]);  // not listed: one listing
    EXPECT_EQ(list.size(), expected.size() + 2);
    EXPECT_TRUE(list.remove(*tasks[101]));
    EXPECT_EQ(list.size(), expected.size());
    list.appendAgain(tasks[104]);
    EXPECT_EQ(list.removeToken("t104"), tasks[104]);
    EXPECT_EQ(list.removeToken("t104"), nullptr);
    const auto all = list.takeAll();
    ASSERT_EQ(all.size(), expected.size() - 1);  // t101 and t104 gone, t0 back
    EXPECT_EQ(all.front(), tasks[100]);
    EXPECT_EQ(all.back(), tasks[0]);
    EXPECT_EQ(list.size(), 0u);
}

TEST(PluginChainTest, ResponsesFlowThroughEveryPluginInOrder) {
    HookLog log;
    auto first = std::make_shared<ProbePlugin>("A", log);
    auto second = std::make_shared<ProbePlugin>("B", log);
    auto service = std::make_shared<LocalService>("http://h/", "");
    const Response ok{200, {}, nullptr, zul::URLRequest()};

    using zul::detail::PluginList;
    const auto list = [](PluginList plugins) { return std::make_shared<const PluginList>(std::move(plugins)); };

    // No plug-ins: the result unchanged, at once.
    std::optional<PluginResult> seen;
    zul::detail::networkModifyResponse(list({}), list({}), service, PluginResult::success(ok),
                                       [&](PluginResult r) { seen = std::move(r); });
    ASSERT_TRUE(seen && seen->isSuccess());

    // A failure made by the first plug-in reaches the second, which repairs it asynchronously;
    // the chain goes on on the repairing thread.
    first->delays = 1;
    std::atomic<int> status{0};
    zul::detail::networkModifyResponse(list({first}), list({std::make_shared<AsyncRepair>()}), service,
                                       PluginResult::success(ok), [&](PluginResult r) {
                                           status = r.isSuccess() ? int(r.value().statusCode) : -1;
                                       });
    ASSERT_TRUE(zul::test::waitUntil([&] { return status != 0; }));
    EXPECT_EQ(status, 299);

    // A plug-in that answers twice: only its first answer goes on.
    class TwiceAnswering final : public zul::NetworkPluginType {
    public:
        void prepareReceive(PluginResult, const zul::ServiceType&,
                            zul::UniqueFunction<void(PluginResult)> completion) override {
            completion(PluginResult::success(Response{201, {}, nullptr, URLRequest()}));
            completion(PluginResult::success(Response{202, {}, nullptr, URLRequest()}));
        }
    };
    std::vector<std::int64_t> outcomes;
    zul::detail::networkModifyResponse(list({std::make_shared<TwiceAnswering>()}), list({}), service,
                                       PluginResult::success(ok),
                                       [&](PluginResult r) { outcomes.push_back(r.value().statusCode); });
    EXPECT_EQ(outcomes, std::vector<std::int64_t>{201});

    // Validation stops at the first plug-in that rejects (acceptance is seen in the router tests).
    log.clear();
    first->rejects = true;
    first->pluginName = "First";
    std::optional<zul::NetworkRouterError> verdict;  // answered synchronously by these plug-ins
    zul::detail::findPluginThatInvalidatesResponse(
        ok, service, list({first}), list({second}),
        [&](std::optional<zul::NetworkRouterError> e, Response) { verdict = std::move(e); });
    EXPECT_EQ(verdict.value().description(), R"(preventedByPlugin(name: Optional("First")))");
    EXPECT_EQ(log.entries(), std::vector<std::string>{"A.didReceive"});
}

}  // namespace
