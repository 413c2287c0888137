#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <concepts>
#include <functional>
#include <latch>
#include <map>
#include <mutex>
#include <source_location>
#include <string>
#include <thread>
#include <vector>

#include "core/logging_internals.hpp"
#include "support/wait.hpp"
#include "zul/core/logging.hpp"
#include "zul/platform/uuid.hpp"

namespace {

using zul::ZulLog;
using zul::ZulLogger;
using zul::ZulLoggerMessage;
using zul::ZulLogging;
using zul::LoggingInternals;

// The hub is process-wide: every test uses identifiers of its own and leaves no registration and
// no changed levels behind.
std::string uniqueIdentifier(const std::string& name) { return name + "-" + zul::UUID::random().uuidString(); }

struct Entry {
    std::string text;
    std::string file;
    std::string function;
    std::int64_t line;
    zul::Date timestamp;
};

// Records what it is given. `onLog`, when set before registering, runs first inside `log`.
class RecordingLogger final : public ZulLogger {
public:
    explicit RecordingLogger(std::string identifier) : identifier_(std::move(identifier)) {}

    std::string identifier() const override { return identifier_; }

    void log(const ZulLoggerMessage& message) override {
        if (onLog) onLog(message);
        std::lock_guard lock(mutex_);
        entries_.push_back(Entry{std::string(message.text()), std::string(message.file()),
                                 std::string(message.function()), message.line(), message.timestamp()});
        count_.store(entries_.size());
    }

    std::size_t count() const { return count_.load(); }
    std::vector<Entry> entries() const {
        std::lock_guard lock(mutex_);
        return entries_;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> out;
        for (const Entry& entry : entries()) out.push_back(entry.text);
        return out;
    }
    bool waitForCount(std::size_t n) const {
        return zul::test::waitUntil([&] { return count() >= n; }) && count() == n;
    }

    std::function<void(const ZulLoggerMessage&)> onLog;

private:
    const std::string identifier_;
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    std::atomic<std::size_t> count_{0};
};

// Removes its loggers and restores the levels when the test ends, passed or failed.
class HubScope {
public:
    HubScope() : levels_(ZulLogging::shared()->levels()) {}
    ~HubScope() {
        for (const auto& logger : loggers_) ZulLogging::shared()->remove(*logger);
        ZulLogging::shared()->setLevels(levels_);
    }

    std::shared_ptr<RecordingLogger> logger(const std::string& name) {
        loggers_.push_back(std::make_shared<RecordingLogger>(uniqueIdentifier(name)));
        return loggers_.back();
    }

    // Adds `logger` for each of `levels`, in order.
    void add(const std::shared_ptr<ZulLogger>& logger, std::initializer_list<ZulLog> levels) {
        for (ZulLog level : levels) ZulLogging::shared()->add(logger, level);
    }

private:
    zul::ZulLogLevels levels_;
    std::vector<std::shared_ptr<RecordingLogger>> loggers_;
};

// A deferred text that counts its calls.
struct CountingText {
    std::atomic<int>* calls;
    std::string text;
    std::string operator()() const {
        calls->fetch_add(1);
        return text;
    }
};

static_assert(std::equality_comparable<ZulLog>);
static_assert(!std::totally_ordered<ZulLog>, "levels have no order");

TEST(LoggingTest, LevelsAreFourCasesInOrderComparedAndHashedByCase) {
    constexpr auto all = ZulLog::allCases();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0], ZulLog::debug);
    EXPECT_EQ(all[1], ZulLog::info);
    EXPECT_EQ(all[2], ZulLog::warn);
    EXPECT_EQ(all[3], ZulLog::error);
    for (std::size_t i = 0; i < all.size(); ++i) {
        for (std::size_t j = 0; j < all.size(); ++j) EXPECT_EQ(all[i] == all[j], i == j) << i << " " << j;
    }
    const zul::ZulLogLevels set{ZulLog::error, ZulLog::debug, ZulLog::error, ZulLog::warn, ZulLog::info};
    EXPECT_EQ(set.size(), 4u);
    EXPECT_EQ(set.count(ZulLog::warn), 1u);
}

