#pragma once

#include "QLModel/DiskImageHost.h"
#include "QLModel/JsonCoder.h"

#include <string>
#include <string_view>
#include <variant>

namespace ql {

// The durable identity of a volume: facts that survive unplugging, renaming, re-mounting under
// another device node and restarts. A tagged variant, cases in this order:
//
//   gptPartitionGUID        a partition on a GUID-partitioned disk, by the partition's unique GUID
//   wholeDiskAPFSContainer  an APFS container covering a whole disk, by the container UUID
//   wholeDiskVolume         a non-APFS filesystem written directly on a whole disk, by volume UUID
//   mbrSlice                a slice of an MBR disk, by the filesystem volume UUID inside it
//   apmSlice                a slice of an Apple Partition Map disk, by the volume UUID inside it
//   diskImage               a volume inside a disk-image file: host, path relative to the host,
//                           and the GUID recorded inside the image
//   networkShare            a network share, by its share URL in canonical form
//
// JSON: one member named after the case holding the payload, e.g.
// {"gptPartitionGUID": {"_0": "…"}}, {"wholeDiskAPFSContainer": {"containerUUID": "…"}},
// {"diskImage": {"host": {"localVolume": {"volumeUUID": "…"}}, "relativePath": "…", "internalGUID": "…"}}.
struct VolumeKey {
    struct GPTPartitionGUID {
        Uuid guid;  // unlabelled payload, "_0" in JSON
        friend bool operator==(const GPTPartitionGUID&, const GPTPartitionGUID&) = default;
    };
    struct WholeDiskAPFSContainer {
        Uuid containerUUID;
        friend bool operator==(const WholeDiskAPFSContainer&, const WholeDiskAPFSContainer&) = default;
    };
    struct WholeDiskVolume {
        Uuid volumeUUID;
        friend bool operator==(const WholeDiskVolume&, const WholeDiskVolume&) = default;
    };
    struct MBRSlice {
        Uuid volumeUUID;
        friend bool operator==(const MBRSlice&, const MBRSlice&) = default;
    };
    struct APMSlice {
        Uuid volumeUUID;
        friend bool operator==(const APMSlice&, const APMSlice&) = default;
    };
    struct DiskImage {
        DiskImageHost host;
        std::string relativePath;
        Uuid internalGUID;
        friend bool operator==(const DiskImage&, const DiskImage&) = default;
    };
    struct NetworkShare {
        std::string url;
        friend bool operator==(const NetworkShare&, const NetworkShare&) = default;
    };

    enum class Kind { gptPartitionGUID, wholeDiskAPFSContainer, wholeDiskVolume, mbrSlice, apmSlice, diskImage, networkShare };

    std::variant<GPTPartitionGUID, WholeDiskAPFSContainer, WholeDiskVolume, MBRSlice, APMSlice, DiskImage, NetworkShare>
        value;

    static VolumeKey gptPartitionGUID(Uuid guid) { return {GPTPartitionGUID{guid}}; }
    static VolumeKey wholeDiskAPFSContainer(Uuid containerUUID) { return {WholeDiskAPFSContainer{containerUUID}}; }
    static VolumeKey wholeDiskVolume(Uuid volumeUUID) { return {WholeDiskVolume{volumeUUID}}; }
    static VolumeKey mbrSlice(Uuid volumeUUID) { return {MBRSlice{volumeUUID}}; }
    static VolumeKey apmSlice(Uuid volumeUUID) { return {APMSlice{volumeUUID}}; }
    static VolumeKey diskImage(DiskImageHost host, std::string relativePath, Uuid internalGUID) {
        return {DiskImage{std::move(host), std::move(relativePath), internalGUID}};
    }
    static VolumeKey networkShare(std::string url) { return {NetworkShare{std::move(url)}}; }

    Kind kind() const { return static_cast<Kind>(value.index()); }
    template <typename Case>
    const Case* as() const {
        return std::get_if<Case>(&value);
    }
    bool isNetworkShare() const { return kind() == Kind::networkShare; }
    bool isDiskImage() const { return kind() == Kind::diskImage; }

    // "gptPartitionGUID", "wholeDiskAPFSContainer", ...
    std::string_view caseName() const;
    // For logs: "gptPartitionGUID(E621E1F8-…)", "diskImage(localVolume(…), Images/a.dmg, …)".
    std::string description() const;

    friend bool operator==(const VolumeKey&, const VolumeKey&) = default;
};

std::string_view caseName(VolumeKey::Kind kind);

template <>
struct JsonCoder<VolumeKey> {
    static Json encode(const VolumeKey& value);
    static tl::expected<VolumeKey, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

template <>
struct std::hash<ql::VolumeKey> {
    std::size_t operator()(const ql::VolumeKey& key) const noexcept;
};
