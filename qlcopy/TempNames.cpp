#include "qlcopy/TempNames.h"

#include <fmt/format.h>

#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace ql {

std::string TempNames::make() {
    static std::atomic<std::uint64_t> counter{0};
    static const unsigned long pid = static_cast<unsigned long>(::getpid());
    return fmt::format("{}{:x}-{:x}", prefix, pid, counter.fetch_add(1));
}

bool TempNames::isTemporary(std::string_view name) { return name.substr(0, prefix.size()) == prefix; }

}  // namespace ql
