#include "server-main/ServerPlatform.h"

#include "QLProtocol/runners/LiveDestinationRecoverySnapshot.h"

namespace ql {

void ServerPlatform::configureRunners(QlcopyJobRunner::Environment& environment, ShellRunner& shell) {
    environment.recoverySnapshot = std::make_shared<LiveDestinationRecoverySnapshot>(shell);
}

}  // namespace ql
