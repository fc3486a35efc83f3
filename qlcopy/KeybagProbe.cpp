#include "qlcopy/KeybagProbe.h"

#include "QLSupport/Log.h"

namespace ql {

SentinelKeybagProbe::SentinelKeybagProbe(std::string path) : path_(std::move(path)) {}

bool SentinelKeybagProbe::locked() {
    std::lock_guard lock(mutex_);
    auto now = std::chrono::steady_clock::now();
    if (cached_ && now - cachedAt_ < std::chrono::seconds(2)) return *cached_;
    std::string detail;
    const bool isLocked = sentinelLocked(path_, detail);
    if (!cached_ || *cached_ != isLocked) {
        Log::f("Keybag", "sentinel {} says the keybag is {} ({})", path_, isLocked ? "LOCKED" : "unlocked", detail);
    }
    cached_ = isLocked;
    cachedAt_ = now;
    return isLocked;
}

}  // namespace ql
