#pragma once

// A look inside the logging hub, for the library's own tests: its queue, its registrations, and
// the bodies of its synchronous operations, so that a test can run them on the hub's queue at a
// moment of its choosing (as if a concurrent caller had got there first).

#include <memory>
#include <string>
#include <vector>

#include "zul/core/logging.hpp"

namespace zul {

struct LoggingInternals {
    struct Registration {
        std::shared_ptr<ZulLogger> logger;
        ZulLog level;
        std::shared_ptr<DispatchQueue> queue;
    };

    static const std::shared_ptr<DispatchQueue>& synchronizationQueue() {
        return ZulLogging::instance().synchronizationQueue_;
    }

    /// The registrations in order, read on the hub's queue.
    static std::vector<Registration> registrations() {
        ZulLogging& hub = ZulLogging::instance();
        return hub.synchronizationQueue_->sync([&hub] {
            std::vector<Registration> out;
            for (const auto& item : hub.loggerItems_) out.push_back(Registration{item.logger, item.level, item.queue});
            return out;
        });
    }

    /// The body of `remove`; call it on the hub's queue only.
    static void removeOnQueue(const std::string& identifier) { ZulLogging::instance().removeItems(identifier); }

    /// The body of `setLevels` with no level switched on; call it on the hub's queue only.
    static void switchOffAllLevelsOnQueue() { ZulLogging::instance().replaceLevels(0); }
};

}  // namespace zul
