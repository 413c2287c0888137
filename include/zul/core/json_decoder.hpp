#pragma once

/// `JSONDecoder`: decodes records from JSON text (parsed with simdjson).
///
///     zul::JSONDecoder decoder;
///     decoder.dateDecodingStrategy = zul::JSONDecoder::DateDecodingStrategy::iso8601();
///     Movie movie = decoder.decode<Movie>(body);      // throws zul::DecodingError
///
/// The rules are strict: a number does not decode as a boolean or text, nor a boolean as a number;
/// an integer type takes an integral number in its range ("Parsed JSON number <300> does not fit
/// in Int8."); a double takes any number. Text that is not JSON fails with data corrupted, "The
/// given data was not valid JSON.".
///
/// A decoder may be reused for successive decodes, and several threads may each use their own;
/// one decoder object is not for concurrent use while its settings change.

#include <functional>
#include <optional>
#include <string_view>

#include "zul/core/decoding.hpp"
#include "zul/platform/data.hpp"
#include "zul/platform/detail/function_ref.hpp"

namespace zul {

class JSONDecoder {
public:
    /// How dates are read.
    class DateDecodingStrategy {
    public:
        enum class Kind { deferredToDate, secondsSince1970, millisecondsSince1970, iso8601, custom };
        using Custom = std::function<Date(const Decoder&)>;

        /// A number of seconds since 2001-01-01T00:00:00Z (the default).
        static DateDecodingStrategy deferredToDate() { return {Kind::deferredToDate, {}}; }
        /// A number of seconds since 1970-01-01T00:00:00Z.
        static DateDecodingStrategy secondsSince1970() { return {Kind::secondsSince1970, {}}; }
        /// A number of milliseconds since 1970-01-01T00:00:00Z.
        static DateDecodingStrategy millisecondsSince1970() { return {Kind::millisecondsSince1970, {}}; }
        /// Text such as "2019-03-04T05:06:07Z" or with an offset ("+03:00", "+0300", "+03").
        static DateDecodingStrategy iso8601() { return {Kind::iso8601, {}}; }
        /// The callback reads the date from the decoder it is given.
        static DateDecodingStrategy custom(Custom read) { return {Kind::custom, std::move(read)}; }

        Kind kind() const noexcept { return kind_; }
        const Custom& customReader() const noexcept { return custom_; }

    private:
        DateDecodingStrategy(Kind kind, Custom custom) : kind_(kind), custom_(std::move(custom)) {}
        Kind kind_;
        Custom custom_;
    };

    /// How bytes are read.
    class DataDecodingStrategy {
    public:
        enum class Kind { deferredToData, base64, custom };
        using Custom = std::function<Data(const Decoder&)>;

        /// A list of numbers 0-255 (the default).
        static DataDecodingStrategy deferredToData() { return {Kind::deferredToData, {}}; }
        /// Standard base64 text: length a multiple of four, "=" only at the end, no whitespace.
        static DataDecodingStrategy base64() { return {Kind::base64, {}}; }
        static DataDecodingStrategy custom(Custom read) { return {Kind::custom, std::move(read)}; }

        Kind kind() const noexcept { return kind_; }
        const Custom& customReader() const noexcept { return custom_; }

    private:
        DataDecodingStrategy(Kind kind, Custom custom) : kind_(kind), custom_(std::move(custom)) {}
        Kind kind_;
        Custom custom_;
    };

    DateDecodingStrategy dateDecodingStrategy = DateDecodingStrategy::deferredToDate();
    DataDecodingStrategy dataDecodingStrategy = DataDecodingStrategy::deferredToData();
    /// Handed to every record through `Decoder::userInfo()`.
    UserInfo userInfo;

    /// Decodes a `T` from the JSON text.
    template <Decodable T>
    T decode(std::string_view json) const {
        std::optional<T> result;
        auto body = [&](const Decoder& decoder) { result.emplace(detail::decodeValue<T>(decoder)); };
        decodeDocument(json, detail::FunctionRef<void(const Decoder&)>(body));
        return std::move(*result);
    }
    template <Decodable T>
    T decode(const Data& json) const {
        return decode<T>(std::string_view(reinterpret_cast<const char*>(json.data()), json.size()));
    }

private:
    /// Parses `json` and calls `body` with a decoder for its top-level value.
    void decodeDocument(std::string_view json, detail::FunctionRef<void(const Decoder&)> body) const;
};

}  // namespace zul
