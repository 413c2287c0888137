#include <gtest/gtest.h>

#include <any>
#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/wait.hpp"
#include "zul/core/scheduler.hpp"

namespace {

using namespace std::chrono_literals;
using zul::DispatchClock;
using zul::DispatchQueue;
using zul::DispatchTime;
using zul::Scheduler;
using zul::SchedulerMaker;
using zul::ZulScheduler;

double secondsFrom(DispatchTime from, DispatchTime to) { return std::chrono::duration<double>(to - from).count(); }

// What the actions recorded and when, shared with the actions (which may outlive the test's
// locals for the length of a firing).
class Firings {
public:
    void record(std::string note = {}) {
        std::lock_guard lock(mutex_);
        runs_.emplace_back(DispatchClock::now(), std::move(note));
    }
    std::size_t size() const {
        std::lock_guard lock(mutex_);
        return runs_.size();
    }
    std::pair<DispatchTime, std::string> at(std::size_t index) const {
        std::lock_guard lock(mutex_);
        return runs_.at(index);
    }
    bool waitFor(std::size_t count) const { return zul::test::waitUntil([&] { return size() >= count; }); }

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<DispatchTime, std::string>> runs_;
};

Scheduler::Action recordInto(const std::shared_ptr<Firings>& firings) {
    return [firings](const std::shared_ptr<Scheduler>&) { firings->record(); };
}

// Seconds from calling `start` to firing number `index` (from 0); infinity when it never came.
template <class F>
double secondsUntilFiring(const Firings& firings, std::size_t index, F&& start) {
    const DispatchTime before = DispatchClock::now();
    start();
    if (!firings.waitFor(index + 1)) {
        ADD_FAILURE() << "firing " << index << " never came";
        return std::numeric_limits<double>::infinity();
    }
    return secondsFrom(before, firings.at(index).first);
}

// The bounds of what a pause leaves of a period: the start was marked somewhere inside the
// first resume() and the pause measured somewhere inside the last pause().
struct Left {
    double least;
    double most;
};
template <class F>
Left resumeThenPause(Scheduler& scheduler, double period, F&& meanwhile) {
    const DispatchTime startBefore = DispatchClock::now();
    scheduler.resume();
    const DispatchTime startAfter = DispatchClock::now();
    meanwhile();
    const DispatchTime pauseBefore = DispatchClock::now();
    scheduler.pause();
    const DispatchTime pauseAfter = DispatchClock::now();
    return {period - secondsFrom(startBefore, pauseAfter), period - secondsFrom(startAfter, pauseBefore)};
}

// Each test's actions run on a queue of its own and record into firings of its own.
class ZulSchedulerTest : public testing::Test {
protected:
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::create("test.scheduler");
    std::shared_ptr<Firings> firings = std::make_shared<Firings>();
};

TEST_F(ZulSchedulerTest, AOneTimeSchedulerRunsOnlyAfterResumeFinishesAndStartsAgain) {
    auto action = [firings = firings, queue = queue](const std::shared_ptr<Scheduler>& s) {
        // "finished" is already set when the action runs; this run is not counted yet.
        firings->record(std::string(queue->isCurrent() ? "on its queue" : "elsewhere") +
                        (s->hasOneTimeSchedulerFinished() ? ", finished" : "") + (s->isRunning() ? ", running" : "") +
                        ", count " + std::to_string(s->count()));
    };
    auto scheduler = SchedulerMaker::createOneTimeScheduler(0.4, queue, action);
    std::this_thread::sleep_for(600ms);  // longer than the period: nothing runs before resume
    EXPECT_EQ(scheduler->count(), 0);
    scheduler->pause();  // neither pause nor stop starts a scheduler that never ran
    scheduler->stop();
    EXPECT_FALSE(scheduler->isRunning());

    scheduler->resume();
    EXPECT_TRUE(scheduler->isRunning());
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 1; }));
    EXPECT_FALSE(scheduler->isRunning());
    EXPECT_EQ(firings->at(0).second, "on its queue, finished, count 0");

    scheduler->pause();  // a finished scheduler is not running: it stays finished
    EXPECT_TRUE(scheduler->hasOneTimeSchedulerFinished());
    scheduler->resume();  // a finished one-time scheduler runs again when resumed
    EXPECT_TRUE(scheduler->isRunning());
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 2; }));

    scheduler->stop();  // finished -> stopped, and a stopped scheduler starts again
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());
    scheduler->resume();
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 3; }));
}

