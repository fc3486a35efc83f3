#pragma once

#include "qlcopy/DataCopier.h"
#include "qlcopy/EngineContext.h"
#include "qlcopy/EntryInfo.h"
#include "qlcopy/SelectionRules.h"
#include "qlcopy/UniqueFd.h"

#include <string>

namespace ql {

// One non-directory item to place on the destination.
struct ItemJob {
    SharedFd srcDir;
    SharedFd dstDir;
    EntryInfo source;           // as the listing saw it
    std::string rel;            // relative to the copy root, with a leading "/"
    bool removeExtraXattrs = false;  // the destination folder hands down ACLs the source item lacks
    gid_t createdGid = 0;            // the group a new item in the destination folder gets
    PathVerdict verdict;
};

// Writes items onto the destination, each under a temporary name in its final directory,
// with data, owner, mode, attributes and times all set before it is renamed into place. A
// failure removes the temporary file and leaves whatever was there before untouched.
class ItemCopier {
public:
    struct Placed {
        bool ok = false;
        ino_t destIno = 0;
    };

    ItemCopier(EngineContext& ctx, int slot);

    Placed copyFile(const ItemJob& job);
    bool copySymlink(const ItemJob& job);
    bool copySpecial(const ItemJob& job);
    // Another link to an inode already placed at `firstDestRelative` (under the destination root).
    bool linkTo(const ItemJob& job, const std::string& firstDestRelative);

    // Reports a failed item (counted as ignored for optional and retain-on-error items).
    static void report(EngineContext& ctx, const ItemJob& job, const char* verb, int error, const std::string& syscall,
                       bool onDestination);

private:
    bool renameIntoPlace(const ItemJob& job, const std::string& tmp, const char* verb);
    void discard(const ItemJob& job, const std::string& tmp);

    EngineContext& ctx_;
    int slot_;
    DataCopier data_;
};

}  // namespace ql
