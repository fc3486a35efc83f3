#include "QLProtocol/server/LiveSourceServiceProvider.h"

#include "QLProtocol/server/LiveMountTableWatch.h"
#include "QLProtocol/server/LiveVolumeLister.h"
#include "QLProtocol/server/VolumeListPolicy.h"
#include "QLProtocol/server/VolumeWatchDiff.h"
#include "QLProtocol/transport/VolumeBridge.h"
#include "QLSupport/Iso8601.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace ql {

namespace fs = std::filesystem;

namespace {

constexpr const char* kTag = "LiveSourceServiceProvider";

std::string uuidBytes(const Uuid& uuid) {
    const auto& bytes = uuid.bytes();
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

wire::APFSVolumeState toWire(const APFSVolumeState& volume) {
    wire::APFSVolumeState out;
    out.set_bsd_device(volume.bsdDevice);
    out.set_name(volume.name);
    out.set_volume_uuid(uuidBytes(volume.volumeUUID));
    *out.mutable_role() = VolumeBridge::toWire(volume.role);
    if (volume.mountPoint) out.set_mount_point(*volume.mountPoint);
    out.set_used_bytes(volume.usedBytes);
    out.set_total_bytes(volume.totalBytes);
    out.set_free_bytes(volume.freeBytes);
    out.set_format(VolumeBridge::toWire(volume.format));
    return out;
}

wire::UnresolvedReason reasonToWire(const UnresolvedReason& reason) {
    switch (reason.kind()) {
        case UnresolvedReason::Kind::unsupportedKey: return wire::UR_UNSUPPORTED_KEY;
        case UnresolvedReason::Kind::probeFailed: return wire::UR_PROBE_FAILED;
        case UnresolvedReason::Kind::imageHostUnmounted: return wire::UR_NOT_ATTACHED;
        case UnresolvedReason::Kind::notAttached: return wire::UR_NOT_ATTACHED;
        case UnresolvedReason::Kind::volumeMissing: return wire::UR_VOLUME_MISSING;
        case UnresolvedReason::Kind::imageFileMissing: return wire::UR_VOLUME_MISSING;
    }
    return wire::UR_UNSPECIFIED;
}

std::string reasonDetail(const UnresolvedReason& reason) {
    switch (reason.kind()) {
        case UnresolvedReason::Kind::imageHostUnmounted: return "the drive holding the disk image is not mounted";
        case UnresolvedReason::Kind::imageFileMissing: return "disk image file not found";
        default: return reason.detail();
    }
}

// Counts one piece of work on the pool for as long as it lives.
class InFlight {
public:
    explicit InFlight(std::shared_ptr<std::atomic<int>> count) : count_(std::move(count)) { ++*count_; }
    ~InFlight() { --*count_; }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;

private:
    std::shared_ptr<std::atomic<int>> count_;
};

}  // namespace

template <typename F>
auto LiveSourceServiceProvider::offload(F work) -> asio::awaitable<std::invoke_result_t<F&>> {
    if (!c_.pool) co_return work();
    InFlight counted(inFlight_);
    co_return co_await c_.pool->run(std::move(work));
}

LiveSourceServiceProvider::LiveSourceServiceProvider(const Executor& executor, Collaborators collaborators)
    : Actor(executor), c_(std::move(collaborators)) {}

LiveSourceServiceProvider::~LiveSourceServiceProvider() {
    if (c_.mountWatch && watching_) c_.mountWatch->stop();
    for (auto& watcher : watchers_) watcher.finish();
}

std::shared_ptr<LiveSourceServiceProvider> LiveSourceServiceProvider::live(const Executor& executor,
                                                                           std::shared_ptr<VolumeResolver> resolver,
                                                                           std::shared_ptr<BlockingPool> pool) {
    Collaborators c;
    c.lister = std::make_shared<LiveVolumeLister>();
    c.mountWatch = std::make_shared<LiveMountTableWatch>(executor);
    c.resolver = std::move(resolver);
    c.pool = std::move(pool);
    return std::make_shared<LiveSourceServiceProvider>(executor, std::move(c));
}

// ---- Listing -------------------------------------------------------------------------------

LiveSourceServiceProvider::Listing LiveSourceServiceProvider::listNow() {
    auto found = c_.lister->list();
    if (!found) return tl::unexpected(found.error());
    auto volumes = VolumeListPolicy::filter(std::move(*found));
    for (auto& volume : volumes) {
        auto& s = volume.summary;
        if (s.mount_point().empty() || s.kind() == wire::VOLUME_KIND_NETWORK) continue;
        const auto key = VolumeWatchDiff::identity(s);
        std::optional<VolumeOSVersion> version;
        bool known = false;
        {
            std::lock_guard lock(osVersionsMutex_);
            if (auto it = osVersions_.find(key); it != osVersions_.end()) {
                version = it->second;
                known = true;
            }
        }
        if (!known) {
            version = VolumeOSVersion::read(s.mount_point());
            std::lock_guard lock(osVersionsMutex_);
            osVersions_.emplace(key, version);
        }
        if (version) {
            s.set_os_version(version->version);
            s.set_os_build(version->build);
        }
    }
    Log::line("ListVolumes", VolumeListPolicy::logText(volumes));
    std::vector<wire::VolumeSummary> summaries;
    summaries.reserve(volumes.size());
    for (auto& volume : volumes) summaries.push_back(std::move(volume.summary));
    return summaries;
}

asio::awaitable<LiveSourceServiceProvider::Listing> LiveSourceServiceProvider::listOffPool() {
    // This frame keeps the provider alive until the listing is back; the work itself must not
    // own it, or the provider could be destroyed on a pool thread after its executor is gone.
    auto self = shared_from_this();
    auto work = [provider = self.get()] { return provider->listNow(); };
    co_return co_await offload(std::move(work));
}

UnaryResult<wire::ListVolumesResponse> LiveSourceServiceProvider::listVolumes(CallContext, wire::ListVolumesRequest) {
    auto listing = co_await listOffPool();
    if (!listing) {
        Log::f("ListVolumes", "failed: {}", listing.error());
        co_return tl::unexpected(HandlerError::failed("could not list the volumes: " + listing.error()));
    }
    wire::ListVolumesResponse response;
    for (auto& v : *listing) *response.add_volumes() = std::move(v);
    co_return response;
}

// ---- Watching ------------------------------------------------------------------------------

StreamResult<wire::VolumeEvent> LiveSourceServiceProvider::watchVolumes(CallContext, wire::WatchVolumesRequest) {
    auto [producer, consumer] = EventStream<wire::VolumeEvent>::make();
    auto added = co_await serialized(addWatcher(producer));
    if (!added) co_return tl::unexpected(HandlerError::failed(added.error()));
    co_return std::move(consumer);
}

asio::awaitable<tl::expected<void, std::string>> LiveSourceServiceProvider::addWatcher(
    EventStream<wire::VolumeEvent>::Producer producer) {
    if (!watching_) {
        if (!c_.mountWatch) co_return tl::unexpected(std::string("watching volumes is not available on this server"));
        auto listing = co_await listOffPool();
        if (!listing) co_return tl::unexpected("could not list the volumes to watch them: " + listing.error());
        // Another subscriber may have started the watch meanwhile.
        if (!watching_) {
            std::weak_ptr<LiveSourceServiceProvider> weak = shared_from_this();
            auto started = c_.mountWatch->start([weak] {
                if (auto self = weak.lock()) self->onMountTableChanged();
            });
            if (!started) {
                Log::f(kTag, "WatchVolumes: {}", started.error());
                co_return tl::unexpected(started.error());
            }
            watching_ = true;
            baseline_ = std::move(*listing);
            Log::line(kTag, "WatchVolumes: watching the mount table");
        }
    }
    std::weak_ptr<LiveSourceServiceProvider> weak = shared_from_this();
    producer.onConsumerGone([weak] {
        auto self = weak.lock();
        if (!self) return;
        self->spawnDetached(self->prune(), kTag);
    });
    watchers_.push_back(std::move(producer));
    Log::f(kTag, "WatchVolumes: subscriber added ({} watching)", watchers_.size());
    co_return tl::expected<void, std::string>{};
}

void LiveSourceServiceProvider::onMountTableChanged() { spawnDetached(relist(), kTag); }

asio::awaitable<void> LiveSourceServiceProvider::relist() {
    if (!watching_) co_return;
    if (relisting_) {
        relistAgain_ = true;
        co_return;
    }
    relisting_ = true;
    do {
        relistAgain_ = false;
        auto listing = co_await listOffPool();
        if (!watching_) break;
        if (!listing) {
            Log::f(kTag, "WatchVolumes: could not list the volumes after a mount-table change: {}", listing.error());
            continue;
        }
        auto events = VolumeWatchDiff::between(baseline_, *listing);
        std::map<std::string, std::string> formerNames;
        for (const auto& v : baseline_) formerNames[v.bsd_device()] = v.name();
        baseline_ = std::move(*listing);
        for (const auto& event : events) {
            const char* what = event.has_appeared() ? "appeared" : event.has_disappeared() ? "disappeared" : "changed";
            const auto& device = event.has_disappeared() ? event.disappeared().bsd_device()
                                 : event.has_appeared()  ? event.appeared().bsd_device()
                                                         : event.changed().bsd_device();
            const std::string name = event.has_appeared()  ? event.appeared().name()
                                     : event.has_changed() ? event.changed().name()
                                                           : formerNames[device];
            Log::f(kTag, "WatchVolumes: {} {} ({})", what, name, device.empty() ? "network" : device);
            for (const auto& watcher : watchers_) watcher.push(event);
        }
    } while (relistAgain_);
    relisting_ = false;
    stopWatchingIfUnwatched();
}

asio::awaitable<void> LiveSourceServiceProvider::prune() {
    std::erase_if(watchers_, [](const auto& w) { return w.consumerGone(); });
    if (!relisting_) stopWatchingIfUnwatched();
    co_return;
}

void LiveSourceServiceProvider::stopWatchingIfUnwatched() {
    std::erase_if(watchers_, [](const auto& w) { return w.consumerGone(); });
    if (!watchers_.empty() || !watching_) return;
    c_.mountWatch->stop();
    watching_ = false;
    baseline_.clear();
    Log::line(kTag, "WatchVolumes: no subscribers left; stopped watching the mount table");
}

asio::awaitable<void> LiveSourceServiceProvider::shutdown() { co_await serialized(shutdownOnStrand()); }

asio::awaitable<void> LiveSourceServiceProvider::shutdownOnStrand() {
    for (auto& watcher : watchers_) watcher.finish();
    watchers_.clear();
    if (watching_) c_.mountWatch->stop();
    watching_ = false;
    // Work still on the blocking pool resumes on this provider's executor; let it finish while
    // that executor is sure to exist.
    asio::steady_timer pause(co_await asio::this_coro::executor);
    for (int waited = 0; *inFlight_ > 0 && waited < 30'000; waited += 5) {
        pause.expires_after(std::chrono::milliseconds(5));
        co_await pause.async_wait(asio::use_awaitable);
    }
    if (*inFlight_ > 0) Log::f(kTag, "shutdown: {} listing(s) still running on the blocking pool", inFlight_->load());
}

// ---- Resolution ----------------------------------------------------------------------------

wire::CurrentVolumeState LiveSourceServiceProvider::toWire(const CurrentVolumeState& state) {
    wire::CurrentVolumeState out;
    out.set_bsd_device(state.bsdDevice);
    if (state.partitionGUID) out.set_partition_guid(uuidBytes(*state.partitionGUID));
    if (state.containerState) {
        const auto& c = *state.containerState;
        auto* container = out.mutable_apfs_container();
        container->set_container_uuid(uuidBytes(c.containerUUID));
        if (c.volumeGroup) container->mutable_volume_group()->set_group_uuid(uuidBytes(c.volumeGroup->groupUUID));
        for (const auto& v : c.allVolumes) *container->add_all_volumes() = ::ql::toWire(v);
        container->set_capacity_ceiling(c.capacityCeiling);
        container->set_capacity_free(c.capacityFree);
    }
    if (state.standaloneVolume) {
        const auto& v = *state.standaloneVolume;
        auto* plain = out.mutable_plain_volume();
        plain->set_bsd_device(v.bsdDevice);
        plain->set_name(v.name);
        if (v.mountPoint) plain->set_mount_point(*v.mountPoint);
        plain->set_used_bytes(v.usedBytes);
        plain->set_total_bytes(v.totalBytes);
        plain->set_free_bytes(v.freeBytes);
        plain->set_format(VolumeBridge::toWire(v.format));
    }
    out.set_observed_at_unix_nanos(state.observedAt == SystemTime{} ? 0 : toUnixNanos(state.observedAt));
    out.set_has_time_machine(state.hasTimeMachine);
    return out;
}

wire::GetVolumeInfoResponse LiveSourceServiceProvider::toWire(const Resolution& resolution) {
    wire::GetVolumeInfoResponse out;
    switch (resolution.kind()) {
        case Resolution::Kind::ok: out.set_resolution(wire::GetVolumeInfoResponse::RES_OK); break;
        case Resolution::Kind::suspicious: out.set_resolution(wire::GetVolumeInfoResponse::RES_SUSPICIOUS); break;
        case Resolution::Kind::unresolved: out.set_resolution(wire::GetVolumeInfoResponse::RES_UNRESOLVED); break;
    }
    if (const auto* state = resolution.state()) *out.mutable_state() = toWire(*state);
    for (const auto& m : resolution.mismatches()) {
        auto* mismatch = out.add_mismatches();
        mismatch->set_field(m.field);
        mismatch->set_expected(m.expected);
        mismatch->set_actual(m.actual);
    }
    if (const auto* reason = resolution.reason()) {
        out.set_unresolved_reason(reasonToWire(*reason));
        out.set_unresolved_detail(reasonDetail(*reason));
    }
    return out;
}

UnaryResult<wire::GetVolumeInfoResponse> LiveSourceServiceProvider::getVolumeInfo(CallContext, wire::GetVolumeInfoRequest request) {
    if (!c_.resolver) co_return tl::unexpected(HandlerError::notAvailable());
    auto ref = VolumeBridge::fromWire(request.ref());
    if (!ref) {
        co_return tl::unexpected(HandlerError::failed("the volume reference is not usable: " + ref.error().message()));
    }
    auto resolution = co_await c_.resolver->resolve(std::move(*ref));
    Log::f(kTag, "GetVolumeInfo: {}", resolution.description());
    co_return toWire(resolution);
}

// ---- Browsing ------------------------------------------------------------------------------

bool LiveSourceServiceProvider::isPackageName(const std::string& name) {
    static const char* const extensions[] = {".app",    ".bundle",  ".framework", ".plugin",       ".kext",
                                             ".pkg",    ".mpkg",    ".rtfd",      ".photoslibrary", ".xcodeproj",
                                             ".sparsebundle", ".pages", ".numbers", ".key",         ".logicx"};
    auto dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return false;
    std::string extension = name.substr(dot);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::any_of(std::begin(extensions), std::end(extensions),
                       [&](const char* e) { return extension == e; });
}

namespace {

tl::expected<void, std::string> checkPath(const std::string& path) {
    if (path.empty()) return tl::unexpected(std::string("no path was given"));
    if (path.front() != '/') return tl::unexpected("“" + path + "” is not an absolute path");
    return {};
}

}  // namespace

tl::expected<wire::StatPathResponse, std::string> LiveSourceServiceProvider::statNow(const std::string& path) {
    if (auto ok = checkPath(path); !ok) return tl::unexpected(ok.error());
    wire::StatPathResponse response;
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) {
        response.set_exists(true);
        response.set_is_directory(S_ISDIR(info.st_mode));
        return response;
    }
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR) return response;
    // Anything else (no permission to look, an I/O error) is not an answer: saying "does not
    // exist" would be a guess.
    return tl::unexpected(fmt::format("could not check “{}”: {}", path, std::strerror(error)));
}

