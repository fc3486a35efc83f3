#pragma once

#include "qlcopy/SelectionRules.h"

namespace ql {

// The rule set of a run without a copy rule document: every item is copied, nothing is kept
// on the destination beyond what the source has.
class CopyEverythingRules final : public SelectionRules {
public:
    std::unique_ptr<SelectionScope> rootScope() const override;
    std::string fingerprint() const override { return "copy-everything"; }
};

}  // namespace ql
