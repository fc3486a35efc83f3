#pragma once

#include "qlcopy/EngineOptions.h"
#include "qlcopy/EntryInfo.h"
#include "qlcopy/MetadataSync.h"

#include <string>

namespace ql {

// Decides what to do with a source item given what the destination holds under its name.
//
// `different`: copied when the type, size or modification time differ (times to the precision
// both filesystems keep), or, for symlinks and device nodes, when the target or device number
// differs; when only mode or owner differ the item is fixed in place (a metadata-only update;
// attribute differences are found by the walker, which can read them). `newer`: copied when the
// source's modification time is later than the destination's, or the destination lacks it.
class Comparator {
public:
    enum class Action {
        add,         // nothing on the destination
        update,      // copy over what is there (same type)
        replace,     // copy over an item of another type
        metaOnly,    // content is current; fix mode/owner/times
        upToDate,    // nothing to do
        destNewer,   // copy-newer: the destination is as new or newer
    };

    struct Decision {
        Action action = Action::add;
        const char* reason = "";   // word for item events: "new", "size", "mtime", ...
        unsigned metaReasons = 0;  // MetaReason bits for metaOnly (and for upToDate: none)
    };

    Comparator(CopyMode mode, std::int64_t timeGranularityNs, const MetadataSync& meta);

    // `srcTarget` / `dstTarget`: symlink targets, given when both items are symlinks.
    Decision decide(const EntryInfo& source, const EntryInfo* dest, const std::string* srcTarget = nullptr,
                    const std::string* dstTarget = nullptr) const;

    static const char* actionWord(Action action);

private:
    CopyMode mode_;
    std::int64_t granularity_;
    const MetadataSync& meta_;
};

}  // namespace ql
