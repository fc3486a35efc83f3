#pragma once

#include "qlcopy/EngineOptions.h"
#include "qlcopy/SelectionRules.h"

#include <tl/expected.hpp>

#include <memory>
#include <string>

namespace ql {

// Builds the run's rule set from the command line: the copy rule document (--script, with its
// includes found in --script-search-dir folders, strictly with --strict-includes) and the
// pattern flags (--preserve-if-absent, --optional, --retain-on-error).
class RuleSetLoader {
public:
    struct Refusal {
        std::string detail;  // one line: why the rule cannot be used
    };

    static tl::expected<std::unique_ptr<SelectionRules>, Refusal> load(const EngineOptions& options);
};

}  // namespace ql
