#include "QLProtocol/transport/CallContext.h"

#include <fmt/format.h>

namespace ql {

std::string CallContext::describe() const {
    return fmt::format("uid={} gid={} pid={}", uid, gid, pid);
}

}  // namespace ql
