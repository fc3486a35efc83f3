// Arbitrary engine output through everything the runner does with it: cut into lines, decoded,
// mapped, and, for progress, normalised. Nothing may crash, and what decodes must read back the
// same after being written out again.
#include "QLProtocol/runners/LineAccumulator.h"
#include "QLProtocol/runners/ProgressModel.h"
#include "QLProtocol/runners/QlcopyEvent.h"
#include "QLProtocol/runners/QlcopyEventMapper.h"
#include "QLProtocol/runners/QlcopyLineHandler.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void handle(std::string_view line) {
    auto outcome = ql::QlcopyLineHandler::handle(line);
    if (outcome.forward && outcome.forward->has_progress()) {
        auto n = ql::ProgressModel::normalize(outcome.forward->progress());
        if (n.fraction && !(*n.fraction >= 0.0 && *n.fraction <= 1.0)) std::abort();
    }
    if (outcome.event) {
        // Written out and read again, an event is unchanged.
        auto again = ql::QlcopyEvent::decode(ql::dumpJson(outcome.event->toJson()));
        if (!again || !*again || **again != *outcome.event) std::abort();
        auto mapped = ql::QlcopyEventMapper::map(**again);
        if (mapped.isTerminal != outcome.isTerminal) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    // The first byte chooses how the stream is cut into reads, as a pipe would.
    std::size_t chunk = size > 0 ? static_cast<std::size_t>(data[0] % 64) + 1 : 1;
    ql::LineAccumulator lines;
    for (std::size_t at = 0; at < bytes.size(); at += chunk) {
        for (const auto& line : lines.append(bytes.substr(at, chunk))) handle(line);
    }
    if (auto tail = lines.flush()) handle(*tail);
    return 0;
}
