#include "qlcopy/RuleSetLoader.h"

#include "QLModel/CompiledCopyRules.h"
#include "QLModel/CopyRuleSet.h"
#include "QLModel/Glob.h"
#include "QLSupport/Log.h"
#include "qlcopy/CompiledRuleSelection.h"
#include "qlcopy/CopyEverythingRules.h"

#include <fmt/format.h>

namespace ql {
namespace {

CompiledCopyRules::MergedDirective flagDirective(const char* token, const std::string& item, const char* flag) {
    CompiledCopyRules::MergedDirective d;
    d.directive.token = token;
    d.directive.item = item;
    d.origin = flag;
    return d;
}

// A pattern flag with a broken glob would silently match nothing: refuse it instead.
std::optional<std::string> badPattern(const std::vector<std::string>& patterns, const char* flag) {
    for (const auto& p : patterns) {
        if (Directive::normalizedItem(p).empty()) return fmt::format("{} pattern “{}” is empty", flag, p);
        auto glob = Glob::compile(Directive::normalizedItem(p));
        if (!glob) return fmt::format("{} pattern is invalid: {}", flag, glob.error().message());
    }
    return std::nullopt;
}

}  // namespace

tl::expected<std::unique_ptr<SelectionRules>, RuleSetLoader::Refusal> RuleSetLoader::load(const EngineOptions& options) {
    const bool anyPatterns =
        !options.preserveIfAbsent.empty() || !options.optionalPatterns.empty() || !options.retainOnError.empty();
    if (!options.scriptPath && !anyPatterns) return std::make_unique<CopyEverythingRules>();

    for (auto [patterns, flag] : {std::pair{&options.preserveIfAbsent, "--preserve-if-absent"},
                                  std::pair{&options.optionalPatterns, "--optional"},
                                  std::pair{&options.retainOnError, "--retain-on-error"}}) {
        if (auto bad = badPattern(*patterns, flag)) return tl::unexpected(Refusal{*bad});
    }

    std::vector<CompiledCopyRules::MergedDirective> directives;
    std::string fingerprint;
    if (options.scriptPath) {
        CopyRuleSet::Options loadOptions;
        for (const auto& dir : options.scriptSearchDirs) loadOptions.searchDirectories.emplace_back(dir);
        loadOptions.strictIncludes = options.strictIncludes;
        auto set = CopyRuleSet::load(*options.scriptPath, loadOptions);
        if (!set) return tl::unexpected(Refusal{set.error().message()});
        for (const auto& note : set->notes()) Log::f("Rules", "{} (skipped: includes are not strict)", note);
        auto merged = set->merged();
        for (const auto& problem : merged.problems) {
            if (options.strictIncludes) return tl::unexpected(Refusal{problem.message()});
            Log::f("Rules", "{} (skipped)", problem.message());
        }
        directives = std::move(merged.directives);
        fingerprint = "script\n";
    }
    for (const auto& p : options.preserveIfAbsent) directives.push_back(flagDirective("preserve_if_absent", p, "--preserve-if-absent"));
    for (const auto& p : options.optionalPatterns) directives.push_back(flagDirective("optional", p, "--optional"));
    fingerprint += CompiledRuleSelection::canonicalText(directives);

    CompiledCopyRules compiled = CompiledCopyRules::compile(directives);
    for (const auto& inert : compiled.inertDirectives()) {
        const auto& d = compiled.directives().at(inert.index);
        Log::f("Rules", "directive “{} {}” never applies: {}", d.directive.token, d.directive.item, inert.reason);
    }
    std::optional<CompiledCopyRules> retain;
    if (!options.retainOnError.empty()) {
        std::vector<CompiledCopyRules::MergedDirective> keep;
        for (const auto& p : options.retainOnError) keep.push_back(flagDirective("copy", p, "--retain-on-error"));
        fingerprint += "retain-on-error\n" + CompiledRuleSelection::canonicalText(keep);
        retain = CompiledCopyRules::compile(std::move(keep));
    }
    Log::f("Rules", "{} directive(s) compiled{}", compiled.directives().size(),
           options.scriptPath ? " from " + *options.scriptPath : std::string());
    return std::make_unique<CompiledRuleSelection>(std::move(compiled), std::move(retain), std::move(fingerprint));
}

}  // namespace ql
