#include "zul/platform/json_serialization.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "platform/json_text.hpp"

namespace zul {

namespace {

// Upper bounds of a written number.
constexpr std::size_t integerCapacity = 20;  // "-9223372036854775808", "18446744073709551615"
constexpr std::size_t doubleCapacity = 24;   // "-1.2345678901234567e-308"
constexpr std::size_t floatCapacity = 15;    // "-1.2345678e-38"

// Checks that JSON can hold `value` and returns how many bytes writing it takes at most. The
// writer relies on this bound: it writes into that much room without checking, so every count
// here must be at least what `Writer` writes (text is counted exactly, numbers at their longest,
// and the separators of n items as n). Writing only starts once this has passed, so a rejected
// value leaves the output untouched, and the output is grown once.
std::size_t measure(const AnyValue& value, std::size_t depth, bool pretty);

std::size_t measureMap(const AnyMap& map, std::size_t depth, bool pretty) {
    std::size_t size = 2;
    if (pretty) size += 2 + 2 * depth + map.size() * (2 * (depth + 1) + 2 + 3);
    else size += map.size() * 2;
    for (const auto& [key, element] : map) {
        size += detail::jsonTextSize(key) + measure(element, depth + 1, pretty);
    }
    return size;
}

std::size_t measure(const AnyValue& value, std::size_t depth, bool pretty) {
    using Kind = AnyValue::Kind;
    switch (value.kind()) {
        case Kind::null: return 4;
        case Kind::boolean: return *value.asBool() ? 4 : 5;
        case Kind::integer:
        case Kind::unsignedInteger: return integerCapacity;
        case Kind::double_:
            if (!std::isfinite(*value.asDouble())) throw JSONSerializationError();
            return doubleCapacity;
        case Kind::float_:
            if (!std::isfinite(*value.asFloat())) throw JSONSerializationError();
            return floatCapacity;
        case Kind::string: return detail::jsonTextSize(*value.asString());
        case Kind::list: {
            const AnyList& list = *value.asList();
            // Brackets; pretty: the line breaks after the opening and before the closing one,
            // the closing one's indentation, and per item its indentation and ",\n".
            std::size_t size = 2;
            if (pretty) size += 2 + 2 * depth + list.size() * (2 * (depth + 1) + 2);
            else size += list.size();
            for (const auto& element : list) size += measure(element, depth + 1, pretty);
            return size;
        }
        case Kind::map: return measureMap(*value.asMap(), depth, pretty);
        case Kind::date:
        case Kind::data:
        case Kind::url:
        case Kind::optional:
        case Kind::opaque: break;
    }
    throw JSONSerializationError();
}

// Writes into room `measure` has already made, so no write checks for space or allocates.
class Writer {
public:
    Writer(std::uint8_t* cursor, bool pretty) noexcept : cursor_(cursor), pretty_(pretty) {}

    std::uint8_t* end() const noexcept { return cursor_; }

    void object(const AnyMap& members, std::size_t depth) { map(members, depth); }

    void value(const AnyValue& value, std::size_t depth) {
        using Kind = AnyValue::Kind;
        switch (value.kind()) {
            case Kind::null: raw("null"); return;
            case Kind::boolean: raw(*value.asBool() ? "true" : "false"); return;
            case Kind::integer: integer(*value.asInteger()); return;
            case Kind::unsignedInteger: integer(*value.asUnsignedInteger()); return;
            case Kind::double_: number(*value.asDouble()); return;
            case Kind::float_: number(*value.asFloat()); return;
            case Kind::string: text(*value.asString()); return;
            case Kind::list: list(*value.asList(), depth); return;
            case Kind::map: map(*value.asMap(), depth); return;
            case Kind::date:
            case Kind::data:
            case Kind::url:
            case Kind::optional:
            case Kind::opaque: break;
        }
        throw JSONSerializationError();  // `measure` has already turned these away
    }

private:
    void raw(const char* first, std::size_t count) noexcept {
        std::memcpy(cursor_, first, count);
        cursor_ += count;
    }
    void raw(std::string_view text) noexcept { raw(text.data(), text.size()); }
    void byte(char c) noexcept { *cursor_++ = static_cast<std::uint8_t>(c); }

