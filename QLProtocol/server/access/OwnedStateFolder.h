#pragma once

#include <tl/expected.hpp>

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string>

namespace ql {

// A folder of the server's state directory that belongs to one user, for the files an engine
// running with that user's rights reads and writes (its per-job scan state): "<parent>/<uid>",
// mode 0700, owned by the user.
//
// The server is root and the folder is the user's, so every access here is made so that the
// user can't turn it against the server: the folder must be a real directory owned by the user
// (a symbolic link or anyone else's folder is refused, never followed); files are opened
// relative to it without following links; a file is written by removing whatever has the name
// and creating it anew exclusively, then handing it to the user; a file is read only when it
// is a regular file of the user's with a single link (so no hard link to someone else's file
// can be read through it), and only up to a size limit.
class OwnedStateFolder {
public:
    // Creates "<parent>/<uid>" when missing (the parent root's, 0755) and checks it.
    static tl::expected<OwnedStateFolder, std::string> prepare(const std::filesystem::path& parent, uid_t uid,
                                                               gid_t gid);

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path file(const std::string& name) const { return path_ / name; }

    tl::expected<void, std::string> write(const std::string& name, const std::string& bytes) const;
    // The bytes, or the errno (ENOENT for a missing file).
    tl::expected<std::string, int> read(const std::string& name, std::size_t limit = 64u << 20) const;
    void remove(const std::string& name) const;

private:
    OwnedStateFolder(std::filesystem::path path, uid_t uid, gid_t gid) : path_(std::move(path)), uid_(uid), gid_(gid) {}
    // The folder opened without following links, after checking it is still the user's.
    tl::expected<int, std::string> open() const;

    std::filesystem::path path_;
    uid_t uid_;
    gid_t gid_;
};

}  // namespace ql
