#include "zul/core/result.hpp"

namespace zul {

namespace {

template <std::size_t I, class Variant>
auto payload(const Variant& storage) -> std::optional<std::variant_alternative_t<I, Variant>> {
    if (const auto* value = std::get_if<I>(&storage)) return *value;
    return std::nullopt;
}

}  // namespace

std::optional<std::string> Answer::maybeString() const { return payload<0>(storage_); }
std::optional<double> Answer::maybeDouble() const noexcept { return payload<1>(storage_); }
std::optional<float> Answer::maybeFloat() const noexcept { return payload<2>(storage_); }
std::optional<std::int64_t> Answer::maybeInt() const noexcept { return payload<3>(storage_); }
std::optional<std::uint64_t> Answer::maybeUInt() const noexcept { return payload<4>(storage_); }
std::optional<bool> Answer::maybeBool() const noexcept { return payload<5>(storage_); }
std::optional<Answer::Dictionary> Answer::maybeDictionary() const { return payload<6>(storage_); }

std::string Answer::description() const {
    switch (kind()) {
        case Kind::string: return std::get<0>(storage_);
        case Kind::double_:
        case Kind::float_:
            // Numbers have always been described through the platform's printf-style formatter
            // with the format "%.2" — a precision and no conversion letter. That formatter treats
            // the incomplete conversion as literal text and emits the character after the "%",
            // leaving the argument unused, so every double and float answer reads ".". That
            // output is reproduced here as it is.
            return ".";
        case Kind::integer: return std::to_string(std::get<3>(storage_));
        case Kind::unsignedInteger: return std::to_string(std::get<4>(storage_));
        case Kind::boolean: return std::get<5>(storage_) ? "true" : "false";
        case Kind::dictionary: {
            // The values are turned into their plain text first, and the resulting map of texts is
            // what prints: keys in their debug form, the texts quoted.
            const Dictionary& entries = std::get<6>(storage_);
            if (entries.empty()) return "[:]";
            std::string text = "[";
            bool first = true;
            for (const auto& [key, value] : entries) {
                if (!first) text += ", ";
                first = false;
                text += key.debugDescription();
                text += ": ";
                text += AnyValue(value.description()).debugDescription();
            }
            return text + "]";
        }
        case Kind::none: return "";
    }
    return "";
}

bool operator==(const Answer& a, const Answer& b) noexcept {
    if (a.kind() != b.kind()) return false;
    switch (a.kind()) {
        case Answer::Kind::string: return std::get<0>(a.storage_) == std::get<0>(b.storage_);
        case Answer::Kind::double_: return std::get<1>(a.storage_) == std::get<1>(b.storage_);
        case Answer::Kind::float_: return std::get<2>(a.storage_) == std::get<2>(b.storage_);
        case Answer::Kind::integer: return std::get<3>(a.storage_) == std::get<3>(b.storage_);
        case Answer::Kind::unsignedInteger: return std::get<4>(a.storage_) == std::get<4>(b.storage_);
        case Answer::Kind::boolean: return std::get<5>(a.storage_) == std::get<5>(b.storage_);
        case Answer::Kind::dictionary:
            // Deliberately not compared: the values are of arbitrary types with no equality to
            // rely on, so the comparison does not look into maps at all and two dictionary
            // answers — even one answer with itself — are unequal. Kept as it has always been.
            return false;
        case Answer::Kind::none: return true;
    }
    return false;
}

namespace detail {

void throwNeitherDecodes(const Decoder& decoder, const std::string& first, const std::string& second) {
    throw DecodingError::dataCorrupted(
        {decoder.codingPath(), "Cannot decode " + first + " or " + second, std::nullopt});
}

}  // namespace detail
}  // namespace zul
