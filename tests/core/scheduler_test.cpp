#include <gtest/gtest.h>

#include <any>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/wait.hpp"
#include "zul/core/scheduler.hpp"
#include "zul/platform/uuid.hpp"

namespace {

using namespace std::chrono_literals;
using zul::DispatchClock;
using zul::DispatchQueue;
using zul::DispatchTime;
using zul::Scheduler;
using zul::SchedulerMaker;
using zul::ZulScheduler;

double secondsFrom(DispatchTime from, DispatchTime to) { return std::chrono::duration<double>(to - from).count(); }

// The moments an action ran, shared with the action (which may outlive the test's locals for
// the length of a firing).
class Firings {
public:
    void record() {
        std::lock_guard lock(mutex_);
        times_.push_back(DispatchClock::now());
    }
    std::size_t size() const {
        std::lock_guard lock(mutex_);
        return times_.size();
    }
    DispatchTime at(std::size_t index) const {
        std::lock_guard lock(mutex_);
        return times_.at(index);
    }

private:
    mutable std::mutex mutex_;
    std::vector<DispatchTime> times_;
};

Scheduler::Action recordInto(const std::shared_ptr<Firings>& firings) {
    return [firings](const std::shared_ptr<Scheduler>&) { firings->record(); };
}

bool waitForFirings(const Firings& firings, std::size_t count) {
    return zul::test::waitUntil([&] { return firings.size() >= count; });
}

// The bounds of what a pause leaves of a one-time period: the start was marked somewhere in
// [startBefore, startAfter] and the pause measured somewhere in [pauseBefore, pauseAfter].
struct Left {
    double least;
    double most;
};
Left leftAfterPause(double period, DispatchTime startBefore, DispatchTime startAfter, DispatchTime pauseBefore,
                    DispatchTime pauseAfter) {
    return {period - secondsFrom(startBefore, pauseAfter), period - secondsFrom(startAfter, pauseBefore)};
}

TEST(ZulSchedulerTest, AOneTimeSchedulerWaitsForResumeThenRunsOnceAndFinishes) {
    auto queue = DispatchQueue::create("test.scheduler.once");
    struct Inside {
        std::atomic<const Scheduler*> given{nullptr};
        std::atomic<bool> onQueue{false};
        std::atomic<bool> finished{false};
        std::atomic<bool> running{true};
        std::atomic<std::int64_t> count{-1};
    };
    auto inside = std::make_shared<Inside>();
    auto scheduler = SchedulerMaker::createOneTimeScheduler(0.4, queue, [inside, queue](const std::shared_ptr<Scheduler>& s) {
        inside->given = s.get();
        inside->onQueue = queue->isCurrent();
        inside->finished = s->hasOneTimeSchedulerFinished();  // already set when the action runs
        inside->running = s->isRunning();
        inside->count = s->count();  // this run is not counted yet
    });
    EXPECT_EQ(scheduler->timeInterval(), 0.4);
    EXPECT_FALSE(scheduler->userInfo().has_value());

    std::this_thread::sleep_for(600ms);  // longer than the period: nothing runs before resume
    EXPECT_EQ(scheduler->count(), 0);
    EXPECT_FALSE(scheduler->isRunning());
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());

    scheduler->resume();
    EXPECT_TRUE(scheduler->isRunning());
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 1; }));
    EXPECT_TRUE(scheduler->hasOneTimeSchedulerFinished());
    EXPECT_FALSE(scheduler->isRunning());
    EXPECT_EQ(inside->given.load(), scheduler.get());
    EXPECT_TRUE(inside->onQueue);
    EXPECT_TRUE(inside->finished);
    EXPECT_FALSE(inside->running);
    EXPECT_EQ(inside->count.load(), 0);

    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(scheduler->count(), 1);
    scheduler->resume();  // a finished one-time scheduler runs again when resumed
    EXPECT_TRUE(scheduler->isRunning());
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 2; }));
    EXPECT_TRUE(scheduler->hasOneTimeSchedulerFinished());
}

