#pragma once

#include "QLModel/EngineStateFormat.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace ql {

// The identity of the source the state was written for: its filesystem and its root folder.
struct SourceIdentity {
    std::string filesystemId;  // hex of the filesystem id
    std::uint64_t rootInode = 0;
    std::string path;          // the source path as given (informative; not compared)

    bool sameSource(const SourceIdentity& other) const {
        return filesystemId == other.filesystemId && rootInode == other.rootInode;
    }
    static SourceIdentity of(int rootFd, const std::string& path);
};

// The engine's per-job state file (--state): read at the start to choose the scan mode and
// rewritten, atomically, after a run that finished without errors. It holds a format version,
// the source's identity and the hash of the rule set.
struct StateFile {
    static constexpr int currentFormat = static_cast<int>(kEngineStateFormat);

    int formatVersion = currentFormat;
    SourceIdentity source;
    std::string rulesHash;
    std::int64_t completedUnixNanos = 0;
    std::optional<std::uint64_t> snapEventAnchor;

    static tl::expected<StateFile, std::string> read(const std::string& path);
    tl::expected<void, std::string> write(const std::string& path) const;

    // The `scan_mode` reason for a full scan, given what the previous state says (absent when
    // there is none or it cannot be read): "first_run", "rules_changed" or "history_expired".
    static std::string fullScanReason(const std::optional<StateFile>& previous, const SourceIdentity& source,
                                      const std::string& rulesHash);

    // SHA-256, in hex, of the rule set's canonical text.
    static std::string hashRules(const std::string& fingerprint);
};

}  // namespace ql
