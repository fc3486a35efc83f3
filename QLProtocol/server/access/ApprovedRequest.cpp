#include "QLProtocol/server/access/ApprovedRequest.h"

#include "QLProtocol/server/RunRecordBuilder.h"
#include "QLProtocol/server/TileBinding.h"
#include "QLProtocol/transport/VolumeBridge.h"

#include <fmt/format.h>

#include <filesystem>

namespace ql {

namespace v1 = ql4::transport::v1;

std::string ApprovedRequest::mismatch(const std::string& what) {
    return fmt::format("This copy isn’t the one an administrator approved ({}), so Quillo didn’t run it. Run the "
                       "job as it is stored, or ask an administrator to approve the change.",
                       what);
}

tl::expected<void, std::string> ApprovedRequest::pin(v1::CopyRequest& request, const v1::CopyTile& tile) {
    const auto source = TileBinding::ref(tile.source());
    const auto destination = TileBinding::ref(tile.destination());
    if (!source || !destination) return tl::unexpected(mismatch("its drives aren’t known yet"));

    const auto requested = RunRecordBuilder::copyMode(request.during_copy());
    // Erase-then-copy may be weakened to Smart Update (a share can't be erased); nothing else.
    const bool weakenedErase = tile.copy_mode() == v1::COPY_MODE_ERASE_THEN_COPY &&
                               request.during_copy() == v1::DCM_SMART_UPDATE;
    if (!weakenedErase && requested != tile.copy_mode()) return tl::unexpected(mismatch("a different copy mode"));

    if (!tile.copy_rule_filename().empty() && !request.copy_script_path().empty() &&
        std::filesystem::path(request.copy_script_path()).filename() != tile.copy_rule_filename()) {
        return tl::unexpected(mismatch("a different copy rule"));
    }

    *request.mutable_source() = VolumeBridge::toWire(*source);
    request.mutable_source()->set_subpath(tile.source().subpath());
    *request.mutable_destination() = VolumeBridge::toWire(*destination);
    request.mutable_destination()->set_subpath(tile.destination().subpath());
    request.set_source_volume_uuid(tile.source().volume_uuid());
    request.set_destination_volume_uuid(tile.destination().volume_uuid());
    request.clear_source_path();
    request.clear_destination_path();
    return {};
}

}  // namespace ql
