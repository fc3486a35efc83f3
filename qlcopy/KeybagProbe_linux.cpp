#include "qlcopy/KeybagProbe.h"

#include "qlcopy/ErrnoText.h"
#include "qlcopy/UniqueFd.h"

#include <fcntl.h>
#include <linux/fscrypt.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ql {
namespace {

// The key status of the fscrypt policy on an open folder (v2 policies name their key).
bool folderKeyAbsent(int dirFd, std::string& detail) {
    fscrypt_get_policy_ex_arg policy{};
    policy.policy_size = sizeof(policy.policy);
    if (::ioctl(dirFd, FS_IOC_GET_ENCRYPTION_POLICY_EX, &policy) != 0) {
        detail = "its folder is not encrypted (" + ErrnoText::describe(errno) + ")";
        return false;
    }
    if (policy.policy.version != FSCRYPT_POLICY_V2) {
        detail = "its folder has a v1 encryption policy, whose key status cannot be asked";
        return false;
    }
    fscrypt_get_key_status_arg status{};
    status.key_spec.type = FSCRYPT_KEY_SPEC_TYPE_IDENTIFIER;
    std::memcpy(status.key_spec.u.identifier, policy.policy.v2.master_key_identifier, FSCRYPT_KEY_IDENTIFIER_SIZE);
    if (::ioctl(dirFd, FS_IOC_GET_ENCRYPTION_KEY_STATUS, &status) != 0) {
        detail = "its folder's key status cannot be read (" + ErrnoText::describe(errno) + ")";
        return false;
    }
    detail = status.status == FSCRYPT_KEY_STATUS_PRESENT ? "its folder's key is present" : "its folder's key is absent";
    return status.status != FSCRYPT_KEY_STATUS_PRESENT;
}

}  // namespace

// fscrypt reports a file whose key was removed with ENOKEY.
bool KeybagProbe::isKeyAbsent(int error) { return error == ENOKEY; }

bool KeybagProbe::sentinelLocked(const std::string& path, std::string& detail) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (fd.valid()) {
        char byte;
        if (::read(fd.get(), &byte, 1) < 0 && isKeyAbsent(errno)) {
            detail = "reading it fails: " + ErrnoText::describe(errno);
            return true;
        }
        detail = "it reads";
        return false;
    }
    const int e = errno;
    if (isKeyAbsent(e)) {
        detail = "opening it fails: " + ErrnoText::describe(e);
        return true;
    }
    if (e == ENOENT) {
        // A locked folder shows only encrypted names: ask its policy's key status instead.
        auto slash = path.rfind('/');
        std::string folder = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
        UniqueFd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (dir.valid()) return folderKeyAbsent(dir.get(), detail);
    }
    detail = "opening it fails: " + ErrnoText::describe(e) + " — not taken as a locked keybag";
    return false;
}

}  // namespace ql
