#include "qlcopy/HardLinkTracker.h"

namespace ql {

std::optional<HardLinkTracker::Placement> HardLinkTracker::find(dev_t dev, ino_t ino) const {
    auto it = entries_.find({dev, ino});
    if (it == entries_.end()) return std::nullopt;
    return it->second.placement;
}

void HardLinkTracker::place(dev_t dev, ino_t ino, nlink_t links, Placement placement) {
    if (links <= 1) return;
    entries_[{dev, ino}] = Entry{std::move(placement), links - 1};
}

void HardLinkTracker::linkSeen(dev_t dev, ino_t ino) {
    auto it = entries_.find({dev, ino});
    if (it == entries_.end()) return;
    if (it->second.remaining <= 1) {
        entries_.erase(it);
    } else {
        --it->second.remaining;
    }
}

void HardLinkTracker::forget(dev_t dev, ino_t ino) { entries_.erase({dev, ino}); }

}  // namespace ql
