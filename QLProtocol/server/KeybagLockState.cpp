#include "QLProtocol/server/KeybagLockState.h"

#include "QLSupport/Log.h"
#include "QLSupport/Uuid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ql {
namespace {

constexpr std::string_view tag = "keybag";

bool pathExists(const std::filesystem::path& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

int createEmpty(const std::filesystem::path& path) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return errno;
    ::close(fd);
    return 0;
}

}  // namespace

LiveKeybagLockState::LiveKeybagLockState(std::filesystem::path stateDirectory, ProtectionClassFacility& facility)
    : stateDirectory_(std::move(stateDirectory)), facility_(facility) {}

bool LiveKeybagLockState::isLocked() {
    std::lock_guard lock(mutex_);
    const auto probe = stateDirectory_ / (".keybag-probe-" + Uuid::mint().text());
    if (int rc = createEmpty(probe); rc != 0) {
        // Without a probe file nothing can be learned; a protected file would not be the problem.
        Log::f(tag, "could not create the probe file {} (errno {}) — treating the keybag as unlocked", probe.string(),
               rc);
        return false;
    }
    const int rc = facility_.setClassA(probe);
    ::unlink(probe.c_str());
    const bool dpSupported = pathExists(memoPath()) || pathExists(legacyMemoPath());
    if (rc == 0) {
        recordCapability();
        return false;
    }
    if (dpSupported) {
        Log::f(tag, "class-A set failed (errno {}, dp-supported=true) — keybag LOCKED; deferring", rc);
        return true;
    }
    Log::f(tag, "F_SETPROTECTIONCLASS unsupported at {} (errno {}, never seen working) — probe fails open (unlocked)",
           probe.string(), rc);
    return false;
}

void LiveKeybagLockState::recordCapability() {
    const auto memo = memoPath();
    if (pathExists(memo)) {
        auto current = facility_.protectionClass(memo);
        if (!current || *current == ProtectionClassFacility::classA) return;
        Log::f(tag, "sentinel at {} is not class A — re-minting (pre-fix file, 2026-07-07 gate hole)", memo.string());
        ::unlink(memo.c_str());
    }
    const bool minted = mintMemo();
    const auto legacy = legacyMemoPath();
    if (!pathExists(legacy)) return;
    if (minted) {
        ::unlink(legacy.c_str());
    } else {
        Log::f(tag, "keeping the legacy memo at {} until its replacement lands", legacy.string());
    }
}

bool LiveKeybagLockState::mintMemo() {
    const auto memo = memoPath();
    int rc = createEmpty(memo);
    if (rc == 0) rc = facility_.setClassA(memo);
    if (rc != 0) {
        ::unlink(memo.c_str());
        Log::f(tag,
               "could not record the Data-Protection capability memo at {} — a later locked-time class-A failure may "
               "fail OPEN",
               memo.string());
        return false;
    }
    handToConsoleUser();
    return true;
}

void LiveKeybagLockState::handToConsoleUser() {
    const auto memo = memoPath();
    auto uid = facility_.consoleUserUID();
    if (!uid) return;
    if (int rc = facility_.changeOwner(memo, *uid); rc != 0) {
        Log::f(tag, "could not hand {} to uid {} (errno {}) — it stays root-owned", memo.string(), *uid, rc);
        return;
    }
    auto current = facility_.protectionClass(memo);
    if (!current || *current == ProtectionClassFacility::classA) return;
    Log::f(tag, "chown moved {} off class A — re-pinning", memo.string());
    if (int rc = facility_.setClassA(memo); rc != 0) {
        Log::f(tag, "could not restore class A on {} (errno {}) — the next probe re-mints it", memo.string(), rc);
    }
}

}  // namespace ql
