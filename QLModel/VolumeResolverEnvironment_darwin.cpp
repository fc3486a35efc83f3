#include "QLModel/VolumeResolverEnvironment.h"

#include "QLModel/LiveDiskImageBackingProbe.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/ShellRunner.h"

#include <sys/mount.h>
#include <sys/param.h>
#include <sys/ucred.h>

namespace ql {

std::vector<NetworkMountEntry> VolumeResolverEnvironment::liveNetworkMounts() {
    std::vector<NetworkMountEntry> mounts;
    struct statfs* table = nullptr;
    int count = ::getmntinfo(&table, MNT_NOWAIT);
    for (int i = 0; i < count; ++i) {
        if (auto url = shareURLFromMountSource(table[i].f_fstypename, table[i].f_mntfromname)) {
            mounts.push_back({table[i].f_mntonname, *url, std::nullopt});
        }
    }
    return mounts;
}

std::vector<AttachedImageEntry> VolumeResolverEnvironment::liveAttachedImages() {
    BlockingPool pool(1);
    LiveShellRunner runner(pool);
    auto outcome = runner.runBlocking(
        ShellCommand{"/usr/bin/hdiutil", {"info", "-plist"}, std::nullopt, std::chrono::seconds(30), nullptr, std::nullopt});
    if (!outcome || outcome->exitCode != 0) return {};
    return attachedImagesFromHdiutilInfo(outcome->stdout);
}

std::shared_ptr<DiskImageBackingProbe> VolumeResolverEnvironment::liveImageBackingProbe() {
    return std::make_shared<LiveDiskImageBackingProbe>();
}

}  // namespace ql
