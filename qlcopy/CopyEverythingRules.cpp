#include "qlcopy/CopyEverythingRules.h"

namespace ql {
namespace {

class EverythingScope final : public SelectionScope {
public:
    PathVerdict verdict(std::string_view, bool) const override { return PathVerdict{}; }
    std::unique_ptr<SelectionScope> enter(std::string_view) const override {
        return std::make_unique<EverythingScope>();
    }
};

}  // namespace

std::unique_ptr<SelectionScope> CopyEverythingRules::rootScope() const { return std::make_unique<EverythingScope>(); }

}  // namespace ql
