#include "zul/platform/user_defaults.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/file_io.hpp"
#include "platform/file_worker.hpp"
#include "platform/preferences_format.hpp"
#include "zul/platform/bundle.hpp"
#include "zul/platform/error.hpp"

namespace zul {

namespace {

std::filesystem::path withSuffix(const std::filesystem::path& path, std::string_view suffix) {
    std::filesystem::path result = path;
    result += suffix;
    return result;
}

// The advisory lock every writer of a file holds from reading the file to renaming the new one
// over it. It lives on a file of its own because the data file is replaced, and a lock on the
// replaced file would not exclude a writer that opens the new one.
class WriteLock {
public:
    WriteLock() = default;
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;
    ~WriteLock() {
        if (fd_ >= 0) ::close(fd_);  // closing releases the lock
    }

    // Waits for the lock; returns 0 or errno.
    int acquire(const std::filesystem::path& path) {
        fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) return errno;
        while (::flock(fd_, LOCK_EX) != 0) {
            if (errno != EINTR) return errno;
        }
        return 0;
    }

private:
    int fd_ = -1;
};

std::filesystem::path configHome() {
    // A relative XDG_CONFIG_HOME is invalid and to be ignored.
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && xdg[0] == '/') return xdg;
    std::filesystem::path home;
    if (const char* variable = std::getenv("HOME"); variable != nullptr && variable[0] != '\0') {
        home = variable;
    } else {
        std::vector<char> buffer(16384);
        passwd entry{};
        passwd* found = nullptr;
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
            found->pw_dir != nullptr) {
            home = found->pw_dir;
        } else {
            std::error_code ignored;
            home = std::filesystem::current_path(ignored);
        }
    }
    return home / ".config";
}

// The identifier as one directory name: a "/" would reach into other directories, so it becomes
// "_", and names that are not directories of their own fall back to the default.
std::string directoryName(std::optional<std::string> identifier) {
    std::string name = identifier.value_or(std::string(UserDefaults::defaultIdentifier));
    for (char& c : name) {
        if (c == '/' || c == '\0') c = '_';
    }
    if (name.empty() || name == "." || name == "..") return std::string(UserDefaults::defaultIdentifier);
    return name;
}

}  // namespace

// The store's state and its file work. `UserDefaults` is the handle applications hold; background
// writes hold the state weakly, so that dropping the last handle writes what is pending on the
// dropping thread, after any write under way, and nothing outlives the handle for long.
class UserDefaults::Store : public std::enable_shared_from_this<Store> {
public:
    explicit Store(std::filesystem::path path) : path_(std::move(path)) {}

    const std::filesystem::path& path() const noexcept { return path_; }

    // Reads the file as the store's first state.
    void open();

    std::optional<AnyValue> object(std::string_view key) const;
    std::optional<std::string> string(std::string_view key) const;
    AnyMap dictionaryRepresentation() const;
    void set(std::optional<AnyValue> stored, std::string_view key);

    // Writes the pending changes; with `reload`, takes in the file's state even when there are none.
    bool flush(bool reload);

private:
    using Values = detail::PreferenceValues;
    using Changes = std::map<std::string, std::optional<AnyValue>, std::less<>>;

    struct Loaded {
        enum class Status { ok, missing, malformed, unreadable };
        Status status = Status::ok;
        Values values;
        std::string reason;
    };

    Loaded load() const;
    bool writeMerged(Changes& taken);
    void adopt(Values disk);
    void restore(Changes taken);
    void reportFailure(const std::string& message);

    const std::filesystem::path path_;

    mutable std::mutex mutex_;  // guards the three below; held for map operations only
    Values values_;
    Changes pending_;           // set since the last write began: a value, or absent for a removal
    bool writeScheduled_ = false;

    std::mutex flushMutex_;     // one write or reload of this store at a time; guards the one below
    bool reported_ = false;     // a failure has been reported and nothing has succeeded since
};

