#include "zul/core/json_decoder.hpp"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <date/date.h>

#include "platform/base64.hpp"
#include "platform/number_format.hpp"

namespace zul {

namespace {

using Element = simdjson::dom::element;
using JSONArray = simdjson::dom::array;
using JSONObject = simdjson::dom::object;
using simdjson::dom::element_type;

static_assert(sizeof(Element) <= sizeof(DecodingNode) && std::is_trivially_copyable_v<Element>);
static_assert(sizeof(JSONObject) <= sizeof(DecodingNode) && std::is_trivially_copyable_v<JSONObject>);
static_assert(sizeof(JSONArray) <= sizeof(DecodingNode) && std::is_trivially_copyable_v<JSONArray>);

// 2001-01-01T00:00:00Z, the reference date of `deferredToDate`, in seconds after 1970.
constexpr std::int64_t referenceDateOffset = 978307200;

// ---- parsers ----

// A parser keeps its buffers between documents, which is most of what makes simdjson fast on a
// stream of small responses. Each thread keeps a stack of them rather than one: a decode can run
// inside another on the same thread (a custom date strategy decoding an embedded document), and
// the outer document must stay alive while the inner one is parsed.
struct ParserSlot {
    simdjson::dom::parser parser;
    std::vector<std::uint8_t> padded;  // the text plus the zeroed tail simdjson reads past the end
};

struct ParserStack {
    std::vector<std::unique_ptr<ParserSlot>> slots;
    std::size_t inUse = 0;
};

thread_local ParserStack parsers;

class ParserLease {
public:
    ParserLease() {
        if (parsers.inUse == parsers.slots.size()) parsers.slots.push_back(std::make_unique<ParserSlot>());
        slot_ = parsers.slots[parsers.inUse++].get();
    }
    ~ParserLease() { --parsers.inUse; }
    ParserLease(const ParserLease&) = delete;
    ParserLease& operator=(const ParserLease&) = delete;

