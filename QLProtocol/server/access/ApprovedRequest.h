#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/proto/tiles.pb.h"

#include <tl/expected.hpp>

#include <string>

namespace ql {

// A run with the server's full reach on behalf of someone who isn't an administrator (a job an
// administrator approved) copies exactly what was approved: the request's two endpoints are
// replaced by the stored job's (volume and folder; any path the client suggested is dropped),
// and its mode and rule must be the job's. The sentence when the request asks for anything
// else.
class ApprovedRequest {
public:
    static tl::expected<void, std::string> pin(ql4::transport::v1::CopyRequest& request,
                                               const ql4::transport::v1::CopyTile& tile);

    // "This copy isn’t the one an administrator approved (…), so Quillo didn’t run it. …"
    static std::string mismatch(const std::string& what);
};

}  // namespace ql
