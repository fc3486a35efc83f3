#include "QLModel/UnresolvedReason.h"

#include <array>
#include <ostream>

namespace ql {
namespace {

constexpr std::array<std::string_view, 6> kNames{"unsupportedKey", "probeFailed",   "imageHostUnmounted",
                                                 "notAttached",    "volumeMissing", "imageFileMissing"};

}  // namespace

std::string_view UnresolvedReason::caseName() const { return kNames[value.index()]; }

std::string UnresolvedReason::detail() const {
    if (auto unsupported = as<UnsupportedKey>()) return unsupported->explanation;
    if (auto failed = as<ProbeFailed>()) return failed->sentence;
    return {};
}

std::string UnresolvedReason::description() const {
    std::string out(caseName());
    if (auto host = as<ImageHostUnmounted>()) {
        if (host->hostBSD) out += "(" + *host->hostBSD + ")";
        return out;
    }
    auto text = detail();
    if (!text.empty()) out += "(" + text + ")";
    return out;
}

std::ostream& operator<<(std::ostream& out, const UnresolvedReason& reason) { return out << reason.description(); }

}  // namespace ql
