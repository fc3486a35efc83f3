#pragma once

#include "QLProtocol/server/ListedVolume.h"

#include <tl/expected.hpp>

#include <string>
#include <vector>

namespace ql {

// Lists the mounted filesystems that could be a copy's source or destination: volumes on block
// devices and network shares, never pseudo filesystems. `list` blocks (it reads the mount table
// and the devices); callers run it on a blocking pool. A failure is a sentence: the mount table
// could not be read at all.
class VolumeLister {
public:
    virtual ~VolumeLister() = default;
    virtual tl::expected<std::vector<ListedVolume>, std::string> list() = 0;
};

}  // namespace ql
