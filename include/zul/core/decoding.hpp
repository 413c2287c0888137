#pragma once

/// Decoding: the `Decoder` a record reads itself from, with its keyed, unkeyed and single-value
/// containers, and the `DecodingBackend` interface that each format (JSON, XML) implements.
///
/// A record opts in with `ZUL_CODABLE` (see codable.hpp) or by declaring
///
///     static Movie decode(const zul::Decoder& decoder) {
///         auto fields = decoder.container();
///         Movie movie;
///         movie.title = fields.decode<std::string>("title");
///         movie.rating = fields.decode<std::optional<double>>("rating");   // missing or null: absent
///         movie.cast = fields.decode<std::vector<Person>>("cast");
///         return movie;
///     }
///
/// Decoders and containers are views of a decode in progress: they are valid during the call that
/// handed them out, and a nested container must not outlive the container it came from. Keys given
/// to containers must stay alive as long as the containers made for them (string literals do).
///
/// Scalars decode strictly: no conversion between booleans, numbers and text; an integer must be
/// integral and fit its type. Type names in error texts are the plain names ("Int", "Int8",
/// "UInt16", "Double", "Bool", "String", a record's own name): `long` and `std::int64_t` are "Int",
/// `long long` "Int64", `int` "Int32", `short` "Int16", `signed char` "Int8", and the unsigned
/// types likewise with "UInt".

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "zul/core/coding_errors.hpp"
#include "zul/core/coding_key.hpp"
#include "zul/platform/any_value.hpp"
#include "zul/platform/data.hpp"

namespace zul {

class Decoder;
class KeyedDecodingContainer;
class UnkeyedDecodingContainer;
class SingleValueDecodingContainer;

/// Specialise to make a type you cannot change decodable and encodable:
/// `static T decode(const Decoder&)` and `static void encode(const T&, const Encoder&)`.
template <class T>
struct Coding;

/// Whether a field is read from an attribute or an element (formats without the distinction
/// ignore it). A record chooses per key with `static NodeDecoding nodeDecoding(const CodingKey&)`.
enum class NodeDecoding { attribute, element, elementOrAttribute };
using NodeDecodingFunction = NodeDecoding (*)(const CodingKey& key);

/// A position in a document being decoded, in the backend's own terms (a JSON value, an XML box):
/// up to 16 bytes of trivially copyable state.
struct DecodingNode {
    alignas(std::uint64_t) std::array<std::byte, 16> bytes{};

    template <class T>
    static DecodingNode of(const T& value) noexcept {
        static_assert(sizeof(T) <= 16 && std::is_trivially_copyable_v<T>);
        DecodingNode node;
        std::memcpy(node.bytes.data(), &value, sizeof(T));
        return node;
    }
    template <class T>
    T as() const noexcept {
        static_assert(sizeof(T) <= 16 && std::is_trivially_copyable_v<T>);
        T value;
        std::memcpy(&value, bytes.data(), sizeof(T));
        return value;
    }
};

/// An integer type's plain name and range.
struct IntegerType {
    std::string_view name;
    std::int64_t min;
    std::uint64_t max;
};

/// What a format implements to be decoded through `Decoder`. Every operation that fails throws the
/// format's `DecodingError`. `at` is the path of the value concerned.
class DecodingBackend {
public:
    virtual ~DecodingBackend() = default;

    virtual const UserInfo& userInfo() const = 0;
    /// The key of position `index` of an unkeyed container, as paths print it.
    virtual CodingKey indexKey(std::size_t index) const = 0;

    /// The node as a keyed container (or, when `choice`, as a choice of one key).
    virtual DecodingNode keyed(DecodingNode node, const PathFrame& at, bool choice) = 0;
    /// The node as an unkeyed container.
    virtual DecodingNode unkeyed(DecodingNode node, const PathFrame& at) = 0;

    virtual std::vector<CodingKey> allKeys(DecodingNode keyed, std::string_view keyType) = 0;
    virtual std::optional<DecodingNode> member(DecodingNode keyed, std::string_view key) = 0;
    /// The member for `key`, or the format's key-not-found error; `container` is the path of the
    /// keyed container.
    virtual DecodingNode requireMember(DecodingNode keyed, std::string_view key, std::string_view keyType,
                                       const PathFrame& container) = 0;