    template <class I>
    void integer(I value) noexcept {
        char buffer[integerCapacity];
        const char* const end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
        raw(buffer, static_cast<std::size_t>(end - buffer));
    }

    // The general rendering without the ".0" of whole numbers: 1.0 is written 1, -0.0 is -0.
    // Floats use their own shortest digits, so a float 0.1 is written 0.1, not the digits of
    // the double nearest to it.
    template <class F>
    void number(F value) noexcept {
        char buffer[detail::jsonNumberCapacity];
        raw(buffer, static_cast<std::size_t>(detail::writeJSONNumber(buffer, value) - buffer));
    }

    void text(std::string_view text) noexcept { cursor_ = detail::writeJSONText(cursor_, text); }

    void indent(std::size_t depth) noexcept {
        std::memset(cursor_, ' ', 2 * depth);
        cursor_ += 2 * depth;
    }

    // Pretty output opens a container with a line break and closes it with a line break and
    // the container's own indentation before the bracket. An empty container keeps both line
    // breaks, so it is "{\n\n}" at the top and "{\n\n  }" one level down: the same rule at every
    // depth, and the platform's form for the top-level case.
    void open(char bracket) noexcept {
        byte(bracket);
        if (pretty_) byte('\n');
    }
    void close(char bracket, std::size_t depth) noexcept {
        if (pretty_) {
            byte('\n');
            indent(depth);
        }
        byte(bracket);
    }
    void item(bool first, std::size_t depth) noexcept {
        if (!first) byte(',');
        if (pretty_) {
            if (!first) byte('\n');
            indent(depth);
        }
    }

    void list(const AnyList& list, std::size_t depth) {
        open('[');
        bool first = true;
        for (const auto& element : list) {
            item(first, depth + 1);
            first = false;
            value(element, depth + 1);
        }
        close(']', depth);
    }

    void map(const AnyMap& map, std::size_t depth) {
        open('{');
        bool first = true;
        for (const auto& [key, element] : map) {
            item(first, depth + 1);
            first = false;
            text(key);
            if (pretty_) raw(" : ");
            else byte(':');
            value(element, depth + 1);
        }
        close('}', depth);
    }

    std::uint8_t* cursor_;
    bool pretty_;
};

}  // namespace

Data JSONSerialization::data(const AnyValue& value, JSONWritingOptions options) {
    Data out;
    write(value, options, out);
    return out;
}

namespace {

// Measures (throwing before anything is written), makes room, then writes.
template <class Document>
void writeDocument(const Document& document, JSONWritingOptions options, Data& out) {
    std::size_t needed = 0;
    if constexpr (std::is_same_v<Document, AnyMap>) {
        needed = measureMap(document, 0, options.prettyPrinted);
    } else {
        needed = measure(document, 0, options.prettyPrinted);
    }
    const std::size_t original = out.size();
    // Grow geometrically when the caller appends document after document to one buffer, so
    // that a run of writes does not reallocate on every call.
    if (out.capacity() - original < needed) out.reserve(std::max(original + needed, 2 * out.capacity()));
    out.resize(original + needed);
    Writer writer(out.data() + original, options.prettyPrinted);
    try {
        if constexpr (std::is_same_v<Document, AnyMap>) {
            writer.object(document, 0);
        } else {
            writer.value(document, 0);
        }
    } catch (...) {
        out.resize(original);
        throw;
    }
    out.resize(static_cast<std::size_t>(writer.end() - out.data()));
}

}  // namespace

void JSONSerialization::write(const AnyValue& value, JSONWritingOptions options, Data& out) {
    writeDocument(value, options, out);
}

void JSONSerialization::write(const AnyMap& map, JSONWritingOptions options, Data& out) {
    writeDocument(map, options, out);
}

}  // namespace zul
