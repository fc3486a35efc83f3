#include "qlcopy/CompiledRuleSelection.h"

#include <fmt/format.h>

namespace ql {
namespace {

// One thread's evaluators: a CopyRuleWalker caches automaton states and is not shared.
struct ThreadWalkers {
    CopyRuleWalker rules;
    std::optional<CopyRuleWalker> retain;
    ThreadWalkers(const CompiledCopyRules& r, const std::optional<CompiledCopyRules>& k) : rules(r) {
        if (k) retain.emplace(*k);
    }
};

class CompiledScope final : public SelectionScope {
public:
    CompiledScope(std::shared_ptr<ThreadWalkers> walkers, RuleCursor cursor, RuleCursor retainCursor, bool retained)
        : walkers_(std::move(walkers)), cursor_(cursor), retainCursor_(retainCursor), retained_(retained) {}

    PathVerdict verdict(std::string_view name, bool isDirectory) const override {
        RuleCursor c = walkers_->rules.child(cursor_, name);
        PathVerdict v;
        switch (walkers_->rules.disposition(c)) {
            case CopyRuleDisposition::Disposition::copy:
                v.selected = true;
                break;
            case CopyRuleDisposition::Disposition::optional:
                v.selected = true;
                v.optional = true;
                break;
            case CopyRuleDisposition::Disposition::skip:
                v.selected = false;
                v.mayHoldSelected = isDirectory && !walkers_->rules.isSettled(c);
                break;
        }
        if (auto keep = walkers_->rules.preserveKind(c)) {
            v.preserve = *keep == CopyRuleDisposition::DestPreserveKind::preserve ? PreserveKind::preserve
                                                                                  : PreserveKind::preserveIfAbsent;
        }
        v.retainOnError = retained_;
        if (!v.retainOnError && walkers_->retain) {
            RuleCursor r = walkers_->retain->child(retainCursor_, name);
            v.retainOnError = walkers_->retain->sourceDirective(r) != nullptr;
        }
        return v;
    }

    std::unique_ptr<SelectionScope> enter(std::string_view name) const override {
        RuleCursor c = walkers_->rules.child(cursor_, name);
        RuleCursor r = retainCursor_;
        bool retained = retained_;
        if (walkers_->retain && !retained) {
            r = walkers_->retain->child(retainCursor_, name);
            retained = walkers_->retain->sourceDirective(r) != nullptr;
        }
        return std::make_unique<CompiledScope>(walkers_, c, r, retained);
    }

private:
    std::shared_ptr<ThreadWalkers> walkers_;
    RuleCursor cursor_;
    RuleCursor retainCursor_;
    bool retained_;
};

}  // namespace

CompiledRuleSelection::CompiledRuleSelection(CompiledCopyRules rules, std::optional<CompiledCopyRules> retainOnError,
                                             std::string fingerprint)
    : rules_(std::move(rules)), retain_(std::move(retainOnError)), fingerprint_(std::move(fingerprint)) {}

std::unique_ptr<SelectionScope> CompiledRuleSelection::rootScope() const {
    auto walkers = std::make_shared<ThreadWalkers>(rules_, retain_);
    RuleCursor root = walkers->rules.root();
    RuleCursor retainRoot = walkers->retain ? walkers->retain->root() : RuleCursor{};
    return std::make_unique<CompiledScope>(std::move(walkers), root, retainRoot, false);
}

std::string CompiledRuleSelection::canonicalText(const std::vector<CompiledCopyRules::MergedDirective>& directives) {
    std::string text;
    for (const auto& d : directives) {
        text += fmt::format("{}\t{}\t{}\n", d.directive.token, d.directive.item, d.origin.value_or(""));
    }
    return text;
}

}  // namespace ql
