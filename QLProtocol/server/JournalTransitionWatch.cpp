#include "QLProtocol/server/JournalTransitionWatch.h"

#include "QLSupport/AtomicFile.h"
#include "QLSupport/Json.h"
#include "QLSupport/Log.h"

#include <cerrno>
#include <cstring>

namespace ql {
namespace {
constexpr std::string_view tag = "JournalTransitionWatch";
}

JournalTransitionWatch::JournalTransitionWatch(std::filesystem::path mapFile) : mapFile_(std::move(mapFile)) {}

void JournalTransitionWatch::loadIfNeeded() {
    if (loaded_) return;
    loaded_ = true;
    auto bytes = AtomicFile::read(mapFile_);
    if (!bytes) {
        if (bytes.error() != ENOENT) {
            Log::line(tag, "could not read " + mapFile_.string() + " (" + std::strerror(bytes.error()) +
                               "); starting with an empty journal map");
        }
        return;
    }
    auto parsed = parseJson(*bytes);
    if (!parsed || !parsed->is_object()) {
        Log::line(tag, mapFile_.string() + " is not a JSON object (" + (parsed ? jsonTypeName(*parsed) : parsed.error()) +
                           "); starting with an empty journal map");
        return;
    }
    for (const auto& [volume, journal] : parsed->items()) {
        if (journal.is_string()) journals_[volume] = journal.get<std::string>();
    }
}

std::optional<std::string> JournalTransitionWatch::lastSeen(const std::string& volumeUUID) {
    std::lock_guard lock(mutex_);
    loadIfNeeded();
    auto it = journals_.find(volumeUUID);
    if (it == journals_.end()) return std::nullopt;
    return it->second;
}

bool JournalTransitionWatch::observe(const Observation& observation) {
    std::lock_guard lock(mutex_);
    loadIfNeeded();
    auto it = journals_.find(observation.volumeUUID);
    if (it != journals_.end() && it->second == observation.journalUUID) return false;
    const bool changed = it != journals_.end();
    if (changed) {
        Log::line(tag, "journal changed for volume '" + observation.name + "' (" + observation.volumeUUID +
                           ") — an unclean unmount or reboot regenerates the FSEvents journal; the next backup of "
                           "this volume will full-scan");
    }
    journals_[observation.volumeUUID] = observation.journalUUID;
    Json map = Json::object();
    for (const auto& [volume, journal] : journals_) map[volume] = journal;
    if (auto written = AtomicFile::write(mapFile_, dumpJson(map, 2) + "\n"); !written) {
        Log::line(tag, "could not store the journal map: " + written.error().message());
    }
    return changed;
}

}  // namespace ql
