#pragma once

#include <tl/expected.hpp>

#include <filesystem>
#include <string>
#include <string_view>

namespace ql {

struct AtomicWriteError {
    std::string step;  // "open", "write", "fsync", "rename", "fsync-directory"
    int code = 0;      // errno
    std::filesystem::path path;
    std::string message() const;
};

// Replaces a file so that readers only ever see the old or the new content: the bytes go to a
// temporary file in the same directory, which is flushed to disk and renamed over the target,
// and then the directory itself is flushed. On any failure the previous file is untouched and
// the temporary file is removed.
struct AtomicFile {
    static tl::expected<void, AtomicWriteError> write(const std::filesystem::path& path, std::string_view bytes,
                                                      mode_t mode = 0644);
    // Reads a whole file; the error is the errno of the failing call.
    static tl::expected<std::string, int> read(const std::filesystem::path& path);
    // Flushes a directory's entries (after a rename or an unlink inside it).
    static int syncDirectory(const std::filesystem::path& directory);
};

}  // namespace ql
