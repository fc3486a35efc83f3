#include "QLProtocol/runners/ConsoleUser.h"

#include <pwd.h>

#include <fmt/format.h>

#include <vector>

namespace ql {

std::string ConsoleUser::ownerText() const { return fmt::format("{}:{}", uid, gid); }

std::optional<ConsoleUser> ConsoleUser::forUid(uid_t uid) {
    std::vector<char> buffer(16384);
    struct passwd record {};
    struct passwd* found = nullptr;
    if (::getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
    return ConsoleUser{found->pw_uid, found->pw_gid, found->pw_name ? found->pw_name : "",
                       found->pw_dir ? found->pw_dir : ""};
}

}  // namespace ql
