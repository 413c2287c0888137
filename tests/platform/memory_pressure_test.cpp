#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/wait.hpp"
#include "zul/platform/memory_pressure.hpp"

namespace {

using namespace std::chrono_literals;
using zul::MemoryPressure;
using zul::MemoryPressureMonitor;
using Level = MemoryPressure::Level;

class Recorder final : public zul::MemoryPressureResponder {
public:
    explicit Recorder(bool throwOnCritical = false) : throwOnCritical_(throwOnCritical) {}

    void didReceiveMemoryPressure(Level level) override {
        {
            std::lock_guard lock(mutex_);
            levels_.push_back(level);
            threads_.push_back(std::this_thread::get_id());
        }
        if (throwOnCritical_ && level == Level::critical) throw std::runtime_error("listener failed");
    }

    std::vector<Level> levels() const { std::lock_guard lock(mutex_); return levels_; }
    std::vector<std::thread::id> threads() const { std::lock_guard lock(mutex_); return threads_; }

private:
    const bool throwOnCritical_;
    mutable std::mutex mutex_;
    std::vector<Level> levels_;
    std::vector<std::thread::id> threads_;
};

TEST(MemoryPressureTest, ListenersAreToldOnTheSignallingThreadAllOfThemEvenWhenOneThrows) {
    auto first = std::make_shared<Recorder>();
    auto failing = std::make_shared<Recorder>(/*throwOnCritical=*/true);
    auto last = std::make_shared<Recorder>();
    for (const auto& recorder : {first, failing, last, std::shared_ptr<Recorder>()}) {
        MemoryPressure::addResponder(recorder);  // the null one is ignored
    }

    MemoryPressure::signal(Level::moderate);
    EXPECT_THROW(MemoryPressure::signal(Level::critical), std::runtime_error);
    for (const auto& recorder : {first, failing, last}) {
        EXPECT_EQ(recorder->levels(), (std::vector<Level>{Level::moderate, Level::critical}));
        EXPECT_EQ(recorder->threads(), (std::vector{std::this_thread::get_id(), std::this_thread::get_id()}));
    }
    EXPECT_EQ(MemoryPressure::name(Level::moderate), "moderate");
    EXPECT_EQ(MemoryPressure::name(Level::critical), "critical");
}

// Kept apart from the test above, whose throwing listener stays registered while it runs.
TEST(MemoryPressureTest, ListenersAreHeldWeaklyAndNotToldOnceReleasedWhileOtherThreadsSignalAndRegister) {
    // The recorder outlives its last shared_ptr (a no-op deleter), so a registry that wrongly
    // kept calling it would show in its record instead of crashing.
    Recorder recorder;
    auto handle = std::shared_ptr<Recorder>(&recorder, [](Recorder*) {});
    MemoryPressure::addResponder(handle);
    MemoryPressure::signal(Level::moderate);
    handle.reset();
    MemoryPressure::signal(Level::moderate);
    EXPECT_EQ(recorder.levels(), std::vector<Level>{Level::moderate});

    // Many registrations that die without a signal in between are swept as the list grows.
    for (int i = 0; i < 1000; ++i) MemoryPressure::addResponder(std::make_shared<Recorder>());
    auto survivor = std::make_shared<Recorder>();
    MemoryPressure::addResponder(survivor);
    MemoryPressure::signal(Level::critical);
    EXPECT_EQ(survivor->levels(), std::vector<Level>{Level::critical});

    // Signals and registrations from several threads at once: none is lost.
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                if (t == 0) MemoryPressure::signal(Level::moderate);
                else MemoryPressure::addResponder(std::make_shared<Recorder>());  // released at once
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(survivor->levels().size(), 301u);
}

TEST(PressureStallTest, ReadsTheTenSecondAveragesOfTheKernelsText) {
    const std::tuple<const char*, double, double> cases[] = {  // the text, "some", "full"
        {"some avg10=12.50 avg60=3.01 avg300=0.70 total=123456\n"
         "full avg10=4.25 avg60=1.00 avg300=0.20 total=65432\n", 12.5, 4.25},
        {"some avg10=0.10 avg60=0.00 avg300=0.00 total=1", 0.1, 0.0},  // no "full" line reads as 0
        {"full avg10=2.00 total=0\nsome avg10=3.00 total=0\n", 3.0, 2.0},  // the order does not matter
    };
    for (const auto& [text, some, full] : cases) {
        const auto stall = zul::PressureStall::parse(text);
        ASSERT_TRUE(stall.has_value()) << text;
        EXPECT_DOUBLE_EQ(stall->someAvg10, some);
        EXPECT_DOUBLE_EQ(stall->fullAvg10, full);
    }
    // Without a well-formed "some" average there is nothing to read.
    for (const char* text : {"", "full avg10=1.00 total=0\n", "some avg10=x avg60=0.00\n", "some avg60=1.00\n",
                             "something avg10=1.00\n", "some avg10=-1.00\n"}) {
        EXPECT_FALSE(zul::PressureStall::parse(text).has_value()) << text;
    }
}

// A monitor of `path` reading every 5 ms.
std::shared_ptr<MemoryPressureMonitor> monitorOf(const std::string& path, std::chrono::milliseconds repeatAfter) {
    MemoryPressureMonitor::Options options;
    options.path = path;
    options.interval = 5ms;
    options.repeatAfter = repeatAfter;
    return MemoryPressureMonitor::create(options);
}

// A pressure file the test controls: replaced whole (write, then rename), as the kernel's reads
// are never torn either.
struct FakePressureFile {
    const std::string path = testing::TempDir() + "zul_pressure_" + std::to_string(::getpid());

