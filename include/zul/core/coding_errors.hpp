#pragma once

/// The errors of coding: the four decoding kinds and the encoding kind invalid value, each with
/// the coding path where it happened, a description and an optional underlying error.

#include <optional>
#include <string>

#include "zul/core/coding_key.hpp"
#include "zul/platform/error.hpp"

namespace zul {

class DecodingError final : public Error {
public:
    enum class Kind { typeMismatch, valueNotFound, keyNotFound, dataCorrupted };

    struct Context {
        CodingPath codingPath;
        std::string debugDescription;
        std::optional<AnyError> underlyingError;
    };

    /// The value is not of `type` (the plain name, e.g. "Int").
    static DecodingError typeMismatch(std::string type, Context context);
    /// A `type` value was expected and there is none (null).
    static DecodingError valueNotFound(std::string type, Context context);
    /// `key` is missing. The context's path does not include the key.
    static DecodingError keyNotFound(CodingKey key, Context context);
    /// The data is there but not valid.
    static DecodingError dataCorrupted(Context context);

    Kind kind() const noexcept { return kind_; }
    const Context& context() const noexcept { return context_; }
    const CodingPath& codingPath() const noexcept { return context_.codingPath; }
    const std::string& debugDescription() const noexcept { return context_.debugDescription; }
    /// The expected type of a type mismatch or missing value; empty for the other kinds.
    const std::string& type() const noexcept { return type_; }
    /// The missing key of a key-not-found error; null for the other kinds.
    const CodingKey* key() const noexcept { return kind_ == Kind::keyNotFound ? &key_ : nullptr; }

    /// The debug description.
    const char* what() const noexcept override { return context_.debugDescription.c_str(); }
    /// The kind with its payload and context, for example
    /// `keyNotFound(CodingKeys(stringValue: "name", intValue: nil), Context(codingPath: [], debugDescription: "..."))`.
    std::string description() const override;

private:
    DecodingError(Kind kind, std::string type, CodingKey key, Context context)
        : kind_(kind), type_(std::move(type)), key_(std::move(key)), context_(std::move(context)) {}
    Kind kind_;
    std::string type_;
    CodingKey key_;
    Context context_;
};

class EncodingError final : public Error {
public:
    enum class Kind { invalidValue };

    using Context = DecodingError::Context;

    /// A value that cannot be encoded; `value` is how the value prints.
    static EncodingError invalidValue(std::string value, Context context);

    Kind kind() const noexcept { return Kind::invalidValue; }
    const std::string& value() const noexcept { return value_; }
    const Context& context() const noexcept { return context_; }
    const CodingPath& codingPath() const noexcept { return context_.codingPath; }
    const std::string& debugDescription() const noexcept { return context_.debugDescription; }

    const char* what() const noexcept override { return context_.debugDescription.c_str(); }
    std::string description() const override;

private:
    EncodingError(std::string value, Context context) : value_(std::move(value)), context_(std::move(context)) {}
    std::string value_;
    Context context_;
};

}  // namespace zul
