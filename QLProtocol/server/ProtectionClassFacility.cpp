#include "QLProtocol/server/ProtectionClassFacility.h"

namespace ql {

int FakeProtectionClassFacility::setClassA(const std::filesystem::path& path) {
    std::lock_guard lock(mutex_);
    const bool isProbe = path.filename().string().rfind(".keybag-probe-", 0) == 0;
    const int result = (!onlyProbeFails || isProbe) ? setResult : 0;
    if (result == 0) classes_[path] = classA;
    return result;
}

std::optional<int> FakeProtectionClassFacility::protectionClass(const std::filesystem::path& path) {
    std::lock_guard lock(mutex_);
    auto it = classes_.find(path);
    if (it == classes_.end()) return 0;  // class none: a file made before protection was set
    return it->second;
}

int FakeProtectionClassFacility::changeOwner(const std::filesystem::path& path, uid_t uid) {
    std::lock_guard lock(mutex_);
    if (chownResult != 0) return chownResult;
    owners_[path] = uid;
    if (chownDropsClass) classes_.erase(path);
    return 0;
}

void FakeProtectionClassFacility::setClass(const std::filesystem::path& path, int value) {
    std::lock_guard lock(mutex_);
    classes_[path] = value;
}

std::optional<uid_t> FakeProtectionClassFacility::ownerOf(const std::filesystem::path& path) const {
    std::lock_guard lock(mutex_);
    auto it = owners_.find(path);
    if (it == owners_.end()) return std::nullopt;
    return it->second;
}

}  // namespace ql
