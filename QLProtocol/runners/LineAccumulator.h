#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Cuts a byte stream (the engine's event pipe) into whole lines. Reads end anywhere, also in the
// middle of a line or of a multi-byte character; an unfinished line waits in the buffer for the
// bytes that complete it. One accumulator per stream.
class LineAccumulator {
public:
    // Every line the new bytes complete, in order, without its "\n".
    std::vector<std::string> append(std::string_view bytes);

    // At end of stream: the unterminated tail, if any; the buffer is then empty.
    std::optional<std::string> flush();

    // Bytes waiting for their newline.
    std::size_t pendingSize() const { return buffer_.size(); }

private:
    std::string buffer_;
};

}  // namespace ql
