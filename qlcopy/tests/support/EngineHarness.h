#pragma once

#include "QLSupport/Json.h"

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ql::test {

// How to start the built qlcopy for a test: its arguments (the harness adds
// "--progress-fd 3" unless told not to), an optional user to run as, and a callback that sees
// every event as it arrives (with the child's pid, to signal it).
struct EngineLaunch {
    std::vector<std::string> args{};
    bool addProgressFd = true;
    std::optional<uid_t> uid{};
    std::optional<gid_t> gid{};
    std::function<void(const Json& event, pid_t pid)> onEvent{};
    std::chrono::seconds timeout{120};
};

struct EngineRun {
    int exitStatus = -1;  // exit code, or -1 when killed by a signal
    int signal = 0;       // the signal that ended it
    std::vector<Json> events;
    std::vector<std::string> badLines;  // event lines that were not JSON objects
    std::string out;
    std::string err;
    double seconds = 0;

    std::vector<Json> ofType(const std::string& type) const;
    std::optional<Json> first(const std::string& type) const;
    std::vector<std::string> types() const;
    // The summary's (or failure's) field, or `fallback`.
    std::int64_t summaryInt(const std::string& key, std::int64_t fallback = -1) const;
    std::string describe() const;  // for assertion messages
};

std::string engineBinary();
EngineRun runEngine(const EngineLaunch& launch);

}  // namespace ql::test