TEST(ZulSchedulerTest, TheSynchronizationLabelIsThePrefixAndAFreshUpperCaseUUID) {
    auto queue = DispatchQueue::create("test.scheduler.label");
    auto first = ZulScheduler::create(1, std::nullopt, false, 0, queue, {}, [](const std::shared_ptr<Scheduler>&) {});
    auto second = ZulScheduler::create(1, std::nullopt, false, 0, queue, {}, [](const std::shared_ptr<Scheduler>&) {});
    const std::string prefix = "dev.zul.scheduler.sync.queue";
    for (const auto& scheduler : {first, second}) {
        const std::string& label = scheduler->synchronizationQueueLabel();
        ASSERT_TRUE(label.starts_with(prefix)) << label;
        const std::string uuid = label.substr(prefix.size());
        ASSERT_TRUE(zul::UUID::fromString(uuid).has_value()) << label;
        EXPECT_EQ(zul::UUID::fromString(uuid)->uuidString(), uuid);  // canonical, upper case
    }
    EXPECT_NE(first->synchronizationQueueLabel(), second->synchronizationQueueLabel());
}

TEST(ZulSchedulerTest, TheDelayReplacesThePeriodOnlyWhileTheActionHasNeverRun) {
    auto queue = DispatchQueue::create("test.scheduler.delay");
    auto firings = std::make_shared<Firings>();
    auto scheduler = SchedulerMaker::createScheduler(0.05, 1.2, false, 0.01, queue, std::string("tag"), recordInto(firings));
    ASSERT_NE(std::any_cast<std::string>(&scheduler->userInfo()), nullptr);
    EXPECT_EQ(std::any_cast<std::string>(scheduler->userInfo()), "tag");

    scheduler->resume();
    std::this_thread::sleep_for(300ms);  // well past the 0.05 s period, inside the delay
    EXPECT_EQ(firings->size(), 0u);
    scheduler->pause();  // 0.3 s into a 0.05 s period: nothing left of it

    // The action has never run: a resume after a pause waits the delay again.
    const DispatchTime resumed = DispatchClock::now();
    scheduler->resume();
    ASSERT_TRUE(waitForFirings(*firings, 1));
    EXPECT_GE(secondsFrom(resumed, firings->at(0)), 1.19);

    // Once it has run, a new start waits the period.
    const DispatchTime again = DispatchClock::now();
    scheduler->resume();
    ASSERT_TRUE(waitForFirings(*firings, 2));
    EXPECT_LT(secondsFrom(again, firings->at(1)), 1.0);
    EXPECT_EQ(scheduler->count(), 2);
}

TEST(ZulSchedulerTest, APauseRemembersWhatWasLeftOfThePeriod) {
    auto queue = DispatchQueue::create("test.scheduler.pause");
    auto firings = std::make_shared<Firings>();
    auto scheduler = SchedulerMaker::createOneTimeScheduler(1.0, queue, recordInto(firings));

    const DispatchTime startBefore = DispatchClock::now();
    scheduler->resume();
    const DispatchTime startAfter = DispatchClock::now();
    std::this_thread::sleep_for(300ms);
    const DispatchTime pauseBefore = DispatchClock::now();
    scheduler->pause();
    const DispatchTime pauseAfter = DispatchClock::now();
    EXPECT_FALSE(scheduler->isRunning());
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());
    const Left left = leftAfterPause(1.0, startBefore, startAfter, pauseBefore, pauseAfter);
    ASSERT_LE(left.most, 0.7);

    std::this_thread::sleep_for(900ms);  // past the original deadline: the paused timer is silent
    EXPECT_EQ(firings->size(), 0u);

    const DispatchTime resumed = DispatchClock::now();
    scheduler->resume();
    ASSERT_TRUE(waitForFirings(*firings, 1));
    const double waited = secondsFrom(resumed, firings->at(0));
    EXPECT_GE(waited, left.least);       // about 0.7 s ...
    EXPECT_LE(waited, left.most + 0.3);  // ... not the full second again
    EXPECT_TRUE(scheduler->hasOneTimeSchedulerFinished());
}

