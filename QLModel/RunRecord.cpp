#include "QLModel/RunRecord.h"

#include "QLModel/JsonObjectReader.h"

#include <array>

namespace ql {
namespace {

constexpr std::array<std::string_view, 5> kOutcomeNames{"succeeded", "failed", "cancelled", "wrongDrive",
                                                        "destinationNotConnected"};

}  // namespace

std::string_view caseName(RunRecord::Outcome outcome) { return kOutcomeNames[static_cast<std::size_t>(outcome)]; }

tl::expected<RunRecord::Outcome, ModelDecodeError> JsonCoder<RunRecord::Outcome>::decode(const Json& json,
                                                                                         const std::string& path) {
    return decodeNamedCase<RunRecord::Outcome>(json, path, kOutcomeNames);
}

Json JsonCoder<RunRecord>::encode(const RunRecord& value) {
    Json out{{"id", toJson(value.id)},
             {"tileID", toJson(value.tileID)},
             {"startedAt", toJson(value.startedAt)},
             {"endedAt", toJson(value.endedAt)},
             {"outcome", toJson(value.outcome)},
             {"logRelativePath", value.logRelativePath}};
    if (value.summary) out["summary"] = *value.summary;
    return out;
}

tl::expected<RunRecord, ModelDecodeError> JsonCoder<RunRecord>::decode(const Json& json, const std::string& path) {
    JsonObjectReader r(json, path);
    RunRecord record{
        r.required<Uuid>("id"),
        r.required<Uuid>("tileID"),
        r.required<ModelDate>("startedAt"),
        r.required<ModelDate>("endedAt"),
        r.required<RunRecord::Outcome>("outcome"),
        r.required<std::string>("logRelativePath"),
        r.optional<std::string>("summary"),
    };
    if (!r.ok()) return tl::unexpected(r.error());
    return record;
}

}  // namespace ql
