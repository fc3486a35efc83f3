#include "QLModel/CopyRuleDisposition.h"

#include "QLModel/CopyRuleNaming.h"
#include "QLModel/Glob.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <set>

namespace ql {

namespace {

using MergedDirective = CopyRuleDisposition::MergedDirective;
using Provenance = CopyRuleDisposition::Provenance;

Provenance provenanceOf(const MergedDirective& d) {
    return d.origin ? Provenance::rule(*d.origin) : Provenance::own();
}

std::vector<std::string> componentsOf(std::string_view path) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = path.find('/', start);
        const std::size_t end = slash == std::string_view::npos ? path.size() : slash;
        if (end > start) out.emplace_back(path.substr(start, end - start));
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return out;
}

struct Winner {
    std::size_t index = 0;
    int specificity = 0;
};

// Each directive's specificity for the path (nullopt: no match), computed once per path.
std::vector<std::optional<int>> matchAll(const std::vector<MergedDirective>& directives, std::string_view path) {
    const auto ancestors = CopyRuleDisposition::ancestors(path);
    std::vector<std::optional<int>> out;
    out.reserve(directives.size());
    for (const auto& d : directives) out.push_back(CopyRuleDisposition::match(d.directive, ancestors));
    return out;
}

// The first matching directive that `considered` accepts, replaced by each later one of greater
// or equal specificity.
template <typename Pred>
std::optional<Winner> search(const std::vector<MergedDirective>& directives,
                             const std::vector<std::optional<int>>& specificities, Pred considered) {
    std::optional<Winner> best;
    for (std::size_t i = 0; i < directives.size(); ++i) {
        if (!considered(directives[i].directive)) continue;
        const auto s = specificities[i];
        if (!s) continue;
        if (!best || *s >= best->specificity) best = Winner{i, *s};
    }
    return best;
}

bool isCopySkip(const Directive& d) { return CopyRuleDisposition::sourceDisposition(d.token).has_value() && d.verb() != Directive::Verb::optional; }
bool isOptional(const Directive& d) { return d.verb() == Directive::Verb::optional; }
bool isPreserve(const Directive& d) { return CopyRuleDisposition::destPreserveKind(d.token).has_value(); }

CopyRuleDisposition::Resolved resolvedFrom(const MergedDirective& d, CopyRuleDisposition::Disposition disposition) {
    return {disposition, provenanceOf(d), d.directive.item};
}

}  // namespace

namespace {

std::string provenanceText(const Provenance& p, const std::optional<std::string>& item) {
    switch (p.kind) {
        case Provenance::Kind::base: return "(default)";
        case Provenance::Kind::own: return fmt::format("by “{}” (own)", item.value_or(""));
        case Provenance::Kind::rule: return fmt::format("by “{}” (from “{}”)", item.value_or(""), p.ruleName);
    }
    return {};
}

}  // namespace

std::string CopyRuleDisposition::Resolved::description() const {
    static constexpr std::string_view names[] = {"copy", "skip", "optional"};
    return fmt::format("{} {}", names[static_cast<int>(disposition)], provenanceText(provenance, matchedItem));
}

std::string CopyRuleDisposition::DestPreserve::description() const {
    return fmt::format("{} {}", kind == DestPreserveKind::preserve ? "preserve" : "preserve if absent",
                       provenanceText(provenance, matchedItem));
}

std::string CopyRuleDisposition::Evaluation::description() const {
    return preserve ? fmt::format("{}; {}", source.description(), preserve->description()) : source.description();
}

std::ostream& operator<<(std::ostream& out, const CopyRuleDisposition::Resolved& value) { return out << value.description(); }
std::ostream& operator<<(std::ostream& out, const CopyRuleDisposition::DestPreserve& value) {
    return out << value.description();
}
std::ostream& operator<<(std::ostream& out, const CopyRuleDisposition::Evaluation& value) {
    return out << value.description();
}

std::string_view CopyRuleDisposition::label(Disposition disposition) {
    switch (disposition) {
        case Disposition::copy: return "Copy";
        case Disposition::skip: return "Skip";
        case Disposition::optional: return "Make optional";
    }
    return "";
}

