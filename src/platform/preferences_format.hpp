#pragma once

// The preferences store's file format and value rules.
//
// The file is pretty-printed JSON:
//
//     {
//       "format" : "dev.zul.preferences",
//       "version" : 1,
//       "values" : {
//         "volume" : { "double" : "0.75" },
//         "user" : { "map" : { "name" : { "string" : "Anna" }, "age" : { "int" : 31 } } }
//       }
//     }
//
// Every value is an object with one member whose name is its kind, so that it reads back as the
// kind it was stored as (JSON alone cannot tell 1 from 1.0, a date from text or bytes from a
// list):
//
//     "string" text          "bool" true/false          "int" a signed 64-bit integer
//     "uint" an unsigned 64-bit integer                  "double", "float" the number's general
//     rendering as text ("1.0", "1e-05", "inf", "nan"), a JSON number also accepted
//     "date" "2019-03-04T05:06:07.123456789Z" (UTC)      "data" base64 text
//     "url" the URL's text   "list" an array of values  "map" an object of values
//
// Keys are written in sorted order, so the file of a given state is always the same bytes.

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "zul/platform/any_value.hpp"

namespace zul::detail {

using PreferenceValues = std::map<std::string, AnyValue, std::less<>>;

/// A preferences file that does not follow the format; `what()` says where and why.
class PreferencesFormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The file's text for `values`, which must all be storable.
std::string writePreferences(const PreferenceValues& values);

/// The values in a preferences file's text; throws `PreferencesFormatError`.
PreferenceValues readPreferences(std::string_view text);

/// `value` as the store keeps it, with present optionals replaced by what they hold, at any
/// depth. Absent when the store cannot hold it: null, an absent optional or an opaque object,
/// anywhere inside it.
std::optional<AnyValue> storableForm(const AnyValue& value);

/// A stored value read as text: text as it is, a boolean "1" or "0", an integer its decimal
/// digits, a double or float its general rendering ("1.0", "12.34"); absent for other kinds.
std::optional<std::string> preferenceString(const AnyValue& value);

}  // namespace zul::detail
