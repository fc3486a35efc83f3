#include "QLModel/CopyRuleSet.h"

#include "QLSupport/Log.h"

#include <fmt/format.h>

#include <deque>
#include <map>
#include <system_error>

namespace ql {

namespace {

bool escapesSearchPath(std::string_view name) {
    if (name.starts_with('/')) return true;
    std::size_t start = 0;
    while (start <= name.size()) {
        const std::size_t slash = name.find('/', start);
        const std::size_t end = slash == std::string_view::npos ? name.size() : slash;
        if (name.substr(start, end - start) == "..") return true;
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return false;
}

std::string canonicalKey(const std::filesystem::path& p) {
    std::error_code ec;
    auto c = std::filesystem::weakly_canonical(p, ec);
    return (ec ? p : c).string();
}

std::string displayOf(const CopyRuleDocument& doc, const std::filesystem::path& fallback) {
    return doc.filename ? *doc.filename : fallback.filename().string();
}

}  // namespace

tl::expected<CopyRuleSet, CopyRuleSet::Error> CopyRuleSet::load(const std::filesystem::path& path,
                                                                const Options& options) {
    using Kind = Error::Kind;
    auto fail = [](Kind kind, std::string name, std::string detail) {
        Log::line("CopyRules", detail);
        return tl::unexpected(Error{kind, std::move(name), std::move(detail)});
    };

    auto root = CopyRuleDocument::readFile(path);
    if (!root) {
        return fail(Kind::unreadableDocument, path.filename().string(),
                    fmt::format("The copy rule “{}” can’t be loaded: {}", path.filename().string(), root.error().message()));
    }
    CopyRuleSet set;
    set.document_ = std::move(*root);

    const std::vector<std::filesystem::path> dirs =
        options.searchDirectories.empty() ? std::vector<std::filesystem::path>{path.parent_path()}
                                          : options.searchDirectories;
    std::map<std::string, int> loaded{{canonicalKey(path), -1}};
    std::deque<int> pending{-1};

    while (!pending.empty()) {
        const int current = pending.front();
        pending.pop_front();
        // Copy the names: includes_ grows below.
        const std::vector<std::string> names =
            current < 0 ? set.document_.includeDirectives : set.includes_[current].document.includeDirectives;
        const std::string includer = current < 0 ? displayOf(set.document_, path) : set.includes_[current].name;
        for (const std::string& name : names) {
            bool known = false;
            for (const auto& [n, _] : set.byName_) known = known || n == name;
            if (known) continue;

            if (escapesSearchPath(name)) {
                const std::string text = fmt::format(
                    "The copy rule “{}” includes “{}”, an absolute or parent-relative path, which rules may not use.",
                    includer, name);
                if (options.strictIncludes) return fail(Kind::includeOutsideSearchPath, name, text);
                set.notes_.push_back(text);
                Log::line("CopyRules", text + " Skipped.");
                continue;
            }
            std::filesystem::path found;
            for (const auto& dir : dirs) {
                std::error_code ec;
                if (std::filesystem::is_regular_file(dir / name, ec)) {
                    found = dir / name;
                    break;
                }
            }
            if (found.empty()) {
                std::string where;
                for (const auto& d : dirs) where += (where.empty() ? "" : ", ") + d.string();
                const std::string text =
                    fmt::format("The copy rule “{}” includes “{}”, which none of the rule folders holds ({}).",
                                includer, name, where);
                if (options.strictIncludes) return fail(Kind::includeNotFound, name, text);
                set.notes_.push_back(text);
                Log::line("CopyRules", text + " Skipped.");
                continue;
            }
            const std::string key = canonicalKey(found);
            if (auto it = loaded.find(key); it != loaded.end()) {
                set.byName_.emplace_back(name, it->second);
                continue;
            }
            if (set.includes_.size() + 1 >= maxDocuments) {
                return fail(Kind::tooManyDocuments, name,
                            fmt::format("The copy rule “{}” reaches more than {} rule documents through its includes.",
                                        displayOf(set.document_, path), maxDocuments));
            }
            auto doc = CopyRuleDocument::readFile(found);
            if (!doc) {
                return fail(Kind::unreadableDocument, name,
                            fmt::format("The copy rule “{}” included by “{}” can’t be loaded: {}", name, includer,
                                        doc.error().message()));
            }
            const int index = static_cast<int>(set.includes_.size());
            set.includes_.push_back(Included{name, found, std::move(*doc)});
            loaded.emplace(key, index);
            set.byName_.emplace_back(name, index);
            pending.push_back(index);
        }
    }

    const auto merged = set.merged();
    for (const auto& problem : merged.problems) {
        if (problem.kind == CopyRuleDisposition::IncludeProblem::Kind::cycle) {
            return fail(Kind::includeCycle, problem.name, problem.message());
        }
        if (problem.kind == CopyRuleDisposition::IncludeProblem::Kind::depthLimit) {
            return fail(Kind::includeTooDeep, problem.name, problem.message());
        }
    }
    Log::f("CopyRules", "loaded “{}”: {} directives with {} included rule(s){}", displayOf(set.document_, path),
           merged.directives.size(), set.includes_.size(),
           set.notes_.empty() ? "" : fmt::format(", {} include(s) skipped", set.notes_.size()));
    return set;
}

CopyRuleSet CopyRuleSet::fromDocuments(CopyRuleDocument document, std::vector<Included> includes) {
    CopyRuleSet set;
    set.document_ = std::move(document);
    set.includes_ = std::move(includes);
    for (std::size_t i = 0; i < set.includes_.size(); ++i) {
        set.byName_.emplace_back(set.includes_[i].name, static_cast<int>(i));
    }
    return set;
}

CopyRuleDisposition::IncludeLookup CopyRuleSet::lookup() const {
    return [this](std::string_view name) -> const CopyRuleDocument* {
        for (const auto& [n, index] : byName_) {
            if (n == name) return index < 0 ? &document_ : &includes_[static_cast<std::size_t>(index)].document;
        }
        return nullptr;
    };
}

CopyRuleDisposition::Merged CopyRuleSet::merged() const { return CopyRuleDisposition::merge(document_, lookup()); }

}  // namespace ql
