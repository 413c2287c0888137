#pragma once

#include <chrono>
#include <thread>

namespace zul::test {

/// Polls `done` every millisecond until it holds or `timeout` passes; returns `done()`. Tests wait
/// this way for work on other threads, with generous time-outs, so that a loaded machine slows
/// them down without failing them.
template <class F>
bool waitUntil(F&& done, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zul::test
