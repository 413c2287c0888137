#pragma once

/// Response bodies read without a record of their own:
///
/// - `AnyResponse`: any JSON value (booleans, text, integers, doubles, maps, lists, null).
/// - `ResponseResult<T>`: a `T` found under one top-level key of the body, the key named by the
///   decoder's user info under `decodingContext` ("keyPath").
///
///     zul::JSONDecoder decoder;
///     decoder.userInfo.insertOrAssign(zul::decodingContext, std::string("data"));
///     Movie movie = decoder.decode<zul::ResponseResult<Movie>>(R"({"data": {...}})").result;

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "zul/core/coding_errors.hpp"
#include "zul/core/decoding.hpp"
#include "zul/platform/any_value.hpp"
#include "zul/platform/ordered_map.hpp"

namespace zul {

/// User-info names (the keys of `UserInfo`) that networking hands to the records it decodes.
/// The response being decoded.
inline constexpr std::string_view responseContext = "response";
/// The top-level key `ResponseResult` reads its value from, a `std::string`.
inline constexpr std::string_view decodingContext = "keyPath";

// ---- AnyResponse ----

/// An arbitrary JSON value. Maps keep their keys in document order.
class AnyResponse {
public:
    enum class Kind { bool_, string, integer, double_, dictionary, array, null };

    using Dictionary = OrderedMap<AnyResponse>;
    using Array = std::vector<AnyResponse>;

    /// Null (a default value is needed by maps that create members before assigning them).
    AnyResponse() noexcept : storage_(Null{}) {}
    AnyResponse(Null) noexcept : storage_(Null{}) {}
    AnyResponse(bool value) noexcept : storage_(value) {}
    AnyResponse(std::string value) noexcept : storage_(std::move(value)) {}
    AnyResponse(const char* value) : storage_(std::string(value)) {}
    // Unsigned types only when every value fits an int64.
    template <class I>
        requires(std::is_integral_v<I> && !std::is_same_v<I, bool> &&
                 (std::is_signed_v<I> || sizeof(I) < sizeof(std::int64_t)))
    AnyResponse(I value) noexcept : storage_(static_cast<std::int64_t>(value)) {}
    AnyResponse(double value) noexcept : storage_(value) {}
    AnyResponse(Dictionary value) noexcept : storage_(std::move(value)) {}
    AnyResponse(Array value) noexcept : storage_(std::move(value)) {}

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }

    /// The payload when the value is of that case, else null.
    const bool* asBool() const noexcept { return std::get_if<bool>(&storage_); }
    const std::string* asString() const noexcept { return std::get_if<std::string>(&storage_); }
    const std::int64_t* asInteger() const noexcept { return std::get_if<std::int64_t>(&storage_); }
    const double* asDouble() const noexcept { return std::get_if<double>(&storage_); }
    const Dictionary* asDictionary() const noexcept { return std::get_if<Dictionary>(&storage_); }
    const Array* asArray() const noexcept { return std::get_if<Array>(&storage_); }
    bool isNull() const noexcept { return kind() == Kind::null; }

    /// Null is one of the cases, so the decoder hands it over instead of rejecting it.
    static constexpr bool decodesNull = true;

    /// Reads the value as the first of these that succeeds: text, integer, boolean, floating
    /// point, null, map, list. So 1 and 1.0 are integers, 1.5 a double.
    static AnyResponse decode(const Decoder& decoder);

    /// The value as text: "true"/"false", decimal digits, the text itself, the shortest decimal
    /// form of a double ("1.5"), "null"; a list or map prints like a collection of its members'
    /// texts, each quoted: `["1", "a"]`, `["k": "v"]`, empty "[]" and "[:]".
    std::string description() const;

    /// Same case and equal payload; maps are equal when they have the same keys with equal
    /// values, whatever their order; lists element by element.
    friend bool operator==(const AnyResponse& a, const AnyResponse& b);

private:
    // Alternatives in the order of `Kind`.
    std::variant<bool, std::string, std::int64_t, double, Dictionary, Array, Null> storage_;
};

// ---- ResponseResult ----

/// The key type `ResponseResult` reads with: any text is a key, and there is no integer form.
struct ResponseResultKey {
    /// The key type's name in coding paths and error texts.
    static constexpr std::string_view typeName = "ResponseResultKey";

    std::string stringValue;

    /// Every text makes a key.
    explicit ResponseResultKey(std::string text) : stringValue(std::move(text)) {}
    /// Integers make no key.
    static std::optional<ResponseResultKey> fromInt(int /*value*/) noexcept { return std::nullopt; }
    std::optional<int> intValue() const noexcept { return std::nullopt; }

    /// The key as coding paths hold it.
    CodingKey codingKey() const { return CodingKey(stringValue, std::nullopt, typeName); }

    friend bool operator==(const ResponseResultKey&, const ResponseResultKey&) = default;
};

namespace detail {

/// The key path in `userInfo` under `decodingContext`; empty when there is none.
std::string responseKeyPath(const UserInfo& userInfo);

/// The error of a body that has no top-level key `keyPath`.
[[noreturn]] void throwKeyPathNotFound(const KeyedDecodingContainer& container, const std::string& keyPath);

}  // namespace detail

/// A `T` read from the value under one top-level key of the body. The key is the decoder's user
/// info under `decodingContext`, matched exactly against the body's own keys: "a.b" is a key
/// named "a.b", not "b" inside "a".
template <class T>
struct ResponseResult {
    T result;

    static ResponseResult decode(const Decoder& decoder)
        requires Decodable<T>
    {
        const KeyedDecodingContainer container = decoder.container(ResponseResultKey::typeName);
        const std::string keyPath = detail::responseKeyPath(decoder.userInfo());
        for (const CodingKey& key : container.allKeys()) {
            if (key.stringValue == keyPath) return ResponseResult{container.decode<T>(key)};
        }
        detail::throwKeyPathNotFound(container, keyPath);
    }
};

}  // namespace zul
