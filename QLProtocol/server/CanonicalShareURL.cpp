#include "QLProtocol/server/CanonicalShareURL.h"

#include "QLModel/ShareAddress.h"

namespace ql {

std::optional<std::string> CanonicalShareURL::of(std::string_view url) {
    auto address = ShareAddress::parse(url);
    if (!address) return std::nullopt;
    return address->canonicalText();
}

std::string CanonicalShareURL::host(std::string_view url) {
    auto address = ShareAddress::parse(url);
    return address ? address->host : std::string();
}

std::string CanonicalShareURL::shareName(std::string_view url) {
    auto address = ShareAddress::parse(url);
    return address ? address->shareName() : std::string();
}

}  // namespace ql