    virtual std::size_t count(DecodingNode unkeyed) = 0;
    virtual DecodingNode element(DecodingNode unkeyed, std::size_t index) = 0;
    /// The error of reading past the end of an unkeyed container.
    [[noreturn]] virtual void unkeyedAtEnd(const PathFrame& at, std::string_view expectedType) = 0;

    virtual bool isNull(DecodingNode node) = 0;
    /// The error of a null where a record or collection of `type` was expected.
    [[noreturn]] virtual void nullInsteadOf(std::string_view type, const PathFrame& at) = 0;

    virtual bool decodeBool(DecodingNode node, const PathFrame& at) = 0;
    virtual std::int64_t decodeSigned(DecodingNode node, const PathFrame& at, const IntegerType& type) = 0;
    virtual std::uint64_t decodeUnsigned(DecodingNode node, const PathFrame& at, const IntegerType& type) = 0;
    virtual double decodeDouble(DecodingNode node, const PathFrame& at) = 0;
    virtual float decodeFloat(DecodingNode node, const PathFrame& at) = 0;
    virtual std::string decodeString(DecodingNode node, const PathFrame& at) = 0;
    /// Dates and bytes follow the format's strategies, which may read the value as a record.
    virtual Date decodeDate(const Decoder& decoder) = 0;
    virtual Data decodeData(const Decoder& decoder) = 0;

    /// Bracket the decoding of a record type (XML keeps the record's node decodings on a stack).
    virtual void willDecodeRecord(NodeDecodingFunction /*nodeDecoding*/) {}
    virtual void didDecodeRecord() noexcept {}

    /// The full path of `frame`.
    CodingPath codingPath(const PathFrame& frame) const;
};

namespace detail {

/// The plain name of a type for error texts ("Int", "String", "Movie", "Optional<Int>", ...).
template <class T>
std::string typeName();

/// A type's plain name from its runtime type: the demangled name without namespaces and
/// template arguments.
std::string plainTypeName(const std::type_info& type);

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsVector : std::false_type {};
template <class T, class A>
struct IsVector<std::vector<T, A>> : std::true_type {};
template <class T>
struct IsStringMap : std::false_type {};
template <class V, class C, class A>
struct IsStringMap<std::map<std::string, V, C, A>> : std::true_type {};
template <class V>
struct IsStringMap<OrderedMap<V>> : std::true_type {};

template <class T>
constexpr IntegerType integerType() {
    constexpr bool isSigned = std::is_signed_v<T>;
    std::string_view name;
    if constexpr (std::is_same_v<T, signed char>) name = "Int8";
    else if constexpr (std::is_same_v<T, short>) name = "Int16";
    else if constexpr (std::is_same_v<T, int>) name = "Int32";
    else if constexpr (std::is_same_v<T, long>) name = "Int";
    else if constexpr (std::is_same_v<T, long long>) name = "Int64";
    else if constexpr (std::is_same_v<T, unsigned char>) name = "UInt8";
    else if constexpr (std::is_same_v<T, unsigned short>) name = "UInt16";
    else if constexpr (std::is_same_v<T, unsigned int>) name = "UInt32";
    else if constexpr (std::is_same_v<T, unsigned long>) name = "UInt";
    else if constexpr (std::is_same_v<T, unsigned long long>) name = "UInt64";
    else if constexpr (std::is_same_v<T, char>) name = isSigned ? "Int8" : "UInt8";
    else static_assert(sizeof(T) == 0, "unsupported integer type");
    return IntegerType{name, static_cast<std::int64_t>(std::numeric_limits<T>::min()),
                       static_cast<std::uint64_t>(std::numeric_limits<T>::max())};
}

template <class T>
concept CodingInteger = std::is_integral_v<T> && !std::is_same_v<T, bool>;

template <class T>
concept HasDecodeMember = requires(const Decoder& decoder) {
    { T::decode(decoder) } -> std::same_as<T>;
};
template <class T>
concept HasCodingSpecialization = requires(const Decoder& decoder) {
    { Coding<T>::decode(decoder) } -> std::same_as<T>;
};
/// A record that reads null itself (a value that may be null, a lenient wrapper) declares
/// `static constexpr bool decodesNull = true;`; any other record meets null as a missing value.
template <class T>
concept DecodesNull = requires { requires T::decodesNull; };

template <class T>
concept HasNodeDecoding = requires(const CodingKey& key) {
    { T::nodeDecoding(key) } -> std::same_as<NodeDecoding>;
};

template <class T>
T decodeValue(const Decoder& decoder);

}  // namespace detail

/// Types a `Decoder` can produce: scalars, text, `Date`, `Data`, optionals, vectors, text-keyed
/// maps of decodable values, and records that declare `static T decode(const Decoder&)` or have a
/// `Coding<T>` specialisation.
template <class T>
concept Decodable =
    std::is_same_v<T, bool> || detail::CodingInteger<T> || std::is_floating_point_v<T> ||
    std::is_same_v<T, std::string> || std::is_same_v<T, Date> || std::is_same_v<T, Data> ||
    detail::IsOptional<T>::value || detail::IsVector<T>::value || detail::IsStringMap<T>::value ||
    detail::HasDecodeMember<T> || detail::HasCodingSpecialization<T>;

/// A value being decoded: hands out containers to read it through.
class Decoder {
public:
    Decoder(DecodingBackend& backend, DecodingNode node, PathFrame frame) noexcept
        : backend_(&backend), node_(node), frame_(frame) {}

