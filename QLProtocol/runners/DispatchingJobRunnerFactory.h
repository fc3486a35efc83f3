#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/server/JobRunnerFactory.h"

#include <memory>
#include <string>
#include <vector>

namespace ql {

// The one door through which every run reaches a runner. It looks at the request once,
// weakens what cannot be honoured as asked (erase-then-copy becomes Smart Update, a bootable
// copy becomes a plain one; never the reverse), logs every such decision with a fixed sentence,
// and hands its own copy of the request to the file-copy, replication or erase-then-copy
// factory. It never refuses: refusals happen inside the chosen runner's stream.
class DispatchingJobRunnerFactory final : public JobRunnerFactory {
public:
    enum class RunnerKind { qlcopy, asr, eraseAndCopy };

    // What dispatch decided for one request: the runner, the request it gets, the informative
    // runner name, and the log lines (without the "[dispatch] " tag), in order.
    struct Decision {
        RunnerKind kind = RunnerKind::qlcopy;
        ql4::transport::v1::CopyRequest request;
        std::string runnerName;
        std::vector<std::string> logLines;
    };

    DispatchingJobRunnerFactory(std::shared_ptr<JobRunnerFactory> qlcopyFactory,
                                std::shared_ptr<JobRunnerFactory> asrFactory,
                                std::shared_ptr<JobRunnerFactory> eraseAndCopyFactory);

    // A run with its owner's rights only is never handed to a runner that erases or replicates
    // a whole volume: those need the server's own reach, so such a run ends with a sentence.
    std::shared_ptr<JobRunner> makeRunner(const ql4::transport::v1::CopyRequest& request,
                                          const ql4::transport::v1::RunId& runID,
                                          const RunAuthority& authority) override;

    static constexpr const char* kEraseNeedsApproval =
        "Erasing the destination needs an administrator’s approval, so Quillo didn’t erase or copy anything. Ask an "
        "administrator to set up this copy.";
    static constexpr const char* kReplicationNeedsApproval =
        "A bootable copy of a whole system needs an administrator’s approval, so Quillo didn’t copy anything. Ask an "
        "administrator to set up this copy.";

    // The decision alone, without building a runner or logging.
    static Decision decide(const ql4::transport::v1::CopyRequest& request, const ql4::transport::v1::RunId& runID);

    // The text form of an update method: "dcmSmartUpdate", …, or "UNRECOGNIZED(7)".
    static std::string modeText(int duringCopy);

private:
    std::shared_ptr<JobRunnerFactory> qlcopyFactory_;
    std::shared_ptr<JobRunnerFactory> asrFactory_;
    std::shared_ptr<JobRunnerFactory> eraseAndCopyFactory_;
};

}  // namespace ql
