#include "QLModel/VolumeKey.h"

#include "QLModel/JsonObjectReader.h"
#include "QLModel/ModelHash.h"
#include "QLModel/Overloaded.h"

#include <fmt/format.h>

#include <array>

namespace ql {
namespace {

constexpr std::array<std::string_view, 7> kNames{"gptPartitionGUID", "wholeDiskAPFSContainer", "wholeDiskVolume",
                                                 "mbrSlice",         "apmSlice",               "diskImage",
                                                 "networkShare"};

}  // namespace

std::string_view caseName(VolumeKey::Kind kind) { return kNames[static_cast<std::size_t>(kind)]; }

std::string_view VolumeKey::caseName() const { return ql::caseName(kind()); }

std::string VolumeKey::description() const {
    return std::visit(
        Overloaded{
            [](const GPTPartitionGUID& c) { return fmt::format("gptPartitionGUID({})", c.guid.text()); },
            [](const WholeDiskAPFSContainer& c) {
                return fmt::format("wholeDiskAPFSContainer({})", c.containerUUID.text());
            },
            [](const WholeDiskVolume& c) { return fmt::format("wholeDiskVolume({})", c.volumeUUID.text()); },
            [](const MBRSlice& c) { return fmt::format("mbrSlice({})", c.volumeUUID.text()); },
            [](const APMSlice& c) { return fmt::format("apmSlice({})", c.volumeUUID.text()); },
            [](const DiskImage& c) {
                return fmt::format("diskImage({}, {}, {})", c.host.description(), c.relativePath, c.internalGUID.text());
            },
            [](const NetworkShare& c) { return fmt::format("networkShare({})", c.url); },
        },
        value);
}

Json JsonCoder<VolumeKey>::encode(const VolumeKey& key) {
    using K = VolumeKey;
    Json payload = std::visit(
        Overloaded{
            [](const K::GPTPartitionGUID& c) { return Json{{"_0", toJson(c.guid)}}; },
            [](const K::WholeDiskAPFSContainer& c) { return Json{{"containerUUID", toJson(c.containerUUID)}}; },
            [](const K::WholeDiskVolume& c) { return Json{{"volumeUUID", toJson(c.volumeUUID)}}; },
            [](const K::MBRSlice& c) { return Json{{"volumeUUID", toJson(c.volumeUUID)}}; },
            [](const K::APMSlice& c) { return Json{{"volumeUUID", toJson(c.volumeUUID)}}; },
            [](const K::DiskImage& c) {
                return Json{{"host", toJson(c.host)},
                            {"relativePath", c.relativePath},
                            {"internalGUID", toJson(c.internalGUID)}};
            },
            [](const K::NetworkShare& c) { return Json{{"url", c.url}}; },
        },
        key.value);
    return taggedCase(key.caseName(), std::move(payload));
}

tl::expected<VolumeKey, ModelDecodeError> JsonCoder<VolumeKey>::decode(const Json& json, const std::string& path) {
    auto tagged = readTaggedCase(json, path);
    if (!tagged) return tl::unexpected(std::move(tagged.error()));
    JsonObjectReader r(*tagged->payload, tagged->path);
    const auto& name = tagged->name;
    VolumeKey key;
    if (name == "gptPartitionGUID") {
        key = VolumeKey::gptPartitionGUID(r.required<Uuid>("_0"));
    } else if (name == "wholeDiskAPFSContainer") {
        key = VolumeKey::wholeDiskAPFSContainer(r.required<Uuid>("containerUUID"));
    } else if (name == "wholeDiskVolume") {
        key = VolumeKey::wholeDiskVolume(r.required<Uuid>("volumeUUID"));
    } else if (name == "mbrSlice") {
        key = VolumeKey::mbrSlice(r.required<Uuid>("volumeUUID"));
    } else if (name == "apmSlice") {
        key = VolumeKey::apmSlice(r.required<Uuid>("volumeUUID"));
    } else if (name == "diskImage") {
        auto host = r.required<DiskImageHost>("host");
        auto relativePath = r.required<std::string>("relativePath");
        auto internalGUID = r.required<Uuid>("internalGUID");
        key = VolumeKey::diskImage(std::move(host), std::move(relativePath), internalGUID);
    } else if (name == "networkShare") {
        key = VolumeKey::networkShare(r.required<std::string>("url"));
    } else {
        return tl::unexpected(ModelDecodeError::unknownCase(path, name));
    }
    if (!r.ok()) return tl::unexpected(r.error());
    return key;
}

}  // namespace ql

std::size_t std::hash<ql::VolumeKey>::operator()(const ql::VolumeKey& key) const noexcept {
    using K = ql::VolumeKey;
    std::size_t seed = key.value.index();
    std::visit(ql::Overloaded{
                   [&](const K::GPTPartitionGUID& c) { ql::hashCombine(seed, c.guid); },
                   [&](const K::WholeDiskAPFSContainer& c) { ql::hashCombine(seed, c.containerUUID); },
                   [&](const K::WholeDiskVolume& c) { ql::hashCombine(seed, c.volumeUUID); },
                   [&](const K::MBRSlice& c) { ql::hashCombine(seed, c.volumeUUID); },
                   [&](const K::APMSlice& c) { ql::hashCombine(seed, c.volumeUUID); },
                   [&](const K::DiskImage& c) {
                       ql::hashCombine(seed, c.host);
                       ql::hashCombine(seed, c.relativePath);
                       ql::hashCombine(seed, c.internalGUID);
                   },
                   [&](const K::NetworkShare& c) { ql::hashCombine(seed, c.url); },
               },
               key.value);
    return seed;
}
