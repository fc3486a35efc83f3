#include "QLModel/LiveVolumeProbe.h"

#include "QLModel/DiskutilProbe.h"

namespace ql {

std::shared_ptr<VolumeProbe> makeLiveVolumeProbe(ShellRunner& runner, BlockingPool&) {
    return std::make_shared<DiskutilProbe>(runner);
}

}  // namespace ql
