#include "QLModel/JsonObjectReader.h"

namespace ql {

JsonObjectReader::JsonObjectReader(const Json& json, std::string path) : json_(json), path_(std::move(path)) {
    if (!json_.is_object()) error_ = ModelDecodeError::typeMismatch(path_, "an object", jsonTypeName(json_));
}

const Json* JsonObjectReader::find(std::string_view key) const {
    auto it = json_.find(key);
    if (it == json_.end()) return nullptr;
    return &*it;
}

const Json* JsonObjectReader::requiredMember(std::string_view key) {
    if (error_) return nullptr;
    const Json* member = find(key);
    if (!member) error_ = ModelDecodeError::missingField(joinCodingPath(path_, key));
    return member;
}

tl::expected<TaggedCase, ModelDecodeError> readTaggedCase(const Json& json, const std::string& path) {
    if (!json.is_object()) return tl::unexpected(ModelDecodeError::typeMismatch(path, "an object", jsonTypeName(json)));
    if (json.size() != 1) return tl::unexpected(ModelDecodeError::invalidNumberOfKeys(path));
    auto it = json.begin();
    std::string payloadPath = joinCodingPath(path, it.key());
    if (!it.value().is_object()) {
        return tl::unexpected(ModelDecodeError::typeMismatch(payloadPath, "an object", jsonTypeName(it.value())));
    }
    return TaggedCase{it.key(), &it.value(), std::move(payloadPath)};
}

Json taggedCase(std::string_view name, Json payload) {
    Json out = Json::object();
    out[std::string(name)] = std::move(payload);
    return out;
}

}  // namespace ql
