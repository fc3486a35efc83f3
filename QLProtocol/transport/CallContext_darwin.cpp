#include "QLProtocol/transport/CallContext.h"

#include <libproc.h>
#include <sys/proc_info.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

namespace ql {

std::uint64_t CallContext::startTimeOf(std::int32_t pid) {
    proc_bsdinfo info{};
    if (::proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &info, sizeof(info)) != static_cast<int>(sizeof(info))) return 0;
    return static_cast<std::uint64_t>(info.pbi_start_tvsec) * 1000000u + info.pbi_start_tvusec;
}

tl::expected<CallContext, int> CallContext::ofSocketPeer(int descriptor) {
    uid_t uid = 0;
    gid_t gid = 0;
    if (::getpeereid(descriptor, &uid, &gid) != 0) return tl::unexpected(errno);
    pid_t pid = 0;
    socklen_t length = sizeof(pid);
    if (::getsockopt(descriptor, SOL_LOCAL, LOCAL_PEERPID, &pid, &length) != 0) return tl::unexpected(errno);
    CallContext context;
    context.uid = uid;
    context.gid = gid;
    context.pid = pid;
    context.processStartTime = startTimeOf(pid);
    return context;
}

}  // namespace ql
