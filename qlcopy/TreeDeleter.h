#pragma once

#include "qlcopy/EngineContext.h"
#include "qlcopy/EntryInfo.h"
#include "qlcopy/SelectionRules.h"

#include <string>

namespace ql {

// Removes destination items that the source no longer has. A folder is emptied first, child by
// child, asking the rules about each: whatever a preserve directive keeps (or the rules do not
// select) stays, and so do the folders holding it. A folder that cannot be read completely is
// not removed, nor is anything on another filesystem mounted inside the destination. In a dry
// run nothing is removed; every item is reported as it would be.
class TreeDeleter {
public:
    enum class Result { deleted, kept, failed };

    explicit TreeDeleter(EngineContext& ctx);

    // Deletes `entry` (a name inside the open destination directory `dirFd`, or inside a folder
    // that does not exist yet when `dirFd` < 0 in a dry run). `parentScope` is the rules' view of
    // the directory holding it. With `keepSelf`, a folder is emptied of what may go but stays.
    Result remove(int dirFd, const EntryInfo& entry, const std::string& rel, const SelectionScope& parentScope,
                  bool keepSelf = false);

private:
    Result removeFolder(int dirFd, const EntryInfo& entry, const std::string& rel, const SelectionScope& parentScope,
                        bool keepSelf);
    bool unlinkOne(int dirFd, const EntryInfo& entry, const std::string& rel);
    void failure(const std::string& rel, int error, const char* syscall);

    EngineContext& ctx_;
};

}  // namespace ql
