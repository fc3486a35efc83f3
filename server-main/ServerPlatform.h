#pragma once

#include "QLProtocol/runners/QlcopyJobRunner.h"
#include "QLSupport/ShellRunner.h"

namespace ql {

// What differs between the platforms in how the server sets its runners up.
struct ServerPlatform {
    // macOS: destination recovery snapshots with tmutil; the keybag is left to the engine's
    // defaults. Linux: no recovery snapshots (the log says why) and no keybag to watch.
    static void configureRunners(QlcopyJobRunner::Environment& environment, ShellRunner& shell);
};

}  // namespace ql
