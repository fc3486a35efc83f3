#pragma once

#include "QLProtocol/proto/runs.pb.h"

#include <asio.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace ql {

// Where a preview run's items go while it runs (the preview store). The job manager calls these
// in event order for each preview run: `beginGather` once, `appendItems` per batch, then exactly
// one of `finish`, `fail` or `cancel`. Preview ids are the run ids in UUID text. A method that
// throws (a database error) makes the job manager mark that preview failed.
class PreviewWriter {
public:
    virtual ~PreviewWriter() = default;
    virtual asio::awaitable<void> beginGather(std::string previewID, std::string tileID,
                                              std::int64_t startedAtUnixNanos) = 0;
    virtual asio::awaitable<void> appendItems(std::string previewID,
                                              std::vector<ql4::transport::v1::PreviewItem> items) = 0;
    // The preview completed; `destinationAbsent` when it found no destination to compare against.
    virtual asio::awaitable<void> finish(std::string previewID, std::int64_t finishedAtUnixNanos,
                                         bool destinationAbsent) = 0;
    virtual asio::awaitable<void> fail(std::string previewID, std::int64_t finishedAtUnixNanos,
                                       std::string message) = 0;
    virtual asio::awaitable<void> cancel(std::string previewID, std::int64_t finishedAtUnixNanos) = 0;
};

}  // namespace ql