    CodingPath codingPath() const { return backend_->codingPath(frame_); }
    const UserInfo& userInfo() const { return backend_->userInfo(); }

    /// The value as fields by key. `keyType` names the record's key type in error texts.
    KeyedDecodingContainer container(std::string_view keyType = "CodingKeys") const;
    /// The value as exactly one of several keys (formats that have choices, such as XML).
    KeyedDecodingContainer choiceContainer(std::string_view keyType = "CodingKeys") const;
    /// The value as a sequence.
    UnkeyedDecodingContainer unkeyedContainer() const;
    /// The value as one value.
    SingleValueDecodingContainer singleValueContainer() const;

    /// Decodes the whole value as a `T`.
    template <Decodable T>
    T decode() const {
        return detail::decodeValue<T>(*this);
    }

    DecodingBackend& backend() const noexcept { return *backend_; }
    DecodingNode node() const noexcept { return node_; }
    const PathFrame& frame() const noexcept { return frame_; }

private:
    DecodingBackend* backend_;
    DecodingNode node_;
    PathFrame frame_;
};

class KeyedDecodingContainer {
public:
    KeyedDecodingContainer(DecodingBackend& backend, DecodingNode node, PathFrame frame, std::string_view keyType)
        : backend_(&backend), node_(node), frame_(frame), keyType_(keyType) {}

    CodingPath codingPath() const { return backend_->codingPath(frame_); }
    /// The keys the value has, in document order.
    std::vector<CodingKey> allKeys() const { return backend_->allKeys(node_, keyType_); }
    bool contains(std::string_view key) const { return backend_->member(node_, key).has_value(); }

    /// Whether the value for `key` is null; a missing key is a key-not-found error.
    bool decodeNil(std::string_view key) const {
        return backend_->isNull(backend_->requireMember(node_, key, keyType_, frame_));
    }

    /// The value for `key`. For an optional `T`, a missing key or null gives absent.
    template <Decodable T>
    T decode(std::string_view key) const {
        if constexpr (detail::IsOptional<T>::value) {
            return decodeIfPresent<typename T::value_type>(key);
        } else {
            const DecodingNode value = backend_->requireMember(node_, key, keyType_, frame_);
            return detail::decodeValue<T>(Decoder(*backend_, value, childFrame(key)));
        }
    }
    template <Decodable T>
    T decode(const CodingKey& key) const {
        return decode<T>(std::string_view(key.stringValue));
    }

    /// The value for `key`, or absent when the key is missing or its value is null.
    template <Decodable T>
    std::optional<T> decodeIfPresent(std::string_view key) const {
        const std::optional<DecodingNode> value = backend_->member(node_, key);
        if (!value || backend_->isNull(*value)) return std::nullopt;
        return detail::decodeValue<T>(Decoder(*backend_, *value, childFrame(key)));
    }

    /// `out = decode<T>(key)`, with `T` taken from `out`.
    template <Decodable T>
    void decodeInto(std::string_view key, T& out) const {
        out = decode<T>(key);
    }

