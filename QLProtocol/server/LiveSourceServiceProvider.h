#pragma once

#include "QLProtocol/server/access/JobAccess.h"
#include "QLSupport/ThreadFileCredentials.h"
#include "QLSupport/UserCredentials.h"
#include "QLModel/Resolution.h"
#include "QLModel/VolumeResolver.h"
#include "QLProtocol/server/MountTableWatch.h"
#include "QLProtocol/server/VolumeLister.h"
#include "QLProtocol/server/VolumeOSVersion.h"
#include "QLProtocol/transport/SourceService.h"
#include "QLSupport/Actor.h"
#include "QLSupport/BlockingPool.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// The server side of the source service: the mounted volumes a client may pick
// (`ListVolumes`) and their changes (`WatchVolumes`), what a stored volume reference resolves to
// now (`GetVolumeInfo`), and browsing folders (`StatPath`, `EnumerateDirectory`). Snapshots are
// answered "not available" by this server.
//
// An actor. The listing reads the mount table and the devices on the blocking pool. Watching
// starts with the first `WatchVolumes` subscriber and stops when the last one goes away: every
// change of the mount table lists the volumes again and sends each subscriber the difference
// from the previous listing (appeared, disappeared, changed); changes that arrive while a
// listing runs are folded into one more listing.
//
// Volume listings are public (the mount table is anyway). Folders are browsed with the caller's
// own rights: for a caller who doesn't administer the server, the blocking-pool thread that
// reads the folder takes on the caller's file credentials for that read
// (`ThreadFileCredentials`), so the answer is exactly what the caller could see.
class LiveSourceServiceProvider final : public SourceServiceProvider,
                                        public Actor,
                                        public std::enable_shared_from_this<LiveSourceServiceProvider> {
public:
    struct Collaborators {
        std::shared_ptr<VolumeLister> lister;
        std::shared_ptr<MountTableWatch> mountWatch;
        // Resolves references for GetVolumeInfo; without one that method is not available.
        std::shared_ptr<VolumeResolver> resolver;
        // Where listings and folder reads run; without one, on the calling thread.
        std::shared_ptr<BlockingPool> pool;
        // Decides whose rights folder reads use.
        JobAccess access = JobAccess::forThisProcess();
    };

    LiveSourceServiceProvider(const Executor& executor, Collaborators collaborators);
    ~LiveSourceServiceProvider() override;

    // The platform's lister and mount-table watch.
    static std::shared_ptr<LiveSourceServiceProvider> live(const Executor& executor,
                                                           std::shared_ptr<VolumeResolver> resolver,
                                                           std::shared_ptr<BlockingPool> pool);

    UnaryResult<wire::ListVolumesResponse> listVolumes(CallContext, wire::ListVolumesRequest request) override;
    StreamResult<wire::VolumeEvent> watchVolumes(CallContext, wire::WatchVolumesRequest request) override;
    UnaryResult<wire::GetVolumeInfoResponse> getVolumeInfo(CallContext, wire::GetVolumeInfoRequest request) override;
    UnaryResult<wire::EnumerateDirectoryResponse> enumerateDirectory(CallContext caller,
                                                                     wire::EnumerateDirectoryRequest request) override;
    UnaryResult<wire::StatPathResponse> statPath(CallContext caller, wire::StatPathRequest request) override;

    // Whose file rights a folder read for this caller uses: nothing for an administrator (the
    // server's own), the caller's otherwise.
    std::optional<UserCredentials> browsingRights(const CallContext& caller) const;

    // Ends every watch stream, stops watching the mount table and waits for listings still on the
    // blocking pool (server shutdown).
    asio::awaitable<void> shutdown();

    // The wire form of a resolver verdict. Unreachable disk images read as the client expects:
    // an unmounted host is `UR_NOT_ATTACHED` with "the drive holding the disk image is not
    // mounted", a missing image file `UR_VOLUME_MISSING` with "disk image file not found".
    static wire::GetVolumeInfoResponse toWire(const Resolution& resolution);
    static wire::CurrentVolumeState toWire(const CurrentVolumeState& state);

    // Blocking building blocks of StatPath and EnumerateDirectory.
    static tl::expected<wire::StatPathResponse, std::string> statNow(const std::string& path);
    static tl::expected<wire::EnumerateDirectoryResponse, std::string> enumerateNow(const std::string& path);
    // A folder the platform shows as a single item (an application bundle and the like), by its
    // name's extension.
    static bool isPackageName(const std::string& name);

private:
    using Listing = tl::expected<std::vector<wire::VolumeSummary>, std::string>;

    // Lists, filters, adds each volume's operating-system version and logs; blocking.
    Listing listNow();
    asio::awaitable<Listing> listOffPool();
    // Runs blocking work on the pool (on the calling thread without one), counted in `inFlight_`.
    template <typename F>
    auto offload(F work) -> asio::awaitable<std::invoke_result_t<F&>>;

    asio::awaitable<tl::expected<void, std::string>> addWatcher(EventStream<wire::VolumeEvent>::Producer producer);
    asio::awaitable<void> relist();
    asio::awaitable<void> prune();
    asio::awaitable<void> shutdownOnStrand();
    void onMountTableChanged();
    void stopWatchingIfUnwatched();

    Collaborators c_;

    // Strand state.
    std::vector<EventStream<wire::VolumeEvent>::Producer> watchers_;
    std::vector<wire::VolumeSummary> baseline_;
    bool watching_ = false;
    bool relisting_ = false;
    bool relistAgain_ = false;

    // Blocking work not yet back from the pool; shutdown waits for it.
    std::shared_ptr<std::atomic<int>> inFlight_ = std::make_shared<std::atomic<int>>(0);

    // Operating-system versions per volume identity, remembered once read (any thread).
    std::mutex osVersionsMutex_;
    std::map<std::string, std::optional<VolumeOSVersion>> osVersions_;
};

}  // namespace ql
