#include "zul/core/json_encoder.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <date/date.h>

#include "platform/base64.hpp"
#include "platform/json_text.hpp"

namespace zul {

namespace {

// 2001-01-01T00:00:00Z, the reference date of `deferredToDate`, in seconds after 1970.
constexpr std::int64_t referenceDateOffset = 978307200;

// ---- the tree being built ----

// Values are written into a tree first and serialised at the end, because containers are handed
// out before their contents are known and a slot may be revisited (a second `container()` on the
// same encoder returns the first one). Nodes live in a deque and are addressed by position, so
// the slots handed to containers stay valid however much the tree grows.
using NodeIndex = std::uint32_t;

struct Member {
    std::string key;
    NodeIndex slot;
};

struct TransparentHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
};

struct Node {
    enum class Kind : std::uint8_t { empty, null, boolean, integer, unsignedInteger, real, single, text, array, object };

    Kind kind = Kind::empty;
    bool boolean = false;
    std::int64_t integer = 0;
    std::uint64_t unsignedInteger = 0;
    double real = 0;
    float single = 0;
    std::string text;
    std::vector<NodeIndex> elements;
    std::vector<Member> members;
    // Built once an object grows large, so that looking a key up stays cheap for big maps.
    std::unique_ptr<std::unordered_map<std::string, NodeIndex, TransparentHash, std::equal_to<>>> index;

    // Makes the node a fresh value of `newKind`, dropping whatever it held.
    void become(Kind newKind) {
        kind = newKind;
        text.clear();
        elements.clear();
        members.clear();
        index.reset();
    }
};

// ---- writing ----

// Writes the tree the way `JSONSerialization` writes values, so that both produce the same text:
// "/" escaped as "\/", non-ASCII as raw UTF-8, whole doubles without ".0", and pretty output
// indented by two spaces with " : " after keys.
class Writer {
public:
    Writer(const std::deque<Node>& nodes, JSONEncoder::OutputFormatting formatting, Data& out)
        : nodes_(nodes), pretty_(formatting.prettyPrinted), sorted_(formatting.sortedKeys), out_(out) {}

    void value(const Node& node, std::size_t depth) {
        switch (node.kind) {
            case Node::Kind::null: raw("null"); return;
            case Node::Kind::boolean: raw(node.boolean ? "true" : "false"); return;
            case Node::Kind::integer: integer(node.integer); return;
            case Node::Kind::unsignedInteger: integer(node.unsignedInteger); return;
            case Node::Kind::real: number(node.real); return;
            case Node::Kind::single: number(node.single); return;
            case Node::Kind::text: text(node.text); return;
            case Node::Kind::array: array(node, depth); return;
            // A slot nothing was written to (an unused super encoder, a custom strategy that wrote
            // nothing) is an empty object.
            case Node::Kind::empty:
            case Node::Kind::object: object(node, depth); return;
        }
    }

private:
    void raw(std::string_view text) { out_.insert(out_.end(), text.begin(), text.end()); }
    void byte(char c) { out_.push_back(static_cast<std::uint8_t>(c)); }

    template <class I>
    void integer(I value) {
        char buffer[24];
        const char* const end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
        raw(std::string_view(buffer, static_cast<std::size_t>(end - buffer)));
    }

    template <class F>
    void number(F value) {
        char buffer[detail::jsonNumberCapacity];
        raw(std::string_view(buffer, static_cast<std::size_t>(detail::writeJSONNumber(buffer, value) - buffer)));
    }

    void text(std::string_view value) { detail::appendJSONText(out_, value); }

    void indent(std::size_t depth) { out_.insert(out_.end(), 2 * depth, static_cast<std::uint8_t>(' ')); }

    // An empty container keeps both line breaks when pretty ("{\n\n}"), as `JSONSerialization`
    // writes it.
    void open(char bracket) {
        byte(bracket);
        if (pretty_) byte('\n');
    }
    void close(char bracket, std::size_t depth) {
        if (pretty_) {
            byte('\n');
            indent(depth);
        }
        byte(bracket);
    }
    void item(bool first, std::size_t depth) {
        if (!first) byte(',');
        if (pretty_) {
            if (!first) byte('\n');
            indent(depth);
        }
    }

    void array(const Node& node, std::size_t depth) {
        open('[');
        bool first = true;
        for (const NodeIndex element : node.elements) {
            item(first, depth + 1);
            first = false;
            value(nodes_[element], depth + 1);
        }
        close(']', depth);
    }

