#pragma once

// A state whose parts must agree, written over and over by a process that is then killed: a
// file holding parts of two different writes would fail `checkState`.

#include <cstdint>
#include <string>

#include "zul/platform/any_value.hpp"

namespace zul::test {

inline zul::Data stateBlob(std::int64_t i) {
    zul::Data blob(256 * 1024);
    std::uint64_t x = static_cast<std::uint64_t>(i) * 0x9E3779B97F4A7C15ull + 1;
    for (auto& byte : blob) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        byte = static_cast<std::uint8_t>(x);
    }
    return blob;
}

inline AnyValue consistentState(std::int64_t i) {
    return AnyMap{{"i", i}, {"square", i * i}, {"text", std::to_string(i)}, {"blob", stateBlob(i)}};
}

inline std::int64_t stateNumber(const AnyValue& state) {
    const AnyMap* map = state.asMap();
    const AnyValue* i = map ? map->get("i") : nullptr;
    return i && i->asInteger() ? *i->asInteger() : -1;
}

/// Empty when `state` is `consistentState(i)` for some i, else what is wrong.
inline std::string checkState(const AnyValue& state) {
    const std::int64_t i = stateNumber(state);
    if (i < 0) return "no number";
    if (!(state == consistentState(i))) return "the parts of state " + std::to_string(i) + " disagree";
    return {};
}

}  // namespace zul::test