    KeyedDecodingContainer nestedContainer(std::string_view key, std::string_view keyType = "CodingKeys") const;
    UnkeyedDecodingContainer nestedUnkeyedContainer(std::string_view key) const;
    /// A decoder for the value under the key "super".
    Decoder superDecoder() const { return superDecoder("super"); }
    /// A decoder for the value under `key`.
    Decoder superDecoder(std::string_view key) const {
        return Decoder(*backend_, backend_->requireMember(node_, key, keyType_, frame_), childFrame(key));
    }

    const PathFrame& frame() const noexcept { return frame_; }

private:
    PathFrame childFrame(std::string_view key) const noexcept { return PathFrame{&frame_, key, std::nullopt, keyType_}; }

    DecodingBackend* backend_;
    DecodingNode node_;
    PathFrame frame_;
    std::string_view keyType_;
};

class UnkeyedDecodingContainer {
public:
    UnkeyedDecodingContainer(DecodingBackend& backend, DecodingNode node, PathFrame frame)
        : backend_(&backend), node_(node), frame_(frame), count_(backend.count(node)) {}

    CodingPath codingPath() const { return backend_->codingPath(frame_); }
    std::size_t count() const noexcept { return count_; }
    bool isAtEnd() const noexcept { return currentIndex_ >= count_; }
    std::size_t currentIndex() const noexcept { return currentIndex_; }

    /// The next value; the position advances after a successful read.
    template <Decodable T>
    T decode() {
        if constexpr (detail::IsOptional<T>::value) {
            return decodeIfPresent<typename T::value_type>();
        } else {
            const PathFrame at = elementFrame();
            if (isAtEnd()) backend_->unkeyedAtEnd(at, detail::typeName<T>());
            T value = detail::decodeValue<T>(Decoder(*backend_, backend_->element(node_, currentIndex_), at));
            ++currentIndex_;
            return value;
        }
    }

    /// The next value, or absent when it is null (the position advances either way).
    template <Decodable T>
    std::optional<T> decodeIfPresent() {
        if (decodeNil()) return std::nullopt;
        return decode<T>();
    }

    /// Whether the next value is null; a null is consumed, anything else stays for the next read.
    bool decodeNil() {
        if (isAtEnd()) backend_->unkeyedAtEnd(elementFrame(), "Optional");
        if (!backend_->isNull(backend_->element(node_, currentIndex_))) return false;
        ++currentIndex_;
        return true;
    }

    KeyedDecodingContainer nestedContainer(std::string_view keyType = "CodingKeys");
    UnkeyedDecodingContainer nestedUnkeyedContainer();
    Decoder superDecoder();

    const PathFrame& frame() const noexcept { return frame_; }

private:
    PathFrame elementFrame() const noexcept { return PathFrame{&frame_, {}, currentIndex_, {}}; }

    DecodingBackend* backend_;
    DecodingNode node_;
    PathFrame frame_;
    std::size_t count_;
    std::size_t currentIndex_ = 0;
};

class SingleValueDecodingContainer {
public:
    explicit SingleValueDecodingContainer(const Decoder& decoder) noexcept : decoder_(decoder) {}

