#pragma once

#include "QLModel/Resolution.h"
#include "QLModel/VolumeRef.h"
#include "QLProtocol/proto/tiles.pb.h"

#include <optional>
#include <string>

namespace ql {

// The stored binding of one side of a job (`VolumeBinding`) read as the model's volume
// identity, and written back from it.
//
// The binding's key follows its kind: a disk image, a network share, a GPT partition (by
// `partition_guid`), an MBR or APM slice or a whole-disk volume (by `volume_uuid` and the
// partition-map word). `partition_map_type` holds the model's case name ("gpt", "wholeDisk"),
// `filesystem_family` the family's wire token ("apfs", "hfs+").
struct TileBinding {
    using Binding = ql4::transport::v1::VolumeBinding;

    // Nothing set at all (the side was never chosen).
    static bool isEmpty(const Binding& binding);
    static bool isNetwork(const Binding& binding) { return !binding.network_url().empty() && !binding.has_disk_image(); }
    static bool isDiskImage(const Binding& binding) { return binding.has_disk_image(); }

    // The durable key the binding can be found by; nullopt when it has none yet (a binding
    // stored unenriched, known only by its device hint or name).
    static std::optional<VolumeKey> key(const Binding& binding);
    // The whole reference for the resolver; nullopt without a key.
    static std::optional<VolumeRef> ref(const Binding& binding);

    // Two bindings name the same volume: equal keys, or, when neither has a key, the same
    // device hint.
    static bool sameIdentity(const Binding& a, const Binding& b);

    // Fills the binding's identity and recorded facts from a bound reference (the subpath and
    // the caller's target are kept).
    static void fill(Binding& binding, const VolumeRef& ref);

    // The verdict as the wire carries it.
    static ql4::transport::v1::BindingState state(const Resolution& resolution);

    // "Backup" or, without a name, the device hint or URL: how log lines name a binding.
    static std::string label(const Binding& binding);

    // Where a resolved volume is mounted: the volume itself, or for an APFS container its Data
    // volume (else any mounted member).
    static std::optional<std::string> mountPointOf(const CurrentVolumeState& state);
    // The binding's folder on a volume mounted at `mount`; nothing for a subpath that climbs out.
    static std::optional<std::string> folderOn(const std::string& mount, const std::string& subpath);
};

}  // namespace ql