    simdjson::simdjson_result<Element> parse(std::string_view json) {
        // Copy into storage of our own with simdjson's padding, grown only when a longer document
        // comes along, instead of letting simdjson allocate a padded copy on every call.
        const std::size_t needed = json.size() + simdjson::SIMDJSON_PADDING;
        if (slot_->padded.size() < needed) slot_->padded.resize(needed);
        if (!json.empty()) std::memcpy(slot_->padded.data(), json.data(), json.size());
        std::memset(slot_->padded.data() + json.size(), 0, simdjson::SIMDJSON_PADDING);
        return slot_->parser.parse(slot_->padded.data(), json.size(), false);
    }

private:
    ParserSlot* slot_;
};

// simdjson refuses integers beyond 64 bits outright, which would make a whole document invalid
// because of one large number. JSON allows them, and a `Double` field takes them, so when the
// parse fails on a number, the integer literals that overflow get a ".0" and the text is parsed
// again: they become doubles. Rounded to a double, such a number can land back inside the int64
// range (-9223372036854775809 becomes -2^63), so which numbers were widened is remembered, by
// their position among the document's numbers, for integer fields to reject them.
struct WidenedText {
    std::string text;
    std::vector<std::pair<std::size_t, std::string>> widened;  // number ordinal, literal as written
};

WidenedText widenOverflowingIntegers(std::string_view json) {
    WidenedText out;
    out.text.reserve(json.size() + 16);
    std::size_t ordinal = 0;
    std::size_t i = 0;
    while (i < json.size()) {
        const char c = json[i];
        if (c == '"') {
            // Copy the string through its closing quote, skipping escaped characters.
            const std::size_t start = i++;
            while (i < json.size() && json[i] != '"') i += json[i] == '\\' ? std::size_t{2} : std::size_t{1};
            i = std::min(i + 1, json.size());
            out.text.append(json.substr(start, i - start));
            continue;
        }
        if (c != '-' && (c < '0' || c > '9')) {
            out.text.push_back(c);
            ++i;
            continue;
        }
        std::size_t end = i + 1;
        bool integral = true;
        while (end < json.size()) {
            const char d = json[end];
            if (d == '.' || d == 'e' || d == 'E' || d == '+' || (d == '-' && end > i + 1)) integral = false;
            else if (d < '0' || d > '9') break;
            ++end;
        }
        const std::string_view number = json.substr(i, end - i);
        out.text.append(number);
        if (integral) {
            std::from_chars_result result{};
            if (number.front() == '-') {
                std::int64_t value = 0;
                result = std::from_chars(number.data(), number.data() + number.size(), value);
            } else {
                std::uint64_t value = 0;
                result = std::from_chars(number.data(), number.data() + number.size(), value);
            }
            if (result.ec == std::errc::result_out_of_range) {
                out.text += ".0";
                out.widened.emplace_back(ordinal, std::string(number));
            }
        }
        ++ordinal;
        i = end;
    }
    return out;
}

struct NodeIdentity {
    std::uint64_t first;
    std::uint64_t second;
    friend bool operator==(NodeIdentity a, NodeIdentity b) noexcept { return a.first == b.first && a.second == b.second; }
};
struct NodeIdentityHash {
    std::size_t operator()(NodeIdentity node) const noexcept {
        return std::hash<std::uint64_t>()(node.first * 0x9E3779B97F4A7C15ULL ^ node.second);
    }
};
NodeIdentity identity(DecodingNode node) noexcept { return node.as<NodeIdentity>(); }

// The widened numbers of a parsed document, found by walking its numbers in document order.
using WidenedNumbers = std::unordered_map<NodeIdentity, std::string, NodeIdentityHash>;

void collectWidened(Element value, const WidenedText& widened, std::size_t& ordinal, std::size_t& next,
                    WidenedNumbers& found) {
    switch (value.type()) {
        case element_type::ARRAY: {
            const JSONArray elements = value.get_array().value_unsafe();
            for (const Element child : elements) collectWidened(child, widened, ordinal, next, found);
            return;
        }
        case element_type::OBJECT: {
            const JSONObject members = value.get_object().value_unsafe();
            for (const auto field : members) collectWidened(field.value, widened, ordinal, next, found);
            return;
        }
        case element_type::INT64:
        case element_type::UINT64:
        case element_type::DOUBLE:
            if (next < widened.widened.size() && widened.widened[next].first == ordinal) {
                found.emplace(identity(DecodingNode::of(value)), widened.widened[next++].second);
            }
            ++ordinal;
            return;
        default: return;
    }
}

// ---- texts ----

const char* describeFound(Element value) noexcept {
    switch (value.type()) {
        case element_type::ARRAY: return "an array";
        case element_type::OBJECT: return "a dictionary";
        case element_type::INT64:
        case element_type::UINT64:
        case element_type::DOUBLE: return "a number";
        case element_type::STRING: return "a string";
        case element_type::BOOL: return "a bool";
        case element_type::NULL_VALUE: return "null";
    }
    return "a value";
}

// A number as the error texts print it. The DOM keeps no source text, so doubles print in their
// shortest form; a double only arises from text with a fraction or exponent, and the general form
// keeps a ".0" that such text had.
std::string describeNumber(Element value) {
    switch (value.type()) {
        case element_type::INT64: return std::to_string(value.get_int64().value_unsafe());
        case element_type::UINT64: return std::to_string(value.get_uint64().value_unsafe());
        default: {
            std::string text;
            detail::appendGeneral(text, value.get_double().value_unsafe());
            return text;
        }
    }
}

// Whether a double is a whole number an integer type holds. A bound beyond 2^53 is a 2^k - 1 that
// rounds up to 2^k as a double, so it must be excluded.
bool holdsIntegral(double value, const IntegerType& type) noexcept {
    if (!std::isfinite(value) || std::trunc(value) != value) return false;
    if (value < static_cast<double>(type.min)) return false;
    const double max = static_cast<double>(type.max);
    return type.max > (std::uint64_t{1} << 53) ? value < max : value <= max;
}

std::optional<int> parseDigits(std::string_view text, std::size_t& at, std::size_t count) noexcept {
    if (text.size() - at < count) return std::nullopt;
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const char c = text[at + i];
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    at += count;
    return value;
}

bool parseLiteral(std::string_view text, std::size_t& at, char c) noexcept {
    if (at >= text.size() || text[at] != c) return false;
    ++at;
    return true;
}

// "YYYY-MM-DDTHH:MM:SS" with a zone: "Z", "z", or an offset "+HH:MM", "+HHMM" or "+HH". Fields
// must be zero-padded and whole seconds; whatever follows a complete date is not looked at.
std::optional<Date> parseISO8601(std::string_view text) {
    std::size_t at = 0;
    const auto year = parseDigits(text, at, 4);
    if (!year || !parseLiteral(text, at, '-')) return std::nullopt;
    const auto month = parseDigits(text, at, 2);
    if (!month || !parseLiteral(text, at, '-')) return std::nullopt;
    const auto day = parseDigits(text, at, 2);
    if (!day || !parseLiteral(text, at, 'T')) return std::nullopt;
    const auto hour = parseDigits(text, at, 2);
    if (!hour || !parseLiteral(text, at, ':')) return std::nullopt;
    const auto minute = parseDigits(text, at, 2);
    if (!minute || !parseLiteral(text, at, ':')) return std::nullopt;
    const auto second = parseDigits(text, at, 2);
    if (!second || at >= text.size()) return std::nullopt;

    int offsetMinutes = 0;
    const char zone = text[at++];
    if (zone == '+' || zone == '-') {
        const auto offsetHours = parseDigits(text, at, 2);
        if (!offsetHours || *offsetHours > 23) return std::nullopt;
        std::size_t colon = at;
        std::optional<int> minutes;
        if (parseLiteral(text, colon, ':')) {
            minutes = parseDigits(text, colon, 2);
        } else {
            minutes = parseDigits(text, at, 2);
        }
        if (minutes && *minutes > 59) return std::nullopt;
        offsetMinutes = (zone == '-' ? -1 : 1) * (*offsetHours * 60 + minutes.value_or(0));
    } else if (zone != 'Z' && zone != 'z') {
        return std::nullopt;
    }

    const date::year_month_day ymd{date::year{*year}, date::month{static_cast<unsigned>(*month)},
                                   date::day{static_cast<unsigned>(*day)}};
    if (!ymd.ok() || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
    return Date(date::sys_days(ymd)) + std::chrono::hours(*hour) + std::chrono::minutes(*minute - offsetMinutes) +
           std::chrono::seconds(*second);
}

// The time `count` units (fractions kept to the clock's resolution) after `epochSeconds`, or none
// when it lies beyond the clock's range (64 bits of nanoseconds: about 292 years either side of
// 1970). Whole units and the fraction are converted apart so that the fraction keeps its digits.
template <class Unit>
std::optional<Date> dateAfter(double count, std::int64_t epochSeconds) {
    const double whole = std::floor(count);
    const auto epoch = std::chrono::duration_cast<Unit>(std::chrono::seconds(epochSeconds));
    const auto limit = static_cast<double>(std::chrono::duration_cast<Unit>(Date::duration::max()).count());
    if (!(std::abs(whole + static_cast<double>(epoch.count())) < limit - 1)) return std::nullopt;
    const auto fraction =
        std::chrono::round<Date::duration>(std::chrono::duration<double, typename Unit::period>(count - whole));
    return Date(std::chrono::duration_cast<Date::duration>(epoch + Unit(static_cast<typename Unit::rep>(whole))) +
                fraction);
}


// ---- the backend ----

class JSONDecodingBackend final : public DecodingBackend {
public:
    JSONDecodingBackend(const JSONDecoder& decoder, const WidenedNumbers* widened) noexcept
        : decoder_(decoder), widened_(widened) {}

    const UserInfo& userInfo() const override { return decoder_.userInfo; }

    CodingKey indexKey(std::size_t index) const override {
        return CodingKey("Index " + std::to_string(index), static_cast<int>(index), "_JSONKey");
    }

    // JSON has no choice construct: a choice is an object read by key like any other.
    DecodingNode keyed(DecodingNode node, const PathFrame& at, bool /*choice*/) override {
        const Element value = node.as<Element>();
        if (value.type() == element_type::OBJECT) return DecodingNode::of(value.get_object().value_unsafe());
        if (value.type() == element_type::NULL_VALUE) {
            throw DecodingError::valueNotFound(
                "KeyedDecodingContainer",
                {codingPath(at), "Cannot get keyed decoding container -- found null value instead.", {}});
        }
        typeMismatch("Dictionary<String, Any>", value, at);
    }

    DecodingNode unkeyed(DecodingNode node, const PathFrame& at) override {
        const Element value = node.as<Element>();
        if (value.type() == element_type::ARRAY) return DecodingNode::of(value.get_array().value_unsafe());
        if (value.type() == element_type::NULL_VALUE) {
            throw DecodingError::valueNotFound(
                "UnkeyedDecodingContainer",
                {codingPath(at), "Cannot get unkeyed decoding container -- found null value instead.", {}});
        }
        typeMismatch("Array<Any>", value, at);
    }

    std::vector<CodingKey> allKeys(DecodingNode keyed, std::string_view keyType) override {
        const JSONObject members = keyed.as<JSONObject>();
        std::vector<CodingKey> keys;
        keys.reserve(members.size());
        // A repeated key is one key, reported where it first appears.
        std::unordered_set<std::string_view> seen;
        const bool hashed = members.size() > largeObjectSize;
        for (auto field = members.begin(); field != members.end(); ++field) {
            const std::string_view key = field.key();
            const bool repeated = hashed ? !seen.insert(key).second
                                         : std::any_of(keys.begin(), keys.end(),
                                                       [&](const CodingKey& k) { return k.stringValue == key; });
            if (!repeated) keys.emplace_back(std::string(key), std::nullopt, keyType);
        }
        return keys;
    }

    std::optional<DecodingNode> member(DecodingNode keyed, std::string_view key) override {
        const JSONObject members = keyed.as<JSONObject>();
        if (members.size() > largeObjectSize) return indexedMember(keyed, members, key);
        const std::uint64_t bit = keyBit(key);
        const JSONObject::iterator end = members.end();
        // Records mostly read their fields in the order the document has them, so the field
        // after the one found last is tried first. It is the first field with its key, as
        // repeated keys require, unless an earlier field has the same key: the hash bits of the
        // keys before it rule that out without comparing them.
        ObjectCursor* cursor = objects_.find(identity(keyed));
        if (cursor != nullptr && cursor->next != end && (cursor->passedKeys & bit) == 0 && cursor->next.key_equals(key)) {
            const Element value = cursor->next.value();
            cursor->passedKeys |= bit;
            ++cursor->next;
            return DecodingNode::of(value);
        }
        std::uint64_t passed = 0;
        for (JSONObject::iterator field = members.begin(); field != end; ++field) {
            if (field.key_equals(key)) {
                const Element value = field.value();
                if (cursor == nullptr) cursor = objects_.make(identity(keyed));
                cursor->next = ++field;
                cursor->passedKeys = passed | bit;
                return DecodingNode::of(value);
            }
            passed |= keyBit(field.key());
        }
        return std::nullopt;
    }

    DecodingNode requireMember(DecodingNode keyed, std::string_view key, std::string_view keyType,
                               const PathFrame& container) override {
        if (const auto found = member(keyed, key)) return *found;
        CodingKey missing(std::string(key), std::nullopt, keyType);
        std::string text = "No value associated with key " + missing.description() + " (\"";
        text.append(key);
        text += "\").";
        throw DecodingError::keyNotFound(std::move(missing), {codingPath(container), std::move(text), {}});
    }

    std::size_t count(DecodingNode unkeyed) override {
        const JSONArray elements = unkeyed.as<JSONArray>();
        const std::size_t size = elements.size();
        // The tape stores counts in 24 bits; a saturated count has to be taken by walking.
        if (size < 0xFFFFFF) return size;
        std::size_t walked = 0;
        for (auto it = elements.begin(); it != elements.end(); ++it) ++walked;
        return walked;
    }

    DecodingNode element(DecodingNode unkeyed, std::size_t index) override {
        return DecodingNode::of(*cursorAt(unkeyed, index));
    }

    [[noreturn]] void unkeyedAtEnd(const PathFrame& at, std::string_view expectedType) override {
        throw DecodingError::valueNotFound(std::string(expectedType), {codingPath(at), "Unkeyed container is at end.", {}});
    }

    bool isNull(DecodingNode node) override { return node.as<Element>().is_null(); }

    [[noreturn]] void nullInsteadOf(std::string_view type, const PathFrame& at) override {
        std::string text = "Expected ";
        text.append(type);
        text += " value but found null instead.";
        throw DecodingError::valueNotFound(std::string(type), {codingPath(at), std::move(text), {}});
    }

    bool decodeBool(DecodingNode node, const PathFrame& at) override {
        const auto value = node.as<Element>();
        if (value.type() != element_type::BOOL) typeMismatch("Bool", value, at);
        return value.get_bool().value_unsafe();
    }

    std::int64_t decodeSigned(DecodingNode node, const PathFrame& at, const IntegerType& type) override {
        const auto value = node.as<Element>();
        switch (value.type()) {
            case element_type::INT64: {
                const std::int64_t number = value.get_int64().value_unsafe();
                if (number >= type.min && (number < 0 || static_cast<std::uint64_t>(number) <= type.max)) return number;
                break;
            }
            case element_type::UINT64: break;  // beyond the int64 range, so beyond every signed type
            case element_type::DOUBLE: {
                const double number = value.get_double().value_unsafe();
                if (holdsIntegral(number, type) && !isWidened(value)) return static_cast<std::int64_t>(number);
                break;
            }
            default: typeMismatch(type.name, value, at);
        }
        doesNotFit(value, type.name, at);
    }

    std::uint64_t decodeUnsigned(DecodingNode node, const PathFrame& at, const IntegerType& type) override {
        const auto value = node.as<Element>();
        switch (value.type()) {
            case element_type::INT64: {
                const std::int64_t number = value.get_int64().value_unsafe();
                if (number >= 0 && static_cast<std::uint64_t>(number) <= type.max) return static_cast<std::uint64_t>(number);
                break;
            }
            case element_type::UINT64: {
                const std::uint64_t number = value.get_uint64().value_unsafe();
                if (number <= type.max) return number;
                break;
            }
            case element_type::DOUBLE: {
                const double number = value.get_double().value_unsafe();
                if (holdsIntegral(number, type) && !isWidened(value)) return static_cast<std::uint64_t>(number);
                break;
            }
            default: typeMismatch(type.name, value, at);
        }
        doesNotFit(value, type.name, at);
    }

    double decodeDouble(DecodingNode node, const PathFrame& at) override {
        return number(node.as<Element>(), "Double", at);
    }

    float decodeFloat(DecodingNode node, const PathFrame& at) override {
        const auto value = node.as<Element>();
        const double wide = number(value, "Float", at);
        const auto narrow = static_cast<float>(wide);
        if (std::isinf(narrow)) doesNotFit(value, "Float", at);
        return narrow;
    }

    std::string decodeString(DecodingNode node, const PathFrame& at) override {
        const auto value = node.as<Element>();
        if (value.type() != element_type::STRING) typeMismatch("String", value, at);
        return std::string(value.get_string().value_unsafe());
    }

    Date decodeDate(const Decoder& decoder) override {
        using Kind = JSONDecoder::DateDecodingStrategy::Kind;
        const auto& strategy = decoder_.dateDecodingStrategy;
        switch (strategy.kind()) {
            case Kind::deferredToDate: return numericDate<std::chrono::seconds>(decoder, referenceDateOffset);
            case Kind::secondsSince1970: return numericDate<std::chrono::seconds>(decoder, 0);
            case Kind::millisecondsSince1970: return numericDate<std::chrono::milliseconds>(decoder, 0);
            case Kind::iso8601: {
                const std::string text = decodeString(decoder.node(), decoder.frame());
                if (const auto date = parseISO8601(text)) return *date;
                throw DecodingError::dataCorrupted(
                    {codingPath(decoder.frame()), "Expected date string to be ISO8601-formatted.", {}});
            }
            case Kind::custom: return strategy.customReader()(decoder);
        }
        fatalError("unknown date decoding strategy");
    }

    Data decodeData(const Decoder& decoder) override {
        using Kind = JSONDecoder::DataDecodingStrategy::Kind;
        const auto& strategy = decoder_.dataDecodingStrategy;
        switch (strategy.kind()) {
            case Kind::deferredToData: {
                // Element by element as UInt8, so a bad byte fails at its own index.
                UnkeyedDecodingContainer bytes = decoder.unkeyedContainer();
                Data data;
                data.reserve(bytes.count());
                while (!bytes.isAtEnd()) data.push_back(bytes.decode<std::uint8_t>());
                return data;
            }
            case Kind::base64: {
                const std::string text = decodeString(decoder.node(), decoder.frame());
                if (auto data = detail::decodeBase64(text)) return std::move(*data);
                throw DecodingError::dataCorrupted(
                    {codingPath(decoder.frame()), "Encountered Data is not valid Base64.", {}});
            }
            case Kind::custom: return strategy.customReader()(decoder);
        }
        fatalError("unknown data decoding strategy");
    }

private:
    // Objects with more members than this get a hash index on their first lookup; below it a
    // linear walk costs less than building one.
    static constexpr std::size_t largeObjectSize = 32;

    // Where the walk through an array last stopped, so that reading elements in order costs one
    // step each instead of a walk from the start.
    struct ArrayCursor {
        NodeIdentity node{};
        std::uint64_t used = 0;  // when it was last switched to; 0: free
        std::size_t index = 0;
        JSONArray::iterator at;
    };
    // Where the last lookup in an object found its key.
    struct ObjectCursor {
        NodeIdentity node{};
        std::uint64_t used = 0;
        JSONObject::iterator next;     // the field after it
        std::uint64_t passedKeys = 0;  // the key bits of the fields before `next`
    };

    // A few cursors, for the containers being read at once (a list, the record it holds, the list
    // in that record...). The least recently used one makes room: an outer list is switched to
    // once per element while the containers inside its elements come and go, so it is not the
    // one dropped (walking it again from its start every time would be quadratic).
    template <class Cursor>
    class Cursors {
    public:
        Cursor* find(NodeIdentity id) noexcept {
            if (last_->used != 0 && last_->node == id) return last_;
            for (Cursor& cursor : cursors_) {
                if (cursor.used != 0 && cursor.node == id) return switchTo(cursor);
            }
            return nullptr;
        }
        Cursor* make(NodeIdentity id) noexcept {
            Cursor* oldest = &cursors_[0];
            for (Cursor& cursor : cursors_) {
                if (cursor.used < oldest->used) oldest = &cursor;
            }
            *oldest = Cursor{};
            oldest->node = id;
            return switchTo(*oldest);
        }

    private:
        Cursor* switchTo(Cursor& cursor) noexcept {
            cursor.used = ++clock_;
            last_ = &cursor;
            return &cursor;
        }
        std::array<Cursor, 16> cursors_{};
        Cursor* last_ = &cursors_[0];
        std::uint64_t clock_ = 0;
    };

    static std::uint64_t keyBit(std::string_view key) noexcept {
        const std::size_t hash =
            key.empty() ? 0 : key.size() * 7 + static_cast<unsigned char>(key.front()) + 3U * static_cast<unsigned char>(key.back());
        return std::uint64_t{1} << (hash & 63);
    }

    JSONArray::iterator cursorAt(DecodingNode node, std::size_t index) {
        ArrayCursor* cursor = arrays_.find(identity(node));
        if (cursor == nullptr) {
            cursor = arrays_.make(identity(node));
            cursor->at = node.as<JSONArray>().begin();
        } else if (cursor->index > index) {
            cursor->index = 0;
            cursor->at = node.as<JSONArray>().begin();
        }
        for (; cursor->index < index; ++cursor->index) ++cursor->at;
        return cursor->at;
    }

    [[noreturn]] void typeMismatch(std::string_view type, Element found, const PathFrame& at) const {
        std::string text = "Expected to decode ";
        text.append(type);
        text += " but found ";
        text += describeFound(found);
        text += " instead.";
        throw DecodingError::typeMismatch(std::string(type), {codingPath(at), std::move(text), {}});
    }

    [[noreturn]] void doesNotFit(Element value, std::string_view type, const PathFrame& at) const {
        std::string text = "Parsed JSON number <";
        const auto widened = widened_ != nullptr ? widened_->find(identity(DecodingNode::of(value))) : WidenedNumbers::const_iterator();
        text += widened_ != nullptr && widened != widened_->end() ? widened->second : describeNumber(value);
        text += "> does not fit in ";
        text.append(type);
        text += ".";
        throw DecodingError::dataCorrupted({codingPath(at), std::move(text), {}});
    }

    template <class Unit>
    Date numericDate(const Decoder& decoder, std::int64_t epochSeconds) const {
        const auto value = decoder.node().as<Element>();
        if (const auto date = dateAfter<Unit>(number(value, "Double", decoder.frame()), epochSeconds)) return *date;
        doesNotFit(value, "Date", decoder.frame());
    }

    double number(Element value, std::string_view type, const PathFrame& at) const {
        switch (value.type()) {
            case element_type::DOUBLE: return value.get_double().value_unsafe();
            case element_type::INT64: return static_cast<double>(value.get_int64().value_unsafe());
            case element_type::UINT64: return static_cast<double>(value.get_uint64().value_unsafe());
            default: typeMismatch(type, value, at);
        }
    }

    std::optional<DecodingNode> indexedMember(DecodingNode node, JSONObject members, std::string_view key) {
        auto [entry, created] = indexes_.try_emplace(identity(node));
        auto& index = entry->second;
        if (created) {
            index.reserve(members.size());
            // `emplace` keeps the first of repeated keys. The keys live in the parser's string
            // buffer, which outlives this backend.
            for (auto field = members.begin(); field != members.end(); ++field) index.emplace(field.key(), field.value());
        }
        const auto found = index.find(key);
        if (found == index.end()) return std::nullopt;
        return DecodingNode::of(found->second);
    }

    bool isWidened(Element value) const {
        return widened_ != nullptr && widened_->contains(identity(DecodingNode::of(value)));
    }

    const JSONDecoder& decoder_;
    const WidenedNumbers* widened_;  // null unless the document had integers beyond 64 bits
    Cursors<ArrayCursor> arrays_;
    Cursors<ObjectCursor> objects_;
    std::unordered_map<NodeIdentity, std::unordered_map<std::string_view, Element>, NodeIdentityHash>
        indexes_;
};

[[noreturn]] void throwInvalidJSON(simdjson::error_code error) {
    throw DecodingError::dataCorrupted(
        {{}, "The given data was not valid JSON.", AnyError(std::runtime_error(simdjson::error_message(error)))});
}

}  // namespace

void JSONDecoder::decodeDocument(std::string_view json, detail::FunctionRef<void(const Decoder&)> body) const {
    ParserLease lease;
    auto parsed = lease.parse(json);
    WidenedNumbers widened;
    if (parsed.error() == simdjson::NUMBER_ERROR) {
        const WidenedText text = widenOverflowingIntegers(json);
        if (!text.widened.empty()) {
            auto retried = lease.parse(text.text);
            if (retried.error() == simdjson::SUCCESS) {
                parsed = retried;
                std::size_t ordinal = 0;
                std::size_t next = 0;
                collectWidened(parsed.value_unsafe(), text, ordinal, next, widened);
            }
        }
    }
    if (parsed.error() != simdjson::SUCCESS) throwInvalidJSON(parsed.error());
    JSONDecodingBackend backend(*this, widened.empty() ? nullptr : &widened);
    body(Decoder(backend, DecodingNode::of(parsed.value_unsafe()), PathFrame{}));
}

}  // namespace zul
