#pragma once

/// `JSONEncoder`: encodes records as JSON text.
///
///     zul::JSONEncoder encoder;
///     encoder.outputFormatting.prettyPrinted = true;
///     zul::Data json = encoder.encode(movie);   // throws zul::EncodingError
///
/// What it writes, `JSONDecoder` with the matching strategies reads back.

#include <functional>

#include "zul/core/encoding.hpp"
#include "zul/platform/data.hpp"
#include "zul/platform/detail/function_ref.hpp"

namespace zul {

class JSONEncoder {
public:
    struct OutputFormatting {
        bool prettyPrinted = false;
        /// Keys of every object in lexicographic order instead of the order they were written.
        bool sortedKeys = false;
    };

    class DateEncodingStrategy {
    public:
        enum class Kind { deferredToDate, secondsSince1970, millisecondsSince1970, iso8601, custom };
        using Custom = std::function<void(Date, const Encoder&)>;

        /// Seconds since 2001-01-01T00:00:00Z as a number (the default).
        static DateEncodingStrategy deferredToDate() { return {Kind::deferredToDate, {}}; }
        static DateEncodingStrategy secondsSince1970() { return {Kind::secondsSince1970, {}}; }
        static DateEncodingStrategy millisecondsSince1970() { return {Kind::millisecondsSince1970, {}}; }
        /// "2019-03-04T05:06:07Z" (UTC, whole seconds).
        static DateEncodingStrategy iso8601() { return {Kind::iso8601, {}}; }
        static DateEncodingStrategy custom(Custom write) { return {Kind::custom, std::move(write)}; }

        Kind kind() const noexcept { return kind_; }
        const Custom& customWriter() const noexcept { return custom_; }

    private:
        DateEncodingStrategy(Kind kind, Custom custom) : kind_(kind), custom_(std::move(custom)) {}
        Kind kind_;
        Custom custom_;
    };

    class DataEncodingStrategy {
    public:
        enum class Kind { deferredToData, base64, custom };
        using Custom = std::function<void(const Data&, const Encoder&)>;

        /// A list of numbers 0-255 (the default).
        static DataEncodingStrategy deferredToData() { return {Kind::deferredToData, {}}; }
        static DataEncodingStrategy base64() { return {Kind::base64, {}}; }
        static DataEncodingStrategy custom(Custom write) { return {Kind::custom, std::move(write)}; }

        Kind kind() const noexcept { return kind_; }
        const Custom& customWriter() const noexcept { return custom_; }

    private:
        DataEncodingStrategy(Kind kind, Custom custom) : kind_(kind), custom_(std::move(custom)) {}
        Kind kind_;
        Custom custom_;
    };

    OutputFormatting outputFormatting;
    DateEncodingStrategy dateEncodingStrategy = DateEncodingStrategy::deferredToDate();
    DataEncodingStrategy dataEncodingStrategy = DataEncodingStrategy::deferredToData();
    UserInfo userInfo;

    /// `value` as JSON. A non-finite float or double fails with an invalid-value error.
    template <Encodable T>
    Data encode(const T& value) const {
        auto body = [&](const Encoder& encoder) { detail::encodeValue(encoder, value); };
        return encodeDocument(detail::FunctionRef<void(const Encoder&)>(body));
    }

private:
    Data encodeDocument(detail::FunctionRef<void(const Encoder&)> body) const;
};

}  // namespace zul