TEST(LoggingTest, DeferredTextIsCalledOnlyForARegisteredLevelOnceOnTheHubsQueue) {
    HubScope scope;
    std::atomic<int> calls{0};

    // No logger at all (the other tests leave none behind).
    ZulLog::debug.send(CountingText{&calls, "unheard"});
    ZulLogging::shared()->flush();
    EXPECT_EQ(calls.load(), 0);

    auto warnings = scope.logger("warnings");
    scope.add(warnings, {ZulLog::warn});
    ZulLog::debug.send(CountingText{&calls, "still unheard"});
    ZulLog::error.send(CountingText{&calls, "unheard as well"});
    ZulLogging::shared()->flush();
    EXPECT_EQ(calls.load(), 0);
    EXPECT_EQ(warnings->count(), 0u);

    std::atomic<bool> onHubQueue{false};
    std::atomic<bool> callerThread{false};
    const auto caller = std::this_thread::get_id();
    ZulLog::warn.send([&] {
        calls.fetch_add(1);
        onHubQueue = LoggingInternals::synchronizationQueue()->isCurrent();
        callerThread = std::this_thread::get_id() == caller;
        return "heard";
    });
    ASSERT_TRUE(warnings->waitForCount(1));
    EXPECT_EQ(calls.load(), 1);
    EXPECT_TRUE(onHubQueue.load());
    EXPECT_FALSE(callerThread.load());
    EXPECT_EQ(warnings->texts(), std::vector<std::string>{"heard"});
    EXPECT_EQ(LoggingInternals::synchronizationQueue()->label(), "dev.zul.loggingsystem.synchronization.queue");
}

TEST(LoggingTest, LevelsSwitchMessagesOnAndOffWithoutMakingTheirTexts) {
    HubScope scope;
    auto all = scope.logger("all-levels");
    scope.add(all, {ZulLog::debug, ZulLog::info, ZulLog::warn, ZulLog::error});
    const auto& hub = ZulLogging::shared();
    EXPECT_EQ(hub->levels(), (zul::ZulLogLevels{ZulLog::debug, ZulLog::info, ZulLog::warn, ZulLog::error}));

    std::atomic<int> calls{0};
    hub->setLevels({});
    EXPECT_TRUE(hub->levels().empty());
    for (ZulLog level : ZulLog::allCases()) level.send(CountingText{&calls, "off"});
    hub->flush();
    EXPECT_EQ(calls.load(), 0);
    EXPECT_EQ(all->count(), 0u);

    hub->setLevels({ZulLog::warn, ZulLog::debug});
    EXPECT_EQ(hub->levels(), (zul::ZulLogLevels{ZulLog::debug, ZulLog::warn}));
    ZulLog::debug.send(CountingText{&calls, "d"});
    ZulLog::info.send(CountingText{&calls, "i"});
    ZulLog::warn.send(CountingText{&calls, "w"});
    ZulLog::error.send(CountingText{&calls, "e"});
    ASSERT_TRUE(all->waitForCount(2));
    hub->flush();
    EXPECT_EQ(calls.load(), 2);
    // One registration per level, each with its own queue: across levels, order is not kept.
    std::vector<std::string> texts = all->texts();
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts, (std::vector<std::string>{"d", "w"}));
}

// The caller's quick check lets a message through while a change is still ahead of it on the
// hub's queue; the hub must judge it by the state it finds when it gets to it.
TEST(LoggingTest, HubJudgesAMessageByTheStateItFindsWhenItProcessesIt) {
    HubScope scope;
    auto logger = scope.logger("judged-late");
    scope.add(logger, {ZulLog::info});
    const auto& hub = ZulLogging::shared();
    const auto& queue = LoggingInternals::synchronizationQueue();
    std::atomic<int> calls{0};

    // Levels switched off by a job that got onto the queue before the message.
    std::latch go(1);
    queue->async([&] {
        go.wait();
        LoggingInternals::switchOffAllLevelsOnQueue();
    });
    ZulLog::info.send(CountingText{&calls, "levels went off first"});
    go.count_down();
    hub->flush();
    EXPECT_EQ(calls.load(), 0);
    EXPECT_EQ(logger->count(), 0u);
    hub->setLevels({ZulLog::debug, ZulLog::info, ZulLog::warn, ZulLog::error});

    // The only registration removed by a job that got onto the queue before the message.
    std::latch go2(1);
    queue->async([&] {
        go2.wait();
        LoggingInternals::removeOnQueue(logger->identifier());
    });
    ZulLog::info.send(CountingText{&calls, "the logger went first"});
    go2.count_down();
    hub->flush();
    EXPECT_EQ(calls.load(), 0);
    EXPECT_EQ(logger->count(), 0u);
    for (const auto& registration : LoggingInternals::registrations()) EXPECT_NE(registration.logger, logger);
}

