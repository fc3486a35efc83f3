#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ql {

// Which fast routes still work for this run's pair of filesystems. A route that reports
// "unsupported" once is not tried again.
struct CopyRoutes {
    std::atomic<bool> cloneUsable{true};
    std::atomic<bool> rangeUsable{true};
};

// Moves one regular file's data into a new file in the destination directory. Routes, fastest
// first: a clone (when allowed and both files are on one filesystem), the kernel's range copy,
// then a read/write loop with a large buffer. A file with holes is copied extent by extent
// (SEEK_DATA/SEEK_HOLE), so the holes stay holes. One copier per thread (it owns its buffer).
class DataCopier {
public:
    struct Request {
        int srcFd = -1;
        std::int64_t size = 0;
        bool sparse = false;
        bool sameFilesystem = false;
        bool cloneAllowed = false;
        int dstDirFd = -1;
        const char* tmpName = nullptr;
        mode_t createMode = 0600;  // permissions of the new file (the process umask is 0)
        std::int64_t chunkBytes = 8 << 20;
        // Called after every chunk with the work advanced (holes included) and the bytes written;
        // returning false stops the copy (the run is stopping).
        std::function<bool(std::int64_t work, std::int64_t written)> progress;
    };

    struct Outcome {
        int fd = -1;               // the new file, open for writing (the caller closes it)
        bool cancelled = false;
        bool cloned = false;
        int error = 0;             // errno of the failure, 0 on success
        std::string syscall;
        bool onDestination = true; // which side the failure belongs to
        std::int64_t written = 0;
    };

    explicit DataCopier(CopyRoutes& routes);

    // On failure or cancellation the new file is still open in `fd` (when it was created): the
    // caller removes it.
    Outcome copy(const Request& request);

    static constexpr std::size_t bufferBytes = 1 << 20;

private:
    bool stream(const Request& r, Outcome& out, std::int64_t from, std::int64_t to);
    bool fail(Outcome& out, int error, const char* syscall, bool onDestination);

    CopyRoutes& routes_;
    std::vector<char> buffer_;
};

}  // namespace ql
