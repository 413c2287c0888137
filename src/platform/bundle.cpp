#include "zul/platform/bundle.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/file_io.hpp"
#include "platform/json_reading.hpp"

namespace zul {

namespace {

// The information dictionary of the file at `path`: empty when there is none, and empty with a
// line on standard error when it cannot be used.
AnyMap readInfoFile(const std::filesystem::path& path) {
    std::string text;
    std::string reason;
    if (const int error = detail::readWholeFile(path, text); error != 0) {
        if (error == ENOENT || error == ENOTDIR) return {};
        reason = std::strerror(error);
    } else {
        try {
            AnyValue root = detail::readJSON(text);
            if (const AnyMap* map = root.asMap()) return *map;
            reason = "the top level is not a JSON object";
        } catch (const detail::JSONReadError& invalid) {
            reason = std::string("not valid JSON (") + invalid.what() + ")";
        }
    }
    std::fprintf(stderr, "ZulFoundation: ignoring the information dictionary %s: %s\n", path.c_str(), reason.c_str());
    return {};
}

std::filesystem::path defaultMainDirectory() {
    if (const char* override = std::getenv("ZUL_BUNDLE_PATH"); override != nullptr && *override != '\0') {
        return override;
    }
    std::error_code error;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) return executable.parent_path();
    // Without /proc (a restricted container) the working directory is the best remaining guess.
    return std::filesystem::current_path(error);
}

struct MainBundle {
    std::mutex mutex;
    std::shared_ptr<Bundle> bundle;
};

// Never destroyed: threads may still ask for the main bundle while the process exits.
MainBundle& mainBundle() {
    static MainBundle* state = new MainBundle;
    return *state;
}

}  // namespace

Bundle::Bundle(std::filesystem::path directory) : path_(std::move(directory)) {}

std::shared_ptr<Bundle> Bundle::create(std::filesystem::path directory) {
    return std::shared_ptr<Bundle>(new Bundle(std::move(directory)));
}

std::shared_ptr<Bundle> Bundle::main() {
    MainBundle& state = mainBundle();
    std::lock_guard lock(state.mutex);
    if (!state.bundle) state.bundle = create(defaultMainDirectory());
    return state.bundle;
}

void Bundle::setMain(std::shared_ptr<Bundle> bundle) {
    MainBundle& state = mainBundle();
    std::shared_ptr<Bundle> previous;  // released outside the lock
    std::lock_guard lock(state.mutex);
    previous = std::exchange(state.bundle, std::move(bundle));
}

std::shared_ptr<const AnyMap> Bundle::infoDictionary() const {
    std::lock_guard lock(mutex_);
    if (!info_) info_ = std::make_shared<const AnyMap>(readInfoFile(path_ / infoFileName));
    return info_;
}

void Bundle::setInfoDictionary(AnyMap dictionary) {
    auto replacement = std::make_shared<const AnyMap>(std::move(dictionary));
    std::lock_guard lock(mutex_);
    info_.swap(replacement);
}

std::optional<AnyValue> Bundle::object(std::string_view forInfoDictionaryKey) const {
    const auto info = infoDictionary();
    if (const AnyValue* value = info->get(forInfoDictionaryKey)) return *value;
    return std::nullopt;
}

std::optional<std::string> Bundle::bundleIdentifier() const {
    const auto info = infoDictionary();
    if (const AnyValue* value = info->get("CFBundleIdentifier")) {
        if (const std::string* text = value->asString()) return *text;
    }
    return std::nullopt;
}

}  // namespace zul