TEST_F(ZulSchedulerTest, TheDelayReplacesThePeriodOnlyWhileTheActionHasNeverRun) {
    auto scheduler = SchedulerMaker::createScheduler(0.05, 1.2, false, 0.01, queue, {}, recordInto(firings));
    scheduler->resume();
    std::this_thread::sleep_for(300ms);  // well past the 0.05 s period, inside the delay
    EXPECT_EQ(firings->size(), 0u);
    scheduler->pause();  // 0.3 s into a 0.05 s period: nothing left of it

    // The action has never run: a resume after a pause waits the delay again.
    EXPECT_GE(secondsUntilFiring(*firings, 0, [&] { scheduler->resume(); }), 1.19);
    // Once it has run (the count goes up as the action returns), a new start waits the period.
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 1; }));
    EXPECT_LT(secondsUntilFiring(*firings, 1, [&] { scheduler->resume(); }), 1.0);
}

TEST_F(ZulSchedulerTest, APauseKeepsWhatWasLeftSinceTheFirstStartAndAStopDoesNotForgetIt) {
    auto scheduler = SchedulerMaker::createOneTimeScheduler(1.0, queue, recordInto(firings));
    Left left = resumeThenPause(*scheduler, 1.0, [] { std::this_thread::sleep_for(300ms); });
    ASSERT_LE(left.most, 0.7);
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());
    std::this_thread::sleep_for(900ms);  // past the original deadline: the paused timer is silent
    EXPECT_EQ(firings->size(), 0u);

    scheduler->stop();  // stays paused; a stopped (cancelled) one would start over with the full second
    double waited = secondsUntilFiring(*firings, 0, [&] { scheduler->resume(); });
    EXPECT_GE(waited, left.least);       // about 0.7 s ...
    EXPECT_LE(waited, left.most + 0.3);  // ... not the full second again

    // A second pause also measures from the first start, time spent paused included: nothing is
    // left, where measuring from the last resume would leave 0.8 s.
    left = resumeThenPause(*scheduler, 1.0, [&] {
        std::this_thread::sleep_for(200ms);
        scheduler->pause();
        std::this_thread::sleep_for(700ms);
        scheduler->resume();
        std::this_thread::sleep_for(200ms);
    });
    ASSERT_LE(left.most, -0.1);
    EXPECT_EQ(firings->size(), 1u);
    EXPECT_LT(secondsUntilFiring(*firings, 1, [&] { scheduler->resume(); }), 0.5);
}

TEST_F(ZulSchedulerTest, ARepeatingSchedulerPausedAfterWholePeriodsResumesAtOnce) {
    auto scheduler = SchedulerMaker::createRepeatingScheduler(0.8, queue, [f = firings](const std::shared_ptr<Scheduler>& s) {
        f->record();
        if (s->count() == 1) s->pause();  // in the second run, 1.6 s after the start
    });
    scheduler->resume();
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 2 && !scheduler->isRunning(); }));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(firings->size(), 2u);
    // The start is not marked again at each firing: at once, not after a period of 0.8 s.
    EXPECT_LT(secondsUntilFiring(*firings, 2, [&] { scheduler->resume(); }), 0.5);
    scheduler->stop();
}

TEST_F(ZulSchedulerTest, RestartUsesTheNewPeriodUnlessPausedWhenItKeepsWhatWasLeftAndWorksFromTheAction) {
    // Running: starts over with the new period.
    auto running = SchedulerMaker::createOneTimeScheduler(30.0, queue, recordInto(firings));
    running->resume();
    EXPECT_GE(secondsUntilFiring(*firings, 0, [&] { running->restart(0.2); }), 0.2);

    // Paused: the new period is taken, but this run still ends after what was left of the old one.
    auto pausedFirings = std::make_shared<Firings>();
    auto paused = SchedulerMaker::createOneTimeScheduler(1.0, queue, recordInto(pausedFirings));
    const Left left = resumeThenPause(*paused, 1.0, [] { std::this_thread::sleep_for(600ms); });
    const double waited = secondsUntilFiring(*pausedFirings, 0, [&] {
        paused->restart(30.0);
        EXPECT_EQ(paused->timeInterval(), 30.0);
        EXPECT_TRUE(paused->isRunning());
    });
    EXPECT_GE(waited, left.least);
    EXPECT_LT(waited, left.most + 2.0);  // far below the new 30 s

    // Finished: a one-time scheduler restarting itself twice: restart sees "finished" (set before the
    // action) and starts a new timer; the count still goes up after each run.
    std::atomic<bool> runningAfterRestart{false};
    auto again = SchedulerMaker::createOneTimeScheduler(0.02, queue, [&](const std::shared_ptr<Scheduler>& s) {
        if (s->count() < 2) {
            s->restart(0.02);
            runningAfterRestart = s->isRunning();
        }
    });
    again->resume();
    ASSERT_TRUE(zul::test::waitUntil([&] { return again->count() == 3; }));
    EXPECT_TRUE(runningAfterRestart);
    EXPECT_TRUE(again->hasOneTimeSchedulerFinished());
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(again->count(), 3);
}

