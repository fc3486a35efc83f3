#pragma once

#include "QLProtocol/server/JobRunnerFactory.h"

#include <string>

namespace ql {

// Stands in for a runner this build does not have: every run it is given fails at once with
// `message`. The server's dispatch uses it for the replication and erase-then-copy runners
// until they exist, so such a request ends with a clear sentence instead of running something
// else.
class UnavailableJobRunnerFactory final : public JobRunnerFactory {
public:
    explicit UnavailableJobRunnerFactory(std::string message) : message_(std::move(message)) {}

    std::shared_ptr<JobRunner> makeRunner(const ql4::transport::v1::CopyRequest& request,
                                          const ql4::transport::v1::RunId& runID,
                                          const RunAuthority& authority) override;

    static constexpr const char* kReplicationMessage =
        "Bootable copies made by replicating a whole system aren't available in this build of Quillo. Choose "
        "Smart Update to copy the files instead.";
    static constexpr const char* kEraseThenCopyMessage =
        "“Erase, then copy” isn't available in this build of Quillo. Choose Smart Update to copy the files "
        "instead.";

private:
    std::string message_;
};

}  // namespace ql
