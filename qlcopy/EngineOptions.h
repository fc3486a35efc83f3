#pragma once

#include <tl/expected.hpp>

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// How an item that exists on both sides is judged.
enum class CopyMode {
    different,  // copied when type, size or modification time differ; metadata fixed in place
    newer,      // copied when the source is newer (or the destination lacks it)
};

struct OwnerMapping {
    uid_t uid = 0;
    gid_t gid = 0;
    bool operator==(const OwnerMapping&) const = default;
};

// What the command line asked for. Every flag the copy server passes has a field here; the
// tuning fields at the end have defaults that suit a real run and exist for benchmarks and tests.
struct EngineOptions {
    enum class Command { copy, validateScript, version, help };
    Command command = Command::copy;

    int progressFd = -1;
    std::optional<std::string> statePath;
    std::optional<std::string> snapshotMount;
    std::optional<std::uint64_t> snapEventAnchor;
    CopyMode copyMode = CopyMode::different;
    bool deleteExtraneous = false;
    bool cloneFamilies = false;
    std::optional<std::string> scriptPath;
    std::vector<std::string> scriptSearchDirs;
    bool strictIncludes = false;
    bool dryRun = false;
    std::int64_t abortOnErrorCount = 0;  // 0: never abort because of item errors
    bool emitItems = false;
    std::optional<std::string> consoleHome;
    bool noKeybag = false;
    std::optional<std::string> keybagSentinel;
    std::optional<std::uint32_t> keybagUid;
    std::optional<std::string> keybagHome;
    std::vector<std::string> preserveIfAbsent;
    std::vector<std::string> optionalPatterns;
    std::vector<std::string> retainOnError;
    std::optional<OwnerMapping> noOwnersOwner;
    std::string source;
    std::string destination;

    // Tuning.
    int workers = 0;                      // file-copy threads; 0 picks from the processor count
    double progressIntervalSeconds = 0.333;
    double stallAfterSeconds = 30;        // a copy or stat without progress this long is a stall
    double slowListingSeconds = 10;       // a directory listing this long is reported as slow
    std::uint64_t bandwidthLimit = 0;     // bytes per second for file data; 0 = unlimited

    std::string helpText;  // filled for Command::help

    struct UsageError {
        std::string message;
    };

    // Parses argv (argv[0] is the program name). Usage errors carry a one-line message; the
    // caller prints it with the usage text and exits with status 2.
    static tl::expected<EngineOptions, UsageError> parse(int argc, const char* const* argv);
    static tl::expected<EngineOptions, UsageError> parse(const std::vector<std::string>& arguments);

    static std::string usageText();
};

}  // namespace ql
