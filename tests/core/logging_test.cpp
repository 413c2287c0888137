#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <concepts>
#include <functional>
#include <latch>
#include <mutex>
#include <regex>
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

// Records what it is given. `onLog`, set before anything is sent that the logger may get, runs
// first inside `log`.
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

    // A logger of a name of its own, registered for each of `levels` in order.
    std::shared_ptr<RecordingLogger> logger(const std::string& name, std::initializer_list<ZulLog> levels = {}) {
        loggers_.push_back(std::make_shared<RecordingLogger>(uniqueIdentifier(name)));
        for (ZulLog level : levels) ZulLogging::shared()->add(loggers_.back(), level);
        return loggers_.back();
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

TEST(LoggingTest, AMessageReachesTheLoggersOfItsLevelWhenSwitchedOnAndOnlyThenIsItsTextMade) {
    HubScope scope;
    const auto& hub = ZulLogging::shared();
    // Every level is on by default.
    EXPECT_EQ(hub->levels(), (zul::ZulLogLevels{ZulLog::error, ZulLog::debug, ZulLog::info, ZulLog::warn}));
    std::atomic<int> calls{0};

    // A logger for warnings only: no text is made for a level nobody listens to (counted below).
    auto warns = scope.logger("warns", {ZulLog::warn});
    ZulLog::debug.send(CountingText{&calls, "unheard"});

    // The text is made once, on the hub's queue.
    std::atomic<bool> onHubQueue{false};  // not on the caller's thread
    ZulLog::warn.send([&] {
        calls.fetch_add(1);
        onHubQueue = LoggingInternals::synchronizationQueue()->isCurrent();
        return "heard";
    });
    ASSERT_TRUE(warns->waitForCount(1));
    EXPECT_TRUE(onHubQueue.load());

    // A logger for each level gets exactly that level; flush waits for the slow error logger.
    auto debugs = scope.logger("debugs", {ZulLog::debug});
    auto infos = scope.logger("infos", {ZulLog::info});
    auto errors = scope.logger("errors", {ZulLog::error});
    errors->onLog = [](const ZulLoggerMessage&) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
    ZulLog::error.send("e1");
    ZulLog::warn.send("w1");
    ZulLog::info.send("i1");
    ZulLog::debug.send("d1");
    ZulLog::error.send("e2");
    hub->flush();
    EXPECT_EQ(debugs->texts(), std::vector<std::string>{"d1"});  // no error for a debug logger
    EXPECT_EQ(infos->texts(), std::vector<std::string>{"i1"});
    EXPECT_EQ(warns->texts(), (std::vector<std::string>{"heard", "w1"}));
    EXPECT_EQ(errors->texts(), (std::vector<std::string>{"e1", "e2"}));

    // Levels switched off drop their messages without making the texts.
    hub->setLevels({ZulLog::warn, ZulLog::debug});
    ZulLog::debug.send(CountingText{&calls, "d2"});
    ZulLog::info.send(CountingText{&calls, "i2"});
    ZulLog::warn.send(CountingText{&calls, "w2"});
    ZulLog::error.send(CountingText{&calls, "e3"});
    hub->flush();
    EXPECT_EQ(calls.load(), 3);  // "heard", d2 and w2, each made once: neither "unheard", i2 nor e3
    EXPECT_EQ(debugs->texts(), (std::vector<std::string>{"d1", "d2"}));
    EXPECT_EQ(warns->texts(), (std::vector<std::string>{"heard", "w1", "w2"}));
}

// The caller's quick check lets a message through while a change is still ahead of it on the
// hub's queue; the hub must judge it by the state it finds when it gets to it.
TEST(LoggingTest, HubJudgesAMessageByTheStateItFindsWhenItProcessesIt) {
    HubScope scope;
    auto logger = scope.logger("judged-late", {ZulLog::info});
    std::atomic<int> calls{0};
    // Sends a message while `change` waits on the hub's queue ahead of it, then lets it run.
    const auto sendBehind = [&](auto change, const char* text) {
        std::latch go(1);
        LoggingInternals::synchronizationQueue()->async([&go, change] {
            go.wait();
            change();
        });
        ZulLog::info.send(CountingText{&calls, text});
        go.count_down();
        ZulLogging::shared()->flush();
    };
    // Each time no text is made, so none is logged.
    sendBehind([] { LoggingInternals::switchOffAllLevelsOnQueue(); }, "levels went off first");
    EXPECT_EQ(calls.load(), 0);
    ZulLogging::shared()->setLevels({ZulLog::debug, ZulLog::info, ZulLog::warn, ZulLog::error});

    // The only registration removed by a job that got onto the queue before the message.
    sendBehind([&] { LoggingInternals::removeOnQueue(logger->identifier()); }, "the logger went first");
    EXPECT_EQ(calls.load(), 0);
}

TEST(LoggingTest, OneLoggerRegisteredForTwoLevelsGetsBothThroughQueuesOfItsOwn) {
    HubScope scope;
    auto logger = scope.logger("two-levels", {ZulLog::info, ZulLog::error});

    std::vector<LoggingInternals::Registration> mine;
    for (const auto& registration : LoggingInternals::registrations()) {
        if (registration.logger == logger) mine.push_back(registration);
    }
    ASSERT_EQ(mine.size(), 2u);
    EXPECT_EQ(mine[0].level, ZulLog::info);
    EXPECT_EQ(mine[1].level, ZulLog::error);
    // The prefix and a canonical, upper-case UUID, with nothing between them.
    const std::regex labelPattern(R"(dev\.zul\.logger\.queue\.[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12})");
    for (const auto& registration : mine) {
        EXPECT_TRUE(std::regex_match(registration.queue->label(), labelPattern)) << registration.queue->label();
    }

    // The info message holds its queue until the error message has been logged: possible only
    // because each registration has a queue of its own, on which its messages are logged.
    std::atomic<bool> errorLogged{false};
    std::atomic<bool> infoSawError{false};
    std::atomic<int> onTheirQueues{0};
    logger->onLog = [&](const ZulLoggerMessage& message) {
        const bool info = message.text() == "info";
        if (mine[info ? 0 : 1].queue->isCurrent() && !LoggingInternals::synchronizationQueue()->isCurrent()) {
            ++onTheirQueues;
        }
        if (info) infoSawError = zul::test::waitUntil([&] { return errorLogged.load(); });
        else errorLogged = true;
    };
    ZulLog::info.send("info");
    ZulLog::error.send("error");
    ASSERT_TRUE(logger->waitForCount(2));
    EXPECT_TRUE(infoSawError.load());
    EXPECT_EQ(onTheirQueues.load(), 2);
}

TEST(LoggingTest, RemovingByAnEqualIdentifierRemovesEveryLevelButDeliversWhatWasHandedOver) {
    HubScope scope;
    auto removed = scope.logger("removed");
    auto kept = scope.logger("kept");
    const auto& hub = ZulLogging::shared();
    hub->add(removed, ZulLog::debug);
    hub->add(kept, ZulLog::info);
    hub->add(removed, ZulLog::info);
    hub->add(kept, ZulLog::debug);

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
    std::vector<ZulLog> keptLevels;  // in registration order; that none of `removed`'s is left, "third" shows
    for (const auto& registration : LoggingInternals::registrations()) {
        if (registration.logger == kept) keptLevels.push_back(registration.level);
    }
    EXPECT_EQ(keptLevels, (std::vector{ZulLog::info, ZulLog::debug}));

    release.count_down();
    ASSERT_TRUE(removed->waitForCount(2));
    ZulLog::debug.send("third");
    ZulLog::info.send("fourth");
    hub->flush();
    EXPECT_EQ(removed->texts(), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(kept->count(), 4u);
}

TEST(LoggingTest, EveryLoggerGetsEachThreadsMessagesInSendOrderAndASlowOneDelaysNobody) {
    HubScope scope;
    auto first = scope.logger("order-1", {ZulLog::info});
    auto slow = scope.logger("order-slow", {ZulLog::info});
    auto second = scope.logger("order-2", {ZulLog::info});
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
        std::vector<int> next(kThreads, 0);  // each thread's messages come in order, none missing
        for (const std::string& text : logger->texts()) {
            const auto colon = text.find(':');
            int& expected = next.at(std::stoul(text.substr(0, colon)));
            ASSERT_EQ(std::stoi(text.substr(colon + 1)), expected++) << logger->identifier();
        }
        EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread)) << logger->identifier();
    }
}