TEST(LoggingTest, LoggersReceiveExactlyTheLevelTheyWereRegisteredFor) {
    HubScope scope;
    auto debugs = scope.logger("debugs");
    auto infos = scope.logger("infos");
    auto warns = scope.logger("warns");
    auto errors = scope.logger("errors");
    scope.add(debugs, {ZulLog::debug});
    scope.add(infos, {ZulLog::info});
    scope.add(warns, {ZulLog::warn});
    scope.add(errors, {ZulLog::error});

    ZulLog::error.send("e1");
    ZulLog::warn.send("w1");
    ZulLog::info.send("i1");
    ZulLog::debug.send("d1");
    ZulLog::error.send("e2");
    ZulLogging::shared()->flush();
    EXPECT_EQ(debugs->texts(), std::vector<std::string>{"d1"});  // no error for a debug logger
    EXPECT_EQ(infos->texts(), std::vector<std::string>{"i1"});
    EXPECT_EQ(warns->texts(), std::vector<std::string>{"w1"});
    EXPECT_EQ(errors->texts(), (std::vector<std::string>{"e1", "e2"}));
}

TEST(LoggingTest, OneLoggerRegisteredForTwoLevelsGetsBothThroughQueuesOfItsOwn) {
    HubScope scope;
    auto logger = scope.logger("two-levels");
    scope.add(logger, {ZulLog::info, ZulLog::error});

    std::vector<LoggingInternals::Registration> mine;
    for (const auto& registration : LoggingInternals::registrations()) {
        if (registration.logger == logger) mine.push_back(registration);
    }
    ASSERT_EQ(mine.size(), 2u);
    EXPECT_EQ(mine[0].level, ZulLog::info);
    EXPECT_EQ(mine[1].level, ZulLog::error);
    EXPECT_NE(mine[0].queue, mine[1].queue);
    for (const auto& registration : mine) {
        const std::string& label = registration.queue->label();
        ASSERT_TRUE(label.starts_with("dev.zul.logger.queue.")) << label;
        const std::string uuid = label.substr(std::string_view("dev.zul.logger.queue.").size());
        const auto parsed = zul::UUID::fromString(uuid);
        ASSERT_TRUE(parsed.has_value()) << label;
        EXPECT_EQ(parsed->uuidString(), uuid);  // canonical and upper case
        EXPECT_TRUE(registration.queue->isSerial());
    }

    // The info message holds its queue until the error message has been logged: possible only
    // because each registration has a queue of its own.
    std::atomic<bool> errorLogged{false};
    std::atomic<bool> infoSawError{false};
    std::mutex mutex;
    std::map<std::string, std::string> queueOf;  // text -> level of the registration's queue
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> wrongPlace{false};
    logger->onLog = [&](const ZulLoggerMessage& message) {
        const std::string text(message.text());
        if (std::this_thread::get_id() == caller || LoggingInternals::synchronizationQueue()->isCurrent()) {
            wrongPlace = true;
        }
        {
            std::lock_guard lock(mutex);
            queueOf[text] = mine[0].queue->isCurrent() ? "info" : mine[1].queue->isCurrent() ? "error" : "?";
        }
        if (text == "info") infoSawError = zul::test::waitUntil([&] { return errorLogged.load(); });
        if (text == "error") errorLogged = true;
    };
    ZulLog::info.send("info");
    ZulLog::error.send("error");
    ASSERT_TRUE(logger->waitForCount(2));
    EXPECT_TRUE(infoSawError.load());
    EXPECT_FALSE(wrongPlace.load());
    std::lock_guard lock(mutex);
    EXPECT_EQ(queueOf, (std::map<std::string, std::string>{{"error", "error"}, {"info", "info"}}));
}

