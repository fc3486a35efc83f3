#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ql {

// Source files left for a later run because their encryption key was absent. The count is
// exact; the paths kept are capped so a locked home folder cannot exhaust memory.
class DeferredList {
public:
    static constexpr std::size_t pathCap = 10000;

    void add(const std::string& path);
    std::int64_t count() const;
    std::vector<std::string> paths() const;

private:
    mutable std::mutex mutex_;
    std::int64_t count_ = 0;
    std::vector<std::string> paths_;
};

}  // namespace ql
