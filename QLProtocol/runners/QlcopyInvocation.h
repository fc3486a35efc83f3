#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/runners/KeybagProvenance.h"
#include "QLProtocol/runners/SnapshotContext.h"

#include <optional>
#include <string>
#include <vector>

namespace ql {

// The one command line by which the copy server runs the copy engine `qlcopy`: the engine's
// path and its argument vector (without the program name), built flag by flag in a fixed order.
// A flag and its value are always two separate elements; nothing goes through a shell.
struct QlcopyInvocation {
    using KeybagProvenance = ql::KeybagProvenance;
    using SnapshotContext = ql::SnapshotContext;

    // Everything besides the engine path and the request that shapes the command line.
    struct Inputs {
        // The engine's per-job state file for this run.
        std::string statePath;
        // Read from this snapshot of the source instead of the live source.
        std::optional<SnapshotContext> snapshot;
        // Report every item a dry run would touch (a preview reports them regardless).
        bool emitItems = false;
        // The console user's home folder; absent or empty: not passed.
        std::optional<std::string> consoleHome;
        // Absent: nothing is said about the keybag.
        std::optional<KeybagProvenance> keybag;
        // Protection pattern lists, each passed once per entry, in order.
        std::vector<std::string> preserveIfAbsent;
        std::vector<std::string> optional;
        std::vector<std::string> retainOnError;
        // "uid:gid" that owns files copied from a source that ignores ownership; absent or
        // empty: not passed.
        std::optional<std::string> noOwnersMapping;
        // The resolved paths the engine copies from and to.
        std::string sourcePath;
        std::string destinationPath;
    };

    std::string binary;
    std::vector<std::string> arguments;

    // The engine's event stream goes to this descriptor of the child (a pipe of the runner's).
    static constexpr int kProgressDescriptor = 3;

    // Builds the command line. Cannot fail.
    static QlcopyInvocation make(std::string binary, const ql4::transport::v1::CopyRequest& request,
                                 const Inputs& inputs);

    // "--script-search-dir", d for each of the request's search directories, then
    // "--strict-includes"; empty when the request names no search directory.
    static std::vector<std::string> searchDirArguments(const ql4::transport::v1::CopyRequest& request);

    // The command line of the engine's copy-rule check ("--validate-script", "--script", path and
    // the search-directory arguments); absent when the request names no copy rule.
    static std::optional<std::vector<std::string>> validationArguments(
        const ql4::transport::v1::CopyRequest& request);

    // The arguments joined by single spaces, for the "spawning: " log line.
    std::string argumentsText() const;

    friend bool operator==(const QlcopyInvocation&, const QlcopyInvocation&) = default;
};

}  // namespace ql
