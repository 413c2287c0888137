#include "zul/platform/any_value.hpp"

#include <charconv>
#include <cmath>
#include <type_traits>

#include "platform/number_format.hpp"

namespace zul {

// Boxed so that an optional is one pointer in the variant, like the other shared kinds, and
// so that `AnyValue` can hold an optional of itself.
struct AnyValue::OptionalBox {
    std::optional<AnyValue> value;
};

AnyValue::AnyValue(AnyList value) : storage_(std::make_shared<const AnyList>(std::move(value))) {}
AnyValue::AnyValue(AnyMap value) : storage_(std::make_shared<const AnyMap>(std::move(value))) {}
AnyValue::AnyValue(Data value) : storage_(std::make_shared<const Data>(std::move(value))) {}
AnyValue::AnyValue(URL value) : storage_(std::make_shared<const URL>(std::move(value))) {}
AnyValue::AnyValue(OpaqueValue value) : storage_(std::make_shared<const OpaqueValue>(std::move(value))) {}

AnyValue AnyValue::optional(std::optional<AnyValue> value) {
    AnyValue result;
    result.storage_ = std::make_shared<const OptionalBox>(OptionalBox{std::move(value)});
    return result;
}

namespace {

template <class T, class Variant>
const T* shared(const Variant& storage) noexcept {
    const auto* pointer = std::get_if<std::shared_ptr<const T>>(&storage);
    return pointer ? pointer->get() : nullptr;
}

template <class I>
void appendInteger(std::string& out, I value) {
    char buffer[24];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

void appendPadded(std::string& out, unsigned value, std::size_t width) {
    char buffer[16];
    char* const end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    const auto length = static_cast<std::size_t>(end - buffer);
    if (length < width) out.append(width - length, '0');
    out.append(buffer, end);
}

// "2019-03-04 05:06:07 +0000": UTC, whole seconds. Sub-seconds are dropped toward the earlier
// second (floor, not truncation toward zero), so a moment just before 1970 prints 23:59:59.
void appendDate(std::string& out, Date date) {
    using namespace std::chrono;
    const auto second = floor<seconds>(date);
    const auto day = floor<days>(second);
    const year_month_day ymd{day};
    const hh_mm_ss time{second - day};
    const int year = static_cast<int>(ymd.year());
    if (year < 0) out.push_back('-');
    appendPadded(out, static_cast<unsigned>(year < 0 ? -year : year), 4);
    out.push_back('-');
    appendPadded(out, static_cast<unsigned>(ymd.month()), 2);
    out.push_back('-');
    appendPadded(out, static_cast<unsigned>(ymd.day()), 2);
    out.push_back(' ');
    appendPadded(out, static_cast<unsigned>(time.hours().count()), 2);
    out.push_back(':');
    appendPadded(out, static_cast<unsigned>(time.minutes().count()), 2);
    out.push_back(':');
    appendPadded(out, static_cast<unsigned>(time.seconds().count()), 2);
    out.append(" +0000");
}

// Text in its debug form: quoted, with the platform's escapes. Runs of characters that need no
// escape are appended whole.
void appendQuoted(std::string& out, const std::string& text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    out.push_back('"');
    std::size_t runStart = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const char* escape = nullptr;
        switch (c) {
            case '\\': escape = "\\\\"; break;
            case '"': escape = "\\\""; break;
            case '\'': escape = "\\'"; break;
            case '\0': escape = "\\0"; break;
            case '\n': escape = "\\n"; break;
            case '\r': escape = "\\r"; break;
            case '\t': escape = "\\t"; break;
            default:
                if (c >= 0x20 && c != 0x7F) continue;
        }
        out.append(text, runStart, i - runStart);
        runStart = i + 1;
        if (escape) {
            out.append(escape);
        } else {
            const char unicode[] = {'\\', 'u', '{', hex[c >> 4], hex[c & 0xF], '}'};
            out.append(unicode, sizeof unicode);
        }
    }
    out.append(text, runStart, text.size() - runStart);
    out.push_back('"');
}

}  // namespace

const AnyList* AnyValue::asList() const noexcept { return shared<AnyList>(storage_); }
const AnyMap* AnyValue::asMap() const noexcept { return shared<AnyMap>(storage_); }
const Data* AnyValue::asData() const noexcept { return shared<Data>(storage_); }
const URL* AnyValue::asURL() const noexcept { return shared<URL>(storage_); }
const OpaqueValue* AnyValue::asOpaque() const noexcept { return shared<OpaqueValue>(storage_); }

const AnyValue* AnyValue::asOptional() const noexcept {
    const auto* box = shared<OptionalBox>(storage_);
    return box && box->value ? &*box->value : nullptr;
}

bool AnyValue::isAbsentOptional() const noexcept {
    const auto* box = shared<OptionalBox>(storage_);
    return box && !box->value;
}


namespace {

void appendValue(std::string& out, const AnyValue& value, bool debug) {
    using Kind = AnyValue::Kind;
    switch (value.kind()) {
        case Kind::null: out.append("<null>"); return;
        case Kind::boolean: out.append(*value.asBool() ? "true" : "false"); return;
        case Kind::integer: appendInteger(out, *value.asInteger()); return;
        case Kind::unsignedInteger: appendInteger(out, *value.asUnsignedInteger()); return;
        case Kind::double_: detail::appendGeneral(out, *value.asDouble()); return;
        case Kind::float_: detail::appendGeneral(out, *value.asFloat()); return;
        case Kind::string:
            if (debug) {
                appendQuoted(out, *value.asString());
            } else {
                out.append(*value.asString());
            }
            return;
        case Kind::list: {
            // Elements always print in debug form, whatever form the list prints in.
            out.push_back('[');
            bool first = true;
            for (const auto& element : *value.asList()) {
                if (!first) out.append(", ");
                first = false;
                appendValue(out, element, true);
            }
            out.push_back(']');
            return;
        }
        case Kind::map: {
            const AnyMap& map = *value.asMap();
            if (map.empty()) {
                out.append("[:]");
                return;
            }
            out.push_back('[');
            bool first = true;
            for (const auto& [key, element] : map) {
                if (!first) out.append(", ");
                first = false;
                appendQuoted(out, key);
                out.append(": ");
                appendValue(out, element, true);
            }
            out.push_back(']');
            return;
        }
        case Kind::date: appendDate(out, *value.asDate()); return;
        case Kind::data:
            // "1 bytes" too: the platform does not make the word singular.
            appendInteger(out, value.asData()->size());
            out.append(" bytes");
            return;
        case Kind::url: out.append(value.asURL()->absoluteString()); return;
        case Kind::optional:
            // Both forms are the same: the wrapped value is always in debug form.
            if (const AnyValue* wrapped = value.asOptional()) {
                out.append("Optional(");
                appendValue(out, *wrapped, true);
                out.push_back(')');
            } else {
                out.append("nil");
            }
            return;
        case Kind::opaque: out.append(value.asOpaque()->description); return;
    }
}

// Maps compare as sets of pairs: the platform's maps have no order, so two maps holding the
// same pairs are the same value even when they were filled in different orders (the order only
// decides how they print and go on the wire). Keys are unique, so equal sizes plus every pair
// of `a` found in `b` is enough. Maps built the same way line up pair by pair, which is checked
// first without searching.
bool equalMaps(const AnyMap& a, const AnyMap& b) {
    if (a.size() != b.size()) return false;
    auto other = b.begin();
    auto it = a.begin();
    for (; it != a.end(); ++it, ++other) {
        if (it->first != other->first) break;
        if (!(it->second == other->second)) return false;
    }
    for (; it != a.end(); ++it) {
        const AnyValue* match = b.get(it->first);
        if (!match || !(it->second == *match)) return false;
    }
    return true;
}

}  // namespace

std::string AnyValue::description() const {
    std::string out;
    appendValue(out, *this, false);
    return out;
}

std::string AnyValue::debugDescription() const {
    std::string out;
    appendValue(out, *this, true);
    return out;
}

bool AnyValue::isValidJSON() const {
    switch (kind()) {
        case Kind::null:
        case Kind::boolean:
        case Kind::integer:
        case Kind::unsignedInteger:
        case Kind::string: return true;
        case Kind::double_: return std::isfinite(*asDouble());
        case Kind::float_: return std::isfinite(*asFloat());
        case Kind::list:
            for (const auto& element : *asList()) {
                if (!element.isValidJSON()) return false;
            }
            return true;
        case Kind::map:
            for (const auto& entry : *asMap()) {
                if (!entry.second.isValidJSON()) return false;
            }
            return true;
        case Kind::date:
        case Kind::data:
        case Kind::url:
        case Kind::optional:
        case Kind::opaque: return false;
    }
    return false;
}

bool operator==(const AnyValue& a, const AnyValue& b) {
    if (a.storage_.index() != b.storage_.index()) return false;
    return std::visit(
        [&b](const auto& mine) -> bool {
            using T = std::decay_t<decltype(mine)>;
            const T& theirs = *std::get_if<T>(&b.storage_);
            if constexpr (std::is_same_v<T, std::shared_ptr<const AnyMap>>) {
                return equalMaps(*mine, *theirs);
            } else if constexpr (std::is_same_v<T, std::shared_ptr<const AnyValue::OptionalBox>>) {
                return mine->value == theirs->value;
            } else if constexpr (requires { *mine; }) {
                // Lists element by element, bytes, URLs; opaque values by object identity
                // (`OpaqueValue`'s own equality). No shortcut for shared storage: a list holding
                // NaN is unequal to itself, as NaN is.
                return *mine == *theirs;
            } else {
                return mine == theirs;  // doubles with ==, so NaN != NaN and 0.0 == -0.0
            }
        },
        a.storage_);
}

}  // namespace zul
