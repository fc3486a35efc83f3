#include "qlcopy/MetadataSync.h"

#include "QLSupport/Log.h"
#include "qlcopy/AclIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace ql {
namespace {

void noteUnsupportedOnce() {
    static std::atomic<bool> noted{false};
    if (!noted.exchange(true)) {
        Log::line("Metadata", "the destination does not keep some extended attributes; those are left out");
    }
}

bool isPrivileged(std::string_view name) {
    return name.substr(0, 8) == "trusted." || name.substr(0, 9) == "security.";
}

}  // namespace

std::vector<std::string> metaReasonWords(unsigned reasons) {
    std::vector<std::string> words;
    if (reasons & metaMode) words.emplace_back("mode");
    if (reasons & metaOwner) words.emplace_back("owner");
    if (reasons & metaXattrs) words.emplace_back("xattrs");
    if (reasons & metaAcl) words.emplace_back("acl");
    if (reasons & metaTimes) words.emplace_back("times");
    return words;
}

MetadataSync::MetadataSync(Policy policy) : policy_(std::move(policy)) {}

uid_t MetadataSync::ownerFor(const EntryInfo& s) const { return policy_.mapping ? policy_.mapping->uid : s.uid; }

gid_t MetadataSync::groupFor(const EntryInfo& s) const { return policy_.mapping ? policy_.mapping->gid : s.gid; }

unsigned MetadataSync::statusDifferences(const EntryInfo& s, const EntryInfo& d) const {
    unsigned r = 0;
    // Symlink permissions cannot be set on Linux and mean nothing; leave them out.
    if (!s.isSymlink() && s.permissions() != d.permissions()) r |= metaMode;
    if (policy_.manageOwners && (ownerFor(s) != d.uid || groupFor(s) != d.gid)) r |= metaOwner;
    return r;
}

unsigned MetadataSync::neededAfterCreation(const EntryInfo& s, gid_t createdGid, mode_t createdPermissions) const {
    unsigned r = metaXattrs | metaAcl;
    if (policy_.manageOwners && (ownerFor(s) != policy_.euid || groupFor(s) != createdGid)) r |= metaOwner;
    if (!s.isSymlink() && s.permissions() != createdPermissions) r |= metaMode;
    return r;
}

unsigned MetadataSync::attributeDifferences(const XattrTarget& src, const XattrTarget& dst) const {
    std::vector<std::string> sn, dn;
    unsigned r = 0;
    if (XattrIO::list(src, sn) != 0) sn.clear();
    if (XattrIO::list(dst, dn) != 0) dn.clear();
    auto drop = [](std::vector<std::string>& v) {
        v.erase(std::remove_if(v.begin(), v.end(), [](const std::string& n) { return XattrIO::isSystemManaged(n); }),
                v.end());
        std::sort(v.begin(), v.end());
    };
    drop(sn);
    drop(dn);
    if (!sn.empty() || !dn.empty()) {
        std::vector<std::string> all;
        std::set_union(sn.begin(), sn.end(), dn.begin(), dn.end(), std::back_inserter(all));
        std::string a, b;
        for (const auto& name : all) {
            bool inS = std::binary_search(sn.begin(), sn.end(), name);
            bool inD = std::binary_search(dn.begin(), dn.end(), name);
            bool differs = inS != inD;
            if (!differs) {
                differs = XattrIO::get(src, name, a) != 0 || XattrIO::get(dst, name, b) != 0 || a != b;
            }
            if (differs) r |= XattrIO::isAcl(name) ? metaAcl : metaXattrs;
        }
    }
    if (AclIO::differ(src, dst)) r |= metaAcl;
    return r;
}

std::optional<MetaFailure> MetadataSync::copyAttributes(const XattrTarget& src, const XattrTarget& dst,
                                                        bool removeExtra, bool isSymlink) const {
    std::vector<std::string> names;
    int e = XattrIO::list(src, names);
    if (e != 0 && !XattrIO::isUnsupported(e)) return MetaFailure{e, "listxattr"};
    std::string value;
    for (const auto& name : names) {
        if (XattrIO::isSystemManaged(name)) continue;
        e = XattrIO::get(src, name, value);
        if (e != 0) {
            if (XattrIO::isMissing(e)) continue;  // removed in between
            return MetaFailure{e, "getxattr"};
        }
        e = XattrIO::set(dst, name, value);
        if (e != 0) {
            if (XattrIO::isUnsupported(e)) {
                noteUnsupportedOnce();
                continue;
            }
            // Symlinks take only privileged attributes on Linux; unprivileged runs cannot set those.
            if ((e == EPERM || e == EACCES) && (isSymlink || (!policy_.manageOwners && isPrivileged(name)))) continue;
            return MetaFailure{e, "setxattr"};
        }
    }
    if (removeExtra) {
        std::vector<std::string> present;
        if (XattrIO::list(dst, present) == 0) {
            std::sort(names.begin(), names.end());
            for (const auto& name : present) {
                if (XattrIO::isSystemManaged(name) || std::binary_search(names.begin(), names.end(), name)) continue;
                e = XattrIO::remove(dst, name);
                if (e != 0 && !XattrIO::isMissing(e) && !XattrIO::isUnsupported(e)) return MetaFailure{e, "removexattr"};
            }
        }
    }
    e = AclIO::copy(src, dst);
    if (e != 0 && !XattrIO::isUnsupported(e)) return MetaFailure{e, "acl_set"};
    return std::nullopt;
}

std::optional<MetaFailure> MetadataSync::apply(const EntryInfo& s, const XattrTarget& src, const XattrTarget& dst,
                                               unsigned what, bool removeExtra) const {
    if ((what & metaOwner) && policy_.manageOwners) {
        int r = dst.fd >= 0 ? ::fchown(dst.fd, ownerFor(s), groupFor(s))
                            : ::fchownat(dst.dirFd, dst.name, ownerFor(s), groupFor(s), AT_SYMLINK_NOFOLLOW);
        if (r != 0) return MetaFailure{errno, "chown"};
        // chown clears set-user-ID and set-group-ID bits: set the mode again afterwards.
        if (s.permissions() & (S_ISUID | S_ISGID)) what |= metaMode;
    }
    if ((what & metaMode) && !s.isSymlink()) {
        int r = dst.fd >= 0 ? ::fchmod(dst.fd, s.permissions()) : ::fchmodat(dst.dirFd, dst.name, s.permissions(), 0);
        if (r != 0) return MetaFailure{errno, "chmod"};
    }
    if (what & (metaXattrs | metaAcl)) {
        if (auto f = copyAttributes(src, dst, removeExtra, s.isSymlink())) return f;
    }
    return std::nullopt;
}

std::optional<MetaFailure> MetadataSync::setTimes(int fd, const EntryInfo& s) {
    struct timespec times[2] = {s.atime, s.mtime};
    if (::futimens(fd, times) != 0) return MetaFailure{errno, "futimens"};
    return std::nullopt;
}

std::optional<MetaFailure> MetadataSync::setTimesAt(int dirFd, const char* name, const EntryInfo& s) {
    struct timespec times[2] = {s.atime, s.mtime};
    if (::utimensat(dirFd, name, times, AT_SYMLINK_NOFOLLOW) != 0) return MetaFailure{errno, "utimensat"};
    return std::nullopt;
}

}  // namespace ql
