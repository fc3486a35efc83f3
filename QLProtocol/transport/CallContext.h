#pragma once

#include <tl/expected.hpp>

#include <cstdint>
#include <string>

namespace ql {

// Who is calling: the credentials the kernel reports for the other end of the connection that
// carried the call (never anything the client says about itself). Every provider method gets
// one, so each decision about a job, a run or a path can be made for that person.
//
// `processStartTime` is when the calling process started, in the units the platform's
// authorization service expects with the pid (Linux: clock ticks since boot, field 22 of
// /proc/<pid>/stat); together with the pid it names the process even after the pid is reused.
// 0 when unknown.
struct CallContext {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::int32_t pid = 0;
    std::uint64_t processStartTime = 0;

    bool isRoot() const { return uid == 0; }

    // This process itself, for calls the server makes to its own components (the scheduler's
    // runs, start-up sweeps, tests).
    static CallContext ofThisProcess();
    // The peer of a connected Unix-domain socket; the errno of the failing call otherwise.
    static tl::expected<CallContext, int> ofSocketPeer(int descriptor);

    std::string describe() const;
    // When process `pid` started, in the units described above; 0 when it can't be told.
    static std::uint64_t startTimeOf(std::int32_t pid);

    friend bool operator==(const CallContext&, const CallContext&) = default;
};

}  // namespace ql