TEST(ZulSchedulerTest, APauseAfterWholePeriodsLeavesNothingBecauseTheStartIsNotMarkedAgain) {
    auto queue = DispatchQueue::create("test.scheduler.pause.late");
    auto firings = std::make_shared<Firings>();
    auto scheduler = SchedulerMaker::createRepeatingScheduler(0.8, queue, [firings](const std::shared_ptr<Scheduler>& s) {
        firings->record();
        if (s->count() == 1) s->pause();  // in the second run, 1.6 s after the start
    });
    scheduler->resume();
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 2 && !scheduler->isRunning(); }));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(firings->size(), 2u);

    const DispatchTime resumed = DispatchClock::now();
    scheduler->resume();
    ASSERT_TRUE(waitForFirings(*firings, 3));
    EXPECT_LT(secondsFrom(resumed, firings->at(2)), 0.5);  // at once, not after a period of 0.8 s
    scheduler->stop();

    // A second pause also measures from the first start, time spent paused included.
    auto onceFirings = std::make_shared<Firings>();
    auto once = SchedulerMaker::createOneTimeScheduler(1.2, queue, recordInto(onceFirings));
    const DispatchTime startBefore = DispatchClock::now();
    once->resume();
    const DispatchTime startAfter = DispatchClock::now();
    std::this_thread::sleep_for(300ms);
    once->pause();
    std::this_thread::sleep_for(500ms);
    once->resume();
    std::this_thread::sleep_for(300ms);
    const DispatchTime pauseBefore = DispatchClock::now();
    once->pause();
    const DispatchTime pauseAfter = DispatchClock::now();
    const Left left = leftAfterPause(1.2, startBefore, startAfter, pauseBefore, pauseAfter);
    ASSERT_LE(left.most, 0.1);
    EXPECT_EQ(onceFirings->size(), 0u);

    const DispatchTime resumedOnce = DispatchClock::now();
    once->resume();
    ASSERT_TRUE(waitForFirings(*onceFirings, 1));
    const double waited = secondsFrom(resumedOnce, onceFirings->at(0));
    EXPECT_GE(waited, left.least);
    EXPECT_LT(waited, left.most + 0.5);  // measured from the last resume, 0.9 s would be left
}

TEST(ZulSchedulerTest, StopLeavesAPausedSchedulerPausedAndResumeContinuesWithTheRemainder) {
    auto queue = DispatchQueue::create("test.scheduler.stop.paused");
    auto firings = std::make_shared<Firings>();
    auto scheduler = SchedulerMaker::createOneTimeScheduler(1.0, queue, recordInto(firings));

    const DispatchTime startBefore = DispatchClock::now();
    scheduler->resume();
    const DispatchTime startAfter = DispatchClock::now();
    std::this_thread::sleep_for(600ms);
    const DispatchTime pauseBefore = DispatchClock::now();
    scheduler->pause();
    const DispatchTime pauseAfter = DispatchClock::now();
    const Left left = leftAfterPause(1.0, startBefore, startAfter, pauseBefore, pauseAfter);
    ASSERT_LE(left.most, 0.4);

    scheduler->stop();
    EXPECT_FALSE(scheduler->isRunning());
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());

    // A stopped (cancelled) scheduler would start over with the full second.
    const DispatchTime resumed = DispatchClock::now();
    scheduler->resume();
    ASSERT_TRUE(waitForFirings(*firings, 1));
    const double waited = secondsFrom(resumed, firings->at(0));
    EXPECT_GE(waited, left.least);
    EXPECT_LT(waited, left.most + 0.45);
}

