#include "zul/network/detail/task_list.hpp"

#include <algorithm>
#include <utility>

namespace zul::detail {

namespace {

// Holes are squeezed out once there are more of them than this and than listed tasks: often
// enough that scans stay short, seldom enough that squeezing costs little per task taken off.
constexpr std::size_t kHolesKept = 32;

}  // namespace

void TaskList::append(std::shared_ptr<NetworkTask> task) { entries_.push_back(std::move(task)); }

void TaskList::appendAgain(std::shared_ptr<NetworkTask> task) {
    const NetworkTask* listed = task.get();
    if (find([listed](const NetworkTask& candidate) { return &candidate == listed; })) ++repeats_;
    entries_.push_back(std::move(task));
}

bool TaskList::remove(const NetworkTask& task) {
    auto same = [&task](const NetworkTask& listed) { return &listed == &task; };
    const std::size_t i = indexOf(same);
    if (i == entries_.size()) return false;
    clearFrom(i, &task);
    return true;
}

std::shared_ptr<NetworkTask> TaskList::removeToken(const std::string& token) {
    auto withToken = [&token](const NetworkTask& listed) { return listed.token() == token; };
    const std::size_t i = indexOf(withToken);
    if (i == entries_.size()) return nullptr;
    std::shared_ptr<NetworkTask> found = entries_[i];
    clearFrom(i, found.get());
    return found;
}

std::vector<std::shared_ptr<NetworkTask>> TaskList::takeAll() {
    std::vector<std::shared_ptr<NetworkTask>> taken;
    taken.reserve(size());
    for (std::size_t i = head_; i < entries_.size(); ++i) {
        if (entries_[i]) taken.push_back(std::move(entries_[i]));
    }
    entries_.clear();
    head_ = holes_ = repeats_ = 0;
    return taken;
}

void TaskList::clearFrom(std::size_t from, const NetworkTask* task) {
    // Held until the list is tidy, so that `task` stays valid for the comparisons below.
    const std::shared_ptr<NetworkTask> keep = std::move(entries_[from]);
    ++holes_;
    for (std::size_t i = from + 1; repeats_ > 0 && i < entries_.size(); ++i) {
        if (entries_[i].get() == task) {
            entries_[i].reset();
            ++holes_;
            --repeats_;
        }
    }
    tidy();
}

void TaskList::tidy() {
    while (head_ < entries_.size() && !entries_[head_]) {
        ++head_;
        --holes_;
    }
    if (head_ == entries_.size()) {
        entries_.clear();  // keeps its storage for the next tasks
        head_ = 0;
        return;
    }
    const std::size_t dead = head_ + holes_;
    if (dead > kHolesKept && dead > size()) {
        entries_.erase(std::remove(entries_.begin(), entries_.end(), nullptr), entries_.end());
        head_ = holes_ = 0;
    }
}

}  // namespace zul::detail
