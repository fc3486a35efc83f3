#include "qlcopy/DirRetimeJournal.h"

#include <cerrno>
#include <cstring>

namespace ql {
namespace {

struct Fixed {
    std::int64_t atimeSec;
    std::int64_t atimeNsec;
    std::int64_t mtimeSec;
    std::int64_t mtimeNsec;
    std::uint32_t mode;
    std::uint32_t setMode;
    std::uint32_t pathLength;
};

}  // namespace

DirRetimeJournal::DirRetimeJournal() : file_(std::tmpfile()) {}

DirRetimeJournal::~DirRetimeJournal() {
    if (file_) std::fclose(file_);
}

bool DirRetimeJournal::append(const Record& r) {
    if (!file_) {
        errno = EIO;
        return false;
    }
    Fixed f{static_cast<std::int64_t>(r.atime.tv_sec), static_cast<std::int64_t>(r.atime.tv_nsec),
            static_cast<std::int64_t>(r.mtime.tv_sec),  static_cast<std::int64_t>(r.mtime.tv_nsec),
            static_cast<std::uint32_t>(r.mode),         r.setMode ? 1u : 0u,
            static_cast<std::uint32_t>(r.destRelative.size())};
    if (std::fwrite(&f, sizeof f, 1, file_) != 1) return false;
    if (!r.destRelative.empty() && std::fwrite(r.destRelative.data(), r.destRelative.size(), 1, file_) != 1) return false;
    ++count_;
    return true;
}

bool DirRetimeJournal::forEach(const std::function<bool(const Record&)>& visit) {
    if (!file_) return count_ == 0;
    if (std::fflush(file_) != 0) return false;
    std::rewind(file_);
    Record r;
    for (std::int64_t i = 0; i < count_; ++i) {
        Fixed f;
        if (std::fread(&f, sizeof f, 1, file_) != 1) return false;
        r.destRelative.resize(f.pathLength);
        if (f.pathLength && std::fread(r.destRelative.data(), f.pathLength, 1, file_) != 1) return false;
        r.atime.tv_sec = static_cast<time_t>(f.atimeSec);
        r.atime.tv_nsec = static_cast<long>(f.atimeNsec);
        r.mtime.tv_sec = static_cast<time_t>(f.mtimeSec);
        r.mtime.tv_nsec = static_cast<long>(f.mtimeNsec);
        r.mode = static_cast<mode_t>(f.mode);
        r.setMode = f.setMode != 0;
        if (!visit(r)) break;
    }
    std::fseek(file_, 0, SEEK_END);
    return true;
}

}  // namespace ql
