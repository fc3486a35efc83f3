#pragma once

#include <asio.hpp>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

namespace ql::testing {

// A fresh directory under the system's temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qlserver-XXXXXX").string();
        char* made = ::mkdtemp(pattern.data());
        if (made == nullptr) throw std::system_error(errno, std::generic_category(), "mkdtemp");
        path_ = made;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Runs one coroutine on `io` until it finishes and returns its result (or rethrows). Work on
// other threads (the blocking pool) keeps the loop waiting rather than letting it run dry.
template <typename T>
T runSync(asio::io_context& io, asio::awaitable<T> operation) {
    std::optional<T> result;
    std::exception_ptr error;
    bool done = false;
    asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e, T value) {
        error = e;
        if (!e) result.emplace(std::move(value));
        done = true;
    });
    auto guard = asio::make_work_guard(io);
    io.restart();
    while (!done) io.run_one();
    guard.reset();
    io.poll();
    if (error) std::rethrow_exception(error);
    return std::move(*result);
}

inline void runSync(asio::io_context& io, asio::awaitable<void> operation) {
    std::exception_ptr error;
    bool done = false;
    asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e) {
        error = e;
        done = true;
    });
    auto guard = asio::make_work_guard(io);
    io.restart();
    while (!done) io.run_one();
    guard.reset();
    io.poll();
    if (error) std::rethrow_exception(error);
}

// A read-only view of a directory for the length of a test. Root writes through permission
// bits, so as root the directory becomes a read-only bind mount of itself; otherwise its mode
// drops to 0555. `ok()` is false (with `why`) when neither works here.
class ReadOnlyDirectory {
public:
    explicit ReadOnlyDirectory(std::filesystem::path directory) : directory_(std::move(directory)) {
        if (::geteuid() == 0) {
            const std::string d = "'" + directory_.string() + "'";
            if (std::system(("mount --bind " + d + " " + d + " 2>/dev/null").c_str()) != 0) {
                why = "running as root and bind mounts are not possible here";
                return;
            }
            mounted_ = true;
            if (std::system(("mount -o remount,bind,ro " + d + " 2>/dev/null").c_str()) != 0) {
                why = "running as root and a read-only bind mount is not possible here";
                return;
            }
            ok_ = true;
        } else {
            ok_ = ::chmod(directory_.c_str(), 0555) == 0;
            if (!ok_) why = "could not make the directory read-only";
        }
    }
    ~ReadOnlyDirectory() { restore(); }
    void restore() {
        if (mounted_) {
            std::system(("umount '" + directory_.string() + "'").c_str());
            mounted_ = false;
        } else if (ok_) {
            ::chmod(directory_.c_str(), 0755);
        }
        ok_ = false;
    }
    bool ok() const { return ok_; }
    std::string why;

private:
    std::filesystem::path directory_;
    bool mounted_ = false;
    bool ok_ = false;
};

}  // namespace ql::testing