TEST(ZulSchedulerTest, PauseOnASchedulerThatIsNotRunningChangesNothing) {
    auto queue = DispatchQueue::create("test.scheduler.pause.idle");
    auto firings = std::make_shared<Firings>();
    auto scheduler = SchedulerMaker::createOneTimeScheduler(0.05, queue, recordInto(firings));

    scheduler->pause();  // not started
    EXPECT_FALSE(scheduler->isRunning());
    scheduler->stop();
    scheduler->pause();  // stopped
    EXPECT_FALSE(scheduler->isRunning());
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());

    scheduler->resume();
    ASSERT_TRUE(waitForFirings(*firings, 1));
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() == 1; }));
    scheduler->pause();  // finished: stays finished
    EXPECT_TRUE(scheduler->hasOneTimeSchedulerFinished());
    EXPECT_FALSE(scheduler->isRunning());

    scheduler->stop();  // finished -> stopped
    EXPECT_FALSE(scheduler->hasOneTimeSchedulerFinished());
    scheduler->resume();  // a stopped scheduler starts again
    ASSERT_TRUE(waitForFirings(*firings, 2));
}

TEST(ZulSchedulerTest, RestartUsesTheNewPeriodUnlessPausedWhenItKeepsWhatWasLeft) {
    auto queue = DispatchQueue::create("test.scheduler.restart");

    // Running: starts over with the new period.
    auto firings = std::make_shared<Firings>();
    auto running = SchedulerMaker::createOneTimeScheduler(30.0, queue, recordInto(firings));
    running->resume();
    const DispatchTime restarted = DispatchClock::now();
    running->restart(0.2);
    EXPECT_EQ(running->timeInterval(), 0.2);
    EXPECT_TRUE(running->isRunning());
    ASSERT_TRUE(waitForFirings(*firings, 1));
    EXPECT_GE(secondsFrom(restarted, firings->at(0)), 0.2);

    // Finished: starts over too.
    ASSERT_TRUE(zul::test::waitUntil([&] { return running->count() == 1; }));
    running->restart(0.05);
    ASSERT_TRUE(waitForFirings(*firings, 2));
    ASSERT_TRUE(zul::test::waitUntil([&] { return running->count() == 2; }));
    EXPECT_TRUE(running->hasOneTimeSchedulerFinished());

    // Paused: the new period is taken, but this run still ends after what was left of the old one.
    auto pausedFirings = std::make_shared<Firings>();
    auto paused = SchedulerMaker::createOneTimeScheduler(1.0, queue, recordInto(pausedFirings));
    const DispatchTime startBefore = DispatchClock::now();
    paused->resume();
    const DispatchTime startAfter = DispatchClock::now();
    std::this_thread::sleep_for(600ms);
    const DispatchTime pauseBefore = DispatchClock::now();
    paused->pause();
    const DispatchTime pauseAfter = DispatchClock::now();
    const Left left = leftAfterPause(1.0, startBefore, startAfter, pauseBefore, pauseAfter);

    const DispatchTime restartedPaused = DispatchClock::now();
    paused->restart(30.0);
    EXPECT_EQ(paused->timeInterval(), 30.0);
    EXPECT_TRUE(paused->isRunning());
    ASSERT_TRUE(waitForFirings(*pausedFirings, 1));
    const double waited = secondsFrom(restartedPaused, pausedFirings->at(0));
    EXPECT_GE(waited, left.least);
    EXPECT_LT(waited, left.most + 2.0);  // far below the new 30 s
}

TEST(ZulSchedulerTest, TheActionMayStopPauseAndRestartItsOwnScheduler) {
    auto queue = DispatchQueue::create("test.scheduler.reentrant");

    // A one-time scheduler restarting itself twice: restart sees "finished" (set before the
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

    // A repeating scheduler stopping itself in its third run.
    auto stopping = SchedulerMaker::createRepeatingScheduler(0.02, queue, [](const std::shared_ptr<Scheduler>& s) {
        if (s->count() == 2) s->stop();
    });
    stopping->resume();
    ASSERT_TRUE(zul::test::waitUntil([&] { return stopping->count() == 3; }));
    queue->sync([] {});
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(stopping->count(), 3);
    EXPECT_FALSE(stopping->isRunning());
}

