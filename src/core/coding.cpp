#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "zul/core/encoding.hpp"

namespace zul {

namespace {

std::string quoted(std::string_view text) { return AnyValue(std::string(text)).debugDescription(); }

std::string describePath(const CodingPath& path) {
    std::string text = "[";
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (i > 0) text += ", ";
        text += path[i].description();
    }
    return text + "]";
}

std::string describeContext(const DecodingError::Context& context) {
    return "Context(codingPath: " + describePath(context.codingPath) + ", debugDescription: " +
           quoted(context.debugDescription) + ", underlyingError: " +
           (context.underlyingError ? "Optional(" + context.underlyingError->description() + ")" : "nil") + ")";
}

// Frames from the root down to `frame`, as keys.
template <class Backend>
CodingPath materialise(const Backend& backend, const PathFrame& frame) {
    std::vector<const PathFrame*> frames;
    for (const PathFrame* at = &frame; at != nullptr; at = at->parent) {
        if (!at->isRoot()) frames.push_back(at);
    }
    CodingPath path;
    path.reserve(frames.size());
    for (auto it = frames.rbegin(); it != frames.rend(); ++it) {
        const PathFrame& at = **it;
        if (at.index) {
            path.push_back(backend.indexKey(*at.index));
        } else {
            path.emplace_back(std::string(at.key), std::nullopt, at.keyType);
        }
    }
    return path;
}

}  // namespace

std::string CodingKey::description() const {
    return std::string(typeName) + "(stringValue: " + quoted(stringValue) +
           ", intValue: " + (intValue ? std::to_string(*intValue) : "nil") + ")";
}

DecodingError DecodingError::typeMismatch(std::string type, Context context) {
    return DecodingError(Kind::typeMismatch, std::move(type), {}, std::move(context));
}
DecodingError DecodingError::valueNotFound(std::string type, Context context) {
    return DecodingError(Kind::valueNotFound, std::move(type), {}, std::move(context));
}
DecodingError DecodingError::keyNotFound(CodingKey key, Context context) {
    return DecodingError(Kind::keyNotFound, {}, std::move(key), std::move(context));
}
DecodingError DecodingError::dataCorrupted(Context context) {
    return DecodingError(Kind::dataCorrupted, {}, {}, std::move(context));
}

std::string DecodingError::description() const {
    switch (kind_) {
        case Kind::typeMismatch: return "typeMismatch(" + type_ + ", " + describeContext(context_) + ")";
        case Kind::valueNotFound: return "valueNotFound(" + type_ + ", " + describeContext(context_) + ")";
        case Kind::keyNotFound: return "keyNotFound(" + key_.description() + ", " + describeContext(context_) + ")";
        case Kind::dataCorrupted: return "dataCorrupted(" + describeContext(context_) + ")";
    }
    return context_.debugDescription;
}

EncodingError EncodingError::invalidValue(std::string value, Context context) {
    return EncodingError(std::move(value), std::move(context));
}

std::string EncodingError::description() const {
    return "invalidValue(" + value_ + ", " + describeContext(context_) + ")";
}

CodingPath DecodingBackend::codingPath(const PathFrame& frame) const { return materialise(*this, frame); }
CodingPath EncodingBackend::codingPath(const PathFrame& frame) const { return materialise(*this, frame); }

KeyedDecodingContainer UnkeyedDecodingContainer::nestedContainer(std::string_view keyType) {
    if (isAtEnd()) {
        throw DecodingError::valueNotFound(
            "KeyedDecodingContainer<" + std::string(keyType) + ">",
            {backend_->codingPath(elementFrame()), "Cannot get nested keyed container -- unkeyed container is at end.", {}});
    }
    KeyedDecodingContainer nested = superDecoder().container(keyType);
    return nested;
}

UnkeyedDecodingContainer UnkeyedDecodingContainer::nestedUnkeyedContainer() {
    if (isAtEnd()) {
        throw DecodingError::valueNotFound(
            "UnkeyedDecodingContainer",
            {backend_->codingPath(elementFrame()), "Cannot get nested unkeyed container -- unkeyed container is at end.", {}});
    }
    return superDecoder().unkeyedContainer();
}

Decoder UnkeyedDecodingContainer::superDecoder() {
    const PathFrame at = elementFrame();
    if (isAtEnd()) {
        throw DecodingError::valueNotFound(
            "Decoder", {backend_->codingPath(at), "Cannot get superDecoder() -- unkeyed container is at end.", {}});
    }
    Decoder decoder(*backend_, backend_->element(node_, currentIndex_), at);
    ++currentIndex_;
    return decoder;
}

namespace detail {

std::string plainTypeName(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                      std::free);
    std::string name = status == 0 && demangled ? demangled.get() : type.name();
    // Drop template arguments, then namespaces and enclosing classes: "app::Movie" -> "Movie".
    int depth = 0;
    std::string flat;
    for (const char c : name) {
        if (c == '<') ++depth;
        if (depth == 0) flat.push_back(c);
        if (c == '>') --depth;
    }
    const std::size_t colon = flat.rfind("::");
    return colon == std::string::npos ? flat : flat.substr(colon + 2);
}

}  // namespace detail
}  // namespace zul
