#include "QLProtocol/runners/LiveVolumeOwnership.h"

#include "QLSupport/PropertyList.h"

#include <fmt/format.h>

namespace ql {

namespace {
constexpr const char* kDiskutil = "/usr/sbin/diskutil";
}

asio::awaitable<std::optional<bool>> LiveVolumeOwnership::ownersEnabled(std::string mountPath) {
    ShellCommand command{kDiskutil, {"info", "-plist", mountPath}, std::nullopt, std::nullopt, nullptr};
    auto outcome = co_await shell_.runChecked(std::move(command));
    if (!outcome) co_return std::nullopt;
    auto plist = PropertyList::read(outcome->stdout);
    if (!plist) co_return std::nullopt;
    const PlistValue* value = plist->find("GlobalPermissionsEnabled");
    if (!value || !value->asBool()) co_return std::nullopt;
    co_return *value->asBool();
}

asio::awaitable<tl::expected<void, std::string>> LiveVolumeOwnership::setOwnersEnabled(std::string mountPath,
                                                                                      bool enabled) {
    ShellCommand command{kDiskutil, {enabled ? "enableOwnership" : "disableOwnership", mountPath}, std::nullopt,
                         std::nullopt, nullptr};
    auto outcome = co_await shell_.runChecked(std::move(command));
    if (!outcome) co_return tl::unexpected(outcome.error().message());
    co_return tl::expected<void, std::string>{};
}

}  // namespace ql
