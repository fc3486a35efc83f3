#include "QLSupport/ThreadFileCredentials.h"

#include <pthread.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern "C" int pthread_setugid_np(uid_t, gid_t);

namespace ql {

tl::expected<ThreadFileCredentials, std::string> ThreadFileCredentials::adopt(const UserCredentials& user) {
    // The thread takes on the user's ids; its groups follow from the user's memberships.
    if (::pthread_setugid_np(user.uid, user.gid) != 0) {
        const int code = errno;
        return tl::unexpected(fmt::format("could not take on the rights of {}: {}", user.label(), std::strerror(code)));
    }
    ThreadFileCredentials adopted;
    adopted.active_ = true;
    return adopted;
}

ThreadFileCredentials::~ThreadFileCredentials() {
    if (active_ && ::pthread_setugid_np(KAUTH_UID_NONE, KAUTH_GID_NONE) != 0) std::abort();
}

}  // namespace ql
