#pragma once

#include <tl/expected.hpp>

#include "QLModel/APFSVolumeRole.h"
#include "QLModel/FilesystemFamily.h"
#include "QLModel/PartitionMapType.h"
#include "QLModel/VolumeInvariants.h"
#include "QLModel/VolumeKey.h"
#include "QLModel/VolumeRef.h"
#include "QLModel/VolumeTarget.h"
#include "QLProtocol/proto/identity.pb.h"
#include "QLProtocol/transport/VolumeBridgeError.h"

namespace ql {

// Converts the model's volume identity types to their wire messages and back.
//
// Model -> wire always succeeds: UUIDs become 16 raw bytes, absent optional parts (serial,
// subpath, last-resolved date) are left empty or zero, and the MBR key's device serial and
// partition index are left empty (the model keys an MBR slice by its volume UUID alone).
//
// Wire -> model is strict and stops at the first problem: an unset oneof or required string, an
// unspecified or unknown enum number, or a UUID that is not 16 bytes is a `VolumeBridgeError`
// naming the field. An empty serial or subpath and a zero date read as absent, so a model value
// survives model -> wire -> model unchanged (the model never holds an empty serial or subpath).
//
// Enums convert through explicit tables: the wire numbering is not the model's case order.
struct VolumeBridge {
    template <typename T>
    using Result = tl::expected<T, VolumeBridgeError>;

    static ql4::transport::v1::VolumeKey toWire(const VolumeKey& key);
    static ql4::transport::v1::VolumeTarget toWire(const VolumeTarget& target);
    static ql4::transport::v1::APFSVolumeRole toWire(const APFSVolumeRole& role);
    static ql4::transport::v1::VolumeInvariants toWire(const VolumeInvariants& invariants);
    static ql4::transport::v1::VolumeRef toWire(const VolumeRef& ref);
    static ql4::transport::v1::PartitionMapType toWire(PartitionMapType type);
    static ql4::transport::v1::FilesystemFamily toWire(FilesystemFamily family);

    static Result<VolumeKey> fromWire(const ql4::transport::v1::VolumeKey& key);
    static Result<VolumeTarget> fromWire(const ql4::transport::v1::VolumeTarget& target);
    static Result<APFSVolumeRole> fromWire(const ql4::transport::v1::APFSVolumeRole& role);
    static Result<VolumeInvariants> fromWire(const ql4::transport::v1::VolumeInvariants& invariants);
    static Result<VolumeRef> fromWire(const ql4::transport::v1::VolumeRef& ref);
    static Result<PartitionMapType> fromWire(ql4::transport::v1::PartitionMapType type);
    static Result<FilesystemFamily> fromWire(ql4::transport::v1::FilesystemFamily family);
};

}  // namespace ql
