#pragma once

/// Coding keys, coding paths and user info: the vocabulary shared by every encoder and decoder.

#include <any>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zul/platform/ordered_map.hpp"

namespace zul {

/// A key of a coded record: its text, an optional integer form, and the name of the key type it
/// belongs to, which error texts print ("CodingKeys" for the keys of a record).
struct CodingKey {
    std::string stringValue;
    std::optional<int> intValue;
    std::string_view typeName = "CodingKeys";

    CodingKey() = default;
    // Explicit, so that a container call with a literal key ("title") is not ambiguous between
    // the key-text and the CodingKey overloads.
    explicit CodingKey(std::string text, std::optional<int> integer = std::nullopt,
                       std::string_view keyType = "CodingKeys")
        : stringValue(std::move(text)), intValue(integer), typeName(keyType) {}

    /// `CodingKeys(stringValue: "name", intValue: nil)`.
    std::string description() const;

    friend bool operator==(const CodingKey& a, const CodingKey& b) {
        return a.stringValue == b.stringValue && a.intValue == b.intValue;
    }
};

/// The keys from the top of a document down to a value.
using CodingPath = std::vector<CodingKey>;

/// Values handed to the records being coded, by name (the raw value of the platform's user-info
/// keys).
using UserInfo = OrderedMap<std::any>;

/// One step of a coding path, kept on the stack by the code that descends through it, so that
/// following a key costs nothing until an error needs the whole path. A frame without key text and
/// without index is the root.
struct PathFrame {
    const PathFrame* parent = nullptr;
    std::string_view key;
    std::optional<std::size_t> index;     // set for positions in unkeyed containers
    std::string_view keyType = "CodingKeys";

    bool isRoot() const noexcept { return parent == nullptr && key.empty() && !index; }
};

}  // namespace zul
