// qlcopy: the copy engine. Copies SOURCE to DEST as its flags say and reports everything it
// does as JSON lines on the --progress-fd descriptor.

#include "qlcopy/Engine.h"
#include "qlcopy/EngineOptions.h"
#include "qlcopy/SignalWatcher.h"

#include <fcntl.h>

#include <cstdio>

int main(int argc, char** argv) {
    using ql::Engine;
    using ql::EngineOptions;

    ql::SignalWatcher::prepareProcess();
    auto parsed = EngineOptions::parse(argc, argv);
    if (!parsed) {
        std::fprintf(stderr, "qlcopy: %s\n\n%s", parsed.error().message.c_str(), EngineOptions::usageText().c_str());
        return Engine::exitUsage;
    }
    switch (parsed->command) {
        case EngineOptions::Command::help:
            std::fputs(parsed->helpText.c_str(), stdout);
            return 0;
        case EngineOptions::Command::version:
            std::printf("qlcopy %s\n", QLCOPY_VERSION);
            return 0;
        case EngineOptions::Command::validateScript:
            return Engine::validateScript(*parsed);
        case EngineOptions::Command::copy:
            break;
    }
    if (::fcntl(parsed->progressFd, F_GETFD) == -1) {
        std::fprintf(stderr, "qlcopy: --progress-fd %d is not an open descriptor\n\n%s", parsed->progressFd,
                     EngineOptions::usageText().c_str());
        return Engine::exitUsage;
    }
    return Engine(std::move(*parsed)).run();
}
