#include "platform/preferences_format.hpp"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <sstream>
#include <system_error>
#include <utility>

#include <date/date.h>

#include "platform/base64.hpp"
#include "platform/json_reading.hpp"
#include "platform/number_format.hpp"
#include "zul/platform/json_serialization.hpp"

namespace zul::detail {

namespace {

constexpr std::string_view formatName = "dev.zul.preferences";
constexpr std::int64_t formatVersion = 1;

// Dates are written with nanoseconds, the finest step a `Date` has here, so they read back equal.
using Nanoseconds = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

std::string dateText(Date date) {
    return date::format("%FT%TZ", std::chrono::time_point_cast<std::chrono::nanoseconds>(date));
}

std::optional<Date> dateFromText(const std::string& text) {
    std::istringstream in(text);
    Nanoseconds point;
    in >> date::parse("%FT%TZ", point);
    if (in.fail() || in.peek() != std::char_traits<char>::eof()) return std::nullopt;
    return std::chrono::time_point_cast<Date::duration>(point);
}

template <class F>
std::string numberText(F value) {
    std::string text;
    appendGeneral(text, value);
    return text;
}

// ---- writing ----

AnyValue typed(const AnyValue& value);

AnyValue tagged(std::string_view kind, AnyValue payload) {
    AnyMap map;
    map.insertOrAssign(kind, std::move(payload));
    return map;
}

AnyValue typed(const AnyValue& value) {
    using Kind = AnyValue::Kind;
    switch (value.kind()) {
        case Kind::string: return tagged("string", value);
        case Kind::boolean: return tagged("bool", value);
        case Kind::integer: return tagged("int", value);
        case Kind::unsignedInteger: return tagged("uint", value);
        case Kind::double_: return tagged("double", numberText(*value.asDouble()));
        case Kind::float_: return tagged("float", numberText(*value.asFloat()));
        case Kind::date: return tagged("date", dateText(*value.asDate()));
        case Kind::data: return tagged("data", encodeBase64(*value.asData()));
        case Kind::url: return tagged("url", value.asURL()->absoluteString());
        case Kind::list: {
            AnyList items;
            items.reserve(value.asList()->size());
            for (const auto& item : *value.asList()) items.push_back(typed(item));
            return tagged("list", std::move(items));
        }
        case Kind::map: {
            AnyMap members;
            members.reserve(value.asMap()->size());
            for (const auto& [key, member] : *value.asMap()) members.insertOrAssign(key, typed(member));
            return tagged("map", std::move(members));
        }
        case Kind::optional:
            if (const AnyValue* wrapped = value.asOptional()) return typed(*wrapped);
            break;
        case Kind::null:
        case Kind::opaque: break;
    }
    // The store checks values as they are set; reaching this is a fault in the store itself.
    throw std::logic_error("a value the preferences store cannot hold: " + value.debugDescription());
}

// ---- reading ----

[[noreturn]] void fail(const std::string& where, const std::string& why) {
    throw PreferencesFormatError(where.empty() ? why : where + ": " + why);
}

template <class F>
F numberFrom(const AnyValue& payload, const std::string& where) {
    if (const std::string* text = payload.asString()) {
        F number{};
        const char* const end = text->data() + text->size();
        const auto [stop, error] = std::from_chars(text->data(), end, number);
        if (error == std::errc() && stop == end) return number;
        fail(where, "\"" + *text + "\" is not a number");
    }
    if (const double* number = payload.asDouble()) return static_cast<F>(*number);
    if (const std::int64_t* number = payload.asInteger()) return static_cast<F>(*number);
    if (const std::uint64_t* number = payload.asUnsignedInteger()) return static_cast<F>(*number);
    fail(where, "expected a number");
}

AnyValue untyped(const AnyValue& value, const std::string& where) {
    const AnyMap* map = value.asMap();
    if (map == nullptr || map->size() != 1) fail(where, "expected an object with one member naming the kind");
    const auto& [kind, payload] = *map->begin();
    if (kind == "string") {
        if (payload.asString()) return payload;
    } else if (kind == "bool") {
        if (payload.asBool()) return payload;
    } else if (kind == "int") {
        if (payload.asInteger()) return payload;
    } else if (kind == "uint") {
        if (payload.asUnsignedInteger()) return payload;
        if (const std::int64_t* number = payload.asInteger(); number && *number >= 0) {
            return static_cast<std::uint64_t>(*number);
        }
    } else if (kind == "double") {
        return numberFrom<double>(payload, where);
    } else if (kind == "float") {
        return numberFrom<float>(payload, where);
    } else if (kind == "date") {
        if (const std::string* text = payload.asString()) {
            if (auto date = dateFromText(*text)) return *date;
            fail(where, "\"" + *text + "\" is not a date");
        }
    } else if (kind == "data") {
        if (const std::string* text = payload.asString()) {
            if (auto bytes = decodeBase64(*text)) return std::move(*bytes);
            fail(where, "not valid base64");
        }
    } else if (kind == "url") {
        if (const std::string* text = payload.asString()) {
            if (auto url = URL::fromString(*text)) return std::move(*url);
            fail(where, "\"" + *text + "\" is not a URL");
        }
    } else if (kind == "list") {
        if (const AnyList* items = payload.asList()) {
            AnyList list;
            list.reserve(items->size());
            for (std::size_t i = 0; i < items->size(); ++i) {
                list.push_back(untyped((*items)[i], where + "[" + std::to_string(i) + "]"));
            }
            return list;
        }
    } else if (kind == "map") {
        if (const AnyMap* members = payload.asMap()) {
            AnyMap result;
            result.reserve(members->size());
            for (const auto& [key, member] : *members) result.insertOrAssign(key, untyped(member, where + "." + key));
            return result;
        }
    } else {
        fail(where, "unknown kind \"" + kind + "\"");
    }
    fail(where, "the payload of a \"" + kind + "\" value has the wrong type");
}

}  // namespace

std::string writePreferences(const PreferenceValues& values) {
    AnyMap typedValues;
    typedValues.reserve(values.size());
    for (const auto& [key, value] : values) typedValues.insertOrAssign(key, typed(value));
    AnyMap file;
    file.insertOrAssign("format", formatName);
    file.insertOrAssign("version", formatVersion);
    file.insertOrAssign("values", std::move(typedValues));
    Data text;
    JSONSerialization::write(file, JSONWritingOptions{.prettyPrinted = true}, text);
    text.push_back('\n');
    return stringFromData(text);
}

PreferenceValues readPreferences(std::string_view text) {
    AnyValue root;
    try {
        root = readJSON(text);
    } catch (const JSONReadError& error) {
        fail({}, std::string("not valid JSON (") + error.what() + ")");
    }
    const AnyMap* file = root.asMap();
    if (file == nullptr) fail({}, "the top level is not a JSON object");
    const AnyValue* format = file->get("format");
    if (format == nullptr || format->asString() == nullptr || *format->asString() != formatName) {
        fail({}, "\"format\" is not \"" + std::string(formatName) + "\"");
    }
    const AnyValue* version = file->get("version");
    if (version == nullptr || version->asInteger() == nullptr || *version->asInteger() != formatVersion) {
        fail({}, "unsupported \"version\"");
    }
    const AnyValue* stored = file->get("values");
    if (stored == nullptr || stored->asMap() == nullptr) fail({}, "\"values\" is not an object");
    PreferenceValues values;
    for (const auto& [key, value] : *stored->asMap()) values.insert_or_assign(key, untyped(value, "values." + key));
    return values;
}

std::optional<AnyValue> storableForm(const AnyValue& value) {
    using Kind = AnyValue::Kind;
    switch (value.kind()) {
        case Kind::string:
        case Kind::boolean:
        case Kind::integer:
        case Kind::unsignedInteger:
        case Kind::double_:
        case Kind::float_:
        case Kind::date:
        case Kind::data:
        case Kind::url: return value;
        case Kind::list: {
            AnyList items;
            items.reserve(value.asList()->size());
            for (const auto& item : *value.asList()) {
                auto stored = storableForm(item);
                if (!stored) return std::nullopt;
                items.push_back(std::move(*stored));
            }
            return AnyValue(std::move(items));
        }
        case Kind::map: {
            AnyMap members;
            members.reserve(value.asMap()->size());
            for (const auto& [key, member] : *value.asMap()) {
                auto stored = storableForm(member);
                if (!stored) return std::nullopt;
                members.insertOrAssign(key, std::move(*stored));
            }
            return AnyValue(std::move(members));
        }
        case Kind::optional:
            if (const AnyValue* wrapped = value.asOptional()) return storableForm(*wrapped);
            return std::nullopt;
        case Kind::null:
        case Kind::opaque: return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::string> preferenceString(const AnyValue& value) {
    using Kind = AnyValue::Kind;
    switch (value.kind()) {
        case Kind::string: return *value.asString();
        case Kind::boolean: return std::string(*value.asBool() ? "1" : "0");
        case Kind::integer: return std::to_string(*value.asInteger());
        case Kind::unsignedInteger: return std::to_string(*value.asUnsignedInteger());
        case Kind::double_: return numberText(*value.asDouble());
        case Kind::float_: return numberText(*value.asFloat());
        default: return std::nullopt;
    }
}

}  // namespace zul::detail
