#pragma once

/// Memory pressure: one process-wide signal that asks caches to give memory back.
///
///     // The host's own low-memory hook (a platform callback, a watchdog, a test):
///     zul::MemoryPressure::signal(zul::MemoryPressure::Level::critical);   // caches drop everything
///
///     // Or let the library watch the kernel's pressure-stall information for it:
///     auto monitor = zul::MemoryPressureMonitor::create();   // /proc/pressure/memory, every 2 s
///
/// Every `ObjectCache` (and so every `ZulCache`) listens from the moment it is made: a moderate
/// signal makes it drop the older half of its entries, a critical one all of them. Anything else
/// that holds memory it can rebuild may listen too, by implementing `MemoryPressureResponder` and
/// calling `MemoryPressure::addResponder`. Listeners are held weakly: listening never keeps an
/// object alive, and an object that is gone simply stops being told.
///
/// `signal` runs every listener on the calling thread before it returns. It takes locks and
/// frees memory, so it must not be called from a POSIX signal handler; a host whose low-memory
/// notice arrives as a signal should forward it (for example through a queue) first.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zul/platform/error.hpp"

namespace zul {

class MemoryPressureResponder;

class MemoryPressure {
public:
    enum class Level {
        /// Memory is getting short: give back what is cheap to rebuild (caches drop about half).
        moderate,
        /// Memory is about to run out: give back everything you can (caches empty themselves).
        critical,
    };

    /// Tells every live listener, on the calling thread, one after another. Safe from any thread,
    /// also concurrently and from inside a listener.
    static void signal(Level level);

    /// Adds a listener, held weakly: it is told until it is destroyed.
    static void addResponder(const std::shared_ptr<MemoryPressureResponder>& responder);

    /// "moderate" or "critical".
    static std::string_view name(Level level) noexcept;
};

/// Something that can give memory back when asked.
class MemoryPressureResponder {
public:
    virtual ~MemoryPressureResponder() = default;

    /// Called by `MemoryPressure::signal` on the signalling thread; may be called on several
    /// threads at once.
    virtual void didReceiveMemoryPressure(MemoryPressure::Level level) = 0;
};

/// The pressure file could not be read, or did not hold pressure-stall figures, when a monitor
/// was made.
class MemoryPressureError final : public Error {
public:
    /// A failed open or read; `errorNumber` is its `errno`.
    MemoryPressureError(std::string path, int errorNumber);
    /// A file that was read but is not a pressure-stall file (`errorNumber()` is 0).
    MemoryPressureError(std::string path, std::string_view reason);

    /// For example "cannot read memory pressure from /proc/pressure/memory: No such file or
    /// directory", or "...: not a pressure-stall file".
    const char* what() const noexcept override { return message_.c_str(); }
    const std::string& path() const noexcept { return path_; }
    int errorNumber() const noexcept { return errorNumber_; }

private:
    std::string path_;
    int errorNumber_;
    std::string message_;
};

/// The ten-second averages of one pressure-stall file: the share of wall time in which some
/// tasks (`some`) or all non-idle tasks (`full`) were stalled waiting for memory, in percent.
struct PressureStall {
    double someAvg10 = 0;
    double fullAvg10 = 0;

    /// Reads the kernel's text ("some avg10=1.50 avg60=... total=...\nfull avg10=0.00 ...").
    /// Absent when the "some" line is missing or malformed; a missing "full" line (older kernels,
    /// the CPU file) reads as 0.
    static std::optional<PressureStall> parse(std::string_view text);
};

struct MemoryPressureMonitorOptions {
    /// The pressure-stall file: the whole system's, or a cgroup v2 group's `memory.pressure`
    /// (for example "/sys/fs/cgroup/my.slice/memory.pressure") to react to the group's limit.
    std::string path = "/proc/pressure/memory";
    /// How often the file is read.
    std::chrono::milliseconds interval{2000};
    /// `some` at or above this (percent) signals `moderate`.
    double moderateAt = 10.0;
    /// `full` at or above this (percent) signals `critical`.
    double criticalAt = 5.0;
    /// A level that persists is signalled again after this long (the averages cover ten
    /// seconds, so a trim shows in them only after a while); a higher level is signalled at once.
    std::chrono::milliseconds repeatAfter{10000};
};

/// Watches a Linux pressure-stall (PSI) file and raises `MemoryPressure::signal` when memory
/// stalls pass the thresholds. It reads the file on the library's timer, on a private serial
/// queue of the shared pool, and starts no thread of its own. Reading PSI needs no privileges.
///
/// A file that stops being readable later (a cgroup that went away) reads as no pressure.
class MemoryPressureMonitor {
public:
    using Options = MemoryPressureMonitorOptions;

    /// Starts watching "/proc/pressure/memory" with the default thresholds. Throws
    /// `MemoryPressureError` when the file cannot be read (a kernel without PSI, a missing file).
    static std::shared_ptr<MemoryPressureMonitor> create();
    static std::shared_ptr<MemoryPressureMonitor> create(Options options);

    /// Stops watching; no signal is raised after the destructor returns, except one underway.
    ~MemoryPressureMonitor();
    MemoryPressureMonitor(const MemoryPressureMonitor&) = delete;
    MemoryPressureMonitor& operator=(const MemoryPressureMonitor&) = delete;

    const Options& options() const noexcept;
    /// The level of the latest reading; absent when below both thresholds.
    std::optional<MemoryPressure::Level> currentLevel() const;

private:
    struct State;  // shared with the timer's handler, which holds it weakly

    explicit MemoryPressureMonitor(std::shared_ptr<State> state);

    std::shared_ptr<State> state_;
};

}  // namespace zul
