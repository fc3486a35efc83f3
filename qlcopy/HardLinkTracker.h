#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace ql {

// Remembers, for each source inode with several links, where its first link was placed on the
// destination, so later links become links there too. An entry is dropped once every link of
// the inode has been seen, so memory grows only with inodes whose links are still to come.
// Used by the walker thread only.
class HardLinkTracker {
public:
    struct Placement {
        std::string destRelative;  // path under the destination root, without a leading "/"
        ino_t destIno = 0;
    };

    std::optional<Placement> find(dev_t dev, ino_t ino) const;
    // The first link of an inode has been placed (copied, or found up to date).
    void place(dev_t dev, ino_t ino, nlink_t links, Placement placement);
    // Another link of a known inode has been handled.
    void linkSeen(dev_t dev, ino_t ino);
    void forget(dev_t dev, ino_t ino);
    std::size_t size() const { return entries_.size(); }

private:
    struct Entry {
        Placement placement;
        nlink_t remaining = 0;
    };
    std::map<std::pair<dev_t, ino_t>, Entry> entries_;
};

}  // namespace ql
