#pragma once

// The router's list of running (and parked) tasks. Not for applications: the router's own
// member, exposed only because it is one.

#include <cstddef>
#include <memory>
#include <vector>

#include "zul/network/network_task.hpp"

namespace zul::detail {

/// Tasks in the order they were listed. The same task may be listed more than once (a parked
/// request is listed again when it is resumed); taking a task off takes off every listing.
///
/// A task taken off leaves a hole that scans skip, and the holes at the front are stepped over at
/// once. Requests mostly finish in the order they were made, so the task a finished transfer
/// looks for is near the front and taking it off costs the same however many are listed; holes
/// elsewhere are squeezed out once they outnumber the tasks. Not synchronised: the router guards
/// it with its monitor.
class TaskList {
public:
    /// Lists a task that is not listed yet.
    void append(std::shared_ptr<NetworkTask> task);
    /// Lists a task that may be listed already.
    void appendAgain(std::shared_ptr<NetworkTask> task);

    /// Takes every listing of `task` off; false when it was not listed.
    bool remove(const NetworkTask& task);
    /// Takes every listing of the first task with this token off and returns that task, or null.
    std::shared_ptr<NetworkTask> removeToken(const std::string& token);
    /// Empties the list and returns what it held, in order.
    std::vector<std::shared_ptr<NetworkTask>> takeAll();

    /// The first listed task `match` accepts, or null.
    template <class Match>
    std::shared_ptr<NetworkTask> find(Match match) const {
        const std::size_t i = indexOf(match);
        return i < entries_.size() ? entries_[i] : nullptr;
    }
    /// Calls `visit` with every listing, in order.
    template <class Visit>
    void forEach(Visit visit) const {
        for (std::size_t i = head_; i < entries_.size(); ++i) {
            if (entries_[i]) visit(entries_[i]);
        }
    }

    /// Listings, counting a task listed twice twice.
    std::size_t size() const noexcept { return entries_.size() - head_ - holes_; }

private:
    // Where the first listed task `match` accepts is, or entries_.size().
    template <class Match>
    std::size_t indexOf(Match& match) const {
        std::size_t i = head_;
        while (i < entries_.size() && !(entries_[i] && match(*entries_[i]))) ++i;
        return i;
    }
    // Clears the listings of `task` from `from` on: all of them when some task is listed twice,
    // else the one at `from`.
    void clearFrom(std::size_t from, const NetworkTask* task);
    void tidy();

    std::vector<std::shared_ptr<NetworkTask>> entries_;
    std::size_t head_ = 0;     // entries before it are holes
    std::size_t holes_ = 0;    // holes from head_ on
    std::size_t repeats_ = 0;  // listings beyond a task's first
};

}  // namespace zul::detail
