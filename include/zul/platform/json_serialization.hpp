#pragma once

/// JSON writing of `AnyValue`s, the way the platform's JSON serialisation writes them.

#include <stdexcept>

#include "zul/platform/any_value.hpp"
#include "zul/platform/data.hpp"
#include "zul/platform/error.hpp"

namespace zul {

/// A value JSON cannot hold: a non-finite number, a date, bytes, a URL, an optional or an
/// opaque object, at any depth.
class JSONSerializationError final : public Error {
public:
    const char* what() const noexcept override { return "Invalid type in JSON write"; }
};

struct JSONWritingOptions {
    /// Two-space indentation, a line per item, " : " between key and value.
    bool prettyPrinted = false;
};

class JSONSerialization {
public:
    /// `value` as JSON text, in the map's own key order, "/" written "\/", non-ASCII as raw UTF-8,
    /// doubles in their shortest form without a trailing ".0" (1.0 -> 1, 1e16 -> 1e+16). Pretty
    /// printing puts an empty object as "{\n\n}" and an empty list as "[\n\n]", and ends without a
    /// newline. Throws `JSONSerializationError` when JSON cannot hold the value.
    static Data data(const AnyValue& value, JSONWritingOptions options = {});

    /// The same, appended to `out`; `out` is left as it was on failure.
    static void write(const AnyValue& value, JSONWritingOptions options, Data& out);

    /// A map written as a JSON object, without wrapping it in an `AnyValue` first.
    static void write(const AnyMap& map, JSONWritingOptions options, Data& out);
};

}  // namespace zul