void warnFromWrapper(std::string text, std::source_location where = std::source_location::current()) {
    ZulLog::warn.send(std::move(text), where);
}

TEST(LoggingTest, MessageCarriesTheCallSiteAndTheTimeTheHubProcessedIt) {
    HubScope scope;
    auto logger = scope.logger("where-and-when", {ZulLog::warn});

    const std::int64_t line = __LINE__ + 1;
    ZulLog::warn.send("here");
    const std::int64_t wrapperLine = __LINE__ + 1;
    warnFromWrapper("through a wrapper");
    ASSERT_TRUE(logger->waitForCount(2));
    auto entries = logger->entries();
    EXPECT_EQ(entries[0].file, __FILE__);
    EXPECT_NE(entries[0].function.find("MessageCarriesTheCallSite"), std::string::npos) << entries[0].function;
    EXPECT_EQ(entries[0].line, line);
    EXPECT_EQ(entries[1].line, wrapperLine);

    // Held up on the hub's queue, a message is stamped when the hub gets to it, not when sent.
    std::latch go(1);
    LoggingInternals::synchronizationQueue()->async([&] { go.wait(); });
    ZulLog::warn.send("late");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a gap between send and processing
    const auto released = std::chrono::system_clock::now();
    go.count_down();
    ASSERT_TRUE(logger->waitForCount(3));
    EXPECT_GE(logger->entries()[2].timestamp, released);
}

// One message object is shared by every logger it goes to and recycled afterwards: texts of any
// length, made or constant, reach each logger intact, however the messages are reused.
TEST(LoggingTest, LoggersSharingMessagesSeeEveryTextIntact) {
    HubScope scope;
    auto first = scope.logger("shared-1", {ZulLog::debug});
    auto second = scope.logger("shared-2", {ZulLog::debug});

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

TEST(LoggingDeathTest, HubOperationsFromADeferredTextOrANullLoggerStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
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