    CodingPath codingPath() const { return decoder_.codingPath(); }
    bool decodeNil() const { return decoder_.backend().isNull(decoder_.node()); }
    template <Decodable T>
    T decode() const {
        return detail::decodeValue<T>(decoder_);
    }

private:
    Decoder decoder_;
};

// ---- inline definitions ----

inline KeyedDecodingContainer Decoder::container(std::string_view keyType) const {
    return KeyedDecodingContainer(*backend_, backend_->keyed(node_, frame_, false), frame_, keyType);
}
inline KeyedDecodingContainer Decoder::choiceContainer(std::string_view keyType) const {
    return KeyedDecodingContainer(*backend_, backend_->keyed(node_, frame_, true), frame_, keyType);
}
inline UnkeyedDecodingContainer Decoder::unkeyedContainer() const {
    return UnkeyedDecodingContainer(*backend_, backend_->unkeyed(node_, frame_), frame_);
}
inline SingleValueDecodingContainer Decoder::singleValueContainer() const { return SingleValueDecodingContainer(*this); }

inline KeyedDecodingContainer KeyedDecodingContainer::nestedContainer(std::string_view key,
                                                                      std::string_view keyType) const {
    return superDecoder(key).container(keyType);
}
inline UnkeyedDecodingContainer KeyedDecodingContainer::nestedUnkeyedContainer(std::string_view key) const {
    return superDecoder(key).unkeyedContainer();
}

namespace detail {

template <class T>
std::string typeName() {
    if constexpr (std::is_same_v<T, bool>) return "Bool";
    else if constexpr (CodingInteger<T>) return std::string(integerType<T>().name);
    else if constexpr (std::is_same_v<T, double>) return "Double";
    else if constexpr (std::is_same_v<T, float>) return "Float";
    else if constexpr (std::is_same_v<T, std::string>) return "String";
    else if constexpr (std::is_same_v<T, Date>) return "Date";
    else if constexpr (std::is_same_v<T, Data>) return "Data";
    else if constexpr (IsOptional<T>::value) return "Optional<" + typeName<typename T::value_type>() + ">";
    else if constexpr (IsVector<T>::value) return "Array<" + typeName<typename T::value_type>() + ">";
    else if constexpr (IsStringMap<T>::value) return "Dictionary<String, " + typeName<typename T::value_type::second_type>() + ">";
    else return plainTypeName(typeid(T));
}

template <class T>
T decodeValue(const Decoder& decoder) {
    DecodingBackend& backend = decoder.backend();
    const DecodingNode node = decoder.node();
    const PathFrame& at = decoder.frame();
    if constexpr (std::is_same_v<T, bool>) {
        return backend.decodeBool(node, at);
    } else if constexpr (CodingInteger<T>) {
        static constexpr IntegerType type = integerType<T>();
        if constexpr (std::is_signed_v<T>) {
            return static_cast<T>(backend.decodeSigned(node, at, type));
        } else {
            return static_cast<T>(backend.decodeUnsigned(node, at, type));
        }
    } else if constexpr (std::is_same_v<T, double>) {
        return backend.decodeDouble(node, at);
    } else if constexpr (std::is_same_v<T, float>) {
        return backend.decodeFloat(node, at);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return backend.decodeString(node, at);
    } else if constexpr (std::is_same_v<T, Date>) {
        return backend.decodeDate(decoder);
    } else if constexpr (std::is_same_v<T, Data>) {
        return backend.decodeData(decoder);
    } else if constexpr (IsOptional<T>::value) {
        if (backend.isNull(node)) return T{};
        return T{decodeValue<typename T::value_type>(decoder)};
    } else if constexpr (IsVector<T>::value) {
        if (backend.isNull(node)) backend.nullInsteadOf(typeName<T>(), at);
        UnkeyedDecodingContainer elements = decoder.unkeyedContainer();
        T values;
        values.reserve(elements.count());
        while (!elements.isAtEnd()) values.push_back(elements.template decode<typename T::value_type>());
        return values;
    } else if constexpr (IsStringMap<T>::value) {
        if (backend.isNull(node)) backend.nullInsteadOf(typeName<T>(), at);
        const KeyedDecodingContainer members = decoder.container();
        T values;
        for (const CodingKey& key : members.allKeys()) {
            values[key.stringValue] = members.template decode<typename T::value_type::second_type>(key);
        }
        return values;
    } else if constexpr (HasCodingSpecialization<T> || HasDecodeMember<T>) {
        if constexpr (!DecodesNull<T>) {
            if (backend.isNull(node)) backend.nullInsteadOf(typeName<T>(), at);
        }
        NodeDecodingFunction nodeDecoding = nullptr;
        if constexpr (HasNodeDecoding<T>) nodeDecoding = &T::nodeDecoding;
        backend.willDecodeRecord(nodeDecoding);
        struct Done {
            DecodingBackend& backend;
            ~Done() { backend.didDecodeRecord(); }
        } done{backend};
        if constexpr (HasCodingSpecialization<T>) {
            return Coding<T>::decode(decoder);
        } else {
            return T::decode(decoder);
        }
    } else {
        static_assert(sizeof(T) == 0, "not a decodable type");
    }
}

}  // namespace detail
}  // namespace zul
