#pragma once

/// Dispatchers, the library's abstraction of "run this later on some execution context", and
/// `synced`, its one lock helper.
///
///     std::shared_ptr<zul::Dispatcher> ui = zul::ZulDispatchMain::create();
///     ui->async([] { /* on the main thread */ });
///     auto worker = zul::ZulDispatchCustom::create("dev.example.parser");
///     worker->async(zul::dispatchTimeAfter(0.5), [] { /* on a private serial queue, 0.5 s later */ });
///
///     zul::synced(this, [&] { table.push_back(entry); });   // recursive, keyed by object identity
///
/// Code that hands work to another context should take a `Dispatcher`, so that tests and hosts
/// can substitute their own.

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "zul/platform/dispatch_queue.hpp"

namespace zul {

/// Runs callbacks later on some execution context.
class Dispatcher {
public:
    using Work = DispatchQueue::Work;

    virtual ~Dispatcher() = default;

    /// Schedules `work` to run once, asynchronously; returns at once.
    virtual void async(Work work) = 0;

    /// Schedules `work` to run once, no earlier than `deadline`; returns at once.
    virtual void async(DispatchTime deadline, Work work) = 0;
};

/// A dispatcher that submits to a dispatch queue.
class ZulDispatch : public Dispatcher {
public:
    /// Wraps `queue`, which it holds for its whole life.
    static std::shared_ptr<ZulDispatch> create(std::shared_ptr<DispatchQueue> queue);

    const std::shared_ptr<DispatchQueue>& queue() const noexcept { return queue_; }

    void async(Work work) override;
    void async(DispatchTime deadline, Work work) override;

protected:
    explicit ZulDispatch(std::shared_ptr<DispatchQueue> queue);

private:
    const std::shared_ptr<DispatchQueue> queue_;
};

/// A dispatcher for the main queue: its callbacks run on the main thread, in submission order.
class ZulDispatchMain : public ZulDispatch {
public:
    static std::shared_ptr<ZulDispatchMain> create();

    /// Unavailable: a main dispatcher always wraps the main queue. Calling this stops the process.
    [[deprecated("ZulDispatchMain cannot wrap another queue; use ZulDispatchMain::create()")]] [[noreturn]] static void
    create(std::shared_ptr<DispatchQueue> queue);

protected:
    ZulDispatchMain();
};

/// A dispatcher with a private serial queue: its callbacks run one at a time, in submission
/// order (delayed ones in deadline order). Two made with one label have distinct queues.
class ZulDispatchCustom : public ZulDispatch {
public:
    static std::shared_ptr<ZulDispatchCustom> create(std::string label);

    /// Unavailable: a custom dispatcher makes its own queue. Calling this stops the process.
    [[deprecated("ZulDispatchCustom makes its own queue; use ZulDispatchCustom::create(label)")]] [[noreturn]] static void
    create(std::shared_ptr<DispatchQueue> queue);

protected:
    explicit ZulDispatchCustom(std::string label);
};

namespace detail {
struct Monitor;
Monitor* enterMonitor(const void* key);
void exitMonitor(Monitor* monitor) noexcept;
Monitor* claimMonitor(const void* key);
void releaseMonitor(Monitor* monitor) noexcept;
void lockMonitor(Monitor* monitor);
void unlockMonitor(Monitor* monitor) noexcept;

/// The monitor `synced` uses for the object at `key`, claimed for as long as this lives, so that
/// entering it skips the lookup. For an object that takes its own monitor on every call; others
/// calling `synced` on the object meet the same monitor.
class HeldMonitor {
public:
    explicit HeldMonitor(const void* key) : monitor_(claimMonitor(key)) {}
    ~HeldMonitor() { releaseMonitor(monitor_); }
    HeldMonitor(const HeldMonitor&) = delete;
    HeldMonitor& operator=(const HeldMonitor&) = delete;

    /// Runs `closure` while holding the monitor, as `synced` would.
    template <class F>
    void run(F&& closure) const {
        lockMonitor(monitor_);
        struct Unlock {
            Monitor* monitor;
            ~Unlock() { unlockMonitor(monitor); }
        } unlock{monitor_};
        std::forward<F>(closure)();
    }

private:
    Monitor* monitor_;
};

class MonitorGuard {
public:
    explicit MonitorGuard(const void* key) : monitor_(enterMonitor(key)) {}
    ~MonitorGuard() { exitMonitor(monitor_); }
    MonitorGuard(const MonitorGuard&) = delete;
    MonitorGuard& operator=(const MonitorGuard&) = delete;

private:
    Monitor* monitor_;
};
}  // namespace detail

/// Runs `closure` while holding the recursive monitor of the object `lock` points to.
///
/// The monitor belongs to the object's identity (its address; for a polymorphic type, the
/// address of the whole object, whichever base the pointer is to): two calls exclude each other
/// only when they pass the same object. The same thread may nest calls on one object. With a
/// null `lock` the closure does not run: there is nothing to guard. The monitor is released even
/// if `closure` throws.
template <class T, class F>
void synced(const T* lock, F&& closure) {
    if (lock == nullptr) return;
    const void* key = nullptr;
    if constexpr (std::is_polymorphic_v<T>) {
        key = dynamic_cast<const void*>(lock);
    } else {
        key = static_cast<const void*>(lock);
    }
    detail::MonitorGuard guard(key);
    std::forward<F>(closure)();
}

template <class T, class F>
void synced(const std::shared_ptr<T>& lock, F&& closure) {
    synced(lock.get(), std::forward<F>(closure));
}

template <class F>
void synced(std::nullptr_t, F&&) {}

}  // namespace zul
