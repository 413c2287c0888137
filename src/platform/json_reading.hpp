#pragma once

// JSON text read into an `AnyValue`: objects become `AnyMap`s in document order (a repeated key
// keeps its first position and its last value), arrays `AnyList`s, integers `std::int64_t` (or
// `std::uint64_t` above the signed range), other numbers doubles. Used for the files the library
// reads for itself (a bundle's information dictionary, the preferences store), not for response
// bodies, which go through the coding framework.

#include <stdexcept>
#include <string>
#include <string_view>

#include "zul/platform/any_value.hpp"

namespace zul::detail {

/// Text that is not one valid JSON document. `what()` says why, in simdjson's words.
class JSONReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Parses `text`; throws `JSONReadError` when it is not valid JSON (integers beyond 64 bits
/// included).
AnyValue readJSON(std::string_view text);

}  // namespace zul::detail
