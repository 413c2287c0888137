#include "zul/core/environment.hpp"

#include <utility>

#include "core/environment_state.hpp"
#include "zul/platform/error.hpp"
#include "zul/platform/user_defaults.hpp"

namespace zul {

namespace detail {

namespace {

constexpr std::string_view defaultBundleIdentifier = "dev.zul.foundation";

}  // namespace

EnvironmentState::EnvironmentState(std::function<std::shared_ptr<Bundle>()> bundle) : bundle_(std::move(bundle)) {}

std::string EnvironmentState::bundleIdentifier() {
    std::lock_guard lock(mutex_);
    if (!bundleIdentifier_) {
        bundleIdentifier_ = bundle_()->bundleIdentifier().value_or(std::string(defaultBundleIdentifier));
    }
    return *bundleIdentifier_;
}

void EnvironmentState::setBundleIdentifier(std::string identifier) {
    std::lock_guard lock(mutex_);
    bundleIdentifier_ = std::move(identifier);
}

std::optional<std::string> EnvironmentState::appVersion() {
    std::lock_guard lock(mutex_);
    if (!appVersionKnown_) {
        appVersionKnown_ = true;
        if (auto value = bundle_()->object("CFBundleShortVersionString")) {
            if (const std::string* text = value->asString()) appVersion_ = *text;
        }
    }
    return appVersion_;
}

void EnvironmentState::setAppVersion(std::optional<std::string> version) {
    std::lock_guard lock(mutex_);
    appVersionKnown_ = true;
    appVersion_ = std::move(version);
}

ZulTechSettings EnvironmentState::settings() const {
    if (auto value = bundle_()->object("ZulTechSettings")) {
        if (const AnyMap* dictionary = value->asMap()) return ZulTechSettings(*dictionary);
    }
    return ZulTechSettings();
}

EnvironmentState& processEnvironment() {
    // Never destroyed: other threads may still read the environment while the process exits.
    static EnvironmentState* state = new EnvironmentState([] { return Bundle::main(); });
    return *state;
}

}  // namespace detail

ZulTechSettings::ZulTechSettings(const AnyMap& from) {
    if (const AnyValue* value = from.get("Platform")) {
        if (const std::string* text = value->asString()) platform = *text;
    }
}

std::string ZulEnvironment::bundleIdentifier() { return detail::processEnvironment().bundleIdentifier(); }

void ZulEnvironment::setBundleIdentifier(std::string identifier) {
    detail::processEnvironment().setBundleIdentifier(std::move(identifier));
}

std::optional<std::string> ZulEnvironment::appVersion() { return detail::processEnvironment().appVersion(); }

void ZulEnvironment::setAppVersion(std::optional<std::string> version) {
    detail::processEnvironment().setAppVersion(std::move(version));
}

ZulTechSettings ZulEnvironment::settings() { return detail::processEnvironment().settings(); }

ZulUserDefaultsReader::ZulUserDefaultsReader(std::shared_ptr<UserDefaults> store) : store_(std::move(store)) {}

std::shared_ptr<ZulUserDefaultsReader> ZulUserDefaultsReader::create() { return create(UserDefaults::standard()); }

std::shared_ptr<ZulUserDefaultsReader> ZulUserDefaultsReader::create(std::shared_ptr<UserDefaults> store) {
    if (!store) fatalError("ZulUserDefaultsReader needs a store");
    return std::shared_ptr<ZulUserDefaultsReader>(new ZulUserDefaultsReader(std::move(store)));
}

std::optional<std::string> ZulUserDefaultsReader::stringValue(std::string_view forKey) const {
    return store_->string(forKey);
}

void ZulUserDefaultsReader::set(std::optional<AnyValue> value, std::string_view forKey) {
    store_->set(std::move(value), forKey);
}

}  // namespace zul
