#pragma once

#include <atomic>
#include <cstdint>

namespace ql {

// The running tallies every thread adds to and the progress loop reads. Files are every
// non-directory item (regular files, symlinks, special files); bytes are regular-file sizes.
struct EngineCounters {
    using Count = std::atomic<std::int64_t>;

    Count itemsEvaluated{0};       // source entries examined (directories included)
    Count filesEvaluated{0};       // source non-directory entries examined
    Count filesSelected{0};        // of those, the ones the rules select (the walk's exact total)
    Count bytesSelected{0};
    Count bytesEvaluated{0};       // sizes of the regular files examined
    Count filesCompleted{0};       // non-directory items written
    Count bytesCopied{0};          // file data bytes written
    Count filesSkipped{0};         // non-directory items already up to date (or fixed in metadata only)
    Count bytesSkipped{0};
    Count workDoneBytes{0};        // bytes of work done: skipped plus copied, holes included
    Count itemsCopied{0};          // items created or replaced, directories included
    Count itemsUpdatedMetaOnly{0};
    Count itemsDeleted{0};
    Count bytesDeleted{0};
    Count dirsRetimeTotal{0};
    Count dirsRetimeChecked{0};
    Count dirsRetimeRestamped{0};
    Count copiesInFlight{0};
    Count deletesInFlight{0};
    std::atomic<bool> walkDone{false};
    std::atomic<bool> retimeStarted{false};

    // The sizing pass.
    Count scoutFiles{0};
    Count scoutBytes{0};
    std::atomic<bool> scoutDone{false};
};

}  // namespace ql