std::optional<CopyRuleDisposition::Disposition> CopyRuleDisposition::sourceDisposition(std::string_view token) {
    switch (Directive::verbOf(token)) {
        case Directive::Verb::copy: return Disposition::copy;
        case Directive::Verb::skip: return Disposition::skip;
        case Directive::Verb::optional: return Disposition::optional;
        default: return std::nullopt;
    }
}

std::optional<CopyRuleDisposition::DestPreserveKind> CopyRuleDisposition::destPreserveKind(std::string_view token) {
    switch (Directive::verbOf(token)) {
        case Directive::Verb::preserve: return DestPreserveKind::preserve;
        case Directive::Verb::preserveIfAbsent: return DestPreserveKind::preserveIfAbsent;
        default: return std::nullopt;
    }
}

std::string CopyRuleDisposition::IncludeProblem::message() const {
    std::string via;
    if (!chain.empty()) {
        via = " (through ";
        for (std::size_t i = 0; i < chain.size(); ++i) via += (i ? " → " : "") + fmt::format("“{}”", chain[i]);
        via += ")";
    }
    switch (kind) {
        case Kind::missing: return fmt::format("The included copy rule “{}” cannot be found{}.", name, via);
        case Kind::cycle: return fmt::format("The included copy rule “{}” includes itself{}.", name, via);
        case Kind::depthLimit:
            return fmt::format("The included copy rule “{}” is nested more than {} levels deep{}.", name,
                               maxIncludeDepth, via);
    }
    return name;
}

std::vector<CopyRuleDisposition::MergedDirective> CopyRuleDisposition::ownDirectives(const CopyRuleDocument& document) {
    std::vector<MergedDirective> out;
    out.reserve(document.directives.size());
    for (const auto& d : document.directives) out.push_back({d, std::nullopt});
    return out;
}

CopyRuleDisposition::Merged CopyRuleDisposition::merge(const CopyRuleDocument& document, const IncludeLookup& lookup) {
    Merged result;
    std::set<const CopyRuleDocument*> expanded;
    std::vector<const CopyRuleDocument*> stackDocs{&document};
    std::vector<std::string> stackNames;

    auto onStack = [&](const CopyRuleDocument* doc, std::string_view name) {
        if (std::find(stackDocs.begin(), stackDocs.end(), doc) != stackDocs.end()) return true;
        if (document.filename && CopyRuleNaming::sameName(*document.filename, name)) return true;
        return std::any_of(stackNames.begin(), stackNames.end(),
                           [&](const std::string& n) { return CopyRuleNaming::sameName(n, name); });
    };

    // Appends the includes of `doc` (recursively, each followed by its own directives).
    auto expandIncludes = [&](auto& self, const CopyRuleDocument& doc) -> void {
        for (const std::string& name : doc.includeDirectives) {
            const CopyRuleDocument* inc = lookup ? lookup(name) : nullptr;
            if (!inc) {
                result.problems.push_back({IncludeProblem::Kind::missing, name, stackNames});
                continue;
            }
            if (onStack(inc, name)) {
                result.problems.push_back({IncludeProblem::Kind::cycle, name, stackNames});
                continue;
            }
            if (expanded.count(inc)) continue;
            if (static_cast<int>(stackNames.size()) >= maxIncludeDepth) {
                result.problems.push_back({IncludeProblem::Kind::depthLimit, name, stackNames});
                continue;
            }
            expanded.insert(inc);
            stackDocs.push_back(inc);
            stackNames.push_back(name);
            self(self, *inc);
            for (const auto& d : inc->directives) result.directives.push_back({d, name});
            stackNames.pop_back();
            stackDocs.pop_back();
        }
    };
    expandIncludes(expandIncludes, document);
    for (const auto& d : document.directives) result.directives.push_back({d, std::nullopt});
    return result;
}

