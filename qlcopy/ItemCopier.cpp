#include "qlcopy/ItemCopier.h"

#include "QLSupport/Log.h"
#include "qlcopy/ErrnoText.h"
#include "qlcopy/TempNames.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace ql {
namespace {

const char* baseName(const std::string& rel) {
    auto slash = rel.rfind('/');
    return rel.c_str() + (slash == std::string::npos ? 0 : slash + 1);
}

// Marks the activity slot busy for the lifetime of one item.
struct SlotActivity {
    EngineContext& ctx;
    int slot;
    SlotActivity(EngineContext& c, int s, ActivityBoard::Kind kind, const std::string& rel) : ctx(c), slot(s) {
        ctx.board.begin(slot, kind, rel, ctx.clock.now());
    }
    ~SlotActivity() { ctx.board.end(slot); }
};

struct InFlight {
    EngineCounters::Count& count;
    explicit InFlight(EngineCounters::Count& c) : count(c) { ++count; }
    ~InFlight() { --count; }
};

}  // namespace

ItemCopier::ItemCopier(EngineContext& ctx, int slot) : ctx_(ctx), slot_(slot), data_(ctx.routes) {}

void ItemCopier::report(EngineContext& ctx, const ItemJob& job, const char* verb, int error,
                        const std::string& syscall, bool onDestination) {
    ItemFailure f;
    f.verb = verb;
    f.path = onDestination ? ctx.dstPath(job.rel) : ctx.srcPath(job.rel);
    f.syscall = syscall;
    f.side = onDestination ? "dst" : "src";
    f.error = error;
    // Optional items may be unreadable; retain-on-error items keep their destination copy.
    f.ignored = !onDestination ? (job.verdict.optional || job.verdict.retainOnError) : job.verdict.retainOnError;
    if (onDestination && ErrorLedger::isFatalOnDestination(error)) f.ignored = false;
    ctx.errors.record(f);
}

void ItemCopier::discard(const ItemJob& job, const std::string& tmp) {
    if (::unlinkat(job.dstDir->get(), tmp.c_str(), 0) != 0 && errno != ENOENT) {
        Log::f("Copier", "could not remove the temporary file {} in {}: {}", tmp, ctx_.dstPath(job.rel),
               ErrnoText::describe(errno));
    }
}

bool ItemCopier::renameIntoPlace(const ItemJob& job, const std::string& tmp, const char* verb) {
    if (::renameat(job.dstDir->get(), tmp.c_str(), job.dstDir->get(), baseName(job.rel)) != 0) {
        int e = errno;
        discard(job, tmp);
        report(ctx_, job, verb, e, "rename", true);
        return false;
    }
    return true;
}

