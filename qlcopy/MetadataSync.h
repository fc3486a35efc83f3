#pragma once

#include "qlcopy/EngineOptions.h"
#include "qlcopy/EntryInfo.h"
#include "qlcopy/XattrIO.h"

#include <optional>
#include <string>
#include <vector>

namespace ql {

// Why an item's metadata differs; the words are those of the summary's "meta_reasons".
enum MetaReason : unsigned {
    metaMode = 1u << 0,    // "mode"
    metaOwner = 1u << 1,   // "owner"
    metaXattrs = 1u << 2,  // "xattrs"
    metaAcl = 1u << 3,     // "acl"
    metaTimes = 1u << 4,   // "times" (symlinks and special files; files compare times as content)
};
std::vector<std::string> metaReasonWords(unsigned reasons);

struct MetaFailure {
    int error = 0;
    std::string syscall;
};

// Reads and writes the metadata of copied items: owner and group, mode, extended attributes
// (ACLs included), and times. Owners are managed only when the engine may set them (as root),
// and go to the `--map-noowners-owner` owner instead of the source's when one is given.
class MetadataSync {
public:
    struct Policy {
        bool manageOwners = false;
        std::optional<OwnerMapping> mapping;
        uid_t euid = 0;  // who creates the engine's items
        gid_t egid = 0;
    };

    explicit MetadataSync(Policy policy);

    const Policy& policy() const { return policy_; }
    uid_t ownerFor(const EntryInfo& source) const;
    gid_t groupFor(const EntryInfo& source) const;

    // Mode and owner differences, from the status of both sides.
    unsigned statusDifferences(const EntryInfo& source, const EntryInfo& dest) const;
    // Extended attribute and ACL differences (reads both sides).
    unsigned attributeDifferences(const XattrTarget& source, const XattrTarget& dest) const;

    // What an item the engine just created still needs beyond its attributes: the owner when
    // it is not already the creator's (`createdGid`: the group it was created with), the mode
    // when the creation could not give it (set-id bits are never given at creation).
    unsigned neededAfterCreation(const EntryInfo& source, gid_t createdGid, mode_t createdPermissions) const;

    // Sets the parts named by `what` (metaOwner, metaMode, metaXattrs|metaAcl) on the destination
    // item, in the order the kernel needs (owner first, since chown clears set-id bits and file
    // capabilities). With `removeExtra`, attributes the source lacks are removed from the
    // destination (inherited ACLs, stale attributes).
    std::optional<MetaFailure> apply(const EntryInfo& source, const XattrTarget& src, const XattrTarget& dst,
                                     unsigned what, bool removeExtra) const;

    static std::optional<MetaFailure> setTimes(int fd, const EntryInfo& source);
    static std::optional<MetaFailure> setTimesAt(int dirFd, const char* name, const EntryInfo& source);

private:
    std::optional<MetaFailure> copyAttributes(const XattrTarget& src, const XattrTarget& dst, bool removeExtra,
                                              bool isSymlink) const;

    Policy policy_;
};

}  // namespace ql