// A scheduler that only records what it was made with.
class RecordedScheduler final : public Scheduler {
public:
    bool isRunning() const override { return false; }
    bool hasOneTimeSchedulerFinished() const override { return false; }
    std::int64_t count() const override { return 0; }
    double timeInterval() const override { return interval; }
    const std::any& userInfo() const override { return user; }
    void stop() override {}
    void pause() override {}
    void resume() override {}
    void restart(double) override {}

    double interval = 0;
    std::optional<double> delay;
    bool repeats = false;
    double tolerance = 0;
    std::shared_ptr<DispatchQueue> queue;
    std::any user;
    Action action;
};

TEST(SchedulerMakerTest, BuildsThroughTheGivenCreatorWithTheDefaultsOfEachKind) {
    auto queue = DispatchQueue::create("test.scheduler.maker");
    int made = 0;
    zul::SchedulerCreator creator = [&](double interval, std::optional<double> delay, bool repeats, double tolerance,
                                        std::shared_ptr<DispatchQueue> q, std::any userInfo, Scheduler::Action action) {
        ++made;
        auto scheduler = std::make_shared<RecordedScheduler>();
        scheduler->interval = interval;
        scheduler->delay = delay;
        scheduler->repeats = repeats;
        scheduler->tolerance = tolerance;
        scheduler->queue = std::move(q);
        scheduler->user = std::move(userInfo);
        scheduler->action = std::move(action);
        return std::shared_ptr<Scheduler>(std::move(scheduler));
    };
    int actionRuns = 0;
    auto countRuns = [&](const std::shared_ptr<Scheduler>&) { ++actionRuns; };

    auto once = std::dynamic_pointer_cast<RecordedScheduler>(
        SchedulerMaker::createOneTimeScheduler(2.5, queue, creator, countRuns));
    ASSERT_NE(once, nullptr);
    EXPECT_EQ(once->interval, 2.5);
    EXPECT_EQ(once->delay, std::nullopt);
    EXPECT_FALSE(once->repeats);
    EXPECT_EQ(once->tolerance, 0.08);
    EXPECT_EQ(once->queue, queue);
    EXPECT_FALSE(once->user.has_value());

    auto repeating = std::dynamic_pointer_cast<RecordedScheduler>(
        SchedulerMaker::createRepeatingScheduler(0.5, queue, creator, countRuns));
    ASSERT_NE(repeating, nullptr);
    EXPECT_EQ(repeating->interval, 0.5);
    EXPECT_EQ(repeating->delay, std::nullopt);
    EXPECT_TRUE(repeating->repeats);
    EXPECT_EQ(repeating->tolerance, 0.08);
    EXPECT_FALSE(repeating->user.has_value());

    auto custom = std::dynamic_pointer_cast<RecordedScheduler>(
        SchedulerMaker::createScheduler(3.0, 0.25, true, 0.5, queue, 42, creator, countRuns));
    ASSERT_NE(custom, nullptr);
    EXPECT_EQ(custom->interval, 3.0);
    EXPECT_EQ(custom->delay, 0.25);
    EXPECT_TRUE(custom->repeats);
    EXPECT_EQ(custom->tolerance, 0.5);
    EXPECT_EQ(std::any_cast<int>(custom->user), 42);
    EXPECT_EQ(made, 3);

    // The actions are the caller's, passed through.
    for (const auto& scheduler : {once, repeating, custom}) scheduler->action(scheduler);
    EXPECT_EQ(actionRuns, 3);
}