void UserDefaults::Store::open() {
    Loaded loaded = load();
    std::lock_guard flushing(flushMutex_);
    switch (loaded.status) {
        case Loaded::Status::ok: {
            std::lock_guard lock(mutex_);
            values_ = std::move(loaded.values);
            break;
        }
        case Loaded::Status::missing: break;
        case Loaded::Status::malformed:
        case Loaded::Status::unreadable: reportFailure(loaded.reason); break;
    }
}

std::optional<AnyValue> UserDefaults::Store::object(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

std::optional<std::string> UserDefaults::Store::string(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return detail::preferenceString(found->second);
}

AnyMap UserDefaults::Store::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    AnyMap map;
    map.reserve(values_.size());
    for (const auto& [key, value] : values_) map.insertOrAssign(key, value);
    return map;
}

void UserDefaults::Store::set(std::optional<AnyValue> stored, std::string_view key) {
    bool schedule = false;
    {
        std::lock_guard lock(mutex_);
        if (stored) {
            values_.insert_or_assign(std::string(key), *stored);
        } else if (const auto found = values_.find(key); found != values_.end()) {
            values_.erase(found);
        }
        pending_.insert_or_assign(std::string(key), std::move(stored));
        schedule = !std::exchange(writeScheduled_, true);
    }
    // The first pending change asks for a write; changes made until that write takes the pending
    // set ride along with it.
    if (schedule) {
        detail::submitFileWork([weak = weak_from_this()] {
            if (auto self = weak.lock()) self->flush(false);
        });
    }
}

UserDefaults::Store::Loaded UserDefaults::Store::load() const {
    std::string text;
    if (const int error = detail::readWholeFile(path_, text); error != 0) {
        // A path below something that is not a directory cannot hold a file either.
        if (error == ENOENT || error == ENOTDIR) return {Loaded::Status::missing, {}, {}};
        return {Loaded::Status::unreadable, {},
                "cannot read the preferences file " + path_.string() + ": " + std::strerror(error)};
    }
    try {
        return {Loaded::Status::ok, detail::readPreferences(text), {}};
    } catch (const detail::PreferencesFormatError& error) {
        return {Loaded::Status::malformed, {},
                "the preferences file " + path_.string() + " is not in the store's format (" + error.what() +
                    "); it reads as empty and is moved to " + withSuffix(path_, ".corrupt").string() +
                    " on the next write"};
    }
}

bool UserDefaults::Store::flush(bool reload) {
    std::lock_guard flushing(flushMutex_);
    Changes taken;
    {
        std::lock_guard lock(mutex_);
        taken.swap(pending_);
        writeScheduled_ = false;
    }
    if (!taken.empty()) return writeMerged(taken);
    if (!reload) return true;
    // Reading needs no lock: writers only ever rename a complete file into place.
    Loaded disk = load();
    if (disk.status == Loaded::Status::malformed || disk.status == Loaded::Status::unreadable) {
        reportFailure(disk.reason);
        return false;
    }
    adopt(std::move(disk.values));
    reported_ = false;
    return true;
}

