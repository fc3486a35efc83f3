#pragma once

#include "QLProtocol/runners/QlcopyJobRunner.h"
#include "QLProtocol/server/JobRunnerFactory.h"
#include "QLSupport/Actor.h"

#include <memory>

namespace ql {

// Makes one file-copy runner per run. Holds what every run shares (the engine's path, the
// resolver, the mount coordinator, the snapshot coordinator, the tile-state hand-over …) in one
// `QlcopyJobRunner::Environment`, fixed when the server starts.
class QlcopyJobRunnerFactory final : public JobRunnerFactory {
public:
    QlcopyJobRunnerFactory(const Executor& executor, std::shared_ptr<const QlcopyJobRunner::Environment> environment)
        : executor_(executor), environment_(std::move(environment)) {}

    std::shared_ptr<JobRunner> makeRunner(const ql4::transport::v1::CopyRequest& request,
                                          const ql4::transport::v1::RunId& runID,
                                          const RunAuthority& authority) override {
        QlcopyJobRunner::Options options;
        options.authority = authority;
        return makeFileCopyRunner(request, runID, std::move(options));
    }

    // For callers that add their own steps to the run (the erase-then-copy runner).
    std::shared_ptr<QlcopyJobRunner> makeFileCopyRunner(const ql4::transport::v1::CopyRequest& request,
                                                        const ql4::transport::v1::RunId& runID,
                                                        QlcopyJobRunner::Options options) {
        return std::make_shared<QlcopyJobRunner>(executor_, environment_, request, runID, std::move(options));
    }

    const QlcopyJobRunner::Environment& environment() const { return *environment_; }

private:
    Executor executor_;
    std::shared_ptr<const QlcopyJobRunner::Environment> environment_;
};

}  // namespace ql
