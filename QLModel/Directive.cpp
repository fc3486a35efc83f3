#include "QLModel/Directive.h"

namespace ql {

Directive::Verb Directive::verbOf(std::string_view token) {
    if (token == "copy" || token == "clone") return Verb::copy;
    if (token == "exclude" || token == "ignore") return Verb::skip;
    if (token == "optional") return Verb::optional;
    if (token == "preserve") return Verb::preserve;
    if (token == "preserve_if_absent" || token == "preserveifabsent" || token == "preserve-if-absent") {
        return Verb::preserveIfAbsent;
    }
    return Verb::unknown;
}

std::string_view Directive::normalizedItem(std::string_view item) {
    const std::size_t first = item.find_first_not_of('/');
    if (first == std::string_view::npos) return {};
    const std::size_t last = item.find_last_not_of('/');
    return item.substr(first, last - first + 1);
}

bool Directive::isExcludeAll() const {
    return token == "exclude" && (item == "*" || item == ".*") && extraKeys.empty();
}

}  // namespace ql
