#include "qlcopy/DataCopier.h"

#include "QLSupport/Log.h"
#include "qlcopy/ErrnoText.h"
#include "qlcopy/PlatformCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ql {
namespace {

// Errors of a kernel copy that belong to the destination; the rest are blamed on the source.
bool destinationError(int e) {
    return e == ENOSPC || e == EDQUOT || e == EFBIG || e == EROFS || e == ENODEV || e == ENXIO || e == ENOTCONN ||
           e == ESTALE;
}

}  // namespace

DataCopier::DataCopier(CopyRoutes& routes) : routes_(routes) {}

bool DataCopier::fail(Outcome& out, int error, const char* syscall, bool onDestination) {
    out.error = error;
    out.syscall = syscall;
    out.onDestination = onDestination;
    return false;
}

DataCopier::Outcome DataCopier::copy(const Request& r) {
    Outcome out;
    if (r.cloneAllowed && r.sameFilesystem && r.size > 0 && routes_.cloneUsable.load(std::memory_order_relaxed)) {
        int fd = PlatformCopy::cloneInto(r.srcFd, r.dstDirFd, r.tmpName, r.createMode);
        if (fd >= 0) {
            out.fd = fd;
            out.cloned = true;
            out.written = r.size;
            if (r.progress && !r.progress(r.size, r.size)) out.cancelled = true;
            return out;
        }
        int e = -fd;
        if (!PlatformCopy::cloneUnsupported(e)) {
            fail(out, e, "clone", destinationError(e) || e == EEXIST);
            return out;
        }
        if (routes_.cloneUsable.exchange(false)) {
            Log::f("Copier", "cloning is not available here ({}); copying file data instead", ErrnoText::describe(e));
        }
    }

    out.fd = ::openat(r.dstDirFd, r.tmpName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, r.createMode);
    if (out.fd < 0) {
        fail(out, errno, "open", true);
        return out;
    }
    if (r.size == 0) return out;

    if (!r.sparse) {
        stream(r, out, 0, r.size);
        return out;
    }
    std::int64_t offset = 0;
    while (offset < r.size) {
        off_t data = ::lseek(r.srcFd, offset, SEEK_DATA);
        if (data < 0) {
            if (errno == ENXIO) break;  // only a hole remains
            // No hole reporting here: copy the rest as it reads.
            if (!stream(r, out, offset, r.size)) return out;
            offset = r.size;
            break;
        }
        off_t hole = ::lseek(r.srcFd, data, SEEK_HOLE);
        std::int64_t end = hole < 0 ? r.size : std::min<std::int64_t>(hole, r.size);
        if (data >= r.size) break;
        if (data > offset && r.progress && !r.progress(data - offset, 0)) {
            out.cancelled = true;
            return out;
        }
        if (!stream(r, out, data, end)) return out;
        offset = end;
    }
    if (offset < r.size && r.progress && !r.progress(r.size - offset, 0)) {
        out.cancelled = true;
        return out;
    }
    if (::ftruncate(out.fd, r.size) != 0) fail(out, errno, "ftruncate", true);
    return out;
}

bool DataCopier::stream(const Request& r, Outcome& out, std::int64_t from, std::int64_t to) {
    std::int64_t pos = from;
    while (pos < to) {
        std::int64_t length = std::min(r.chunkBytes, to - pos);
        std::int64_t moved = 0;
        if (routes_.rangeUsable.load(std::memory_order_relaxed)) {
            std::int64_t n = PlatformCopy::copyRange(r.srcFd, pos, out.fd, pos, length);
            if (n < 0) {
                int e = static_cast<int>(-n);
                if (e == EINTR) continue;
                if (PlatformCopy::rangeUnsupported(e)) {
                    if (routes_.rangeUsable.exchange(false)) {
                        Log::f("Copier", "kernel range copy is not available here ({}); using read and write",
                               ErrnoText::describe(e));
                    }
                    continue;
                }
                return fail(out, e, "copy_file_range", destinationError(e));
            }
            if (n == 0) return true;  // the source got shorter while we copied it
            moved = n;
        } else {
            if (buffer_.empty()) buffer_.resize(bufferBytes);
            std::int64_t want = std::min<std::int64_t>(length, static_cast<std::int64_t>(buffer_.size()));
            ssize_t n = ::pread(r.srcFd, buffer_.data(), static_cast<size_t>(want), pos);
            if (n < 0) {
                if (errno == EINTR) continue;
                return fail(out, errno, "read", false);
            }
            if (n == 0) return true;
            ssize_t done = 0;
            while (done < n) {
                ssize_t w = ::pwrite(out.fd, buffer_.data() + done, static_cast<size_t>(n - done), pos + done);
                if (w < 0) {
                    if (errno == EINTR) continue;
                    return fail(out, errno, "write", true);
                }
                done += w;
            }
            moved = n;
        }
        pos += moved;
        out.written += moved;
        if (r.progress && !r.progress(moved, moved)) {
            out.cancelled = true;
            return false;
        }
    }
    return true;
}

}  // namespace ql
