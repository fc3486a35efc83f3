#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace ql {

// What the engine keeps of one directory entry: its name and the status fields that the
// comparison and the metadata copy need (kept small, since a directory's entries are held while
// it is processed).
struct EntryInfo {
    std::string name;
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    nlink_t nlink = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    dev_t rdev = 0;
    std::int64_t size = 0;
    std::int64_t blocks = 0;  // 512-byte blocks allocated
    struct timespec atime {};
    struct timespec mtime {};
    struct timespec ctime {};

    static EntryInfo fromStat(std::string name, const struct stat& st);

    bool isDirectory() const { return S_ISDIR(mode); }
    bool isRegular() const { return S_ISREG(mode); }
    bool isSymlink() const { return S_ISLNK(mode); }
    mode_t type() const { return mode & S_IFMT; }
    mode_t permissions() const { return mode & 07777; }
    // Fewer blocks allocated than the size needs: the file has holes.
    bool looksSparse() const { return size > 0 && blocks * 512 < size; }
};

// The kind of an entry in words, for messages and item events.
const char* entryKindName(mode_t mode);

}  // namespace ql
