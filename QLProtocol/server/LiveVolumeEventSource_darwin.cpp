#include "QLProtocol/server/VolumeEventSource.h"

namespace ql {

struct LiveVolumeEventSource::State {};

LiveVolumeEventSource::LiveVolumeEventSource() : LiveVolumeEventSource(Options{}) {}
LiveVolumeEventSource::LiveVolumeEventSource(Options options) : options_(std::move(options)) {}
LiveVolumeEventSource::~LiveVolumeEventSource() = default;

tl::expected<void, std::string> LiveVolumeEventSource::start(Callback) {
    return tl::unexpected(std::string(
        "Volume appearance is not watched in this build on macOS; bindings heal when the jobs are next edited or run."));
}

void LiveVolumeEventSource::stop() {}

}  // namespace ql
