#include "QLProtocol/server/LiveVolumeLister.h"

namespace ql {

tl::expected<std::vector<ListedVolume>, std::string> LiveVolumeLister::list() {
    return tl::unexpected(std::string("listing volumes through the disk tool is not available in this build"));
}

}  // namespace ql
