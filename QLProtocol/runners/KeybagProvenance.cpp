#include "QLProtocol/runners/KeybagProvenance.h"

#include <fmt/format.h>

namespace ql {

KeybagProvenance KeybagProvenance::sentinel(std::string path, std::uint32_t uid, std::string home) {
    return {Sentinel{std::move(path), uid, std::move(home)}};
}

KeybagProvenance KeybagProvenance::noKeybag() { return {NoKeybag{}}; }

std::string KeybagProvenance::describe() const {
    if (const auto* s = asSentinel()) {
        return fmt::format("sentinel(path={}, uid={}, home={})", s->path, s->uid, s->home);
    }
    return "noKeybag";
}

}  // namespace ql
