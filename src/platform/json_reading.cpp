#include "platform/json_reading.hpp"

#include <simdjson.h>

#include <cstdint>

namespace zul::detail {

namespace {

AnyValue toAnyValue(simdjson::dom::element element) {
    using Type = simdjson::dom::element_type;
    switch (element.type()) {
        case Type::OBJECT: {
            AnyMap map;
            const simdjson::dom::object object = element.get_object().value_unsafe();
            for (auto field : object) {
                map.insertOrAssign(field.key, toAnyValue(field.value));
            }
            return map;
        }
        case Type::ARRAY: {
            AnyList list;
            const simdjson::dom::array array = element.get_array().value_unsafe();
            for (auto item : array) list.push_back(toAnyValue(item));
            return list;
        }
        case Type::INT64: return element.get_int64().value_unsafe();
        case Type::UINT64: return element.get_uint64().value_unsafe();
        case Type::DOUBLE: return element.get_double().value_unsafe();
        case Type::STRING: return element.get_string().value_unsafe();
        case Type::BOOL: return element.get_bool().value_unsafe();
        case Type::NULL_VALUE: break;
    }
    return Null{};
}

}  // namespace

AnyValue readJSON(std::string_view text) {
    // A parser of its own per call: the files read this way are small and read rarely, and a
    // thread-local parser would be gone when a store writes its last changes at exit.
    simdjson::dom::parser parser;
    const simdjson::padded_string padded(text);
    simdjson::dom::element root;
    if (const auto error = parser.parse(padded).get(root); error != simdjson::SUCCESS) {
        throw JSONReadError(simdjson::error_message(error));
    }
    return toAnyValue(root);
}

}  // namespace zul::detail
