#pragma once

#include "QLModel/CompiledCopyRules.h"
#include "qlcopy/SelectionRules.h"

#include <optional>
#include <string>

namespace ql {

// The rule set of a run with copy rules: the merged directives of the rule document and its
// includes (plus the directives that --preserve-if-absent and --optional add), compiled once
// and evaluated tree-wise from each directory's cursor. Paths are relative to the copy root.
// --retain-on-error patterns are a second compiled set: an item is retained when one of them
// matches it or a folder above it.
class CompiledRuleSelection final : public SelectionRules {
public:
    CompiledRuleSelection(CompiledCopyRules rules, std::optional<CompiledCopyRules> retainOnError, std::string fingerprint);

    std::unique_ptr<SelectionScope> rootScope() const override;
    std::string fingerprint() const override { return fingerprint_; }

    // The canonical text of a merged directive list, for the fingerprint.
    static std::string canonicalText(const std::vector<CompiledCopyRules::MergedDirective>& directives);

private:
    CompiledCopyRules rules_;
    std::optional<CompiledCopyRules> retain_;
    std::string fingerprint_;
};

}  // namespace ql