ItemCopier::Placed ItemCopier::copyFile(const ItemJob& job) {
    std::int64_t workDone = 0;
    auto settleWork = [&](std::int64_t total) {
        if (total > workDone) ctx_.counters.workDoneBytes += total - workDone;
        workDone = total;
    };
    // Copies still queued when the run stops are dropped without touching anything.
    if (ctx_.stop.stopping()) {
        settleWork(job.source.size);
        return {};
    }
    SlotActivity activity(ctx_, slot_, ActivityBoard::Kind::copy, job.rel);
    InFlight inFlight(ctx_.counters.copiesInFlight);
    const char* name = baseName(job.rel);

    // Non-blocking, so a file replaced by a FIFO since the listing cannot hang the copy.
    int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
#ifdef O_NOATIME
    const bool mayNoAtime = ctx_.meta.policy().euid == 0 || ctx_.meta.policy().euid == job.source.uid;
    if (mayNoAtime) flags |= O_NOATIME;
#endif
    UniqueFd src(::openat(job.srcDir->get(), name, flags));
#ifdef O_NOATIME
    if (!src.valid() && errno == EPERM && mayNoAtime) src.reset(::openat(job.srcDir->get(), name, flags & ~O_NOATIME));
#endif
    if (!src.valid()) {
        int e = errno;
        settleWork(job.source.size);
        if (e == ENOENT) {
            Log::f("Copier", "source item vanished before it was copied: {}", ctx_.srcPath(job.rel));
            return {};
        }
        if (KeybagProbe::isKeyAbsent(e) && ctx_.keybag.locked()) {
            ctx_.deferred.add(ctx_.srcPath(job.rel));
            Log::f("Copier", "deferred (its key is absent while the keybag is locked): {}", ctx_.srcPath(job.rel));
            return {};
        }
        report(ctx_, job, "COPIED", e, "open", false);
        return {};
    }
    struct stat st;
    if (::fstat(src.get(), &st) != 0) {
        int e = errno;
        settleWork(job.source.size);
        report(ctx_, job, "COPIED", e, "fstat", false);
        return {};
    }
    const EntryInfo fresh = EntryInfo::fromStat(job.source.name, st);
    if (!fresh.isRegular()) {
        settleWork(job.source.size);
        Log::f("Copier", "source item changed type before it was copied; left for the next run: {}", ctx_.srcPath(job.rel));
        return {};
    }

    const std::string tmp = TempNames::make();
    DataCopier::Request request;
    request.srcFd = src.get();
    request.size = fresh.size;
    request.sparse = fresh.looksSparse();
    request.sameFilesystem = fresh.dev == ctx_.dstRootDev;
    request.cloneAllowed = ctx_.options.cloneFamilies;
    request.dstDirFd = job.dstDir->get();
    request.tmpName = tmp.c_str();
    request.createMode = fresh.permissions() & 0777;
    request.chunkBytes = ctx_.bandwidth.limited() ? (256 << 10) : (8 << 20);
    request.progress = [&](std::int64_t work, std::int64_t written) {
        workDone += work;
        ctx_.counters.workDoneBytes += work;
        ctx_.counters.bytesCopied += written;
        ctx_.bandwidth.consume(written);
        ctx_.board.progress(slot_, ctx_.clock.now());
        return !ctx_.stop.stopping();
    };
    DataCopier::Outcome out = data_.copy(request);
    UniqueFd dst(out.fd);
    const char* verb = out.cloned ? "CLONED" : "COPIED";
    if (out.cancelled || out.error != 0) {
        if (dst.valid()) {
            dst.reset();
            discard(job, tmp);
        }
        settleWork(job.source.size);
        if (out.error != 0) report(ctx_, job, verb, out.error, out.syscall, out.onDestination);
        return {};
    }

    auto failAfterData = [&](int e, const std::string& syscall) {
        dst.reset();
        discard(job, tmp);
        report(ctx_, job, verb, e, syscall, true);
        return Placed{};
    };
    const unsigned needed = out.cloned ? (metaOwner | metaMode | metaXattrs | metaAcl)
                                       : ctx_.meta.neededAfterCreation(fresh, job.createdGid, request.createMode);
    if (auto f = ctx_.meta.apply(fresh, XattrTarget::ofFd(src.get()), XattrTarget::ofFd(dst.get()), needed,
                                 job.removeExtraXattrs)) {
        return failAfterData(f->error, f->syscall);
    }
    if (auto f = MetadataSync::setTimes(dst.get(), fresh)) return failAfterData(f->error, f->syscall);
    ino_t destIno = 0;
    if (fresh.nlink > 1) {
        struct stat dst_st;
        if (::fstat(dst.get(), &dst_st) == 0) destIno = dst_st.st_ino;
    }
    // close() is where some filesystems (network ones) report a failed write.
    int closeResult = ::close(dst.release());
    if (closeResult != 0 && errno != EINTR) {
        int e = errno;
        discard(job, tmp);
        report(ctx_, job, verb, e, "close", true);
        return {};
    }
    // A source that changed while it was copied keeps a newer time than the one given to the
    // copy, so the next run copies it again.
    if (!renameIntoPlace(job, tmp, verb)) return {};
    settleWork(job.source.size);
    ++ctx_.counters.filesCompleted;
    ++ctx_.counters.itemsCopied;
    return {true, destIno};
}

