#pragma once

/// `AnyValue`: a value of any type, as request parameters and error payloads carry them.
///
/// It holds null, booleans, signed and unsigned integers, doubles and floats, text, lists, maps
/// from text (`AnyMap`), and values JSON cannot represent: dates, bytes, URLs, optionals and
/// opaque objects. It prints itself the way values print on the platform the library mirrors
/// (`description()`, used for query items) and knows whether JSON can hold it.
///
///     zul::AnyMap parameters{{"page", 2}, {"query", "star wars"}, {"ids", zul::AnyList{1, 2}}};
///     parameters.get("ids")->description();   // "[1, 2]"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "zul/platform/data.hpp"
#include "zul/platform/ordered_map.hpp"
#include "zul/platform/url.hpp"

namespace zul {

class AnyValue;
using AnyList = std::vector<AnyValue>;
using AnyMap = OrderedMap<AnyValue>;

/// The null value (JSON null; prints "<null>").
struct Null {
    friend constexpr bool operator==(Null, Null) noexcept { return true; }
};

/// A point in wall-clock time.
using Date = std::chrono::system_clock::time_point;

/// An object JSON cannot represent, carried as it is; it prints as `description`.
struct OpaqueValue {
    std::shared_ptr<const void> object;
    std::string description;
    friend bool operator==(const OpaqueValue& a, const OpaqueValue& b) noexcept { return a.object == b.object; }
};

class AnyValue {
public:
    enum class Kind { null, boolean, integer, unsignedInteger, double_, float_, string, list, map, date, data, url,
                      optional, opaque };

    AnyValue() noexcept : storage_(Null{}) {}
    AnyValue(Null) noexcept : storage_(Null{}) {}
    AnyValue(bool value) noexcept : storage_(value) {}
    template <class I>
        requires(std::is_integral_v<I> && !std::is_same_v<I, bool> && std::is_signed_v<I>)
    AnyValue(I value) noexcept : storage_(static_cast<std::int64_t>(value)) {}
    template <class I>
        requires(std::is_integral_v<I> && !std::is_same_v<I, bool> && std::is_unsigned_v<I>)
    AnyValue(I value) noexcept : storage_(static_cast<std::uint64_t>(value)) {}
    AnyValue(double value) noexcept : storage_(value) {}
    AnyValue(float value) noexcept : storage_(value) {}
    AnyValue(std::string value) noexcept : storage_(std::move(value)) {}
    AnyValue(std::string_view value) : storage_(std::string(value)) {}
    AnyValue(const char* value) : storage_(std::string(value)) {}
    AnyValue(AnyList value);
    AnyValue(AnyMap value);
    AnyValue(Date value) noexcept : storage_(value) {}
    AnyValue(Data value);
    AnyValue(URL value);
    AnyValue(OpaqueValue value);

    /// An optional: prints "Optional(x)" when present and "nil" when absent.
    static AnyValue optional(std::optional<AnyValue> value);

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }

    /// The payload when the value is of that kind, else null.
    const bool* asBool() const noexcept { return std::get_if<bool>(&storage_); }
    const std::int64_t* asInteger() const noexcept { return std::get_if<std::int64_t>(&storage_); }
    const std::uint64_t* asUnsignedInteger() const noexcept { return std::get_if<std::uint64_t>(&storage_); }
    const double* asDouble() const noexcept { return std::get_if<double>(&storage_); }
    const float* asFloat() const noexcept { return std::get_if<float>(&storage_); }
    const std::string* asString() const noexcept { return std::get_if<std::string>(&storage_); }
    const AnyList* asList() const noexcept;
    const AnyMap* asMap() const noexcept;
    const Date* asDate() const noexcept { return std::get_if<Date>(&storage_); }
    const Data* asData() const noexcept;
    const URL* asURL() const noexcept;
    /// For an optional: the wrapped value (null pointer when absent). Null for other kinds.
    const AnyValue* asOptional() const noexcept;
    bool isAbsentOptional() const noexcept;
    const OpaqueValue* asOpaque() const noexcept;

    /// The value printed as text: numbers in their shortest form that reads back ("3", "0.1",
    /// "1.0", "1e-05"), booleans "true"/"false", text as it is, null "<null>", dates
    /// "2019-03-04 05:06:07 +0000", bytes "N bytes", URLs their text, lists "[1, "a"]" and maps
    /// `["k": "v"]` (empty "[:]") with elements in their debug form, optionals "Optional(x)"/"nil".
    std::string description() const;

    /// The debug form: like `description()`, but text is quoted and escaped.
    std::string debugDescription() const;

    /// Whether JSON can hold the value: null, booleans, finite numbers, text, and lists and maps
    /// of such values.
    bool isValidJSON() const;

    /// Equal kinds and payloads; opaque values compare by object identity.
    friend bool operator==(const AnyValue& a, const AnyValue& b);

private:
    struct OptionalBox;
    // Lists, maps, bytes, URLs, optionals and opaque values are shared, so copying a value (into
    // an error, say) is cheap. The order of the alternatives is the order of `Kind`.
    std::variant<Null, bool, std::int64_t, std::uint64_t, double, float, std::string, std::shared_ptr<const AnyList>,
                 std::shared_ptr<const AnyMap>, Date, std::shared_ptr<const Data>, std::shared_ptr<const URL>,
                 std::shared_ptr<const OptionalBox>, std::shared_ptr<const OpaqueValue>>
        storage_;
};

}  // namespace zul
