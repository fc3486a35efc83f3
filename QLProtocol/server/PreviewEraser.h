#pragma once

#include <asio.hpp>

#include <string>

namespace ql {

// Removes the stored previews of a job (its preview store rows), when an edit makes them stale
// or the job is deleted.
class PreviewEraser {
public:
    virtual ~PreviewEraser() = default;
    virtual asio::awaitable<void> erasePreviews(std::string tileID) = 0;
};

}  // namespace ql
