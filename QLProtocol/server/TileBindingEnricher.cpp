#include "QLProtocol/server/TileBindingEnricher.h"

#include "QLModel/FilesystemFamily.h"
#include "QLModel/PartitionMapType.h"
#include "QLProtocol/server/CanonicalShareURL.h"
#include "QLProtocol/server/TileBinding.h"
#include "QLSupport/Log.h"
#include "QLSupport/Uuid.h"

#include <algorithm>

namespace ql {
namespace {

constexpr std::string_view tag = "LiveTileServiceProvider";

std::string uuidText(const std::string& bytes) {
    if (bytes.empty()) return "<empty>";
    auto uuid = UUIDCodec::decode(bytes);
    return uuid ? uuid->text() : "<malformed>";
}

std::string_view familyOfScheme(std::string_view url) {
    if (url.rfind("smb://", 0) == 0) return wireToken(FilesystemFamily::smb);
    if (url.rfind("afp://", 0) == 0) return wireToken(FilesystemFamily::afp);
    if (url.rfind("nfs://", 0) == 0) return wireToken(FilesystemFamily::nfs);
    return wireToken(FilesystemFamily::other);
}

bool isDataRole(const APFSVolumeRole& role) { return role == APFSVolumeRole::data(); }

}  // namespace

bool TileBindingEnricher::isEnriched(const Binding& binding) {
    if (TileBinding::isDiskImage(binding)) return binding.partition_map_type() == caseName(PartitionMapType::diskImage);
    if (TileBinding::isNetwork(binding)) return binding.partition_map_type() == caseName(PartitionMapType::network);
    return TileBinding::key(binding).has_value() && !binding.partition_map_type().empty();
}

std::string TileBindingEnricher::normalizedDataName(const std::string& name) {
    static constexpr std::string_view suffix = " - Data";
    if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        return name.substr(0, name.size() - suffix.size());
    }
    return name;
}

asio::awaitable<std::optional<Resolution>> TileBindingEnricher::resolve(Binding binding) {
    if (TileBinding::isEmpty(binding)) co_return std::nullopt;
    auto ref = TileBinding::ref(binding);
    if (!ref) {
        if (TileBinding::isNetwork(binding) || TileBinding::isDiskImage(binding)) {
            co_return Resolution::unresolved(UnresolvedReason::unsupportedKey("the binding's key is malformed"));
        }
        co_return Resolution::unresolved(UnresolvedReason::notAttached());
    }
    co_return co_await resolver_.resolve(*ref);
}

asio::awaitable<TileBindingEnricher::Outcome> TileBindingEnricher::enrich(std::string tileID, Side side,
                                                                          Binding binding) {
    if (TileBinding::isEmpty(binding)) co_return Outcome{binding, Miss::none, std::nullopt};
    if (TileBinding::isDiskImage(binding)) co_return co_await enrichDiskImage(std::move(binding));
    if (TileBinding::isNetwork(binding)) co_return co_await enrichNetwork(std::move(binding));
    co_return co_await enrichLocal(std::move(tileID), side, std::move(binding));
}

asio::awaitable<TileBindingEnricher::Outcome> TileBindingEnricher::enrichNetwork(Binding binding) {
    const std::string name = TileBinding::label(binding);
    auto canonical = CanonicalShareURL::of(binding.network_url());
    if (!canonical) {
        Log::line(tag, "binding '" + name + "' has malformed network URL '" + binding.network_url() +
                           "' — passing through unenriched");
        co_return Outcome{binding, Miss::malformed, std::nullopt};
    }
    Binding candidate = binding;
    candidate.set_network_url(*canonical);
    auto ref = TileBinding::ref(candidate);
    auto resolution = co_await resolver_.resolve(*ref);
    if (!resolution.state()) {
        Log::line(tag, "network binding '" + name + "' not mounted — passing through unenriched (heals on mount)");
        co_return Outcome{binding, Miss::notMounted, resolution};
    }
    candidate.set_host_display_name(CanonicalShareURL::host(*canonical));
    candidate.set_partition_map_type(std::string(caseName(PartitionMapType::network)));
    candidate.set_filesystem_family(std::string(familyOfScheme(*canonical)));
    if (candidate.display_name().empty()) candidate.set_display_name(CanonicalShareURL::shareName(*canonical));
    const auto& standalone = resolution.state()->standaloneVolume;
    if (standalone && standalone->volumeUUID) candidate.set_volume_uuid(UUIDCodec::encode(*standalone->volumeUUID));
    co_return Outcome{candidate, Miss::none, resolution};
}

