#include "qlcopy/ActivityBoard.h"

namespace ql {

ActivityBoard::ActivityBoard(int slots) : slots_(static_cast<size_t>(slots)) {}

void ActivityBoard::begin(int slot, Kind kind, std::string path, double now) {
    std::lock_guard lock(mutex_);
    Slot& s = slots_.at(static_cast<size_t>(slot));
    s.kind = kind;
    s.serial = nextSerial_++;
    s.path = std::move(path);
    s.startedAt = now;
    s.lastProgressAt = now;
    s.entriesSeen = 0;
}

void ActivityBoard::progress(int slot, double now, std::int64_t entriesSeen) {
    std::lock_guard lock(mutex_);
    Slot& s = slots_.at(static_cast<size_t>(slot));
    s.lastProgressAt = now;
    if (entriesSeen >= 0) s.entriesSeen = entriesSeen;
}

void ActivityBoard::end(int slot) {
    std::lock_guard lock(mutex_);
    Slot& s = slots_.at(static_cast<size_t>(slot));
    s.kind = Kind::idle;
    s.serial = nextSerial_++;
}

std::vector<ActivityBoard::Slot> ActivityBoard::snapshot() const {
    std::lock_guard lock(mutex_);
    return slots_;
}

const char* ActivityBoard::kindName(Kind kind) {
    switch (kind) {
        case Kind::idle: return "idle";
        case Kind::listing: return "scan";
        case Kind::stat: return "stat";
        case Kind::copy: return "copy";
        case Kind::remove: return "delete";
        case Kind::retime: return "retime";
    }
    return "?";
}

}  // namespace ql
