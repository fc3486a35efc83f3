#include "QLProtocol/server/access/CopyAccessCheck.h"

#include "QLSupport/Log.h"
#include "QLSupport/UserCredentials.h"

#include <fmt/format.h>

namespace ql {

namespace {
constexpr const char* kTag = "access";
}

std::string CopyAccessCheck::cannotRead(const std::string& path) {
    return fmt::format("You can’t read “{}”, so Quillo won’t copy it for you. Ask an administrator to set up this copy.",
                       path);
}

std::string CopyAccessCheck::cannotWrite(const std::string& path) {
    return fmt::format(
        "You can’t write to “{}”, so Quillo won’t copy there for you. Ask an administrator to set up this copy.", path);
}

std::string CopyAccessCheck::unknownOwner(std::uint32_t ownerUid, const std::string& detail) {
    return fmt::format("Quillo can’t find the user who owns this copy job (user id {}), so it won’t copy anything for "
                       "it. {}",
                       ownerUid, detail);
}

tl::expected<void, std::string> CopyAccessCheck::check(std::uint32_t ownerUid, const std::string& source,
                                                       const std::string& destination) const {
    auto user = UserCredentials::forUser(ownerUid);
    if (!user) {
        Log::f(kTag, "pre-check for uid {}: the user can't be looked up ({})", ownerUid, user.error());
        return tl::unexpected(unknownOwner(ownerUid, user.error()));
    }
    auto read = probe_.canRead(*user, source);
    if (!read) {
        Log::f(kTag, "pre-check for {}: reading {} could not be checked ({}) — refused", user->name, source,
               read.error());
        return tl::unexpected(cannotRead(source));
    }
    if (!read->allowed) {
        Log::f(kTag, "pre-check for {}: can't read {} (errno={}) — refused", user->name, read->checkedPath,
               read->error);
        return tl::unexpected(cannotRead(source));
    }
    auto write = probe_.canWrite(*user, destination);
    if (!write) {
        Log::f(kTag, "pre-check for {}: writing {} could not be checked ({}) — refused", user->name, destination,
               write.error());
        return tl::unexpected(cannotWrite(destination));
    }
    if (!write->allowed) {
        Log::f(kTag, "pre-check for {}: can't write {} (errno={}) — refused", user->name, write->checkedPath,
               write->error);
        return tl::unexpected(cannotWrite(write->checkedPath.empty() ? destination : write->checkedPath));
    }
    Log::f(kTag, "pre-check for {}: may read {} and write {}", user->name, source, write->checkedPath);
    return {};
}

}  // namespace ql
