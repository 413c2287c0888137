#include "zul/platform/url_request.hpp"

#include <algorithm>

#include "platform/ascii.hpp"

namespace zul {

namespace {

// Field names are tokens: ASCII only, so ASCII case folding is all there is to it.
bool sameName(std::string_view a, std::string_view b) noexcept { return detail::equalsIgnoringASCIICase(a, b); }

// Requests mostly carry a handful of fields: room for them on the first, instead of growing
// the vector one field at a time.
constexpr std::size_t initialFieldCapacity = 4;

}  // namespace

HTTPHeaders::HTTPHeaders(std::initializer_list<Field> fields) {
    fields_.reserve(fields.size());
    for (const Field& field : fields) setValue(field.second, field.first);
}

std::vector<HTTPHeaders::Field>::iterator HTTPHeaders::find(std::string_view name) {
    return std::find_if(fields_.begin(), fields_.end(), [name](const Field& field) { return sameName(field.first, name); });
}

std::vector<HTTPHeaders::Field>::const_iterator HTTPHeaders::find(std::string_view name) const {
    return std::find_if(fields_.begin(), fields_.end(), [name](const Field& field) { return sameName(field.first, name); });
}

std::optional<std::string> HTTPHeaders::value(std::string_view name) const {
    const auto field = find(name);
    if (field == fields_.end()) return std::nullopt;
    return field->second;
}

void HTTPHeaders::setValue(std::optional<std::string> value, std::string_view name) {
    const auto field = find(name);
    if (!value) {
        if (field != fields_.end()) fields_.erase(field);
        return;
    }
    if (field != fields_.end()) {
        field->second = std::move(*value);
        return;
    }
    if (fields_.capacity() == 0) fields_.reserve(initialFieldCapacity);
    fields_.emplace_back(std::string(name), std::move(*value));
}

void HTTPHeaders::addValue(std::string_view value, std::string_view name) {
    const auto field = find(name);
    if (field != fields_.end()) {
        std::string& current = field->second;
        current.reserve(current.size() + 1 + value.size());
        current += ',';
        current += value;
        return;
    }
    if (fields_.capacity() == 0) fields_.reserve(initialFieldCapacity);
    fields_.emplace_back(std::string(name), std::string(value));
}

bool operator==(const HTTPHeaders& a, const HTTPHeaders& b) {
    // Names are unique (in any case) within each, so equal counts and every field of `a` found
    // with its value in `b` make them the same set.
    if (a.fields_.size() != b.fields_.size()) return false;
    return std::all_of(a.fields_.begin(), a.fields_.end(), [&b](const HTTPHeaders::Field& field) {
        const auto other = b.find(field.first);
        return other != b.fields_.end() && other->second == field.second;
    });
}

}  // namespace zul
