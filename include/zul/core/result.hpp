#pragma once

/// Small result and choice values that sit next to the coding framework:
///
/// - `Answer`: one loosely typed answer (text, a number, a boolean, a map of anything, or none),
///   as back ends hand back settings and feature values.
/// - `Either<First, Second>`: one of two types; decodes as whichever of the two the data holds.
/// - `MaybeDecodable<Wrapped>`: a `Wrapped` if the value decodes as one, absent otherwise, so one
///   bad element does not fail a whole document.
/// - `AnyOptional` / `AnySequence` and `makeEmpty<T>()`: how format code recognises optional and
///   collection fields and makes the empty value for a field that is not in the document.
///
///     auto id = decoder.decode<zul::Either<long, std::string>>(json);   // 12 or "abc"
///     std::string text = id.map([](long n) { return std::to_string(n); },
///                               [](const std::string& s) { return s; });

#include <any>
#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "zul/core/coding_errors.hpp"
#include "zul/core/decoding.hpp"
#include "zul/platform/any_value.hpp"

namespace zul {

// ---- Answer ----

/// A tagged value with exactly one of eight cases. The accessors never convert between cases: an
/// integer answer has no `maybeDouble()`, a float answer no `maybeDouble()` either.
class Answer {
public:
    /// The cases, in tag order.
    enum class Kind { string, double_, float_, integer, unsignedInteger, boolean, dictionary, none };

    /// A map from any key to a value of any type, as (key, value) pairs in the order given.
    using Dictionary = std::vector<std::pair<AnyValue, AnyValue>>;

    Answer(std::string value) noexcept : storage_(std::in_place_index<0>, std::move(value)) {}
    // Without these, a literal would pick the `bool` constructor through the pointer conversion.
    Answer(const char* value) : storage_(std::in_place_index<0>, value) {}
    Answer(std::string_view value) : storage_(std::in_place_index<0>, std::string(value)) {}
    Answer(double value) noexcept : storage_(std::in_place_index<1>, value) {}
    Answer(float value) noexcept : storage_(std::in_place_index<2>, value) {}
    template <class I>
        requires(std::is_integral_v<I> && !std::is_same_v<I, bool> && std::is_signed_v<I>)
    Answer(I value) noexcept : storage_(std::in_place_index<3>, static_cast<std::int64_t>(value)) {}
    template <class I>
        requires(std::is_integral_v<I> && !std::is_same_v<I, bool> && std::is_unsigned_v<I>)
    Answer(I value) noexcept : storage_(std::in_place_index<4>, static_cast<std::uint64_t>(value)) {}
    Answer(bool value) noexcept : storage_(std::in_place_index<5>, value) {}
    Answer(Dictionary value) noexcept : storage_(std::in_place_index<6>, std::move(value)) {}

    /// The `none` case (it has no payload, so no constructor makes it).
    static Answer none() noexcept { return Answer(None{}); }

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }

    /// The payload when the answer is of that case, else absent.
    std::optional<std::string> maybeString() const;
    std::optional<bool> maybeBool() const noexcept;
    std::optional<double> maybeDouble() const noexcept;
    std::optional<float> maybeFloat() const noexcept;
    std::optional<std::int64_t> maybeInt() const noexcept;
    std::optional<std::uint64_t> maybeUInt() const noexcept;
    std::optional<Dictionary> maybeDictionary() const;

    /// The answer as text: the text itself, decimal digits for integers, "true"/"false", ""
    /// for none, `["key": "text", 1: "5"]` for a map (each value first turned into its plain
    /// text; empty "[:]"), and "." for every double and float (see the definition).
    std::string description() const;

    /// Same case and equal payload; doubles and floats compare as IEEE numbers. Dictionary
    /// answers are never equal to anything, not even themselves.
    friend bool operator==(const Answer& a, const Answer& b) noexcept;

private:
    struct None {};
    explicit Answer(None) noexcept : storage_(std::in_place_index<7>) {}

    // Alternatives in the order of `Kind`.
    std::variant<std::string, double, float, std::int64_t, std::uint64_t, bool, Dictionary, std::monostate> storage_;
};

// ---- helpers shared by the decoders that try several readings ----