    void object(const Node& node, std::size_t depth) {
        open('{');
        bool first = true;
        const auto member = [&](const Member& entry) {
            item(first, depth + 1);
            first = false;
            text(entry.key);
            if (pretty_) raw(" : ");
            else byte(':');
            value(nodes_[entry.slot], depth + 1);
        };
        if (sorted_ && node.members.size() > 1) {
            std::vector<const Member*> order;
            order.reserve(node.members.size());
            for (const Member& entry : node.members) order.push_back(&entry);
            std::sort(order.begin(), order.end(), [](const Member* a, const Member* b) { return a->key < b->key; });
            for (const Member* entry : order) member(*entry);
        } else {
            for (const Member& entry : node.members) member(entry);
        }
        close('}', depth);
    }

    const std::deque<Node>& nodes_;
    bool pretty_;
    bool sorted_;
    Data& out_;
};

// ---- strategies ----

// Seconds between `epochSeconds` and `date`, with whole seconds and the fraction converted
// separately so that the fraction keeps its digits.
double secondsSince(Date date, std::int64_t epochSeconds) {
    const auto sinceEpoch = date.time_since_epoch() - std::chrono::seconds(epochSeconds);
    const auto whole = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    return static_cast<double>(whole.count()) + std::chrono::duration<double>(sinceEpoch - whole).count();
}

double millisecondsSince1970(Date date) {
    const auto whole = std::chrono::floor<std::chrono::milliseconds>(date.time_since_epoch());
    return static_cast<double>(whole.count()) +
           std::chrono::duration<double, std::milli>(date.time_since_epoch() - whole).count();
}


// ---- the backend ----

class JSONEncodingBackend final : public EncodingBackend {
public:
    explicit JSONEncodingBackend(const JSONEncoder& encoder) : encoder_(encoder) { nodes_.emplace_back(); }

    const std::deque<Node>& nodes() const noexcept { return nodes_; }
    static EncodingNode root() noexcept { return EncodingNode::of(NodeIndex{0}); }

    const UserInfo& userInfo() const override { return encoder_.userInfo; }

    CodingKey indexKey(std::size_t index) const override {
        return CodingKey("Index " + std::to_string(index), static_cast<int>(index), "_JSONKey");
    }

    // JSON has no choice construct: a choice is written as an object like any keyed value.
    EncodingNode keyed(EncodingNode slot, const PathFrame& /*at*/, bool /*choice*/) override {
        Node& node = at(slot);
        if (node.kind != Node::Kind::object) node.become(Node::Kind::object);
        return slot;
    }

    EncodingNode unkeyed(EncodingNode slot, const PathFrame& /*at*/) override {
        Node& node = at(slot);
        if (node.kind != Node::Kind::array) node.become(Node::Kind::array);
        return slot;
    }

    // A key written again gets the slot it already has, so its value is replaced in place and a
    // nested container asked for twice is the same container.
    EncodingNode memberSlot(EncodingNode keyed, std::string_view key, const PathFrame& /*at*/) override {
        const NodeIndex objectIndex = keyed.as<NodeIndex>();
        if (const auto existing = findMember(nodes_[objectIndex], key)) return EncodingNode::of(*existing);
        const NodeIndex slot = newNode();
        Node& object = nodes_[objectIndex];  // re-read: the deque may have grown
        object.members.push_back(Member{std::string(key), slot});
        if (object.index) {
            object.index->emplace(std::string(key), slot);
        } else if (object.members.size() > largeObjectSize) {
            object.index = std::make_unique<std::unordered_map<std::string, NodeIndex, TransparentHash, std::equal_to<>>>();
            for (const Member& member : object.members) object.index->emplace(member.key, member.slot);
        }
        return EncodingNode::of(slot);
    }

    EncodingNode appendSlot(EncodingNode unkeyed) override {
        const NodeIndex arrayIndex = unkeyed.as<NodeIndex>();
        const NodeIndex slot = newNode();
        nodes_[arrayIndex].elements.push_back(slot);
        return EncodingNode::of(slot);
    }

    std::size_t count(EncodingNode unkeyed) override { return at(unkeyed).elements.size(); }

    void encodeNil(EncodingNode slot, const PathFrame& /*at*/) override { at(slot).become(Node::Kind::null); }

    void encodeBool(EncodingNode slot, bool value, const PathFrame& /*at*/) override {
        Node& node = at(slot);
        node.become(Node::Kind::boolean);
        node.boolean = value;
    }