tl::expected<wire::EnumerateDirectoryResponse, std::string> LiveSourceServiceProvider::enumerateNow(
    const std::string& path) {
    if (auto ok = checkPath(path); !ok) return tl::unexpected(ok.error());
    std::error_code error;
    fs::directory_iterator it(path, error);
    if (error) {
        if (error == std::errc::no_such_file_or_directory) return tl::unexpected("there is no folder at “" + path + "”");
        if (error == std::errc::not_a_directory) return tl::unexpected("“" + path + "” is not a folder");
        return tl::unexpected(fmt::format("could not read the folder “{}”: {}", path, error.message()));
    }
    wire::EnumerateDirectoryResponse response;
    std::vector<wire::DirectoryEntry> entries;
    for (fs::directory_iterator end; it != end; it.increment(error)) {
        if (error) break;
        wire::DirectoryEntry entry;
        const auto name = it->path().filename().string();
        entry.set_name(name);
        std::error_code statError;
        const auto status = it->symlink_status(statError);
        const bool isDirectory = !statError && fs::is_directory(status);
        entry.set_is_directory(isDirectory);
        if (!statError && fs::is_regular_file(status)) {
            auto size = it->file_size(statError);
            if (!statError) entry.set_size(size);
        }
        entry.set_is_package(isDirectory && isPackageName(name));
        entries.push_back(std::move(entry));
    }
    if (error) {
        // A listing that stopped half-way is not the folder's contents.
        return tl::unexpected(fmt::format("could not read all of the folder “{}”: {}", path, error.message()));
    }
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.name() < b.name(); });
    for (auto& e : entries) *response.add_entries() = std::move(e);
    return response;
}