std::vector<std::string> CopyRuleDisposition::ancestors(std::string_view path) {
    std::vector<std::string> parts = componentsOf(path);
    std::vector<std::string> out;
    out.reserve(parts.size());
    std::string joined;
    for (const auto& p : parts) {
        if (!joined.empty()) joined += '/';
        joined += p;
        out.push_back(joined);
    }
    return out;
}

std::optional<int> CopyRuleDisposition::match(const Directive& directive, std::string_view path) {
    return match(directive, ancestors(path));
}

std::optional<int> CopyRuleDisposition::match(const Directive& directive, const std::vector<std::string>& ancestors) {
    const std::string_view item = directive.normalizedItem();
    if (item.empty()) return std::nullopt;
    auto glob = Glob::compile(item);
    if (!glob) return std::nullopt;
    const bool matched =
        std::any_of(ancestors.begin(), ancestors.end(), [&](const std::string& a) { return glob->matches(a); });
    if (!matched) return std::nullopt;

    // The literal anchor: leading components up to the first that holds a wildcard.
    std::string literal;
    for (const auto& c : componentsOf(item)) {
        if (Glob::hasMetacharacters(c)) break;
        if (!literal.empty()) literal += '/';
        literal += c;
    }
    int specificity = 0;
    for (std::size_t k = 0; k < ancestors.size(); ++k) {
        if (!literal.empty() && ancestors[k] == literal) specificity = static_cast<int>(k) + 1;
    }
    return specificity;
}

std::optional<CopyRuleDisposition::Resolved> CopyRuleDisposition::copySkipDecision(
    const std::vector<MergedDirective>& directives, std::string_view path) {
    const auto w = search(directives, matchAll(directives, path), isCopySkip);
    if (!w) return std::nullopt;
    const MergedDirective& d = directives[w->index];
    return resolvedFrom(d, *sourceDisposition(d.directive.token));
}

std::optional<CopyRuleDisposition::Resolved> CopyRuleDisposition::optionalDecision(
    const std::vector<MergedDirective>& directives, std::string_view path) {
    const auto w = search(directives, matchAll(directives, path), isOptional);
    if (!w) return std::nullopt;
    return resolvedFrom(directives[w->index], Disposition::optional);
}

namespace {

CopyRuleDisposition::Resolved resolveWith(const std::vector<MergedDirective>& directives,
                                          const std::vector<std::optional<int>>& specificities) {
    using Disposition = CopyRuleDisposition::Disposition;
    const auto decision = search(directives, specificities, isCopySkip);
    const auto optional = search(directives, specificities, isOptional);
    if (optional && (!decision || optional->specificity >= decision->specificity)) {
        return resolvedFrom(directives[optional->index], Disposition::optional);
    }
    if (decision) {
        const MergedDirective& d = directives[decision->index];
        return resolvedFrom(d, *CopyRuleDisposition::sourceDisposition(d.directive.token));
    }
    return {Disposition::copy, Provenance::base(), std::nullopt};
}

std::optional<CopyRuleDisposition::DestPreserve> preserveWith(const std::vector<MergedDirective>& directives,
                                                              const std::vector<std::optional<int>>& specificities) {
    const auto w = search(directives, specificities, isPreserve);
    if (!w) return std::nullopt;
    const MergedDirective& d = directives[w->index];
    return CopyRuleDisposition::DestPreserve{*CopyRuleDisposition::destPreserveKind(d.directive.token), provenanceOf(d),
                                             d.directive.item};
}

}  // namespace

CopyRuleDisposition::Resolved CopyRuleDisposition::resolve(const std::vector<MergedDirective>& directives,
                                                           std::string_view path) {
    return resolveWith(directives, matchAll(directives, path));
}

std::optional<CopyRuleDisposition::DestPreserve> CopyRuleDisposition::destPreserve(
    const std::vector<MergedDirective>& directives, std::string_view path) {
    return preserveWith(directives, matchAll(directives, path));
}

CopyRuleDisposition::Evaluation CopyRuleDisposition::evaluate(const std::vector<MergedDirective>& directives,
                                                              std::string_view path) {
    const auto specificities = matchAll(directives, path);
    return {resolveWith(directives, specificities), preserveWith(directives, specificities)};
}

}  // namespace ql
