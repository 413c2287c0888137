#pragma once

/// Encoding: the `Encoder` a record writes itself to, with its keyed, unkeyed and single-value
/// containers, and the `EncodingBackend` interface that each format implements.
///
///     void encode(const zul::Encoder& encoder) const {
///         auto fields = encoder.container();
///         fields.encode("title", title);
///         fields.encode("rating", rating);   // an absent optional writes nothing
///     }
///
/// Encoders and containers are views of an encode in progress, valid during the call that handed
/// them out; keys must outlive the containers made for them (string literals do).

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "zul/core/decoding.hpp"

namespace zul {

class Encoder;
class KeyedEncodingContainer;
class UnkeyedEncodingContainer;
class SingleValueEncodingContainer;

/// Whether a field is written as an attribute, an element or both (formats without the
/// distinction ignore it). A record chooses per key with
/// `static NodeEncoding nodeEncoding(const CodingKey&)`.
enum class NodeEncoding { attribute, element, both };
using NodeEncodingFunction = NodeEncoding (*)(const CodingKey& key);

/// A place being written, in the backend's own terms: up to 16 bytes of trivially copyable state.
using EncodingNode = DecodingNode;

/// What a format implements to be encoded through `Encoder`. Failures throw `EncodingError`.
class EncodingBackend {
public:
    virtual ~EncodingBackend() = default;

    virtual const UserInfo& userInfo() const = 0;
    virtual CodingKey indexKey(std::size_t index) const = 0;

    /// The slot as a keyed container (created, or the one already there), or as a choice.
    virtual EncodingNode keyed(EncodingNode slot, const PathFrame& at, bool choice) = 0;
    /// The slot as an unkeyed container (created, or the one already there).
    virtual EncodingNode unkeyed(EncodingNode slot, const PathFrame& at) = 0;
    /// A new slot for `key` in a keyed container.
    virtual EncodingNode memberSlot(EncodingNode keyed, std::string_view key, const PathFrame& at) = 0;
    /// Called once the value for `key` has been written into `slot` (XML places it as an attribute
    /// or an element then).
    virtual void didEncodeMember(EncodingNode /*keyed*/, std::string_view /*key*/, EncodingNode /*slot*/,
                                 const PathFrame& /*at*/) {}
    /// A new slot at the end of an unkeyed container.
    virtual EncodingNode appendSlot(EncodingNode unkeyed) = 0;
    virtual std::size_t count(EncodingNode unkeyed) = 0;

    virtual void encodeNil(EncodingNode slot, const PathFrame& at) = 0;
    virtual void encodeBool(EncodingNode slot, bool value, const PathFrame& at) = 0;
    virtual void encodeSigned(EncodingNode slot, std::int64_t value, const IntegerType& type, const PathFrame& at) = 0;
    virtual void encodeUnsigned(EncodingNode slot, std::uint64_t value, const IntegerType& type, const PathFrame& at) = 0;
    virtual void encodeDouble(EncodingNode slot, double value, const PathFrame& at) = 0;
    virtual void encodeFloat(EncodingNode slot, float value, const PathFrame& at) = 0;
    virtual void encodeString(EncodingNode slot, std::string_view value, const PathFrame& at) = 0;
    /// Dates and bytes follow the format's strategies, which may write them as records.
    virtual void encodeDate(const Encoder& encoder, Date value) = 0;
    virtual void encodeData(const Encoder& encoder, const Data& value) = 0;

    virtual void willEncodeRecord(NodeEncodingFunction /*nodeEncoding*/) {}
    virtual void didEncodeRecord() noexcept {}

    CodingPath codingPath(const PathFrame& frame) const;
};

namespace detail {

template <class T>
concept HasEncodeMember = requires(const T& value, const Encoder& encoder) { value.encode(encoder); };
template <class T>
concept HasEncodeSpecialization = requires(const T& value, const Encoder& encoder) { Coding<T>::encode(value, encoder); };
template <class T>
concept HasNodeEncoding = requires(const CodingKey& key) {
    { T::nodeEncoding(key) } -> std::same_as<NodeEncoding>;
};

template <class T>
void encodeValue(const Encoder& encoder, const T& value);

}  // namespace detail

/// Types an `Encoder` can write: the same families as `Decodable`, with records declaring
/// `void encode(const Encoder&) const` or a `Coding<T>::encode`.
template <class T>
concept Encodable =
    std::is_same_v<T, bool> || detail::CodingInteger<T> || std::is_floating_point_v<T> ||
    std::is_same_v<T, std::string> || std::is_same_v<T, Date> || std::is_same_v<T, Data> ||
    detail::IsOptional<T>::value || detail::IsVector<T>::value || detail::IsStringMap<T>::value ||
    detail::HasEncodeMember<T> || detail::HasEncodeSpecialization<T>;

class Encoder {
public:
    Encoder(EncodingBackend& backend, EncodingNode slot, PathFrame frame) noexcept
        : backend_(&backend), slot_(slot), frame_(frame) {}