TEST(SchedulerMakerTest, WithoutACreatorMakesZulSchedulers) {
    auto queue = DispatchQueue::create("test.scheduler.maker.default");
    auto none = [](const std::shared_ptr<Scheduler>&) {};

    auto repeating = std::dynamic_pointer_cast<ZulScheduler>(SchedulerMaker::createRepeatingScheduler(0.25, queue, none));
    ASSERT_NE(repeating, nullptr);
    EXPECT_TRUE(repeating->repeats());
    EXPECT_EQ(repeating->tolerance(), 0.08);
    EXPECT_EQ(repeating->delay(), std::nullopt);
    EXPECT_EQ(repeating->timeInterval(), 0.25);
    EXPECT_EQ(repeating->queue(), queue);
    EXPECT_FALSE(repeating->isRunning());

    auto custom = std::dynamic_pointer_cast<ZulScheduler>(
        SchedulerMaker::createScheduler(0.3, 0.1, false, 0.5, queue, std::string("x"), none));
    ASSERT_NE(custom, nullptr);
    EXPECT_FALSE(custom->repeats());
    EXPECT_EQ(custom->delay(), 0.1);
    EXPECT_EQ(custom->tolerance(), 0.5);
    EXPECT_EQ(std::any_cast<std::string>(custom->userInfo()), "x");

    zul::SchedulerCreator byDefault = ZulScheduler::creator;
    auto once = std::dynamic_pointer_cast<ZulScheduler>(SchedulerMaker::createOneTimeScheduler(1.0, queue, byDefault, none));
    ASSERT_NE(once, nullptr);
    EXPECT_FALSE(once->repeats());
}

TEST(ZulSchedulerTest, DroppingTheLastReferenceCancelsTheTimer) {
    auto queue = DispatchQueue::create("test.scheduler.destroy");
    auto firings = std::make_shared<Firings>();
    std::shared_ptr<Scheduler> scheduler = SchedulerMaker::createRepeatingScheduler(0.01, queue, recordInto(firings));
    std::weak_ptr<Scheduler> weak = scheduler;
    scheduler->resume();
    ASSERT_TRUE(waitForFirings(*firings, 3));
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
        EXPECT_TRUE(s->isRunning());
        holder->reset();
        EXPECT_EQ(s->count(), 0);  // still usable for the rest of this run
    });
    std::weak_ptr<Scheduler> released = *holder;
    (*holder)->resume();
    ASSERT_TRUE(zul::test::waitUntil([&] { return released.expired(); }));
    queue->sync([] {});
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(runs.load(), 1);

    // One never started goes without a trace.
    auto idle = SchedulerMaker::createOneTimeScheduler(0.01, queue, recordInto(firings));
    idle.reset();
}

TEST(ZulSchedulerTest, OperationsFromManyThreadsWhileFiringStayConsistent) {
    auto queue = DispatchQueue::create("test.scheduler.stress");
    std::atomic<int> runs{0};
    auto scheduler = SchedulerMaker::createRepeatingScheduler(0.001, queue, [&runs](const std::shared_ptr<Scheduler>& s) {
        ++runs;
        (void)s->isRunning();
    });
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; !done; ++i) {
            scheduler->resume();
            std::this_thread::sleep_for(1ms);
            if (i % 3 == 0) scheduler->pause();
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; !done; ++i) {
            if (i % 2 == 0) scheduler->restart(0.001 + (i % 4) * 0.001);
            else scheduler->stop();
            std::this_thread::sleep_for(1ms);
        }
    });
    threads.emplace_back([&] {
        std::int64_t last = 0;
        while (!done) {
            const std::int64_t now = scheduler->count();
            EXPECT_GE(now, last);
            last = now;
            (void)scheduler->timeInterval();
            (void)scheduler->hasOneTimeSchedulerFinished();
        }
    });
    std::this_thread::sleep_for(400ms);
    done = true;
    for (auto& thread : threads) thread.join();
    scheduler->stop();
    queue->sync([] {});
    EXPECT_EQ(scheduler->count(), runs.load());
    const int settled = runs.load();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(runs.load(), settled);

    scheduler->restart(0.01);  // still in working order
    ASSERT_TRUE(zul::test::waitUntil([&] { return scheduler->count() > settled; }));
    scheduler->stop();
}