    FakePressureFile() { set(0, 0); }
    ~FakePressureFile() { std::remove(path.c_str()); }

    void set(double some, double full) {
        const std::string staging = path + ".new";
        {
            std::ofstream out(staging, std::ios::trunc);
            out << "some avg10=" << some << " avg60=0.00 avg300=0.00 total=1\n"
                << "full avg10=" << full << " avg60=0.00 avg300=0.00 total=1\n";
        }
        ASSERT_EQ(std::rename(staging.c_str(), path.c_str()), 0);
    }
};

TEST(MemoryPressureMonitorTest, SignalsWhenStallsPassTheThresholdsAndAgainOnlyWhenTheyRise) {
    FakePressureFile file;
    auto recorder = std::make_shared<Recorder>();
    MemoryPressure::addResponder(recorder);
    auto monitor = monitorOf(file.path, std::chrono::hours(1));

    file.set(9.99, 4.0);  // below both thresholds, after a quiet start
    std::this_thread::sleep_for(40ms);
    EXPECT_TRUE(recorder->levels().empty());

    file.set(10.0, 4.99);  // "some" at its threshold: moderate
    ASSERT_TRUE(zul::test::waitUntil([&] { return recorder->levels().size() == 1; }));
    EXPECT_EQ(recorder->levels()[0], Level::moderate);
    EXPECT_NE(recorder->threads()[0], std::this_thread::get_id());

    file.set(30.0, 5.0);  // "full" at its threshold: critical, the next entry (moderate persisting is not news)
    ASSERT_TRUE(zul::test::waitUntil([&] { return recorder->levels().size() == 2; }));
    EXPECT_EQ(recorder->levels()[1], Level::critical);

    file.set(20.0, 0.0);  // back down to moderate: lower, not news
    ASSERT_TRUE(zul::test::waitUntil([&] { return monitor->currentLevel() == Level::moderate; }));
    file.set(0.0, 0.0);  // over: the next rise is signalled again
    ASSERT_TRUE(zul::test::waitUntil([&] { return monitor->currentLevel() == std::nullopt; }));
    EXPECT_EQ(recorder->levels().size(), 2u);
    file.set(50.0, 0.0);
    ASSERT_TRUE(zul::test::waitUntil([&] { return recorder->levels().size() == 3; }));
    EXPECT_EQ(recorder->levels()[2], Level::moderate);

    monitor.reset();  // stopped: no signals after the destructor
    const auto seen = recorder->levels().size();
    file.set(90.0, 90.0);
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(recorder->levels().size(), seen);
}

TEST(MemoryPressureMonitorTest, APersistingLevelIsSignalledAgainAfterTheRepeatTime) {
    FakePressureFile file;
    file.set(50.0, 0.0);
    auto recorder = std::make_shared<Recorder>();
    MemoryPressure::addResponder(recorder);
    auto monitor = monitorOf(file.path, 20ms);
    // The first reading comes at once; then the level repeats every 20 ms or so.
    ASSERT_TRUE(zul::test::waitUntil([&] { return recorder->levels().size() >= 3; }));
    for (Level level : recorder->levels()) EXPECT_EQ(level, Level::moderate);
}

TEST(MemoryPressureMonitorTest, RefusesAFileItCannotReadOrUnderstand) {
    const auto refusal = [](const std::string& path) -> std::optional<zul::MemoryPressureError> {
        try {
            monitorOf(path, 20ms);
        } catch (const zul::MemoryPressureError& error) {
            return error;
        }
        return std::nullopt;
    };
    const auto missing = refusal("/nonexistent/memory.pressure");
    ASSERT_TRUE(missing.has_value());
    EXPECT_STREQ(missing->what(), "cannot read memory pressure from /nonexistent/memory.pressure: No such file or directory");
    EXPECT_EQ(missing->path(), "/nonexistent/memory.pressure");
    EXPECT_EQ(missing->errorNumber(), ENOENT);

    const std::string notPressure = testing::TempDir() + "zul_not_pressure_" + std::to_string(::getpid());
    std::ofstream(notPressure) << "MemTotal: 1 kB\n";
    const auto wrong = refusal(notPressure);
    std::remove(notPressure.c_str());
    ASSERT_TRUE(wrong.has_value());
    EXPECT_EQ(std::string(wrong->what()), "cannot read memory pressure from " + notPressure + ": not a pressure-stall file");
    EXPECT_EQ(wrong->errorNumber(), 0);
}

TEST(MemoryPressureMonitorTest, WatchesTheKernelsOwnFile) {
    if (::access("/proc/pressure/memory", R_OK) != 0) GTEST_SKIP() << "this kernel has no PSI";
    auto monitor = MemoryPressureMonitor::create();
    EXPECT_EQ(monitor->options().path, "/proc/pressure/memory");
    EXPECT_EQ(monitor->options().interval, 2000ms);
}

}  // namespace
