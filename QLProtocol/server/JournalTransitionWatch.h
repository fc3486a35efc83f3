#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace ql {

// Notices that a volume's file-system-event journal was regenerated (an unclean unmount or a
// reboot does that), which makes the stored file-system-event state of jobs on that volume
// stale: their next backup must scan fully. Keeps "journal-map.json", a JSON object from each
// volume UUID to the journal UUID last seen on it.
class JournalTransitionWatch {
public:
    struct Observation {
        std::string volumeUUID;
        std::string journalUUID;
        std::string name;
    };

    explicit JournalTransitionWatch(std::filesystem::path mapFile);

    // Records the journal seen on a volume; true when it differs from the one seen before (the
    // first sighting of a volume is not a change). Thread-safe.
    bool observe(const Observation& observation);

    std::optional<std::string> lastSeen(const std::string& volumeUUID);

private:
    void loadIfNeeded();

    std::filesystem::path mapFile_;
    std::mutex mutex_;
    bool loaded_ = false;
    std::map<std::string, std::string> journals_;
};

}  // namespace ql