// Read the file as it is now, apply this store's changes key by key, write the result: all under
// the write lock, so that a change another process made since this store last read the file
// survives unless this store changed the same key.
bool UserDefaults::Store::writeMerged(Changes& taken) {
    auto fail = [&](const std::string& message) {
        restore(std::move(taken));
        reportFailure(message);
        return false;
    };
    std::error_code ignored;
    if (path_.has_parent_path()) std::filesystem::create_directories(path_.parent_path(), ignored);
    WriteLock lock;
    if (const int error = lock.acquire(withSuffix(path_, ".lock")); error != 0) {
        return fail("cannot lock " + withSuffix(path_, ".lock").string() + ": " + std::strerror(error));
    }
    Loaded disk = load();
    if (disk.status == Loaded::Status::unreadable) return fail(disk.reason);
    Values merged = std::move(disk.values);
    for (const auto& [key, change] : taken) {
        if (change) {
            merged.insert_or_assign(key, *change);
        } else if (const auto found = merged.find(key); found != merged.end()) {
            merged.erase(found);
        }
    }
    if (disk.status == Loaded::Status::malformed) {
        // Keep what cannot be read rather than write over it: somebody may want it back.
        if (::rename(path_.c_str(), withSuffix(path_, ".corrupt").c_str()) != 0 && errno != ENOENT) {
            const int error = errno;
            return fail("cannot move the unreadable preferences file " + path_.string() + " aside: " +
                        std::strerror(error));
        }
    }
    // The temporary file has a fixed name: only the holder of the write lock writes it, and a
    // leftover from a writer that was killed is simply overwritten.
    const int error =
        detail::replaceFileAtomically(path_, withSuffix(path_, ".tmp"), detail::writePreferences(merged), 0600);
    if (error != 0) {
        return fail("cannot write the preferences file " + path_.string() + ": " + std::strerror(error));
    }
    adopt(std::move(merged));
    reported_ = false;
    return true;
}

// Takes the file's state as this store's, with the changes made since the write began on top.
void UserDefaults::Store::adopt(Values disk) {
    std::lock_guard lock(mutex_);
    for (const auto& [key, change] : pending_) {
        if (change) {
            disk.insert_or_assign(key, *change);
        } else if (const auto found = disk.find(key); found != disk.end()) {
            disk.erase(found);
        }
    }
    values_.swap(disk);
}

// Puts changes that could not be written back in line, behind any newer change of the same key.
void UserDefaults::Store::restore(Changes taken) {
    std::lock_guard lock(mutex_);
    for (auto& [key, change] : taken) pending_.try_emplace(key, std::move(change));
}

// One line per failure streak: a store that cannot write says so once, not on every change.
void UserDefaults::Store::reportFailure(const std::string& message) {
    if (reported_) return;
    reported_ = true;
    std::fprintf(stderr, "ZulFoundation: %s\n", message.c_str());
}

// ---- the handle ----

UserDefaults::UserDefaults(std::shared_ptr<Store> store) noexcept : store_(std::move(store)) {}

std::shared_ptr<UserDefaults> UserDefaults::create(std::filesystem::path path) {
    auto store = std::make_shared<Store>(std::move(path));
    store->open();
    return std::shared_ptr<UserDefaults>(new UserDefaults(std::move(store)));
}

UserDefaults::~UserDefaults() { store_->flush(false); }

std::filesystem::path UserDefaults::standardPath() {
    return configHome() / directoryName(Bundle::main()->bundleIdentifier()) / fileName;
}

const std::shared_ptr<UserDefaults>& UserDefaults::standard() {
    // Never destroyed, so that threads still using it while the process exits find it intact;
    // what is pending when the process exits normally is written then.
    static const std::shared_ptr<UserDefaults>* const store = [] {
        auto* made = new std::shared_ptr<UserDefaults>(create(standardPath()));
        std::atexit([] { (*store)->store_->flush(false); });
        return made;
    }();
    return *store;
}

const std::filesystem::path& UserDefaults::path() const noexcept { return store_->path(); }

std::optional<AnyValue> UserDefaults::object(std::string_view forKey) const { return store_->object(forKey); }

std::optional<std::string> UserDefaults::string(std::string_view forKey) const { return store_->string(forKey); }

AnyMap UserDefaults::dictionaryRepresentation() const { return store_->dictionaryRepresentation(); }

void UserDefaults::set(std::optional<AnyValue> value, std::string_view forKey) {
    std::optional<AnyValue> stored;
    if (value) {
        stored = detail::storableForm(*value);
        if (!stored) {
            fatalError("Attempt to insert non-property list object " + value->debugDescription() + " for key " +
                       std::string(forKey));
        }
    }
    store_->set(std::move(stored), forKey);
}

bool UserDefaults::synchronize() { return store_->flush(true); }

}  // namespace zul
