#include "qlcopy/TreeDeleter.h"

#include "QLSupport/Log.h"
#include "qlcopy/DirectoryLister.h"
#include "qlcopy/ErrnoText.h"
#include "qlcopy/TempNames.h"
#include "qlcopy/UniqueFd.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ql {
namespace {

struct InFlight {
    EngineCounters::Count& count;
    explicit InFlight(EngineCounters::Count& c) : count(c) { ++count; }
    ~InFlight() { --count; }
};

}  // namespace

TreeDeleter::TreeDeleter(EngineContext& ctx) : ctx_(ctx) {}

void TreeDeleter::failure(const std::string& rel, int error, const char* syscall) {
    ItemFailure f;
    f.verb = "DELETED";
    f.path = ctx_.dstPath(rel);
    f.syscall = syscall;
    f.side = "dst";
    f.error = error;
    ctx_.errors.record(f);
}

bool TreeDeleter::unlinkOne(int dirFd, const EntryInfo& entry, const std::string& rel) {
    ctx_.board.progress(0, ctx_.clock.now());
    ctx_.items.dest(rel, "delete", false, "not-in-source");
    if (!ctx_.dryRun) {
        if (::unlinkat(dirFd, entry.name.c_str(), 0) != 0) {
            int e = errno;
            if (e == ENOENT) return true;
            failure(rel, e, "unlink");
            return false;
        }
    }
    ++ctx_.counters.itemsDeleted;
    if (entry.isRegular()) ctx_.counters.bytesDeleted += entry.size;
    return true;
}

TreeDeleter::Result TreeDeleter::remove(int dirFd, const EntryInfo& entry, const std::string& rel,
                                        const SelectionScope& parentScope, bool keepSelf) {
    InFlight inFlight(ctx_.counters.deletesInFlight);
    if (entry.isDirectory()) return removeFolder(dirFd, entry, rel, parentScope, keepSelf);
    return unlinkOne(dirFd, entry, rel) ? Result::deleted : Result::failed;
}

TreeDeleter::Result TreeDeleter::removeFolder(int dirFd, const EntryInfo& entry, const std::string& rel,
                                              const SelectionScope& parentScope, bool keepSelf) {
    if (ctx_.stop.stopping()) return Result::kept;
    ctx_.board.begin(0, ActivityBoard::Kind::remove, rel, ctx_.clock.now());
    UniqueFd fd(::openat(dirFd, entry.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        int e = errno;
        if (e == ENOENT) return Result::deleted;
        failure(rel, e, "open");
        return Result::failed;
    }
    struct stat st;
    if (::fstat(fd.get(), &st) == 0 && st.st_dev != ctx_.dstRootDev) {
        ctx_.errors.warn("delete_skipped",
                         fmt::format("{} is another filesystem mounted inside the destination — nothing in it was deleted",
                                     ctx_.dstPath(rel)),
                         ctx_.dstPath(rel));
        return Result::kept;
    }
    DirectoryListing listing = DirectoryLister::list(fd.get());
    if (!listing.complete()) {
        failure(rel, listing.openError ? listing.openError : listing.readError, "readdir");
        return Result::failed;
    }
    auto scope = parentScope.enter(entry.name);
    bool allGone = listing.statFailures.empty();
    for (const auto& f : listing.statFailures) failure(rel + "/" + f.name, f.error, "lstat");
    for (const auto& child : listing.entries) {
        if (ctx_.stop.stopping()) return Result::kept;
        const std::string childRel = rel + "/" + child.name;
        if (TempNames::isTemporary(child.name)) {
            if (!ctx_.dryRun) ::unlinkat(fd.get(), child.name.c_str(), 0);
            continue;
        }
        PathVerdict v = scope->verdict(child.name, child.isDirectory());
        if (v.preserve != PreserveKind::none) {
            ctx_.items.dest(childRel, "keep", child.isDirectory(), "preserved");
            allGone = false;
            continue;
        }
        if (!v.selected && !(child.isDirectory() && v.mayHoldSelected)) {
            ctx_.items.dest(childRel, "keep", child.isDirectory(), "not-selected");
            allGone = false;
            continue;
        }
        Result r = child.isDirectory() ? removeFolder(fd.get(), child, childRel, *scope, !v.selected)
                                       : (unlinkOne(fd.get(), child, childRel) ? Result::deleted : Result::failed);
        if (r != Result::deleted) allGone = false;
    }
    if (!allGone || keepSelf) {
        if (keepSelf) ctx_.items.dest(rel, "keep", true, "not-selected");
        return Result::kept;
    }
    ctx_.items.dest(rel, "delete", true, "not-in-source");
    if (!ctx_.dryRun) {
        fd.reset();
        if (::unlinkat(dirFd, entry.name.c_str(), AT_REMOVEDIR) != 0) {
            int e = errno;
            if (e != ENOENT) {
                failure(rel, e, "rmdir");
                return Result::failed;
            }
        }
    }
    ++ctx_.counters.itemsDeleted;
    return Result::deleted;
}

}  // namespace ql