    CodingPath codingPath() const { return backend_->codingPath(frame_); }
    const UserInfo& userInfo() const { return backend_->userInfo(); }

    KeyedEncodingContainer container(std::string_view keyType = "CodingKeys") const;
    KeyedEncodingContainer choiceContainer(std::string_view keyType = "CodingKeys") const;
    UnkeyedEncodingContainer unkeyedContainer() const;
    SingleValueEncodingContainer singleValueContainer() const;

    /// Writes `value` as the whole value of this encoder.
    template <Encodable T>
    void encode(const T& value) const {
        detail::encodeValue(*this, value);
    }

    EncodingBackend& backend() const noexcept { return *backend_; }
    EncodingNode slot() const noexcept { return slot_; }
    const PathFrame& frame() const noexcept { return frame_; }

private:
    EncodingBackend* backend_;
    EncodingNode slot_;
    PathFrame frame_;
};

class KeyedEncodingContainer {
public:
    KeyedEncodingContainer(EncodingBackend& backend, EncodingNode node, PathFrame frame, std::string_view keyType)
        : backend_(&backend), node_(node), frame_(frame), keyType_(keyType) {}

    CodingPath codingPath() const { return backend_->codingPath(frame_); }

    /// Writes `value` under `key`. An absent optional writes nothing (use `encodeNil` for null).
    template <Encodable T>
    void encode(std::string_view key, const T& value) const {
        if constexpr (detail::IsOptional<T>::value) {
            if (value) encode(key, *value);
        } else {
            const PathFrame at = childFrame(key);
            const EncodingNode slot = backend_->memberSlot(node_, key, at);
            detail::encodeValue(Encoder(*backend_, slot, at), value);
            backend_->didEncodeMember(node_, key, slot, at);
        }
    }
    template <Encodable T>
    void encodeIfPresent(std::string_view key, const std::optional<T>& value) const {
        if (value) encode(key, *value);
    }
    void encodeNil(std::string_view key) const {
        const PathFrame at = childFrame(key);
        const EncodingNode slot = backend_->memberSlot(node_, key, at);
        backend_->encodeNil(slot, at);
        backend_->didEncodeMember(node_, key, slot, at);
    }

    KeyedEncodingContainer nestedContainer(std::string_view key, std::string_view keyType = "CodingKeys") const;
    UnkeyedEncodingContainer nestedUnkeyedContainer(std::string_view key) const;
    /// An encoder for the value under the key "super".
    Encoder superEncoder() const { return superEncoder("super"); }
    Encoder superEncoder(std::string_view key) const {
        const PathFrame at = childFrame(key);
        return Encoder(*backend_, backend_->memberSlot(node_, key, at), at);
    }

    const PathFrame& frame() const noexcept { return frame_; }

private:
    PathFrame childFrame(std::string_view key) const noexcept { return PathFrame{&frame_, key, std::nullopt, keyType_}; }

    EncodingBackend* backend_;
    EncodingNode node_;
    PathFrame frame_;
    std::string_view keyType_;
};

class UnkeyedEncodingContainer {
public:
    UnkeyedEncodingContainer(EncodingBackend& backend, EncodingNode node, PathFrame frame)
        : backend_(&backend), node_(node), frame_(frame) {}

    CodingPath codingPath() const { return backend_->codingPath(frame_); }
    std::size_t count() const { return backend_->count(node_); }

    template <Encodable T>
    void encode(const T& value) const {
        const PathFrame at = elementFrame();
        detail::encodeValue(Encoder(*backend_, backend_->appendSlot(node_), at), value);
    }
    void encodeNil() const {
        const PathFrame at = elementFrame();
        backend_->encodeNil(backend_->appendSlot(node_), at);
    }
    KeyedEncodingContainer nestedContainer(std::string_view keyType = "CodingKeys") const;
    UnkeyedEncodingContainer nestedUnkeyedContainer() const;
    Encoder superEncoder() const {
        const PathFrame at = elementFrame();
        return Encoder(*backend_, backend_->appendSlot(node_), at);
    }

private:
    PathFrame elementFrame() const { return PathFrame{&frame_, {}, backend_->count(node_), {}}; }

