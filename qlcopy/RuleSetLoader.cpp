#include "qlcopy/RuleSetLoader.h"

#include "qlcopy/CopyEverythingRules.h"

namespace ql {

tl::expected<std::unique_ptr<SelectionRules>, RuleSetLoader::Refusal> RuleSetLoader::load(const EngineOptions& options) {
    if (options.scriptPath || !options.preserveIfAbsent.empty() || !options.optionalPatterns.empty() ||
        !options.retainOnError.empty()) {
        return tl::unexpected(Refusal{"copy rules are not available in this build of qlcopy"});
    }
    return std::make_unique<CopyEverythingRules>();
}

}  // namespace ql
