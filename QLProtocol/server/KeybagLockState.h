#pragma once

#include "QLProtocol/server/ProtectionClassFacility.h"

#include <filesystem>
#include <mutex>

namespace ql {

// Whether the data-protection keybag is locked (files of class A cannot be opened), which
// decides whether a scheduled run must defer protected files.
class KeybagLockState {
public:
    virtual ~KeybagLockState() = default;
    virtual bool isLocked() = 0;
};

class FakeKeybagLockState final : public KeybagLockState {
public:
    bool locked = false;
    bool isLocked() override { return locked; }
};

// Probes by setting class A on a fresh file in the state directory. Success means unlocked,
// and is remembered in the memo "keybag-dp-supported" (itself kept in class A and handed to the
// console user). A failure means locked only when data protection has been seen working on
// this machine (the memo exists); otherwise the probe fails open, as it does on Linux.
class LiveKeybagLockState final : public KeybagLockState {
public:
    LiveKeybagLockState(std::filesystem::path stateDirectory, ProtectionClassFacility& facility);

    bool isLocked() override;

    std::filesystem::path memoPath() const { return stateDirectory_ / "keybag-dp-supported"; }
    std::filesystem::path legacyMemoPath() const { return stateDirectory_ / ".dp-supported"; }

private:
    void recordCapability();
    bool mintMemo();
    void handToConsoleUser();

    std::filesystem::path stateDirectory_;
    ProtectionClassFacility& facility_;
    std::mutex mutex_;
};

}  // namespace ql
