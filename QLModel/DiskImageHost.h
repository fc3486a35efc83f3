#pragma once

#include "QLModel/JsonCoder.h"

#include <string>
#include <variant>

namespace ql {

// Where a disk-image file lives: on a network share (by its URL) or on a local volume (by that
// volume's UUID). A tagged variant; in JSON {"networkShare": {"url": ...}} or
// {"localVolume": {"volumeUUID": ...}}.
struct DiskImageHost {
    struct NetworkShare {
        std::string url;
        friend bool operator==(const NetworkShare&, const NetworkShare&) = default;
    };
    struct LocalVolume {
        Uuid volumeUUID;
        friend bool operator==(const LocalVolume&, const LocalVolume&) = default;
    };
    enum class Kind { networkShare, localVolume };

    std::variant<NetworkShare, LocalVolume> value;

    static DiskImageHost networkShare(std::string url) { return {NetworkShare{std::move(url)}}; }
    static DiskImageHost localVolume(Uuid volumeUUID) { return {LocalVolume{volumeUUID}}; }

    Kind kind() const { return static_cast<Kind>(value.index()); }
    template <typename Case>
    const Case* as() const {
        return std::get_if<Case>(&value);
    }
    std::string_view caseName() const;
    std::string description() const;

    friend bool operator==(const DiskImageHost&, const DiskImageHost&) = default;
};

template <>
struct JsonCoder<DiskImageHost> {
    static Json encode(const DiskImageHost& value);
    static tl::expected<DiskImageHost, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

template <>
struct std::hash<ql::DiskImageHost> {
    std::size_t operator()(const ql::DiskImageHost& host) const noexcept;
};