std::optional<UserCredentials> LiveSourceServiceProvider::browsingRights(const CallContext& caller) const {
    if (c_.access.administers(caller)) return std::nullopt;
    UserCredentials user = UserCredentials::forIds(caller.uid, caller.gid, {caller.gid});
    if (auto known = UserCredentials::forUser(caller.uid)) user = std::move(*known);
    return user;
}

// Runs `read` with the caller's file rights on the pool thread, when the caller needs them.
template <typename Read>
static auto withRights(std::optional<UserCredentials> rights, Read read) -> decltype(read()) {
    if (!rights) return read();
    auto adopted = ThreadFileCredentials::adopt(*rights);
    if (!adopted) return tl::unexpected(adopted.error());
    return read();
}

UnaryResult<wire::StatPathResponse> LiveSourceServiceProvider::statPath(CallContext caller,
                                                                        wire::StatPathRequest request) {
    auto work = [rights = browsingRights(caller), path = request.path()] {
        return withRights(rights, [&] { return statNow(path); });
    };
    auto result = co_await offload(std::move(work));
    if (!result) co_return tl::unexpected(HandlerError::failed(result.error()));
    co_return std::move(*result);
}

UnaryResult<wire::EnumerateDirectoryResponse> LiveSourceServiceProvider::enumerateDirectory(
    CallContext caller, wire::EnumerateDirectoryRequest request) {
    auto work = [rights = browsingRights(caller), path = request.path()] {
        return withRights(rights, [&] { return enumerateNow(path); });
    };
    auto result = co_await offload(std::move(work));
    if (!result) co_return tl::unexpected(HandlerError::failed(result.error()));
    co_return std::move(*result);
}

}  // namespace ql