namespace detail {

/// Runs `attempt`; when it throws an error, the error is dropped and the result is absent. Only
/// running out of memory passes through: that is not a "the data is something else" answer, and
/// swallowing it would hide the real failure behind a misleading decoding one.
template <class F>
auto attemptDecode(F&& attempt) -> std::optional<std::invoke_result_t<F>> {
    try {
        return std::optional<std::invoke_result_t<F>>(std::forward<F>(attempt)());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/// "Cannot decode <first> or <second>", the error of an `Either` neither of whose types fits.
[[noreturn]] void throwNeitherDecodes(const Decoder& decoder, const std::string& first, const std::string& second);

}  // namespace detail

// ---- Either ----

/// A value of one of two types. `First` and `Second` may be the same type; the case still tells
/// which one it is.
template <class First, class Second>
class Either {
public:
    static Either firstType(First value) { return Either(std::in_place_index<0>, std::move(value)); }
    static Either secondType(Second value) { return Either(std::in_place_index<1>, std::move(value)); }

    bool isFirst() const noexcept { return storage_.index() == 0; }
    bool isSecond() const noexcept { return storage_.index() == 1; }
    /// The payload of that case, or null.
    const First* first() const noexcept { return std::get_if<0>(&storage_); }
    const Second* second() const noexcept { return std::get_if<1>(&storage_); }

    /// The payload, whichever case holds it.
    std::any unwrap() const {
        if (isFirst()) return std::any(std::get<0>(storage_));
        return std::any(std::get<1>(storage_));
    }

    /// Calls exactly one of the transforms, the one for the case held, and returns its result.
    template <class FirstTransform, class SecondTransform>
    auto map(FirstTransform&& firstTransform, SecondTransform&& secondTransform) const
        -> std::common_type_t<std::invoke_result_t<FirstTransform, const First&>,
                              std::invoke_result_t<SecondTransform, const Second&>> {
        if (isFirst()) return std::invoke(std::forward<FirstTransform>(firstTransform), std::get<0>(storage_));
        return std::invoke(std::forward<SecondTransform>(secondTransform), std::get<1>(storage_));
    }

    /// A null goes to the two attempts like any other value (so `Either<std::optional<T>, U>`
    /// takes it as an absent first), rather than failing before they run.
    static constexpr bool decodesNull = true;

    /// Decodes the whole value as a `First`, else as a `Second` (First is always tried first, so
    /// data both can read is a `First`). The errors of the two attempts are dropped; when neither
    /// type fits, a data-corrupted error "Cannot decode <First> or <Second>" at the decoder's path.
    static Either decode(const Decoder& decoder)
        requires(Decodable<First> && Decodable<Second>)
    {
        if (std::optional<First> value = detail::attemptDecode([&] { return decoder.decode<First>(); })) {
            return firstType(std::move(*value));
        }
        if (std::optional<Second> value = detail::attemptDecode([&] { return decoder.decode<Second>(); })) {
            return secondType(std::move(*value));
        }
        detail::throwNeitherDecodes(decoder, detail::typeName<First>(), detail::typeName<Second>());
    }

    friend bool operator==(const Either& a, const Either& b)
        requires(std::equality_comparable<First> && std::equality_comparable<Second>)
    {
        return a.storage_ == b.storage_;
    }

private:
    template <std::size_t I, class V>
    Either(std::in_place_index_t<I> index, V&& value) : storage_(index, std::forward<V>(value)) {}

    std::variant<First, Second> storage_;
};

// ---- MaybeDecodable ----

/// A `Wrapped` when the value decodes as one; absent (and no error) when it does not.
template <class Wrapped>
struct MaybeDecodable {
    std::optional<Wrapped> decoded;

    /// A null is one more value that may not be a `Wrapped`: it gives absent, not an error.
    static constexpr bool decodesNull = true;

    /// Only a failure to get the single-value container is an error; a failed `Wrapped` is not.
    static MaybeDecodable decode(const Decoder& decoder)
        requires Decodable<Wrapped>
    {
        const SingleValueDecodingContainer container = decoder.singleValueContainer();
        return MaybeDecodable{detail::attemptDecode([&] { return container.decode<Wrapped>(); })};
    }

    friend bool operator==(const MaybeDecodable&, const MaybeDecodable&) = default;
};

// ---- optional and collection fields ----

/// Types whose empty value is "absent": `std::optional`.
template <class T>
concept AnyOptional = detail::IsOptional<std::remove_cvref_t<T>>::value;

/// Collections whose empty value is "no elements": `std::vector` and the text-keyed maps
/// (`std::map<std::string, V>`, `OrderedMap<V>`).
template <class T>
concept AnySequence = detail::IsVector<std::remove_cvref_t<T>>::value || detail::IsStringMap<std::remove_cvref_t<T>>::value;

/// The value a field of type `T` takes when the document does not have it: an absent optional or
/// an empty collection.
template <class T>
    requires(AnyOptional<T> || AnySequence<T>)
T makeEmpty() {
    return T{};
}

}  // namespace zul
