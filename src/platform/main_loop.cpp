#include "zul/platform/main_loop.hpp"

#include <asio/executor_work_guard.hpp>

#include "platform/runtime.hpp"

namespace zul {

namespace {

// Makes sure the main queue exists, so that the loop has something to run.
asio::io_context& prepare() {
    (void)DispatchQueue::main();
    auto& context = detail::mainContext();
    context.restart();
    return context;
}

}  // namespace

void MainLoop::run() {
    auto& context = prepare();
    auto guard = asio::make_work_guard(context);
    context.run();
}

void MainLoop::stop() { detail::mainContext().stop(); }

void MainLoop::runFor(std::chrono::milliseconds duration) {
    auto& context = prepare();
    auto guard = asio::make_work_guard(context);
    context.run_for(duration);
}

bool MainLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto& context = prepare();
    auto guard = asio::make_work_guard(context);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (context.stopped() || std::chrono::steady_clock::now() >= deadline) break;
        context.run_one_until(deadline);
    }
    return done();
}

bool MainLoop::drain() {
    auto& context = prepare();
    detail::clearMainLoopSignal();
    return context.poll() > 0;
}

int MainLoop::fileDescriptor() { return detail::mainLoopFd(); }

}  // namespace zul
