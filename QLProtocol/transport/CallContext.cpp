#include "QLProtocol/transport/CallContext.h"

#include <fmt/format.h>
#include <unistd.h>

namespace ql {

CallContext CallContext::ofThisProcess() {
    CallContext context;
    context.uid = ::getuid();
    context.gid = ::getgid();
    context.pid = ::getpid();
    context.processStartTime = startTimeOf(context.pid);
    return context;
}

std::string CallContext::describe() const {
    return fmt::format("uid={} gid={} pid={}", uid, gid, pid);
}

}  // namespace ql
