#pragma once

/// Bundles: the directory an application's resources live in, and its information dictionary.
///
///     auto bundle = zul::Bundle::main();                    // the executable's directory
///     bundle->bundleIdentifier();                           // "tv.example.player", or absent
///     bundle->object("CFBundleShortVersionString");         // an AnyValue ("2.4.1"), or absent
///
/// The information dictionary is the JSON object in the file "Info.json" of the bundle's
/// directory, for example
///
///     { "CFBundleIdentifier": "tv.example.player",
///       "CFBundleShortVersionString": "2.4.1",
///       "ZulTechSettings": { "Platform": "stb" } }
///
/// or whatever the host sets with `setInfoDictionary`. The file is read once, on first use of the
/// dictionary, and kept; keys keep the file's order. A missing file is an empty dictionary. A file
/// that cannot be read, is not valid JSON or does not hold an object is also an empty dictionary,
/// and one line naming the file and the reason goes to standard error: a broken description must
/// not stop the application.
///
/// The main bundle is, in this order: the bundle the host set with `Bundle::setMain`; the
/// directory named by the environment variable ZUL_BUNDLE_PATH (read when `main()` is first
/// called after start or after `setMain(nullptr)`); the directory of the running executable.
///
/// Every operation is thread-safe.

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "zul/platform/any_value.hpp"

namespace zul {

class Bundle {
public:
    /// The name of the information dictionary's file in a bundle's directory.
    static constexpr std::string_view infoFileName = "Info.json";

    /// The bundle of `directory`. It need not exist: a bundle without an "Info.json" simply has an
    /// empty information dictionary.
    static std::shared_ptr<Bundle> create(std::filesystem::path directory);

    /// The application's bundle (see above). The same object until `setMain` is called.
    static std::shared_ptr<Bundle> main();

    /// Makes `bundle` the main bundle; null goes back to ZUL_BUNDLE_PATH or the executable's
    /// directory at the next `main()`. For hosts that keep their resources elsewhere, and tests.
    static void setMain(std::shared_ptr<Bundle> bundle);

    const std::filesystem::path& bundlePath() const noexcept { return path_; }

    /// The information dictionary: a snapshot that later `setInfoDictionary` calls leave as it is.
    std::shared_ptr<const AnyMap> infoDictionary() const;

    /// Replaces the information dictionary (the file is then no longer read).
    void setInfoDictionary(AnyMap dictionary);

    /// The value of `key` in the information dictionary, or absent.
    std::optional<AnyValue> object(std::string_view forInfoDictionaryKey) const;

    /// The "CFBundleIdentifier" entry when it is text; absent when missing or of another kind.
    std::optional<std::string> bundleIdentifier() const;

private:
    explicit Bundle(std::filesystem::path directory);

    const std::filesystem::path path_;
    mutable std::mutex mutex_;
    mutable std::shared_ptr<const AnyMap> info_;  // null until read or set
};

}  // namespace zul
