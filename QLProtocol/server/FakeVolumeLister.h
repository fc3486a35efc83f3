#pragma once

#include "QLProtocol/server/VolumeLister.h"

#include <mutex>
#include <utility>

namespace ql {

// A volume lister that answers with the volumes a test sets (or a failure), and counts calls.
class FakeVolumeLister final : public VolumeLister {
public:
    void set(std::vector<ListedVolume> volumes) {
        std::lock_guard lock(mutex_);
        result_ = std::move(volumes);
    }
    void fail(std::string sentence) {
        std::lock_guard lock(mutex_);
        result_ = tl::unexpected(std::move(sentence));
    }
    int calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

    tl::expected<std::vector<ListedVolume>, std::string> list() override {
        std::lock_guard lock(mutex_);
        ++calls_;
        return result_;
    }

private:
    mutable std::mutex mutex_;
    tl::expected<std::vector<ListedVolume>, std::string> result_{std::vector<ListedVolume>{}};
    int calls_ = 0;
};

}  // namespace ql
