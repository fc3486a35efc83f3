#include "server-main/ServerPlatform.h"

#include "QLProtocol/runners/NoOpDestinationRecoverySnapshot.h"

namespace ql {

void ServerPlatform::configureRunners(QlcopyJobRunner::Environment& environment, ShellRunner&) {
    environment.recoverySnapshot = std::make_shared<NoOpDestinationRecoverySnapshot>(
        "this system keeps no local snapshots of destination volumes");
    environment.keybagSentinel = [] { return std::optional<KeybagProvenance>(KeybagProvenance::noKeybag()); };
}

}  // namespace ql
