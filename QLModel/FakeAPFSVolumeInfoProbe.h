#pragma once

#include "QLModel/APFSVolumeInfoProbe.h"

#include <map>

namespace ql {

// Answers from a fixed table; any other device can't be read.
class FakeAPFSVolumeInfoProbe final : public APFSVolumeInfoProbe {
public:
    FakeAPFSVolumeInfoProbe() = default;
    explicit FakeAPFSVolumeInfoProbe(std::map<std::string, APFSVolumeInfo> entries) : entries(std::move(entries)) {}

    asio::awaitable<std::optional<APFSVolumeInfo>> volumeInfo(std::string device) override {
        auto found = entries.find(device);
        if (found == entries.end()) co_return std::nullopt;
        co_return found->second;
    }

    std::map<std::string, APFSVolumeInfo> entries;
};

}  // namespace ql