TEST(ZulSchedulerTest, AOneTimeSchedulerWithAnEndlessPeriodNeverFires) {
    // Only the repeat interval and the tolerance become integers; the first deadline saturates.
    auto queue = DispatchQueue::create("test.scheduler.endless");
    auto firings = std::make_shared<Firings>();
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
    EXPECT_EQ(measurer.startTime(), std::nullopt);

    const DispatchTime start = measurer.current;
    measurer.mark();
    EXPECT_EQ(measurer.startTime(), start);
    EXPECT_EQ(measurer.elapsed(), 0.0);
    measurer.current = start + 250ms;
    EXPECT_EQ(measurer.elapsed(), 0.25);
    measurer.current = start + 99'999'999'999ns;
    EXPECT_EQ(measurer.elapsed(), 99.999999999);
    measurer.current = start + 100s;
    EXPECT_EQ(measurer.elapsed(), 100.0);
    measurer.current = start + 150s;
    EXPECT_EQ(measurer.elapsed(), 100.0);

    measurer.mark();  // a new mark starts over
    measurer.current += 2s;
    EXPECT_EQ(measurer.elapsed(), 2.0);

    auto real = zul::ZulTimeMeasurer::create();
    EXPECT_EQ(real->elapsed(), std::nullopt);
    real->mark();
    std::this_thread::sleep_for(20ms);
    const auto elapsed = real->elapsed();
    ASSERT_TRUE(elapsed.has_value());
    EXPECT_GE(*elapsed, 0.02);
    EXPECT_LT(*elapsed, 10.0);
}

TEST(ZulTimeMeasurerDeathTest, ANowEarlierThanTheStartStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ManualClockMeasurer measurer;
    measurer.mark();
    measurer.current -= 1ns;
    EXPECT_DEATH((void)measurer.elapsed(), "Fatal error: ZulTimeMeasurer: the current time is earlier than the marked start");
}

TEST(ZulSchedulerDeathTest, PeriodsAndTolerancesWithoutAWholeNumberOfMillisecondsStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto queue = DispatchQueue::create("test.scheduler.death");
    auto none = [](const std::shared_ptr<Scheduler>&) {};
    const auto resumeRepeating = [&](double interval, double tolerance) {
        SchedulerMaker::createScheduler(interval, std::nullopt, true, tolerance, queue, {}, none)->resume();
    };
    const auto resumeOnce = [&](double interval, double tolerance) {
        SchedulerMaker::createScheduler(interval, std::nullopt, false, tolerance, queue, {}, none)->resume();
    };
    EXPECT_DEATH(resumeRepeating(std::numeric_limits<double>::infinity(), 0.08),
                 "Fatal error: Double value cannot be converted to Int because it is either infinite or NaN "
                 "\\(repeat interval: inf ms\\)");
    EXPECT_DEATH(resumeRepeating(std::numeric_limits<double>::quiet_NaN(), 0.08),
                 "Fatal error: Double value cannot be converted to Int because it is either infinite or NaN "
                 "\\(repeat interval: nan ms\\)");
    EXPECT_DEATH(resumeRepeating(9.3e15, 0.08),
                 "Fatal error: Double value cannot be converted to Int because the result would be greater than "
                 "Int.max \\(repeat interval: 9.3e\\+18 ms\\)");
    EXPECT_DEATH(resumeOnce(1.0, -1e17),
                 "Fatal error: Double value cannot be converted to Int because the result would be less than "
                 "Int.min \\(tolerance: -1e\\+20 ms\\)");
    EXPECT_DEATH(resumeOnce(1.0, std::numeric_limits<double>::infinity()),
                 "Fatal error: Double value cannot be converted to Int because it is either infinite or NaN "
                 "\\(tolerance: inf ms\\)");
}

}  // namespace
