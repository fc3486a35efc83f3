#pragma once

#include "QLModel/VolumeProbe.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/ShellRunner.h"

#include <memory>

namespace ql {

// The platform's live volume probe: `DiskutilProbe` over the runner on macOS,
// `LinuxBlockDeviceProbe` on the pool on Linux. Both must outlive the probe.
std::shared_ptr<VolumeProbe> makeLiveVolumeProbe(ShellRunner& runner, BlockingPool& pool);

}  // namespace ql
