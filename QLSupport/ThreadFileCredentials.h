#pragma once

#include "QLSupport/UserCredentials.h"

#include <tl/expected.hpp>

#include <string>

namespace ql {

// For as long as it lives, the calling thread touches files with another user's rights: the
// kernel checks every open, stat and directory listing made on this thread against that user's
// uid and groups (Linux: the thread's filesystem uid and gid and its own group list; the
// capabilities that let root bypass file permissions drop with them). Other threads keep the
// process's rights. Destroying it puts the thread's own credentials back.
//
// For a root server that answers a user's question about a path ("what is in this folder?")
// exactly as that user could, with no window between a check and the act: the act itself is
// made with the user's rights. Use it only on a thread of the blocking pool, for one piece of
// blocking work, and never across a suspension.
class ThreadFileCredentials {
public:
    // The error is a sentence; nothing changed then.
    static tl::expected<ThreadFileCredentials, std::string> adopt(const UserCredentials& user);

    ThreadFileCredentials(ThreadFileCredentials&& other) noexcept : active_(other.active_) { other.active_ = false; }
    ThreadFileCredentials& operator=(ThreadFileCredentials&&) = delete;
    ThreadFileCredentials(const ThreadFileCredentials&) = delete;
    ThreadFileCredentials& operator=(const ThreadFileCredentials&) = delete;
    ~ThreadFileCredentials();

private:
    ThreadFileCredentials() = default;
    bool active_ = false;
};

}  // namespace ql
