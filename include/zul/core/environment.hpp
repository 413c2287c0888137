#pragma once

/// Environment and settings: process-wide facts about the host application, read from its main
/// bundle's information dictionary, and a reader of preference strings.
///
///     zul::ZulEnvironment::bundleIdentifier();     // "tv.example.player", or "dev.zul.foundation"
///     zul::ZulEnvironment::appVersion();           // "2.4.1" (CFBundleShortVersionString), or absent
///     zul::ZulEnvironment::settings().platform;    // "stb" (ZulTechSettings -> Platform), or absent
///
///     std::shared_ptr<zul::ValueReader> preferences = zul::ZulUserDefaultsReader::create();
///     preferences->set(zul::AnyValue(3), "quality");
///     preferences->stringValue("quality");         // "3"
///     preferences->set(std::nullopt, "quality");   // removed
///
/// The information dictionary is the main bundle's (`zul/platform/bundle.hpp`: the file
/// "Info.json" beside the executable, or what the host sets); preferences live in
/// `zul::UserDefaults::standard()` (`zul/platform/user_defaults.hpp`).

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zul/platform/any_value.hpp"

namespace zul {

class UserDefaults;

/// The library's settings block of the information dictionary (key "ZulTechSettings"), parsed.
struct ZulTechSettings {
    /// The "Platform" entry when it is text.
    std::optional<std::string> platform;

    ZulTechSettings() = default;
    /// Takes "Platform" when present and text; ignores every other key.
    explicit ZulTechSettings(const AnyMap& from);

    friend bool operator==(const ZulTechSettings&, const ZulTechSettings&) = default;
};

/// Facts about the host application. Used only through its class-level members.
///
/// `bundleIdentifier` and `appVersion` are read from the main bundle once, on first access, by
/// whichever thread comes first; from then on (or from an earlier assignment on) they keep their
/// value until assigned again. Reads and assignments may come from any thread.
class ZulEnvironment {
public:
    ZulEnvironment() = default;

    /// The main bundle's identifier, or "dev.zul.foundation" when it has none.
    static std::string bundleIdentifier();
    static void setBundleIdentifier(std::string identifier);

    /// The information dictionary's "CFBundleShortVersionString" when it is text; otherwise absent.
    static std::optional<std::string> appVersion();
    static void setAppVersion(std::optional<std::string> version);

    /// Read anew on every call: `ZulTechSettings(from:)` of the information dictionary's
    /// "ZulTechSettings" when that is a dictionary; otherwise settings with no platform.
    static ZulTechSettings settings();
};

/// Reads and writes preference strings.
class ValueReader {
public:
    virtual ~ValueReader() = default;

    /// The value stored under the key, as text; absent when there is none.
    virtual std::optional<std::string> stringValue(std::string_view forKey) const = 0;

    /// Stores `value` under the key; absent removes the key.
    virtual void set(std::optional<AnyValue> value, std::string_view forKey) = 0;
};

/// A `ValueReader` over the per-user preferences store.
class ZulUserDefaultsReader : public ValueReader {
public:
    /// A reader of `UserDefaults::standard()`.
    static std::shared_ptr<ZulUserDefaultsReader> create();

    /// A reader of `store` (a store on a file of the host's choosing, or a test's).
    static std::shared_ptr<ZulUserDefaultsReader> create(std::shared_ptr<UserDefaults> store);

    /// The store's text for the key, with its conversions: text as it is, a boolean "1" or "0",
    /// an integer its decimal digits, a double its general rendering ("1.0", "12.34"). Absent
    /// when there is no value or it is of another kind (bytes, dates, lists, maps).
    std::optional<std::string> stringValue(std::string_view forKey) const override;

    /// Stores the value in the store; absent removes the key. A value the store cannot hold
    /// (null, an opaque object) stops the process.
    void set(std::optional<AnyValue> value, std::string_view forKey) override;

protected:
    explicit ZulUserDefaultsReader(std::shared_ptr<UserDefaults> store);

private:
    const std::shared_ptr<UserDefaults> store_;
};

}  // namespace zul
