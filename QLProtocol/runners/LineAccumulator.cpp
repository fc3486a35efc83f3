#include "QLProtocol/runners/LineAccumulator.h"

namespace ql {

std::vector<std::string> LineAccumulator::append(std::string_view bytes) {
    std::vector<std::string> lines;
    auto newline = bytes.find('\n');
    if (newline == std::string_view::npos) {
        buffer_.append(bytes);
        return lines;
    }
    // The first line completes whatever was waiting.
    buffer_.append(bytes.substr(0, newline));
    lines.push_back(std::move(buffer_));
    buffer_.clear();
    bytes.remove_prefix(newline + 1);
    for (newline = bytes.find('\n'); newline != std::string_view::npos; newline = bytes.find('\n')) {
        lines.emplace_back(bytes.substr(0, newline));
        bytes.remove_prefix(newline + 1);
    }
    buffer_.assign(bytes);
    return lines;
}

std::optional<std::string> LineAccumulator::flush() {
    if (buffer_.empty()) return std::nullopt;
    std::string tail = std::move(buffer_);
    buffer_.clear();
    return tail;
}

}  // namespace ql
