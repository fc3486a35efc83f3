#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>

namespace ql {

// The platform's per-file data protection: files of class A cannot be opened while the keybag
// is locked (macOS: fcntl F_SETPROTECTIONCLASS / F_GETPROTECTIONCLASS). Linux has no such
// facility; its live implementation says so with ENOTSUP.
class ProtectionClassFacility {
public:
    static constexpr int classA = 1;

    virtual ~ProtectionClassFacility() = default;
    // Sets class A on an existing file; 0 or the errno.
    virtual int setClassA(const std::filesystem::path& path) = 0;
    // The file's class; nullopt when it cannot be read or the facility does not exist.
    virtual std::optional<int> protectionClass(const std::filesystem::path& path) = 0;
    // The user logged in at the console, when there is one.
    virtual std::optional<uid_t> consoleUserUID() = 0;
    // chown to that user (group unchanged); 0 or the errno.
    virtual int changeOwner(const std::filesystem::path& path, uid_t uid) = 0;
};

class LiveProtectionClassFacility final : public ProtectionClassFacility {
public:
    int setClassA(const std::filesystem::path& path) override;
    std::optional<int> protectionClass(const std::filesystem::path& path) override;
    std::optional<uid_t> consoleUserUID() override;
    int changeOwner(const std::filesystem::path& path, uid_t uid) override;
};

// Data protection in memory, for tests: `setClassA` answers `setResult` (and records class A on
// success); `chownDropsClass` makes a change of owner reset the file's class, as an old
// system release did.
class FakeProtectionClassFacility final : public ProtectionClassFacility {
public:
    int setResult = 0;
    // When set, only setClassA calls on paths whose name starts with ".keybag-probe-" get
    // `setResult`; other files succeed (a locked keybag still lets the memo keep its class).
    bool onlyProbeFails = false;
    bool chownDropsClass = false;
    int chownResult = 0;
    std::optional<uid_t> consoleUID;

    int setClassA(const std::filesystem::path& path) override;
    std::optional<int> protectionClass(const std::filesystem::path& path) override;
    std::optional<uid_t> consoleUserUID() override { return consoleUID; }
    int changeOwner(const std::filesystem::path& path, uid_t uid) override;

    void setClass(const std::filesystem::path& path, int value);
    std::optional<uid_t> ownerOf(const std::filesystem::path& path) const;

private:
    mutable std::mutex mutex_;
    std::map<std::filesystem::path, int> classes_;
    std::map<std::filesystem::path, uid_t> owners_;
};

}  // namespace ql
