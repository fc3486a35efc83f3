#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/server/JobRunner.h"
#include "QLProtocol/server/access/RunAuthority.h"

#include <memory>

namespace ql {

// Builds the runner for one request. Called on the job manager's strand when a run begins; it
// may rewrite its own copy of the request but never fails: refusals happen inside the runner's
// event stream. (A factory that throws anyway fails that run with the exception's text.)
// `authority` is whose run it is and whether the runner may use the server's full reach.
class JobRunnerFactory {
public:
    virtual ~JobRunnerFactory() = default;

    virtual std::shared_ptr<JobRunner> makeRunner(const ql4::transport::v1::CopyRequest& request,
                                                  const ql4::transport::v1::RunId& runID,
                                                  const RunAuthority& authority) = 0;
};

}  // namespace ql