asio::awaitable<TileBindingEnricher::Outcome> TileBindingEnricher::enrichDiskImage(Binding binding) {
    const std::string name = TileBinding::label(binding);
    auto ref = TileBinding::ref(binding);
    if (!ref) {
        Log::line(tag, "strong-healed binding '" + name + "' has a malformed disk-image key — passing through unenriched");
        co_return Outcome{binding, Miss::malformed, std::nullopt};
    }
    auto resolution = co_await resolver_.resolve(*ref);
    if (!resolution.state()) {
        const auto kind = resolution.reason()->kind();
        if (kind == UnresolvedReason::Kind::notAttached) {
            Log::line(tag, "disk-image binding '" + name + "' not attached — passing through unenriched (heals on attach)");
            co_return Outcome{binding, Miss::notAttached, resolution};
        }
        if (kind == UnresolvedReason::Kind::probeFailed || kind == UnresolvedReason::Kind::unsupportedKey) {
            Log::line(tag, "enrichBinding failed for hint='" + name + "': " + resolution.description());
            co_return Outcome{binding, Miss::failed, resolution};
        }
        Log::line(tag, "disk-image binding '" + name +
                           "' not reachable — passing through unenriched (heals when its host returns)");
        co_return Outcome{binding, Miss::notReachable, resolution};
    }
    Binding candidate = binding;
    const auto& state = *resolution.state();
    candidate.set_partition_map_type(std::string(caseName(PartitionMapType::diskImage)));
    if (state.containerState) {
        candidate.set_filesystem_family(std::string(wireToken(FilesystemFamily::apfsContainer)));
    } else if (state.standaloneVolume) {
        candidate.set_filesystem_family(std::string(wireToken(state.standaloneVolume->format)));
        if (candidate.display_name().empty()) candidate.set_display_name(state.standaloneVolume->name);
        if (state.standaloneVolume->volumeUUID) {
            candidate.set_volume_uuid(UUIDCodec::encode(*state.standaloneVolume->volumeUUID));
        }
    }
    candidate.set_partition_size_bytes(state.partitionSizeBytes);
    candidate.set_bsd_device_hint(state.bsdDevice);
    if (candidate.disk_image().host_case() == ql4::transport::v1::DiskImageBinding::kHostShareUrl) {
        candidate.set_host_display_name(CanonicalShareURL::host(candidate.disk_image().host_share_url()));
    }
    co_return Outcome{candidate, Miss::none, resolution};
}

asio::awaitable<TileBindingEnricher::Outcome> TileBindingEnricher::enrichLocal(std::string tileID, Side side,
                                                                               Binding binding) {
    const std::string name = TileBinding::label(binding);
    const std::string hint = binding.bsd_device_hint();
    auto probe = resolver_.environment().probe;

    // Which device is it now? The key decides when there is one (a stale device hint could name
    // another disk by now); otherwise the hint.
    std::string device;
    if (auto ref = TileBinding::ref(binding)) {
        auto found = co_await resolver_.resolve(*ref);
        if (found.state()) {
            device = found.state()->bsdDevice;
        } else {
            const auto kind = found.reason()->kind();
            if (kind == UnresolvedReason::Kind::volumeMissing || kind == UnresolvedReason::Kind::notAttached) {
                Log::line(tag, "local binding '" + name + "' not attached — passing through unenriched (heals on attach)");
                co_return Outcome{binding, Miss::notAttached, found};
            }
            Log::line(tag, "enrichBinding failed for hint='" + hint + "' name='" + name + "': " + found.description());
            co_return Outcome{binding, Miss::failed, found};
        }
    } else if (!hint.empty() && probe) {
        auto described = co_await probe->describe(hint);
        if (!described) {
            Log::line(tag, "local binding '" + name + "' not attached — passing through unenriched (heals on attach)");
            co_return Outcome{binding, Miss::notAttached, Resolution::unresolved(UnresolvedReason::notAttached())};
        }
        device = hint;
    } else {
        Log::line(tag, "enrichBinding failed for hint='" + hint + "' name='" + name +
                           "': the binding names no device and no volume");
        co_return Outcome{binding, Miss::failed, std::nullopt};
    }

    // Sources are only read, so a volume inside an attached image may be one; a destination
    // inside an image must be bound as the image itself.
    auto policy = side == Side::source ? ImageBackedDevicePolicy::allowForReading : ImageBackedDevicePolicy::refuse;
    auto bound = co_await resolver_.bind(device, policy);
    if (!bound) {
        Log::line(tag, "enrichBinding failed for hint='" + device + "' name='" + name + "': " + bound.error().message);
        co_return Outcome{binding, Miss::failed, std::nullopt};
    }
    Binding candidate = binding;
    const std::string incomingVolumeUUID = binding.volume_uuid();
    TileBinding::fill(candidate, *bound);
    candidate.set_bsd_device_hint(device);

    auto resolution = co_await resolver_.resolve(*TileBinding::ref(candidate));
    const CurrentVolumeState* state = resolution.state();
    if (state && state->containerState) {
        // An APFS container: the binding is anchored to its Data-role volume.
        const auto& volumes = state->containerState->allVolumes;
        auto data = std::find_if(volumes.begin(), volumes.end(), [](const auto& v) { return isDataRole(v.role); });
        if (data == volumes.end() && volumes.size() == 1) data = volumes.begin();
        if (data != volumes.end()) {
            const std::string dataUUID = UUIDCodec::encode(data->volumeUUID);
            if (!incomingVolumeUUID.empty() && incomingVolumeUUID != dataUUID) {
                Log::line(tag, "data-anchor canonicalize tile=" + tileID + " side=" + std::string(sideName(side)) +
                                   " hint='" + device + "' incomingVolumeUUID=" + uuidText(incomingVolumeUUID) +
                                   " → dataVolumeUUID=" + data->volumeUUID.text());
            }
            // A whole-disk container keeps its container UUID there: that is its key.
            auto k = TileBinding::key(candidate);
            if (!k || k->kind() != VolumeKey::Kind::wholeDiskAPFSContainer) candidate.set_volume_uuid(dataUUID);
            const std::string shown = normalizedDataName(data->name);
            if (!shown.empty() && shown != candidate.display_name()) {
                Log::line(tag, "data-anchor display normalize hint='" + device + "' '" + candidate.display_name() +
                                   "' → '" + shown + "'");
                candidate.set_display_name(shown);
            }
        }
    } else if (state && state->standaloneVolume && state->standaloneVolume->volumeUUID) {
        candidate.set_volume_uuid(UUIDCodec::encode(*state->standaloneVolume->volumeUUID));
    } else if (probe) {
        if (auto info = co_await probe->describe(device); info && info->volumeUUID) {
            candidate.set_volume_uuid(UUIDCodec::encode(*info->volumeUUID));
        }
    }
    co_return Outcome{candidate, Miss::none, resolution};
}

}  // namespace ql