TEST_F(ZulSchedulerTest, TheMakerGivesEachKindItsDefaultsAndUsesTheGivenCreatorOrZulSchedulerWithALabelOfItsOwn) {
    std::vector<Scheduler::Action> passed;  // the actions the creator was given
    zul::SchedulerCreator recording = [&](double interval, std::optional<double> delay, bool repeats, double tolerance,
                                          std::shared_ptr<DispatchQueue> q, std::any userInfo, Scheduler::Action action) {
        passed.push_back(std::move(action));
        return ZulScheduler::creator(interval, delay, repeats, tolerance, std::move(q), std::move(userInfo),
                                     [](const std::shared_ptr<Scheduler>&) {});
    };
    int runs = 0;
    auto countRuns = [&](const std::shared_ptr<Scheduler>&) { ++runs; };
    const struct {
        std::shared_ptr<Scheduler> made;
        double interval;
        std::optional<double> delay;
        bool repeats;
        double tolerance;
        const char* user;
    } cases[] = {
        {SchedulerMaker::createOneTimeScheduler(2.5, queue, recording, countRuns), 2.5, std::nullopt, false, 0.08, nullptr},
        {SchedulerMaker::createRepeatingScheduler(0.5, queue, recording, countRuns), 0.5, std::nullopt, true, 0.08, nullptr},
        {SchedulerMaker::createScheduler(3.0, 0.25, true, 0.5, queue, std::string("42"), recording, countRuns), 3.0,
         0.25, true, 0.5, "42"},
        // Without a creator, ZulScheduler::creator makes it.
        {SchedulerMaker::createScheduler(0.3, 0.1, false, 0.5, queue, std::string("x"), countRuns), 0.3, 0.1, false,
         0.5, "x"},
    };
    // The prefix and a canonical, upper-case UUID, with nothing between them.
    const std::regex labelPattern(R"(dev\.zul\.scheduler\.sync\.queue[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12})");
    std::set<std::string> labels;
    for (const auto& c : cases) {
        auto scheduler = std::dynamic_pointer_cast<ZulScheduler>(c.made);
        ASSERT_NE(scheduler, nullptr);
        EXPECT_EQ(std::tuple(scheduler->timeInterval(), scheduler->delay(), scheduler->repeats(), scheduler->tolerance()),
                  std::tuple(c.interval, c.delay, c.repeats, c.tolerance));
        EXPECT_EQ(scheduler->queue(), queue);
        const auto* text = std::any_cast<std::string>(&scheduler->userInfo());
        EXPECT_EQ(text ? std::optional(*text) : std::nullopt, c.user ? std::optional<std::string>(c.user) : std::nullopt);
        EXPECT_TRUE(std::regex_match(scheduler->synchronizationQueueLabel(), labelPattern));
        labels.insert(scheduler->synchronizationQueueLabel());
    }
    EXPECT_EQ(labels.size(), std::size(cases));  // a fresh UUID each
    ASSERT_EQ(passed.size(), 3u);
    for (auto& action : passed) action(cases[0].made);  // the caller's actions, passed through
    EXPECT_EQ(runs, 3);
}

TEST_F(ZulSchedulerTest, DroppingTheLastReferenceCancelsTheTimer) {
    std::shared_ptr<Scheduler> scheduler = SchedulerMaker::createRepeatingScheduler(0.01, queue, recordInto(firings));
    std::weak_ptr<Scheduler> weak = scheduler;
    scheduler->resume();
    ASSERT_TRUE(firings->waitFor(3));
    scheduler.reset();
    ASSERT_TRUE(zul::test::waitUntil([&] { return weak.expired(); }));  // a running firing may hold it briefly
    queue->sync([] {});
    const std::size_t seen = firings->size();
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(firings->size(), seen);

    // The last reference may also go inside the action: the scheduler is then destroyed on the
    // action's queue, once the firing is over.
    auto holder = std::make_shared<std::shared_ptr<Scheduler>>();
    std::atomic<int> runs{0};
    *holder = SchedulerMaker::createRepeatingScheduler(0.01, queue, [holder, &runs](const std::shared_ptr<Scheduler>& s) {
        ++runs;
        holder->reset();
        EXPECT_TRUE(s->isRunning());  // still usable for the rest of this run
    });
    std::weak_ptr<Scheduler> released = *holder;
    (*holder)->resume();
    ASSERT_TRUE(zul::test::waitUntil([&] { return released.expired(); }));
    queue->sync([] {});
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(runs.load(), 1);

    // One never started goes without a trace.
    SchedulerMaker::createOneTimeScheduler(0.01, queue, recordInto(firings)).reset();
}

