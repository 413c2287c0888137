#pragma once

#include <stdexcept>
#include <utility>

namespace zul::test {

/// The `Error` that `body` throws. Throwing nothing, or something else, fails the test.
template <class Error, class F>
Error thrown(F&& body) {
    try {
        std::forward<F>(body)();
    } catch (const Error& error) {
        return error;
    }
    throw std::logic_error("no error of the expected type was thrown");
}

}  // namespace zul::test
