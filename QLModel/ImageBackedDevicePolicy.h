#pragma once

namespace ql {

// Whether binding may accept a device that lives inside an attached disk image:
//   refuse          an error: a destination is bound by its image file, not by the device the
//                   image happens to be attached as
//   allowForReading allowed, for sources that are only read
enum class ImageBackedDevicePolicy { refuse, allowForReading };

}  // namespace ql
