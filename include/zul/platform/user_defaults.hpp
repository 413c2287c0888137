#pragma once

/// `UserDefaults`: a persistent per-user key-value store for preferences.
///
///     auto defaults = zul::UserDefaults::standard();
///     defaults->set(zul::AnyValue(0.75), "volume");
///     defaults->string("volume");                 // "0.75"
///     defaults->object("volume")->asDouble();     // 0.75
///     defaults->set(std::nullopt, "volume");      // removes it
///     defaults->synchronize();                    // on disk now
///
/// Where: `standard()` keeps its values in
/// `$XDG_CONFIG_HOME/<bundle identifier>/preferences.json` (`~/.config` when XDG_CONFIG_HOME is
/// unset or not absolute), where the identifier is the main bundle's, or "dev.zul.foundation" when
/// it has none. `create(path)` makes a store on any file, for tests and for hosts with their own
/// layout.
///
/// What: text, booleans, signed and unsigned integers, doubles, floats, dates, bytes, URLs, and
/// lists and text-keyed maps of these; each reads back as the kind it was stored as. A present
/// optional is stored as what it holds. Null, an absent optional and an opaque object (at any
/// depth) cannot be stored: setting one is a programming error that stops the process, and the
/// store is left unchanged. The file is pretty-printed JSON in which each value names its kind.
///
/// When: `set` changes the store at once for every thread of the process, and hands the write to
/// a background thread of the library, which writes what has changed since the last write in one
/// go. `synchronize()` writes what is pending, reads what other processes wrote, and returns true
/// once everything set before it is on the device; on false (a full disk, a read-only directory,
/// a file that cannot be read) the changes stay pending and the next `set` or `synchronize`
/// retries. Destroying a store, and for `standard()` a normal process exit, writes what is
/// pending. A process killed before that loses the changes not yet written, never the file: every
/// write goes to a temporary file in the same directory, is flushed to the device and renamed over
/// the old file, and then the directory is flushed, so the file always holds either the old or
/// the new complete state.
///
/// Several processes may share a file. Each write takes an advisory lock (`flock` on the file
/// `<file>.lock`), reads the file again, applies this store's pending changes key by key on top of
/// it and writes the result, so that no process's keys are lost: the last write of a key wins.
/// A store sees other processes' writes when it next writes or synchronises.
///
/// A file that is not in the store's format reads as empty, with one line to standard error; the
/// next write moves it aside to `<file>.corrupt` rather than destroying it.
///
/// Every operation is thread-safe.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zul/platform/any_value.hpp"

namespace zul {

class UserDefaults {
public:
    /// The identifier naming the standard store's directory when the main bundle has none.
    static constexpr std::string_view defaultIdentifier = "dev.zul.foundation";
    /// The name of the standard store's file in that directory.
    static constexpr std::string_view fileName = "preferences.json";

    /// The process's store for the current user (see above), made on first use.
    static const std::shared_ptr<UserDefaults>& standard();

    /// The file `standard()` uses, or would use if it were made now.
    static std::filesystem::path standardPath();

    /// A store on the file `path`, with the values the file holds now. The file and its directory
    /// are created on the first write.
    static std::shared_ptr<UserDefaults> create(std::filesystem::path path);

    /// Writes what is pending before it returns (waiting for a background write under way).
    ~UserDefaults();

    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    const std::filesystem::path& path() const noexcept;

    /// The value stored under the key, or absent.
    std::optional<AnyValue> object(std::string_view forKey) const;

    /// The value stored under the key read as text: text as it is, a boolean "1" or "0", an
    /// integer its decimal digits, a double or float its general rendering ("1.0", "12.34",
    /// "1e-05"). Absent when there is no value or it is of another kind (bytes, dates, lists, ...).
    std::optional<std::string> string(std::string_view forKey) const;

    /// Every key and value, keys in sorted order.
    AnyMap dictionaryRepresentation() const;

    /// Stores `value` under the key; absent removes the key. Stops the process when the value
    /// cannot be stored (null, an absent optional or an opaque object inside it).
    void set(std::optional<AnyValue> value, std::string_view forKey);

    /// Removes the key.
    void removeObject(std::string_view forKey) { set(std::nullopt, forKey); }

    /// Writes the pending changes, durably, and takes in what other processes wrote. True when
    /// everything set before the call is on the device and the file could be read.
    bool synchronize();

private:
    class Store;  // the state, shared with the background writes, which hold it weakly

    explicit UserDefaults(std::shared_ptr<Store> store) noexcept;

    const std::shared_ptr<Store> store_;
};

}  // namespace zul
