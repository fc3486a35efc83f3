#include "TreeFixture.h"

#include <fmt/format.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace ql::test {
namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::runtime_error(fmt::format("{} {}: {}", what, path, std::strerror(errno)));
}

std::uint64_t fnv(const std::string& data) {
    std::uint64_t h = 1469598103934665603ull;
    for (unsigned char c : data) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

std::vector<std::string> listNames(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (!d) fail("opendir", dir);
    while (auto* e = ::readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::string xattrText(const std::string& path) {
    ssize_t size = ::llistxattr(path.c_str(), nullptr, 0);
    if (size <= 0) return "";
    std::string names(static_cast<size_t>(size), '\0');
    size = ::llistxattr(path.c_str(), names.data(), names.size());
    if (size < 0) return "";
    std::vector<std::string> list;
    for (size_t start = 0, i = 0; i < static_cast<size_t>(size); ++i) {
        if (names[i] == 0) {
            list.emplace_back(names.data() + start, i - start);
            start = i + 1;
        }
    }
    std::sort(list.begin(), list.end());
    std::string out;
    for (const auto& n : list) {
        if (n == "security.selinux") continue;
        ssize_t vs = ::lgetxattr(path.c_str(), n.c_str(), nullptr, 0);
        std::string v(vs > 0 ? static_cast<size_t>(vs) : 0, '\0');
        if (vs > 0) ::lgetxattr(path.c_str(), n.c_str(), v.data(), v.size());
        out += fmt::format(" {}={:x}", n, fnv(v));
    }
    return out;
}

}  // namespace

TempDir::TempDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string templ = fmt::format("{}/{}-XXXXXX", base && *base ? base : "/tmp", prefix);
    if (!::mkdtemp(templ.data())) fail("mkdtemp", templ);
    path_ = templ;
    ::chmod(path_.c_str(), 0755);
}

TempDir::~TempDir() {
    try {
        Tree::removeAll(path_);
    } catch (...) {
    }
}

void Tree::mkdirs(const std::string& path, mode_t mode) {
    std::string current;
    std::stringstream parts(path);
    std::string part;
    if (!path.empty() && path[0] == '/') current = "";
    while (std::getline(parts, part, '/')) {
        if (part.empty()) continue;
        current += "/" + part;
        if (::mkdir(current.c_str(), mode) != 0 && errno != EEXIST) fail("mkdir", current);
    }
}

void Tree::write(const std::string& path, const std::string& content, mode_t mode) {
    auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) mkdirs(path.substr(0, slash));
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) fail("open", path);
    size_t done = 0;
    while (done < content.size()) {
        ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0) fail("write", path);
        done += static_cast<size_t>(n);
    }
    ::fchmod(fd, mode);
    ::close(fd);
}

std::string Tree::read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) fail("read", path);
    std::ostringstream o;
    o << in.rdbuf();
    return o.str();
}

void Tree::setMtime(const std::string& path, std::int64_t seconds, long nanoseconds) {
    struct timespec times[2] = {{static_cast<time_t>(seconds), nanoseconds}, {static_cast<time_t>(seconds), nanoseconds}};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) fail("utimensat", path);
}

bool Tree::exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

void Tree::removeAll(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        ::chmod(path.c_str(), 0700);
        for (const auto& n : listNames(path)) removeAll(path + "/" + n);
        ::rmdir(path.c_str());
    } else {
        ::unlink(path.c_str());
    }
}

void Tree::chownTree(const std::string& path, uid_t uid, gid_t gid) {
    if (::lchown(path.c_str(), uid, gid) != 0) fail("lchown", path);
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        for (const auto& n : listNames(path)) chownTree(path + "/" + n, uid, gid);
    }
}

std::vector<std::string> Tree::temporaries(const std::string& root) {
    std::vector<std::string> found;
    struct stat st;
    if (::lstat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return found;
    for (const auto& n : listNames(root)) {
        std::string p = root + "/" + n;
        if (n.rfind(".qlcopy-partial-", 0) == 0) found.push_back(p);
        auto deeper = temporaries(p);
        found.insert(found.end(), deeper.begin(), deeper.end());
    }
    return found;
}

std::map<std::string, std::string> TreeDigest::of(const std::string& root, const Options& o) {
    std::map<std::string, std::string> out;
    std::map<std::pair<dev_t, ino_t>, std::string> linkGroups;
    std::vector<std::string> stack{""};
    while (!stack.empty()) {
        std::string rel = stack.back();
        stack.pop_back();
        std::string path = root + rel;
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) fail("lstat", path);
        std::string d = fmt::format("{}", static_cast<unsigned>(st.st_mode & S_IFMT) >> 12);
        if (o.modes && !S_ISLNK(st.st_mode)) d += fmt::format(" mode={:o}", st.st_mode & 07777);
        if (o.owners) d += fmt::format(" owner={}:{}", st.st_uid, st.st_gid);
        if ((S_ISDIR(st.st_mode) ? o.dirTimes : o.times) && !rel.empty()) {
            d += fmt::format(" mtime={}.{:09}", static_cast<long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec);
        }
        if (S_ISREG(st.st_mode)) {
            d += fmt::format(" size={} data={:x}", static_cast<long long>(st.st_size), fnv(Tree::read(path)));
            if (o.holes) d += st.st_blocks * 512 < st.st_size ? " sparse" : " dense";
            if (o.links && st.st_nlink > 1) {
                auto [it, inserted] = linkGroups.emplace(std::make_pair(st.st_dev, st.st_ino), rel);
                d += fmt::format(" links={}", st.st_nlink);
                if (!inserted) d += " linked-to=" + it->second;
            }
        } else if (S_ISLNK(st.st_mode)) {
            char target[4096];
            ssize_t n = ::readlink(path.c_str(), target, sizeof target);
            d += " target=" + std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
        } else if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
            d += fmt::format(" rdev={:x}", static_cast<unsigned long long>(st.st_rdev));
        }
        if (o.xattrs) d += xattrText(path);
        out[rel.empty() ? "/" : rel] = d;
        if (S_ISDIR(st.st_mode)) {
            auto names = listNames(path);
            for (auto it = names.rbegin(); it != names.rend(); ++it) stack.push_back(rel + "/" + *it);
        }
    }
    return out;
}

std::string TreeDigest::differences(const std::map<std::string, std::string>& expected,
                                    const std::map<std::string, std::string>& actual) {
    std::string out;
    for (const auto& [path, d] : expected) {
        auto it = actual.find(path);
        if (it == actual.end()) {
            out += fmt::format("missing {} ({})\n", path, d);
        } else if (it->second != d) {
            out += fmt::format("differs {}\n  expected {}\n  actual   {}\n", path, d, it->second);
        }
    }
    for (const auto& [path, d] : actual) {
        if (!expected.count(path)) out += fmt::format("extra   {} ({})\n", path, d);
    }
    return out;
}

}  // namespace ql::test
