#pragma once

/// `ZUL_CODABLE`: the one line that makes a record decodable and encodable with keys named after
/// its fields.
///
///     struct Movie {
///         std::string title;
///         int year = 0;
///         std::optional<double> rating;      // missing or null: absent; absent: not written
///         std::vector<Person> cast;
///         ZUL_CODABLE(Movie, title, year, rating, cast)
///     };
///
/// It declares `static Movie decode(const zul::Decoder&)` (the record must be default
/// constructible) and `void encode(const zul::Encoder&) const`. A record that needs other keys,
/// defaults or validation writes those two members by hand. Up to 256 fields.

#include "zul/core/decoding.hpp"
#include "zul/core/encoding.hpp"

#define ZUL_DETAIL_PARENS ()
#define ZUL_DETAIL_EXPAND(...) ZUL_DETAIL_EXPAND4(ZUL_DETAIL_EXPAND4(ZUL_DETAIL_EXPAND4(ZUL_DETAIL_EXPAND4(__VA_ARGS__))))
#define ZUL_DETAIL_EXPAND4(...) ZUL_DETAIL_EXPAND3(ZUL_DETAIL_EXPAND3(ZUL_DETAIL_EXPAND3(ZUL_DETAIL_EXPAND3(__VA_ARGS__))))
#define ZUL_DETAIL_EXPAND3(...) ZUL_DETAIL_EXPAND2(ZUL_DETAIL_EXPAND2(ZUL_DETAIL_EXPAND2(ZUL_DETAIL_EXPAND2(__VA_ARGS__))))
#define ZUL_DETAIL_EXPAND2(...) ZUL_DETAIL_EXPAND1(ZUL_DETAIL_EXPAND1(ZUL_DETAIL_EXPAND1(ZUL_DETAIL_EXPAND1(__VA_ARGS__))))
#define ZUL_DETAIL_EXPAND1(...) __VA_ARGS__
#define ZUL_DETAIL_FOR_EACH(macro, ...) __VA_OPT__(ZUL_DETAIL_EXPAND(ZUL_DETAIL_FOR_EACH_STEP(macro, __VA_ARGS__)))
#define ZUL_DETAIL_FOR_EACH_STEP(macro, first, ...) \
    macro(first) __VA_OPT__(ZUL_DETAIL_FOR_EACH_AGAIN ZUL_DETAIL_PARENS(macro, __VA_ARGS__))
#define ZUL_DETAIL_FOR_EACH_AGAIN() ZUL_DETAIL_FOR_EACH_STEP

#define ZUL_DETAIL_DECODE_FIELD(field) zulFields.decodeInto(#field, zulValue.field);
#define ZUL_DETAIL_ENCODE_FIELD(field) zulFields.encode(#field, field);

#define ZUL_CODABLE(Type, ...)                                                   \
    static Type decode(const ::zul::Decoder& zulDecoder) {                       \
        const ::zul::KeyedDecodingContainer zulFields = zulDecoder.container();  \
        Type zulValue;                                                           \
        ZUL_DETAIL_FOR_EACH(ZUL_DETAIL_DECODE_FIELD, __VA_ARGS__)                \
        return zulValue;                                                         \
    }                                                                            \
    void encode(const ::zul::Encoder& zulEncoder) const {                        \
        const ::zul::KeyedEncodingContainer zulFields = zulEncoder.container();  \
        ZUL_DETAIL_FOR_EACH(ZUL_DETAIL_ENCODE_FIELD, __VA_ARGS__)                \
    }
