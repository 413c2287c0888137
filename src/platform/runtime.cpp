#include "platform/runtime.hpp"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "zul/platform/error.hpp"

namespace zul::detail {

thread_local OwnerScope* OwnerScope::top_ = nullptr;

namespace {

unsigned workerCount() {
    if (const char* text = std::getenv("ZUL_DISPATCH_THREADS")) {
        char* end = nullptr;
        const unsigned long value = std::strtoul(text, &end, 10);
        if (end != text && *end == '\0' && value > 0 && value <= 256) return static_cast<unsigned>(value);
    }
    const unsigned cores = std::thread::hardware_concurrency();
    return cores < 2 ? 2 : cores;
}

// An io_context with threads that run it for the life of the process. The contexts are never
// destroyed: queues may hold work until the process exits, as on every platform with global
// dispatch queues, and destroying a context under running threads at exit would race with them.
struct Context {
    Context(int concurrencyHint, unsigned threads, const char* name) : io(concurrencyHint), guard(io.get_executor()) {
        for (unsigned i = 0; i < threads; ++i) {
            std::thread worker([this, name, i, threads] {
                std::string threadName(name);
                if (threads > 1) {
                    threadName += '-';
                    threadName += std::to_string(i);
                }
                pthread_setname_np(pthread_self(), threadName.substr(0, 15).c_str());
                io.run();
            });
            worker.detach();
        }
    }
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> guard;
};

int makeEventFd() {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) fatalError("cannot create the main loop's event file descriptor");
    return fd;
}

}  // namespace

asio::io_context& poolContext() {
    static Context* context = new Context(static_cast<int>(workerCount()), workerCount(), "zul-pool");
    return context->io;
}

asio::io_context& timerContext() {
    static Context* context = new Context(1, 1, "zul-timers");
    return context->io;
}

asio::io_context& mainContext() {
    static asio::io_context* context = new asio::io_context(1);
    return *context;
}

int mainLoopFd() noexcept {
    static const int fd = makeEventFd();
    return fd;
}

void signalMainLoop() noexcept {
    const std::uint64_t one = 1;
    // A full counter (EAGAIN) is still readable, which is all the signal promises.
    [[maybe_unused]] const ssize_t written = ::write(mainLoopFd(), &one, sizeof one);
}

void clearMainLoopSignal() noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t read = ::read(mainLoopFd(), &count, sizeof count);
}

void runJob(const DispatchQueue& queue, DispatchQueue::Work& work) noexcept {
    try {
        work();
    } catch (const std::exception& error) {
        fatalError("uncaught exception in a job of queue \"" + queue.label() + "\": " + error.what());
    } catch (...) {
        fatalError("uncaught exception in a job of queue \"" + queue.label() + "\"");
    }
}

}  // namespace zul::detail
