#pragma once

// Values of every kind the preferences store holds, shared by the tests and the helper program
// that writes them from another process.

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

#include "zul/platform/any_value.hpp"

namespace zul::test {

inline AnyMap preferenceSamples() {
    using namespace std::chrono;
    zul::Data allBytes;
    for (int i = 0; i < 256; ++i) allBytes.push_back(static_cast<std::uint8_t>(i));
    AnyMap nested{{"name", "Anna"}, {"age", 31}, {"ratio", 0.5}, {"tags", AnyList{"a", AnyList{}, AnyMap{}}}};
    return AnyMap{
        {"text", "Grüße, \"quoted\"\n/slash\\ \t"},
        {"empty text", ""},
        {"yes", true},
        {"no", false},
        {"int", std::int64_t{-42}},
        {"int min", std::numeric_limits<std::int64_t>::min()},
        {"uint max", std::numeric_limits<std::uint64_t>::max()},
        {"double", 0.1},
        {"whole double", 1.0},
        {"tiny double", 1e-300},
        {"infinity", std::numeric_limits<double>::infinity()},
        {"float", 0.1f},
        {"date", Date(seconds(1551675967) + nanoseconds(123456789))},
        {"old date", Date(-seconds(86400 * 365) + microseconds(250))},
        {"bytes", allBytes},
        {"no bytes", zul::Data{}},
        {"url", *URL::fromString("https://example.com/a%20b?q=1#top")},
        {"list", AnyList{1, "two", 3.5, AnyList{true}}},
        {"map", nested},
        {"key with / and \u00e9", "odd key"},
    };
}

}  // namespace zul::test
