#include "QLModel/PartitionContentName.h"

#include <array>
#include <utility>

namespace ql {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 8> kContentNames{{
    {"7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple_APFS"},
    {"EF57347C-0000-11AA-AA11-00306543ECAC", "Apple_APFS_Container"},
    {"69646961-6700-11AA-AA11-00306543ECAC", "Apple_APFS_ISC"},
    {"52637672-7900-11AA-AA11-00306543ECAC", "Apple_APFS_Recovery"},
    {"48465300-0000-11AA-AA11-00306543ECAC", "Apple_HFS"},
    {"426F6F74-0000-11AA-AA11-00306543ECAC", "Apple_Boot"},
    {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft Basic Data"},
    {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI"},
}};

}  // namespace

std::optional<std::string> PartitionContentName::fromTypeGUID(std::optional<std::string_view> value) {
    if (!value || value->empty()) return std::nullopt;
    std::string upper(*value);
    for (auto& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    for (const auto& [guid, name] : kContentNames) {
        if (guid == upper) return std::string(name);
    }
    return std::string(*value);
}

}  // namespace ql
