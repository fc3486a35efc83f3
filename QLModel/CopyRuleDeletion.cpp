#include "QLModel/CopyRuleDeletion.h"

#include <algorithm>

namespace ql {

namespace {

bool onSide(const Directive& d, CopyRuleDeletion::Side side) {
    switch (side) {
        case CopyRuleDeletion::Side::source:
            return d.verb() == Directive::Verb::copy || d.verb() == Directive::Verb::skip ||
                   d.verb() == Directive::Verb::optional;
        case CopyRuleDeletion::Side::destination:
            return d.verb() == Directive::Verb::preserve || d.verb() == Directive::Verb::preserveIfAbsent;
        case CopyRuleDeletion::Side::all: return true;
    }
    return false;
}

bool isFor(const Directive& d, std::string_view path, CopyRuleDeletion::Side side) {
    const std::string_view target = Directive::normalizedItem(path);
    return !target.empty() && d.normalizedItem() == target && onSide(d, side);
}

}  // namespace

std::size_t CopyRuleDeletion::removeDirectives(CopyRuleDocument& document, std::string_view path, Side side) {
    const auto before = document.directives.size();
    std::erase_if(document.directives, [&](const Directive& d) { return isFor(d, path, side); });
    return before - document.directives.size();
}

std::size_t CopyRuleDeletion::countDirectives(const CopyRuleDocument& document, std::string_view path, Side side) {
    return static_cast<std::size_t>(std::count_if(document.directives.begin(), document.directives.end(),
                                                  [&](const Directive& d) { return isFor(d, path, side); }));
}

}  // namespace ql
