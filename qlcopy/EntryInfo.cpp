#include "qlcopy/EntryInfo.h"

namespace ql {

EntryInfo EntryInfo::fromStat(std::string name, const struct stat& st) {
    EntryInfo e;
    e.name = std::move(name);
    e.mode = st.st_mode;
    e.uid = st.st_uid;
    e.gid = st.st_gid;
    e.nlink = st.st_nlink;
    e.dev = st.st_dev;
    e.ino = st.st_ino;
    e.rdev = st.st_rdev;
    e.size = static_cast<std::int64_t>(st.st_size);
    e.blocks = static_cast<std::int64_t>(st.st_blocks);
#if defined(__APPLE__)
    e.atime = st.st_atimespec;
    e.mtime = st.st_mtimespec;
    e.ctime = st.st_ctimespec;
#else
    e.atime = st.st_atim;
    e.mtime = st.st_mtim;
    e.ctime = st.st_ctim;
#endif
    return e;
}

const char* entryKindName(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG: return "file";
        case S_IFDIR: return "folder";
        case S_IFLNK: return "symlink";
        case S_IFIFO: return "fifo";
        case S_IFCHR: return "character device";
        case S_IFBLK: return "block device";
        case S_IFSOCK: return "socket";
    }
    return "unknown";
}

}  // namespace ql
