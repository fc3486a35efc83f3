#include "QLProtocol/runners/ConsoleUser.h"

#include <unistd.h>

#include <fstream>
#include <string>

namespace ql {

std::optional<ConsoleUser> ConsoleUser::current() {
    if (::geteuid() != 0) return forUid(::geteuid());
    // systemd-logind keeps one record per seat; ACTIVE_UID is the user of its foreground session.
    std::ifstream seat("/run/systemd/seats/seat0");
    std::string line;
    while (seat && std::getline(seat, line)) {
        if (line.rfind("ACTIVE_UID=", 0) != 0) continue;
        try {
            const auto uid = static_cast<uid_t>(std::stoul(line.substr(11)));
            return forUid(uid);
        } catch (...) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace ql