    void encodeSigned(EncodingNode slot, std::int64_t value, const IntegerType& /*type*/, const PathFrame& /*at*/) override {
        Node& node = at(slot);
        node.become(Node::Kind::integer);
        node.integer = value;
    }

    void encodeUnsigned(EncodingNode slot, std::uint64_t value, const IntegerType& /*type*/,
                        const PathFrame& /*at*/) override {
        Node& node = at(slot);
        node.become(Node::Kind::unsignedInteger);
        node.unsignedInteger = value;
    }

    void encodeDouble(EncodingNode slot, double value, const PathFrame& frame) override {
        if (!std::isfinite(value)) nonFinite(value, "Double", frame);
        Node& node = at(slot);
        node.become(Node::Kind::real);
        node.real = value;
    }

    void encodeFloat(EncodingNode slot, float value, const PathFrame& frame) override {
        if (!std::isfinite(value)) nonFinite(value, "Float", frame);
        Node& node = at(slot);
        node.become(Node::Kind::single);
        node.single = value;
    }

    void encodeString(EncodingNode slot, std::string_view value, const PathFrame& /*at*/) override {
        Node& node = at(slot);
        node.become(Node::Kind::text);
        node.text.assign(value);
    }

    void encodeDate(const Encoder& encoder, Date value) override {
        using Kind = JSONEncoder::DateEncodingStrategy::Kind;
        const auto& strategy = encoder_.dateEncodingStrategy;
        switch (strategy.kind()) {
            case Kind::deferredToDate:
                encodeDouble(encoder.slot(), secondsSince(value, referenceDateOffset), encoder.frame());
                return;
            case Kind::secondsSince1970: encodeDouble(encoder.slot(), secondsSince(value, 0), encoder.frame()); return;
            case Kind::millisecondsSince1970:
                encodeDouble(encoder.slot(), millisecondsSince1970(value), encoder.frame());
                return;
            case Kind::iso8601:
                encodeString(encoder.slot(), date::format("%FT%TZ", std::chrono::floor<std::chrono::seconds>(value)),
                             encoder.frame());
                return;
            case Kind::custom: strategy.customWriter()(value, encoder); return;
        }
    }

    void encodeData(const Encoder& encoder, const Data& value) override {
        using Kind = JSONEncoder::DataEncodingStrategy::Kind;
        const auto& strategy = encoder_.dataEncodingStrategy;
        switch (strategy.kind()) {
            case Kind::deferredToData: {
                const UnkeyedEncodingContainer bytes = encoder.unkeyedContainer();
                for (const std::uint8_t byte : value) bytes.encode(byte);
                return;
            }
            case Kind::base64: encodeString(encoder.slot(), detail::encodeBase64(value), encoder.frame()); return;
            case Kind::custom: strategy.customWriter()(value, encoder); return;
        }
    }

private:
    static constexpr std::size_t largeObjectSize = 16;

    Node& at(EncodingNode slot) { return nodes_[slot.as<NodeIndex>()]; }

    NodeIndex newNode() {
        nodes_.emplace_back();
        return static_cast<NodeIndex>(nodes_.size() - 1);
    }

    static std::optional<NodeIndex> findMember(const Node& object, std::string_view key) {
        if (object.index) {
            const auto found = object.index->find(key);
            if (found == object.index->end()) return std::nullopt;
            return found->second;
        }
        for (const Member& member : object.members) {
            if (member.key == key) return member.slot;
        }
        return std::nullopt;
    }

    template <class F>
    [[noreturn]] void nonFinite(F value, std::string_view type, const PathFrame& frame) const {
        std::string printed;
        detail::appendGeneral(printed, value);
        std::string description = "Unable to encode ";
        if (std::isnan(value)) {
            description.append(type).append(".nan");
        } else {
            if (value < 0) description += "-";
            description.append(type).append(".infinity");
        }
        description += " directly in JSON.";
        throw EncodingError::invalidValue(std::move(printed), {codingPath(frame), std::move(description), {}});
    }

    const JSONEncoder& encoder_;
    std::deque<Node> nodes_;
};

}  // namespace

Data JSONEncoder::encodeDocument(detail::FunctionRef<void(const Encoder&)> body) const {
    JSONEncodingBackend backend(*this);
    body(Encoder(backend, JSONEncodingBackend::root(), PathFrame{}));
    Data out;
    Writer(backend.nodes(), outputFormatting, out).value(backend.nodes().front(), 0);
    return out;
}

}  // namespace zul
