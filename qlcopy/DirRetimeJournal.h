#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace ql {

// The destination directories whose times (and, where it had to wait, mode) are restored in
// the final pass, after everything inside them has been written. Records go to an unlinked
// temporary file rather than memory, so a tree of millions of folders costs no memory.
class DirRetimeJournal {
public:
    struct Record {
        std::string destRelative;  // under the destination root; "." for the root itself
        struct timespec atime {};
        struct timespec mtime {};
        mode_t mode = 0;
        bool setMode = false;      // the mode was held back (it would have blocked writing inside)
    };

    DirRetimeJournal();
    ~DirRetimeJournal();
    DirRetimeJournal(const DirRetimeJournal&) = delete;
    DirRetimeJournal& operator=(const DirRetimeJournal&) = delete;

    // Returns false (with errno set) when the spill file cannot be written.
    bool append(const Record& record);
    std::int64_t count() const { return count_; }
    // Reads every record back in the order written; `visit` returns false to stop early.
    bool forEach(const std::function<bool(const Record&)>& visit);

private:
    std::FILE* file_ = nullptr;
    std::int64_t count_ = 0;
};

}  // namespace ql
