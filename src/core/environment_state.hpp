#pragma once

// The state behind `ZulEnvironment`'s class-level members, as a class of its own so that tests
// can give a fresh one any bundle: the process's instance initialises lazily only once.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "zul/core/environment.hpp"
#include "zul/platform/bundle.hpp"

namespace zul::detail {

class EnvironmentState {
public:
    /// `bundle` gives the bundle to read; it is called on first access and for every `settings()`.
    explicit EnvironmentState(std::function<std::shared_ptr<Bundle>()> bundle);

    std::string bundleIdentifier();
    void setBundleIdentifier(std::string identifier);
    std::optional<std::string> appVersion();
    void setAppVersion(std::optional<std::string> version);
    ZulTechSettings settings() const;

private:
    const std::function<std::shared_ptr<Bundle>()> bundle_;

    // One mutex serves both the one-time initialisation and later assignments: an assignment
    // racing with a read is then merely unordered, never a data race.
    std::mutex mutex_;
    std::optional<std::string> bundleIdentifier_;  // absent until read or assigned
    bool appVersionKnown_ = false;
    std::optional<std::string> appVersion_;
};

/// The instance `ZulEnvironment` uses, over `Bundle::main()`.
EnvironmentState& processEnvironment();

}  // namespace zul::detail
