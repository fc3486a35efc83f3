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

// The path whose check allowed the access, or (as the error) the path it was refused on; empty
// when the check itself couldn't be made.
tl::expected<std::string, std::string> CopyAccessCheck::judge(const UserCredentials& user, std::string_view verb,
                                                              const std::string& path,
                                                              tl::expected<AccessFinding, std::string> finding) {
    if (!finding) {
        Log::f(kTag, "pre-check for {}: {} {} could not be checked ({}) — refused", user.name, verb, path,
               finding.error());
        return tl::unexpected(std::string());
    }
    if (!finding->allowed) {
        Log::f(kTag, "pre-check for {}: can't {} {} (errno={}) — refused", user.name, verb, finding->checkedPath,
               finding->error);
        return tl::unexpected(finding->checkedPath);
    }
    return finding->checkedPath;
}

tl::expected<void, std::string> CopyAccessCheck::check(std::uint32_t ownerUid, const std::string& source,
                                                       const std::string& destination) const {
    auto user = UserCredentials::forUser(ownerUid);
    if (!user) {
        Log::f(kTag, "pre-check for uid {}: the user can't be looked up ({})", ownerUid, user.error());
        return tl::unexpected(unknownOwner(ownerUid, user.error()));
    }
    auto read = judge(*user, "read", source, probe_.canRead(*user, source));
    if (!read) return tl::unexpected(cannotRead(source));
    auto written = judge(*user, "write", destination, probe_.canWrite(*user, destination));
    if (!written) return tl::unexpected(cannotWrite(written.error().empty() ? destination : written.error()));
    const auto& writable = *written;
    Log::f(kTag, "pre-check for {}: may read {} and write {}", user->name, source, writable);
    return {};
}

}  // namespace ql
