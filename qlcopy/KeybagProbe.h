#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace ql {

// Tells whether the user's data-protection keys are absent right now, so that a source file
// that cannot be opened for want of its key is deferred to a later run instead of failing.
class KeybagProbe {
public:
    virtual ~KeybagProbe() = default;
    virtual bool locked() = 0;

    // The error of an open() that means "the file's encryption key is not available"
    // (ENOKEY on Linux; EPERM for a protection-class file on macOS).
    static bool isKeyAbsent(int error);
    // Whether the protected file at `path` cannot be read for want of its key. Linux (fscrypt):
    // the file's key is absent, or, when a locked folder hides the name, the key of the
    // sentinel's folder policy is absent. macOS: opening it fails as a locked class-A file does.
    // `detail` says what was found, for the log.
    static bool sentinelLocked(const std::string& path, std::string& detail);
};

// No keybag to watch (--no-keybag, or nothing said): never locked, so nothing is deferred.
class NoKeybagProbe final : public KeybagProbe {
public:
    bool locked() override { return false; }
};

// Probes a sentinel file protected like the user's files: when it cannot be opened either,
// the keys are absent. The answer is kept for two seconds.
class SentinelKeybagProbe final : public KeybagProbe {
public:
    explicit SentinelKeybagProbe(std::string path);
    bool locked() override;

private:
    std::string path_;
    std::mutex mutex_;
    std::optional<bool> cached_;
    std::chrono::steady_clock::time_point cachedAt_;
};

}  // namespace ql
