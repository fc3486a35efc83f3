#include "QLProtocol/runners/UnavailableJobRunnerFactory.h"

#include "QLProtocol/runners/UnavailableJobRunner.h"

namespace ql {

std::shared_ptr<JobRunner> UnavailableJobRunnerFactory::makeRunner(const ql4::transport::v1::CopyRequest&,
                                                                   const ql4::transport::v1::RunId& runID,
                                                                   const RunAuthority&) {
    return std::make_shared<UnavailableJobRunner>(message_, runID);
}

}  // namespace ql
