#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ql {

// What each of the engine's threads is doing right now, for progress (current paths), stall
// and slow-listing reports and the `terminated` event. Slot 0 is the tree walker (the scanner);
// the other slots are the file-copy threads (executors). Times are active seconds.
class ActivityBoard {
public:
    enum class Kind { idle, listing, stat, copy, remove, retime };

    struct Slot {
        Kind kind = Kind::idle;
        std::uint64_t serial = 0;  // changes with every new operation
        std::string path;          // relative to the copy root, with a leading "/"
        double startedAt = 0;
        double lastProgressAt = 0;
        std::int64_t entriesSeen = 0;
    };

    explicit ActivityBoard(int slots);

    int slotCount() const { return static_cast<int>(slots_.size()); }
    void begin(int slot, Kind kind, std::string path, double now);
    void progress(int slot, double now, std::int64_t entriesSeen = -1);
    void end(int slot);

    std::vector<Slot> snapshot() const;

    static const char* kindName(Kind kind);

private:
    mutable std::mutex mutex_;
    std::vector<Slot> slots_;
    std::uint64_t nextSerial_ = 1;
};

}  // namespace ql
