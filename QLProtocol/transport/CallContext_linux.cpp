#include "QLProtocol/transport/CallContext.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

namespace ql {

// Field 22 of /proc/<pid>/stat: the start time in clock ticks since boot. The second field is
// the command name in parentheses and may itself hold spaces and parentheses, so fields are
// counted from the last ')'.
std::uint64_t CallContext::startTimeOf(std::int32_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return 0;
    const auto close = line.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(line.substr(close + 1));
    std::string field;
    // After ')' come field 3 (state) onwards; the start time is field 22.
    for (int index = 3; index <= 22; ++index) {
        if (!(rest >> field)) return 0;
    }
    try {
        return std::stoull(field);
    } catch (...) {
        return 0;
    }
}

tl::expected<CallContext, int> CallContext::ofSocketPeer(int descriptor) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return tl::unexpected(errno);
    }
    CallContext context;
    context.uid = credentials.uid;
    context.gid = credentials.gid;
    context.pid = credentials.pid;
    context.processStartTime = startTimeOf(credentials.pid);
    return context;
}

}  // namespace ql
