#pragma once

#include "QLModel/ImageBackedDevicePolicy.h"
#include "QLModel/Resolution.h"
#include "QLModel/VolumeRef.h"
#include "QLModel/VolumeResolverEnvironment.h"
#include "QLSupport/Actor.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <iosfwd>
#include <string>

namespace ql {

// Finds the live device behind a stored `VolumeRef` and checks that it is still the volume the
// job was bound to; and, the other way round, binds a device the user picked into a `VolumeRef`.
//
// Every key kind has its own search over the probes: GPT partitions by unique GUID, whole-disk
// APFS containers by container UUID, whole-disk volumes and MBR/APM slices by volume UUID, disk
// images by where their file lives, network shares by URL. A search that could not read
// everything it had to look at answers `probeFailed` with a sentence saying so, never
// `volumeMissing`: an incomplete scan never reports a volume as missing.
//
// A found device is checked against the recorded invariants, in this order: partition size,
// filesystem family (a recorded `other` tolerates exfat, fat32, ntfs and other), container UUID
// (container keys), partition map type, hardware serial (with retries when a recorded serial
// can't be read, and never compared when the recorded serial declares itself non-durable).
//
// An actor: one resolution or binding runs at a time; serial retries sleep without blocking.
class VolumeResolver : public Actor {
public:
    using ImageBackedDevicePolicy = ql::ImageBackedDevicePolicy;

    // Why a device could not be bound; `message` is the sentence.
    struct BindingError {
        std::string message;
        friend bool operator==(const BindingError&, const BindingError&) = default;
    };
    using BindingResult = tl::expected<VolumeRef, BindingError>;

    // A negative `serialRetryAttempts` is a programming error and stops the process.
    VolumeResolver(const Executor& executor, VolumeResolverEnvironment environment);

    // Never fails: every failure is a `Resolution`.
    asio::awaitable<Resolution> resolve(VolumeRef ref);

    // Builds a reference for a device: a GPT partition, a whole-disk APFS container, a
    // filesystem on a whole disk, or an MBR/APM slice with a volume UUID. An APFS volume is first
    // walked to its container and on to the partition that holds it.
    asio::awaitable<BindingResult> bind(std::string device, ImageBackedDevicePolicy policy);
    // The same, without whole-disk volumes.
    asio::awaitable<BindingResult> bindSlice(std::string device, ImageBackedDevicePolicy policy);

    const VolumeResolverEnvironment& environment() const { return env_; }

    // The fixed sentences of incomplete searches.
    static constexpr std::string_view partitionScanIncomplete =
        "Couldn't read every partition while looking for this one";
    static constexpr std::string_view containerScanIncomplete =
        "Couldn't read every container while looking for this one";
    static constexpr std::string_view wholeDiskScanIncomplete =
        "Couldn't read every disk while looking for this volume";
    static constexpr std::string_view sliceScanIncomplete = "Couldn't read every slice while looking for this volume";
    static constexpr std::string_view imageVolumeScanIncomplete =
        "Couldn't read every volume while looking for this one";
    static constexpr std::string_view imageHostScanIncomplete =
        "Couldn't check whether the disk holding this image is connected";

private:
    struct Found;
    struct HostLookup;

    asio::awaitable<Resolution> resolveOnStrand(VolumeRef ref);
    asio::awaitable<Resolution> dispatch(VolumeRef ref);
    asio::awaitable<Resolution> searchGPTPartition(VolumeRef ref, Uuid guid);
    asio::awaitable<Resolution> searchContainer(VolumeRef ref, Uuid containerUUID);
    asio::awaitable<Resolution> searchWholeDisk(VolumeRef ref, Uuid volumeUUID);
    asio::awaitable<Resolution> searchSlice(VolumeRef ref, Uuid volumeUUID, std::string scheme);
    asio::awaitable<Resolution> searchDiskImage(VolumeRef ref);
    asio::awaitable<Resolution> searchNetworkShare(VolumeRef ref);

    // Describes a found device in full, builds its state and checks the invariants.
    asio::awaitable<Resolution> examine(VolumeRef ref, std::string device, std::optional<std::string> scheme,
                                        std::optional<ProbeList> listing, std::string unreadableSentence);
    asio::awaitable<tl::expected<CurrentVolumeState, UnresolvedReason>> buildState(std::string device, ProbeInfo info,
                                                                                   std::optional<ProbeList> listing);
    asio::awaitable<std::vector<InvariantMismatch>> checkInvariants(VolumeRef ref, ProbeInfo info,
                                                                    CurrentVolumeState state);
    asio::awaitable<std::optional<InvariantMismatch>> checkSerial(VolumeRef ref, std::string device);
    asio::awaitable<HostLookup> findLocalVolume(Uuid volumeUUID);

    asio::awaitable<BindingResult> bindOnStrand(std::string device, ImageBackedDevicePolicy policy,
                                                bool acceptWholeDiskVolume);

    FilesystemFamily classify(const ProbeInfo& info) const;
    bool sameShare(const std::string& a, const std::string& b) const;
    bool sameHost(const std::string& a, const std::string& b) const;
    std::optional<std::string> canonical(const std::string& path) const;

    VolumeResolverEnvironment env_;
};

std::ostream& operator<<(std::ostream& out, const VolumeResolver::BindingError& error);

}  // namespace ql
