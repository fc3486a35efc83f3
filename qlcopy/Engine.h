#pragma once

#include "qlcopy/EngineOptions.h"

namespace ql {

// One run of the copy engine, from the checks of both roots to the terminal event. Returns
// the process exit status: 0 after a clean summary, 1 after a summary with errors or a
// failure, 3 when the copy rule is refused, 130 (SIGINT) or 143 (SIGTERM) when stopped by a
// signal.
class Engine {
public:
    explicit Engine(EngineOptions options);
    int run();

    // --validate-script: 0 when the rule document loads, 3 with a one-line reason on standard
    // error when it is refused.
    static int validateScript(const EngineOptions& options);

    static constexpr int exitClean = 0;
    static constexpr int exitErrors = 1;
    static constexpr int exitUsage = 2;
    static constexpr int exitRuleRefused = 3;

private:
    EngineOptions options_;
};

}  // namespace ql