TEST_F(ZulSchedulerTest, OperationsFromManyThreadsWhileFiringStayConsistent) {
    std::atomic<int> runs{0};
    auto scheduler = SchedulerMaker::createRepeatingScheduler(0.001, queue, [&runs](const std::shared_ptr<Scheduler>& s) {
        ++runs;
        (void)s->isRunning();
    });
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {  // every operation, in a different order on each thread
            for (int i = t; !done; ++i) {
                if (i % 4 == 0) scheduler->resume();
                else if (i % 4 == 1) scheduler->pause();
                else if (i % 4 == 2) scheduler->restart(0.001 + (i % 3) * 0.001);
                else scheduler->stop();
                std::this_thread::sleep_for(1ms);
            }
        });
    }
    // This thread reads meanwhile: the count only goes up.
    std::int64_t last = 0;
    for (const auto end = DispatchClock::now() + 400ms; DispatchClock::now() < end;) {
        const std::int64_t now = scheduler->count();
        EXPECT_GE(now, last);
        last = now;
        (void)scheduler->timeInterval();
        (void)scheduler->hasOneTimeSchedulerFinished();
    }
    done = true;
    for (auto& thread : threads) thread.join();
    scheduler->stop();
    queue->sync([] {});
    EXPECT_EQ(scheduler->count(), runs.load());
    const int settled = runs.load();
    scheduler->restart(0.01);  // still in working order
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() > settled; }));
    scheduler->stop();
}

TEST_F(ZulSchedulerTest, AOneTimeSchedulerWithAnEndlessPeriodNeverFires) {
    // Only the repeat interval and the tolerance become integers; the first deadline saturates.
    for (double period : {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN(), 1e300}) {
        auto scheduler = SchedulerMaker::createOneTimeScheduler(period, queue, recordInto(firings));
        scheduler->resume();
        EXPECT_TRUE(scheduler->isRunning());
        scheduler->stop();
    }
    // A repeat interval just inside the 64-bit range of milliseconds is accepted.
    auto huge = SchedulerMaker::createRepeatingScheduler(9.2e15, queue, recordInto(firings));
    huge->resume();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(firings->size(), 0u);
}

// A measurer whose clock the test sets.
class ManualClockMeasurer final : public zul::ZulTimeMeasurer {
public:
    DispatchTime current{std::chrono::hours(1)};

protected:
    DispatchTime now() const override { return current; }
};

TEST(ZulTimeMeasurerTest, MeasuresSecondsSinceTheMarkCappedAtAHundred) {
    ManualClockMeasurer measurer;
    EXPECT_EQ(measurer.elapsed(), std::nullopt);
    const DispatchTime start = measurer.current;
    measurer.mark();
    const std::pair<std::chrono::nanoseconds, double> cases[] = {
        {250ms, 0.25}, {99'999'999'999ns, 99.999999999}, {150s, 100.0}};
    for (const auto& [since, seconds] : cases) {
        measurer.current = start + since;
        EXPECT_EQ(measurer.elapsed(), seconds) << since.count();
    }
    measurer.mark();  // a new mark starts over
    measurer.current += 2s;
    EXPECT_EQ(measurer.elapsed(), 2.0);
}

TEST(ZulSchedulerDeathTest, ATimeBeforeTheMarkAndPeriodsOrTolerancesWithoutWholeMillisecondsStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ManualClockMeasurer measurer;
    measurer.mark();
    measurer.current -= 1ns;
    EXPECT_DEATH((void)measurer.elapsed(), "Fatal error: ZulTimeMeasurer: the current time is earlier than the marked start");

    auto queue = DispatchQueue::create("test.scheduler.death");
    const auto dies = [&](bool repeats, double interval, double tolerance, const std::string& reason) {
        auto scheduler = SchedulerMaker::createScheduler(interval, std::nullopt, repeats, tolerance, queue, {},
                                                         [](const std::shared_ptr<Scheduler>&) {});
        EXPECT_DEATH(scheduler->resume(), "Fatal error: Double value cannot be converted to Int because " + reason);
    };
    dies(true, std::numeric_limits<double>::infinity(), 0.08, "it is either infinite or NaN \\(repeat interval: inf ms\\)");
    dies(true, std::numeric_limits<double>::quiet_NaN(), 0.08, "it is either infinite or NaN \\(repeat interval: nan ms\\)");
    dies(true, 9.3e15, 0.08, "the result would be greater than Int.max \\(repeat interval: 9.3e\\+18 ms\\)");
    dies(false, 1.0, -1e17, "the result would be less than Int.min \\(tolerance: -1e\\+20 ms\\)");
}

}  // namespace
