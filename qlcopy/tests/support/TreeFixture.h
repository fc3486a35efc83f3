#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ql::test {

// A temporary directory removed (with everything in it) when the fixture goes.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "qlcopy-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

// Small helpers to build trees, all failing loudly (they throw) so tests never run on a tree
// that was not made as intended.
struct Tree {
    static void mkdirs(const std::string& path, mode_t mode = 0755);
    static void write(const std::string& path, const std::string& content, mode_t mode = 0644);
    static std::string read(const std::string& path);
    static void setMtime(const std::string& path, std::int64_t seconds, long nanoseconds = 0);
    static void removeAll(const std::string& path);
    static bool exists(const std::string& path);
    static void chownTree(const std::string& path, uid_t uid, gid_t gid);
    // Every name under `root` that looks like an engine temporary file.
    static std::vector<std::string> temporaries(const std::string& root);
};

// A description of every item under a root (relative path → type, content, metadata), for
// comparing two trees or one tree before and after.
struct TreeDigest {
    struct Options {
        bool owners = true;
        bool modes = true;
        bool times = true;       // modification times of non-directories (nanoseconds)
        bool dirTimes = true;    // modification times of directories
        bool xattrs = true;
        bool links = true;       // hard-link groups
        bool holes = false;      // whether files are sparse
    };

    static std::map<std::string, std::string> of(const std::string& root, const Options& options);
    static std::map<std::string, std::string> of(const std::string& root) { return of(root, Options{}); }
    // A readable list of the entries that differ, empty when the digests are equal.
    static std::string differences(const std::map<std::string, std::string>& expected,
                                   const std::map<std::string, std::string>& actual);
};

}  // namespace ql::test
