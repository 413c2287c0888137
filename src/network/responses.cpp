#include "zul/network/responses.hpp"

#include <any>

#include "zul/core/result.hpp"

namespace zul {

namespace {

std::string quoted(const std::string& text) { return AnyValue(text).debugDescription(); }

}  // namespace

AnyResponse AnyResponse::decode(const Decoder& decoder) {
    const SingleValueDecodingContainer value = decoder.singleValueContainer();
    // The order matters: formats that read numbers from text, or accept 1.0 as an integer, must
    // still give text for text and an integer for an integral number.
    if (auto text = detail::attemptDecode([&] { return value.decode<std::string>(); })) {
        return AnyResponse(std::move(*text));
    }
    if (auto integer = detail::attemptDecode([&] { return value.decode<std::int64_t>(); })) {
        return AnyResponse(*integer);
    }
    if (auto boolean = detail::attemptDecode([&] { return value.decode<bool>(); })) {
        return AnyResponse(*boolean);
    }
    if (auto number = detail::attemptDecode([&] { return value.decode<double>(); })) {
        return AnyResponse(*number);
    }
    if (value.decodeNil()) return AnyResponse();
    if (auto members = detail::attemptDecode([&] { return value.decode<Dictionary>(); })) {
        return AnyResponse(std::move(*members));
    }
    if (auto elements = detail::attemptDecode([&] { return value.decode<Array>(); })) {
        return AnyResponse(std::move(*elements));
    }
    // Unreachable for JSON, whose every value is one of the above; other formats can get here.
    // The attempts' own errors each describe only one guess, so none of them is passed on.
    throw DecodingError::dataCorrupted(
        {decoder.codingPath(), "The value is neither text, a number, a boolean, null, a map nor a list.", std::nullopt});
}

std::string AnyResponse::description() const {
    switch (kind()) {
        case Kind::bool_: return *asBool() ? "true" : "false";
        case Kind::string: return *asString();
        case Kind::integer: return std::to_string(*asInteger());
        case Kind::double_: return AnyValue(*asDouble()).description();
        // JSON's own word, rather than the "<null>" of a platform null or an empty text, so that
        // a null member is told apart from an empty text inside a printed collection.
        case Kind::null: return "null";
        // Collections print the way the platform prints a collection of their members' texts:
        // each member is turned into its text first, and texts inside a printed collection are
        // quoted. So a list of 1 and "a" is ["1", "a"] — the quotes do not tell numbers from text.
        case Kind::array: {
            std::string text = "[";
            bool first = true;
            for (const AnyResponse& element : *asArray()) {
                if (!first) text += ", ";
                first = false;
                text += quoted(element.description());
            }
            return text + "]";
        }
        case Kind::dictionary: {
            const Dictionary& members = *asDictionary();
            if (members.empty()) return "[:]";
            std::string text = "[";
            bool first = true;
            for (const auto& [key, member] : members) {
                if (!first) text += ", ";
                first = false;
                text += quoted(key) + ": " + quoted(member.description());
            }
            return text + "]";
        }
    }
    return "";
}

bool operator==(const AnyResponse& a, const AnyResponse& b) {
    if (a.kind() != b.kind()) return false;
    if (const AnyResponse::Dictionary* left = a.asDictionary()) {
        const AnyResponse::Dictionary& right = *b.asDictionary();
        if (left->size() != right.size()) return false;
        // Keys are unique within a map, so equal sizes and every left entry found on the right
        // with an equal value is equality regardless of order.
        for (const auto& [key, value] : *left) {
            const AnyResponse* other = right.get(key);
            if (other == nullptr || !(*other == value)) return false;
        }
        return true;
    }
    return a.storage_ == b.storage_;
}

namespace detail {

std::string responseKeyPath(const UserInfo& userInfo) {
    const std::any* value = userInfo.get(decodingContext);
    if (value == nullptr) return {};
    if (const auto* text = std::any_cast<std::string>(value)) return *text;
    // Callers writing `insertOrAssign("keyPath", "data")` store a pointer or a view; they mean the
    // same path, so those are read too. Anything else is no path.
    if (const auto* view = std::any_cast<std::string_view>(value)) return std::string(*view);
    if (const auto* pointer = std::any_cast<const char*>(value)) return *pointer != nullptr ? *pointer : "";
    return {};
}

void throwKeyPathNotFound(const KeyedDecodingContainer& container, const std::string& keyPath) {
    CodingPath path = container.codingPath();
    path.push_back(ResponseResultKey(keyPath).codingKey());
    // The text names the user-info entry ("keyPath"), not the path that was looked for — that is
    // how this error has always read, and the path is in the coding path anyway.
    throw DecodingError::dataCorrupted({std::move(path), "Keypath " + std::string(decodingContext) + " not found",
                                        std::nullopt});
}

}  // namespace detail
}  // namespace zul
