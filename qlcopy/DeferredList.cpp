#include "qlcopy/DeferredList.h"

namespace ql {

void DeferredList::add(const std::string& path) {
    std::lock_guard lock(mutex_);
    ++count_;
    if (paths_.size() < pathCap) paths_.push_back(path);
}

std::int64_t DeferredList::count() const {
    std::lock_guard lock(mutex_);
    return count_;
}

std::vector<std::string> DeferredList::paths() const {
    std::lock_guard lock(mutex_);
    return paths_;
}

}  // namespace ql
