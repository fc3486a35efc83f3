#pragma once

#include "QLModel/APFSVolumeRole.h"
#include "QLModel/JsonCoder.h"

#include <variant>

namespace ql {

// Which part of the keyed object a binding means:
//   wholeFilesystem   the whole filesystem the key identifies (the default for non-APFS volumes
//                     and shares)
//   apfsVolumeGroup   the APFS volume group (system volume, its data volume and their siblings)
//                     living in the keyed container
//   apfsVolumeByRole  the one APFS volume in the keyed container that carries this role
// JSON: {"wholeFilesystem": {}}, {"apfsVolumeGroup": {}}, {"apfsVolumeByRole": {"_0": {"data": {}}}}.
struct VolumeTarget {
    struct WholeFilesystem {
        friend bool operator==(const WholeFilesystem&, const WholeFilesystem&) = default;
    };
    struct APFSVolumeGroup {
        friend bool operator==(const APFSVolumeGroup&, const APFSVolumeGroup&) = default;
    };
    struct APFSVolumeByRole {
        APFSVolumeRole role;  // unlabelled payload, "_0" in JSON
        friend bool operator==(const APFSVolumeByRole&, const APFSVolumeByRole&) = default;
    };
    enum class Kind { wholeFilesystem, apfsVolumeGroup, apfsVolumeByRole };

    std::variant<WholeFilesystem, APFSVolumeGroup, APFSVolumeByRole> value;

    static VolumeTarget wholeFilesystem() { return {WholeFilesystem{}}; }
    static VolumeTarget apfsVolumeGroup() { return {APFSVolumeGroup{}}; }
    static VolumeTarget apfsVolumeByRole(APFSVolumeRole role) { return {APFSVolumeByRole{std::move(role)}}; }

    Kind kind() const { return static_cast<Kind>(value.index()); }
    // The role of an `apfsVolumeByRole` target; nullptr for the other cases.
    const APFSVolumeRole* role() const {
        auto byRole = std::get_if<APFSVolumeByRole>(&value);
        return byRole ? &byRole->role : nullptr;
    }
    std::string_view caseName() const;
    // For logs: "wholeFilesystem", "apfsVolumeGroup", "apfsVolumeByRole(data)".
    std::string description() const;

    friend bool operator==(const VolumeTarget&, const VolumeTarget&) = default;
};

template <>
struct JsonCoder<VolumeTarget> {
    static Json encode(const VolumeTarget& value);
    static tl::expected<VolumeTarget, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

template <>
struct std::hash<ql::VolumeTarget> {
    std::size_t operator()(const ql::VolumeTarget& target) const noexcept;
};