TEST(LoggingTest, RemovingByAnEqualIdentifierRemovesEveryLevelButDeliversWhatWasHandedOver) {
    HubScope scope;
    auto removed = scope.logger("removed");
    auto kept = scope.logger("kept");
    scope.add(removed, {ZulLog::debug});
    scope.add(kept, {ZulLog::info});
    scope.add(removed, {ZulLog::info});
    scope.add(kept, {ZulLog::debug});
    const auto& hub = ZulLogging::shared();

    // The first message keeps `removed` busy while the second waits on its queue.
    std::latch release(1);
    std::atomic<bool> inLog{false};
    removed->onLog = [&](const ZulLoggerMessage& message) {
        if (message.text() == "first") {
            inLog = true;
            release.wait();
        }
    };
    ZulLog::debug.send("first");
    ZulLog::debug.send("second");
    ASSERT_TRUE(zul::test::waitUntil([&] { return inLog.load(); }));
    (void)hub->levels();  // the hub has processed both by the time it answers

    hub->remove(RecordingLogger(removed->identifier()));  // another object, the same identifier
    std::vector<std::string> order;
    for (const auto& registration : LoggingInternals::registrations()) {
        if (registration.logger == removed) order.push_back("removed");
        if (registration.logger == kept) order.push_back(registration.level == ZulLog::info ? "kept-info" : "kept-debug");
    }
    EXPECT_EQ(order, (std::vector<std::string>{"kept-info", "kept-debug"}));

    release.count_down();
    ASSERT_TRUE(removed->waitForCount(2));
    ZulLog::debug.send("third");
    ZulLog::info.send("fourth");
    hub->flush();
    EXPECT_EQ(removed->texts(), (std::vector<std::string>{"first", "second"}));
    // "third" and "fourth" reach `kept` through two registrations, whose queues run independently.
    auto texts = kept->texts();
    ASSERT_EQ(texts.size(), 4u);
    std::sort(texts.begin() + 2, texts.end());
    EXPECT_EQ(texts, (std::vector<std::string>{"first", "second", "fourth", "third"}));
}

TEST(LoggingTest, LoggerMayChangeTheHubFromInsideLog) {
    HubScope scope;
    auto busy = scope.logger("busy");
    auto helper = scope.logger("helper");
    const auto& hub = ZulLogging::shared();
    std::atomic<int> rounds{0};
    busy->onLog = [&](const ZulLoggerMessage&) {
        const auto levels = hub->levels();
        hub->add(helper, ZulLog::warn);
        hub->setLevels(levels);
        hub->remove(*helper);
        rounds.fetch_add(1);
    };
    scope.add(busy, {ZulLog::info});
    constexpr int kMessages = 50;
    for (int i = 0; i < kMessages; ++i) ZulLog::info.send([i] { return std::to_string(i); });
    ASSERT_TRUE(busy->waitForCount(kMessages));
    EXPECT_EQ(rounds.load(), kMessages);
    EXPECT_EQ(helper->count(), 0u);
    for (const auto& registration : LoggingInternals::registrations()) EXPECT_NE(registration.logger, helper);
}

TEST(LoggingTest, EveryLoggerGetsEachThreadsMessagesInSendOrderAndASlowOneDelaysNobody) {
    HubScope scope;
    auto first = scope.logger("order-1");
    auto second = scope.logger("order-2");
    auto slow = scope.logger("order-slow");
    scope.add(first, {ZulLog::info});
    scope.add(slow, {ZulLog::info});
    scope.add(second, {ZulLog::info});
    std::latch slowRelease(1);
    slow->onLog = [&](const ZulLoggerMessage&) { slowRelease.wait(); };

    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    std::atomic<int> calls{0};
    std::latch start(kThreads);
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kPerThread; ++i) {
                ZulLog::info.send([&calls, t, i] {
                    calls.fetch_add(1, std::memory_order_relaxed);
                    return std::to_string(t) + ":" + std::to_string(i);
                });
            }
        });
    }
    for (auto& producer : producers) producer.join();

    // Both fast loggers get everything while the slow one is still stuck on its first message.
    constexpr std::size_t kTotal = kThreads * kPerThread;
    ASSERT_TRUE(first->waitForCount(kTotal));
    ASSERT_TRUE(second->waitForCount(kTotal));
    EXPECT_EQ(slow->count(), 0u);
    slowRelease.count_down();
    ASSERT_TRUE(slow->waitForCount(kTotal));
    EXPECT_EQ(calls.load(), static_cast<int>(kTotal));  // one text per message, however many loggers

    for (const auto& logger : {first, second, slow}) {
        std::vector<int> next(kThreads, 0);
        int outOfOrder = 0;
        for (const std::string& text : logger->texts()) {
            const auto colon = text.find(':');
            const int t = std::stoi(text.substr(0, colon));
            const int i = std::stoi(text.substr(colon + 1));
            if (i != next[static_cast<std::size_t>(t)]) ++outOfOrder;
            next[static_cast<std::size_t>(t)] = i + 1;
        }
        EXPECT_EQ(outOfOrder, 0) << logger->identifier();
        EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread)) << logger->identifier();
    }
}

