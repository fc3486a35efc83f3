#include "QLModel/LiveVolumeProbe.h"

#include "QLModel/LinuxBlockDeviceProbe.h"

namespace ql {

std::shared_ptr<VolumeProbe> makeLiveVolumeProbe(ShellRunner&, BlockingPool& pool) {
    return std::make_shared<LinuxBlockDeviceProbe>(&pool);
}

}  // namespace ql