    EncodingBackend* backend_;
    EncodingNode node_;
    PathFrame frame_;
};

class SingleValueEncodingContainer {
public:
    explicit SingleValueEncodingContainer(const Encoder& encoder) noexcept : encoder_(encoder) {}

    CodingPath codingPath() const { return encoder_.codingPath(); }
    void encodeNil() const { encoder_.backend().encodeNil(encoder_.slot(), encoder_.frame()); }
    template <Encodable T>
    void encode(const T& value) const {
        detail::encodeValue(encoder_, value);
    }

private:
    Encoder encoder_;
};

inline KeyedEncodingContainer Encoder::container(std::string_view keyType) const {
    return KeyedEncodingContainer(*backend_, backend_->keyed(slot_, frame_, false), frame_, keyType);
}
inline KeyedEncodingContainer Encoder::choiceContainer(std::string_view keyType) const {
    return KeyedEncodingContainer(*backend_, backend_->keyed(slot_, frame_, true), frame_, keyType);
}
inline UnkeyedEncodingContainer Encoder::unkeyedContainer() const {
    return UnkeyedEncodingContainer(*backend_, backend_->unkeyed(slot_, frame_), frame_);
}
inline SingleValueEncodingContainer Encoder::singleValueContainer() const { return SingleValueEncodingContainer(*this); }

inline KeyedEncodingContainer KeyedEncodingContainer::nestedContainer(std::string_view key,
                                                                      std::string_view keyType) const {
    return superEncoder(key).container(keyType);
}
inline UnkeyedEncodingContainer KeyedEncodingContainer::nestedUnkeyedContainer(std::string_view key) const {
    return superEncoder(key).unkeyedContainer();
}
inline KeyedEncodingContainer UnkeyedEncodingContainer::nestedContainer(std::string_view keyType) const {
    return superEncoder().container(keyType);
}
inline UnkeyedEncodingContainer UnkeyedEncodingContainer::nestedUnkeyedContainer() const {
    return superEncoder().unkeyedContainer();
}

namespace detail {

template <class T>
void encodeValue(const Encoder& encoder, const T& value) {
    EncodingBackend& backend = encoder.backend();
    const EncodingNode slot = encoder.slot();
    const PathFrame& at = encoder.frame();
    if constexpr (std::is_same_v<T, bool>) {
        backend.encodeBool(slot, value, at);
    } else if constexpr (CodingInteger<T>) {
        static constexpr IntegerType type = integerType<T>();
        if constexpr (std::is_signed_v<T>) {
            backend.encodeSigned(slot, static_cast<std::int64_t>(value), type, at);
        } else {
            backend.encodeUnsigned(slot, static_cast<std::uint64_t>(value), type, at);
        }
    } else if constexpr (std::is_same_v<T, double>) {
        backend.encodeDouble(slot, value, at);
    } else if constexpr (std::is_same_v<T, float>) {
        backend.encodeFloat(slot, value, at);
    } else if constexpr (std::is_same_v<T, std::string>) {
        backend.encodeString(slot, value, at);
    } else if constexpr (std::is_same_v<T, Date>) {
        backend.encodeDate(encoder, value);
    } else if constexpr (std::is_same_v<T, Data>) {
        backend.encodeData(encoder, value);
    } else if constexpr (IsOptional<T>::value) {
        if (value) {
            encodeValue(encoder, *value);
        } else {
            backend.encodeNil(slot, at);
        }
    } else if constexpr (IsVector<T>::value) {
        const UnkeyedEncodingContainer elements = encoder.unkeyedContainer();
        for (const auto& element : value) elements.encode(element);
    } else if constexpr (IsStringMap<T>::value) {
        const KeyedEncodingContainer members = encoder.container();
        for (const auto& [key, element] : value) members.encode(key, element);
    } else if constexpr (HasEncodeSpecialization<T> || HasEncodeMember<T>) {
        NodeEncodingFunction nodeEncoding = nullptr;
        if constexpr (HasNodeEncoding<T>) nodeEncoding = &T::nodeEncoding;
        backend.willEncodeRecord(nodeEncoding);
        struct Done {
            EncodingBackend& backend;
            ~Done() { backend.didEncodeRecord(); }
        } done{backend};
        if constexpr (HasEncodeSpecialization<T>) {
            Coding<T>::encode(value, encoder);
        } else {
            value.encode(encoder);
        }
    } else {
        static_assert(sizeof(T) == 0, "not an encodable type");
    }
}

}  // namespace detail
}  // namespace zul
