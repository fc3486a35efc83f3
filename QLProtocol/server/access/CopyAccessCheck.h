#pragma once

#include "QLSupport/OwnerAccess.h"
#include "QLSupport/UserCredentials.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace ql {

// Before a job that runs with its owner's rights is created or run: can the owner read the
// source and write the destination (or, where it doesn't exist yet, its nearest existing
// folder)? The answer comes from the kernel, asked as the owner, so the server being root can't
// colour it. It is advice for a clear sentence up front; the guarantee is the engine itself
// running as the owner.
//
// Blocking (the probe forks and waits): call it from the blocking pool.
class CopyAccessCheck {
public:
    explicit CopyAccessCheck(const OwnerAccessProbe& probe) : probe_(probe) {}

    // Nothing, or the sentence that refuses the copy.
    tl::expected<void, std::string> check(std::uint32_t ownerUid, const std::string& source,
                                          const std::string& destination) const;

    // "You can’t read “<path>”, so Quillo won’t copy it for you. Ask an administrator to set up
    // this copy."
    static std::string cannotRead(const std::string& path);
    // "You can’t write to “<path>”, so Quillo won’t copy there for you. Ask an administrator to
    // set up this copy."
    static std::string cannotWrite(const std::string& path);
    static std::string unknownOwner(std::uint32_t ownerUid, const std::string& detail);

private:
    static tl::expected<std::string, std::string> judge(const UserCredentials& user, std::string_view verb,
                                                        const std::string& path,
                                                        tl::expected<AccessFinding, std::string> finding);

    const OwnerAccessProbe& probe_;
};

}  // namespace ql
