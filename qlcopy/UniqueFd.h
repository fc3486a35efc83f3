#pragma once

#include <unistd.h>

#include <memory>
#include <utility>

namespace ql {

// Owns one file descriptor and closes it when dropped.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// An open directory shared by the walker and the copy threads that still work inside it.
using SharedFd = std::shared_ptr<const UniqueFd>;

inline SharedFd shareFd(int fd) { return std::make_shared<const UniqueFd>(fd); }

}  // namespace ql
