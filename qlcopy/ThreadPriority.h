#pragma once

namespace ql {

// Lowers the calling thread's scheduling priority, for background work (the sizing pass) that
// must not slow the copy down.
class ThreadPriority {
public:
    static void lowerCurrentThread();
};

}  // namespace ql