bool ItemCopier::copySymlink(const ItemJob& job) {
    SlotActivity activity(ctx_, slot_, ActivityBoard::Kind::copy, job.rel);
    const char* name = baseName(job.rel);
    std::string target(static_cast<size_t>(job.source.size > 0 ? job.source.size : 64) + 1, '\0');
    for (;;) {
        ssize_t n = ::readlinkat(job.srcDir->get(), name, target.data(), target.size());
        if (n < 0) {
            int e = errno;
            if (e == ENOENT) return false;
            report(ctx_, job, "SYMLINKED", e, "readlink", false);
            return false;
        }
        if (static_cast<size_t>(n) < target.size()) {
            target.resize(static_cast<size_t>(n));
            break;
        }
        target.resize(target.size() * 2);
    }
    const std::string tmp = TempNames::make();
    if (::symlinkat(target.c_str(), job.dstDir->get(), tmp.c_str()) != 0) {
        report(ctx_, job, "SYMLINKED", errno, "symlink", true);
        return false;
    }
    auto dstAt = XattrTarget::at(job.dstDir->get(), tmp.c_str());
    if (auto f = ctx_.meta.apply(job.source, XattrTarget::at(job.srcDir->get(), name), dstAt,
                                 metaOwner | metaXattrs | metaAcl, false)) {
        discard(job, tmp);
        report(ctx_, job, "SYMLINKED", f->error, f->syscall, true);
        return false;
    }
    if (auto f = MetadataSync::setTimesAt(job.dstDir->get(), tmp.c_str(), job.source)) {
        discard(job, tmp);
        report(ctx_, job, "SYMLINKED", f->error, f->syscall, true);
        return false;
    }
    if (!renameIntoPlace(job, tmp, "SYMLINKED")) return false;
    ++ctx_.counters.filesCompleted;
    ++ctx_.counters.itemsCopied;
    return true;
}

bool ItemCopier::copySpecial(const ItemJob& job) {
    SlotActivity activity(ctx_, slot_, ActivityBoard::Kind::copy, job.rel);
    const char* name = baseName(job.rel);
    const std::string tmp = TempNames::make();
    int r;
    if (S_ISFIFO(job.source.mode)) {
        r = ::mkfifoat(job.dstDir->get(), tmp.c_str(), 0600);
    } else {
        r = ::mknodat(job.dstDir->get(), tmp.c_str(), job.source.type() | 0600, job.source.rdev);
    }
    if (r != 0) {
        report(ctx_, job, "CREATED", errno, S_ISFIFO(job.source.mode) ? "mkfifo" : "mknod", true);
        return false;
    }
    auto dstAt = XattrTarget::at(job.dstDir->get(), tmp.c_str());
    if (auto f = ctx_.meta.apply(job.source, XattrTarget::at(job.srcDir->get(), name), dstAt,
                                 metaOwner | metaMode | metaXattrs | metaAcl, job.removeExtraXattrs)) {
        discard(job, tmp);
        report(ctx_, job, "CREATED", f->error, f->syscall, true);
        return false;
    }
    if (auto f = MetadataSync::setTimesAt(job.dstDir->get(), tmp.c_str(), job.source)) {
        discard(job, tmp);
        report(ctx_, job, "CREATED", f->error, f->syscall, true);
        return false;
    }
    if (!renameIntoPlace(job, tmp, "CREATED")) return false;
    ++ctx_.counters.filesCompleted;
    ++ctx_.counters.itemsCopied;
    return true;
}

bool ItemCopier::linkTo(const ItemJob& job, const std::string& firstDestRelative) {
    SlotActivity activity(ctx_, slot_, ActivityBoard::Kind::copy, job.rel);
    const std::string tmp = TempNames::make();
    if (::linkat(ctx_.dstRootFd, firstDestRelative.c_str(), job.dstDir->get(), tmp.c_str(), 0) != 0) {
        report(ctx_, job, "LINKED", errno, "link", true);
        return false;
    }
    if (!renameIntoPlace(job, tmp, "LINKED")) return false;
    ++ctx_.counters.filesCompleted;
    ++ctx_.counters.itemsCopied;
    ctx_.counters.workDoneBytes += job.source.size;
    return true;
}

}  // namespace ql