void warnFromWrapper(std::string text, std::source_location where = std::source_location::current()) {
    ZulLog::warn.send(std::move(text), where);
}

TEST(LoggingTest, MessageCarriesTheCallSiteAndTheTimeTheHubProcessedIt) {
    HubScope scope;
    auto logger = scope.logger("where-and-when");
    scope.add(logger, {ZulLog::warn});

    const auto beforeSend = std::chrono::system_clock::now();
    const std::int64_t line = __LINE__ + 1;
    ZulLog::warn.send("here");
    const std::int64_t wrapperLine = __LINE__ + 1;
    warnFromWrapper("through a wrapper");
    ASSERT_TRUE(logger->waitForCount(2));
    auto entries = logger->entries();
    EXPECT_EQ(entries[0].text, "here");
    EXPECT_EQ(entries[0].file, __FILE__);
    EXPECT_NE(entries[0].function.find("MessageCarriesTheCallSite"), std::string::npos) << entries[0].function;
    EXPECT_EQ(entries[0].line, line);
    EXPECT_GE(entries[0].timestamp, beforeSend);
    EXPECT_EQ(entries[1].line, wrapperLine);
    EXPECT_EQ(entries[1].file, __FILE__);

    // Held up on the hub's queue, a message is stamped when the hub gets to it, not when sent.
    std::latch go(1);
    LoggingInternals::synchronizationQueue()->async([&] { go.wait(); });
    const auto sent = std::chrono::system_clock::now();
    ZulLog::warn.send("late");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a gap between send and processing
    const auto released = std::chrono::system_clock::now();
    go.count_down();
    ASSERT_TRUE(logger->waitForCount(3));
    entries = logger->entries();
    EXPECT_GT(released, sent);
    EXPECT_GE(entries[2].timestamp, released);
}

// One message object is shared by every logger it goes to and recycled afterwards: texts of any
// length, made or constant, reach each logger intact, however the messages are reused.
TEST(LoggingTest, LoggersSharingMessagesSeeEveryTextIntact) {
    HubScope scope;
    auto first = scope.logger("shared-1");
    auto second = scope.logger("shared-2");
    scope.add(first, {ZulLog::debug});
    scope.add(second, {ZulLog::debug});

    std::vector<std::string> expected;
    for (int i = 0; i < 300; ++i) {
        std::string text(static_cast<std::size_t>(i % 3 == 0 ? 1000 + i : i % 40), static_cast<char>('a' + i % 26));
        text += std::to_string(i);
        expected.push_back(text);
        if (i % 5 == 0) {
            ZulLog::debug.send(std::string_view(text));
        } else if (i % 7 == 0) {
            ZulLog::debug.send("constant");
            expected.back() = "constant";
        } else {
            ZulLog::debug.send([text] { return text; });
        }
    }
    ZulLogging::shared()->flush();
    EXPECT_EQ(first->texts(), expected);
    EXPECT_EQ(second->texts(), expected);
}

TEST(LoggingTest, FlushWaitsUntilEveryLoggerHasLoggedWhatWasSent) {
    HubScope scope;
    auto slow = scope.logger("slow-flush");
    auto fast = scope.logger("fast-flush");
    slow->onLog = [](const ZulLoggerMessage&) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
    scope.add(slow, {ZulLog::error});
    scope.add(fast, {ZulLog::error});
    for (int i = 0; i < 3; ++i) ZulLog::error.send([i] { return "m" + std::to_string(i); });
    ZulLogging::shared()->flush();
    EXPECT_EQ(slow->count(), 3u);
    EXPECT_EQ(fast->count(), 3u);
}

class LoggingDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(LoggingDeathTest, HubOperationsFromADeferredTextOrANullLoggerStopTheProcess) {
    EXPECT_DEATH(
        {
            ZulLogging::shared()->add(std::make_shared<RecordingLogger>("death"), ZulLog::info);
            ZulLog::info.send([] {
                (void)ZulLogging::shared()->levels();  // waits on the queue it runs on
                return "never";
            });
            ZulLogging::shared()->flush();
        },
        "sync called on queue \"dev.zul.loggingsystem.synchronization.queue\"");
    EXPECT_DEATH(ZulLogging::shared()->add(nullptr, ZulLog::info), "ZulLogging::add needs a logger, not null");
}

}  // namespace
