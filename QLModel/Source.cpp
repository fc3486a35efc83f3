#include "QLModel/Source.h"

#include "QLModel/JsonObjectReader.h"

namespace ql {

Json JsonCoder<Source>::encode(const Source& value) {
    return Json{{"id", toJson(value.id)}, {"ref", toJson(value.ref)}, {"displayName", value.displayName}};
}

tl::expected<Source, ModelDecodeError> JsonCoder<Source>::decode(const Json& json, const std::string& path) {
    JsonObjectReader r(json, path);
    Source source{r.required<Uuid>("id"), r.required<VolumeRef>("ref"), r.required<std::string>("displayName")};
    if (!r.ok()) return tl::unexpected(r.error());
    return source;
}

}  // namespace ql
