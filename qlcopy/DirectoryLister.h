#pragma once

#include "qlcopy/EntryInfo.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ql {

struct DirectoryListing {
    struct Failure {
        std::string name;
        int error = 0;
    };

    std::vector<EntryInfo> entries;     // sorted by name (bytewise), with their status
    int openError = 0;                  // the directory could not be opened for reading
    int readError = 0;                  // reading stopped part-way; the listing is incomplete
    std::vector<Failure> statFailures;  // names whose status could not be read
    std::int64_t vanished = 0;          // names that disappeared between listing and status

    // Every name was read. (Names whose status failed were still seen; they are not missing.)
    bool complete() const { return openError == 0 && readError == 0; }
};

// Reads one directory: all names, sorted, each with its status (not following symlinks).
class DirectoryLister {
public:
    // `onProgress` is called with the number of names seen so far, every few hundred names.
    static DirectoryListing list(int dirFd, const std::function<void(std::int64_t)>& onProgress = {});
};

}  // namespace ql
