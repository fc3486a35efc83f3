#include "qlcopy/TreeWalker.h"

#include "QLSupport/Log.h"
#include "qlcopy/ErrnoText.h"
#include "qlcopy/TempNames.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ql {
namespace {

bool earlier(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

bool hasDefaultAcl(int fd) {
    std::string value;
    return XattrIO::get(XattrTarget::ofFd(fd), "system.posix_acl_default", value) == 0;
}

std::string withoutLeadingSlash(const std::string& rel) { return rel.empty() ? std::string(".") : rel.substr(1); }

}  // namespace

TreeWalker::TreeWalker(EngineContext& ctx, CopyWorkerPool& pool, DirRetimeJournal& journal)
    : ctx_(ctx),
      pool_(pool),
      journal_(journal),
      comparator_(ctx.options.copyMode, ctx.timeGranularityNs, ctx.meta),
      copier_(ctx, 0),
      deleter_(ctx) {
    // One copier per copy thread (each owns its data buffer); index 0 is the walker's own.
    for (int i = 0; i <= std::max(1, pool.workers()); ++i) workerCopiers_.push_back(std::make_unique<ItemCopier>(ctx, i));
}

// Attributes are read only when the source's status changed after the destination's: every
// write of ours to a destination item (data, attributes, mode) moves its change time past the
// source's, and a later change of the source's attributes moves the source's past that.
bool TreeWalker::attributesMayDiffer(const EntryInfo& s, const EntryInfo& d) const { return !earlier(s.ctime, d.ctime); }

// What a new item in the frame's destination folder inherits: a default ACL, and the folder's
// group when the folder has the set-group-ID bit.
void TreeWalker::noteDestFolder(Frame& frame) {
    frame.dstDefaultAcl = hasDefaultAcl(frame.dst->get());
    struct stat st;
    frame.createdGid = ::fstat(frame.dst->get(), &st) == 0 && (st.st_mode & S_ISGID) ? st.st_gid
                                                                                    : ctx_.meta.policy().egid;
}

// Without root, a folder whose mode takes away the owner's own access would block writing
// inside it: such a mode is set in the final pass instead.
bool TreeWalker::modeCanWait(const EntryInfo& dir) const {
    return !ctx_.meta.policy().manageOwners && (dir.permissions() & S_IRWXU) != S_IRWXU;
}

void TreeWalker::countSkipped(const EntryInfo& s) {
    if (s.isDirectory()) return;
    ++ctx_.counters.filesSkipped;
    if (s.isRegular()) {
        ctx_.counters.bytesSkipped += s.size;
        ctx_.counters.workDoneBytes += s.size;
    }
}

void TreeWalker::countMetaReasons(unsigned reasons) {
    for (const auto& word : metaReasonWords(reasons)) ++metaReasons_[word];
}

void TreeWalker::journalRetime(const Frame& frame, bool modeHeldBack) {
    if (ctx_.dryRun || !frame.dst) return;
    DirRetimeJournal::Record r;
    r.destRelative = withoutLeadingSlash(frame.rel);
    r.atime = frame.srcSelf.atime;
    r.mtime = frame.srcSelf.mtime;
    r.mode = frame.srcSelf.permissions();
    r.setMode = modeHeldBack;
    if (!journal_.append(r)) {
        Log::f("Walker", "could not note {} for the folder-time pass: {}", ctx_.dstPath(frame.rel), ErrnoText::describe(errno));
        return;
    }
    ++ctx_.counters.dirsRetimeTotal;
}

void TreeWalker::run(SharedFd srcRoot, const EntryInfo& srcRootInfo, SharedFd dstRoot, const EntryInfo* dstRootInfo) {
    Frame root;
    root.src = std::move(srcRoot);
    root.dst = std::move(dstRoot);
    root.scope = ctx_.rules.rootScope();
    root.srcSelf = srcRootInfo;
    root.dstFresh = !dstRootInfo;
    if (root.dst) {
        if (dstRootInfo) {
            syncFolderMetadata(root, *dstRootInfo, "", PathVerdict{});
        } else if (!ctx_.dryRun) {
            // Made by the engine just now: give it the source root's owner, attributes and mode.
            if (auto f = ctx_.meta.apply(srcRootInfo, XattrTarget::ofFd(root.src->get()),
                                         XattrTarget::ofFd(root.dst->get()),
                                         metaOwner | metaXattrs | metaAcl | (modeCanWait(srcRootInfo) ? 0u : metaMode),
                                         false)) {
                ItemJob job;
                job.rel = "";
                ItemCopier::report(ctx_, job, "CREATED", f->error, f->syscall, true);
            }
            journalRetime(root, modeCanWait(srcRootInfo));
        }
        noteDestFolder(root);
    }
    processDirectory(root);
}

void TreeWalker::processDirectory(Frame& frame) {
    if (ctx_.stop.stopping()) return;
    const std::string shown = EngineContext::display(frame.rel);
    ctx_.board.begin(0, ActivityBoard::Kind::listing, shown, ctx_.clock.now());
    DirectoryListing src = DirectoryLister::list(
        frame.src->get(), [&](std::int64_t n) { ctx_.board.progress(0, ctx_.clock.now(), n); });
    const bool sourceComplete = src.complete();
    ItemJob self;
    self.rel = frame.rel;
    if (!sourceComplete) {
        ItemCopier::report(ctx_, self, "COPIED", src.openError ? src.openError : src.readError, "readdir", false);
        if (frame.dst && ctx_.options.deleteExtraneous) {
            ctx_.errors.warn("delete_skipped",
                             fmt::format("{} couldn't be read completely — nothing was deleted from {}",
                                         ctx_.srcPath(frame.rel), ctx_.dstPath(frame.rel)),
                             ctx_.srcPath(frame.rel));
        }
        if (src.openError) return;
    }
    for (const auto& f : src.statFailures) {
        ItemJob job;
        job.rel = frame.rel + "/" + f.name;
        job.verdict = frame.scope->verdict(f.name, false);
        ItemCopier::report(ctx_, job, "COPIED", f.error, "lstat", false);
    }

    DirectoryListing dst;
    bool destComplete = true;
    if (frame.dst && !frame.dstFresh) {
        ctx_.board.begin(0, ActivityBoard::Kind::stat, shown, ctx_.clock.now());
        dst = DirectoryLister::list(frame.dst->get(),
                                    [&](std::int64_t n) { ctx_.board.progress(0, ctx_.clock.now(), n); });
        destComplete = dst.complete();
        if (!destComplete) {
            ItemCopier::report(ctx_, self, "COPIED", dst.openError ? dst.openError : dst.readError, "readdir", true);
            if (dst.openError) return;
        }
        for (const auto& f : dst.statFailures) {
            ItemJob job;
            job.rel = frame.rel + "/" + f.name;
            ItemCopier::report(ctx_, job, "COPIED", f.error, "lstat", true);
        }
        // Temporary files of an interrupted run are ours to remove.
        auto isTemp = [](const EntryInfo& e) { return TempNames::isTemporary(e.name); };
        for (const auto& e : dst.entries) {
            if (!isTemp(e) || ctx_.dryRun) continue;
            if (::unlinkat(frame.dst->get(), e.name.c_str(), 0) == 0) {
                Log::f("Walker", "removed a leftover temporary file {}", ctx_.dstPath(frame.rel + "/" + e.name));
            }
        }
        dst.entries.erase(std::remove_if(dst.entries.begin(), dst.entries.end(), isTemp), dst.entries.end());
    }
    ctx_.board.begin(0, ActivityBoard::Kind::stat, shown, ctx_.clock.now());

    // Names the source has, even those whose status could not be read: never deleted.
    std::vector<std::string_view> sourceNames;
    sourceNames.reserve(src.entries.size() + src.statFailures.size());
    for (const auto& e : src.entries) sourceNames.emplace_back(e.name);
    for (const auto& f : src.statFailures) sourceNames.emplace_back(f.name);
    std::sort(sourceNames.begin(), sourceNames.end());
    std::vector<std::string_view> unknownDest;
    for (const auto& f : dst.statFailures) unknownDest.emplace_back(f.name);
    std::sort(unknownDest.begin(), unknownDest.end());

    // First the destination's extra items, so their space is free before anything is written.
    for (const auto& d : dst.entries) {
        if (ctx_.stop.stopping()) return;
        if (!std::binary_search(sourceNames.begin(), sourceNames.end(), std::string_view(d.name))) {
            handleDestOnly(frame, d, sourceComplete && destComplete);
        }
    }
    // Then every source item against its counterpart (both lists are sorted by name).
    auto di = dst.entries.begin();
    for (const auto& s : src.entries) {
        if (ctx_.stop.stopping()) return;
        while (di != dst.entries.end() && di->name < s.name) ++di;
        const EntryInfo* d = (di != dst.entries.end() && di->name == s.name) ? &*di : nullptr;
        if (!d && std::binary_search(unknownDest.begin(), unknownDest.end(), std::string_view(s.name))) continue;
        handleSource(frame, s, d);
        ctx_.board.begin(0, ActivityBoard::Kind::stat, shown, ctx_.clock.now());
    }
}

void TreeWalker::handleDestOnly(Frame& frame, const EntryInfo& d, bool sourceComplete) {
    const std::string rel = frame.rel + "/" + d.name;
    const bool dir = d.isDirectory();
    if (!ctx_.options.deleteExtraneous) {
        ctx_.items.dest(rel, "keep", dir, "not-in-source");
        return;
    }
    if (!sourceComplete) {
        ctx_.items.dest(rel, "keep", dir, "source-unreadable");
        return;
    }
    PathVerdict v = frame.scope->verdict(d.name, dir);
    if (v.preserve != PreserveKind::none) {
        ctx_.items.dest(rel, "keep", dir, "preserved");
        return;
    }
    if (!v.selected && !(dir && v.mayHoldSelected)) {
        ctx_.items.dest(rel, "keep", dir, "not-selected");
        return;
    }
    deleter_.remove(frame.dst->get(), d, rel, *frame.scope, !v.selected);
}

void TreeWalker::handleSource(Frame& frame, const EntryInfo& s, const EntryInfo* d) {
    const std::string rel = frame.rel + "/" + s.name;
    ++ctx_.counters.itemsEvaluated;
    if (!s.isDirectory()) {
        ++ctx_.counters.filesEvaluated;
        if (s.isRegular()) ctx_.counters.bytesEvaluated += s.size;
    }
    PathVerdict v = frame.scope->verdict(s.name, s.isDirectory());
    if (!v.selected) {
        if (s.isDirectory() && v.mayHoldSelected) {
            handleDirectory(frame, s, d, v);
            return;
        }
        ctx_.items.source(rel, "skip", false, s.isDirectory(), "excluded");
        if (d) ctx_.items.dest(rel, "keep", d->isDirectory(), "not-selected");
        return;
    }
    if (s.isDirectory()) {
        handleDirectory(frame, s, d, v);
        return;
    }
    ++ctx_.counters.filesSelected;
    if (s.isRegular()) ctx_.counters.bytesSelected += s.size;
    // "preserve" keeps the destination's item as it is, whatever the source has.
    if (d && v.preserve == PreserveKind::preserve) {
        ctx_.items.source(rel, "keep", true, false, "preserved");
        ctx_.items.dest(rel, "keep", d->isDirectory(), "preserved");
        countSkipped(s);
        return;
    }
    if (s.isRegular() && s.nlink > 1) {
        handleHardLink(frame, s, d, v, rel);
        return;
    }

    std::string srcTarget, dstTarget;
    const bool bothLinks = d && s.isSymlink() && d->isSymlink();
    if (bothLinks && frame.dst) {
        auto readTarget = [](int dirFd, const std::string& name, std::int64_t size, std::string& out) {
            out.resize(static_cast<size_t>(size > 0 ? size : 64) + 1);
            ssize_t n = ::readlinkat(dirFd, name.c_str(), out.data(), out.size());
            out.resize(n < 0 ? 0 : static_cast<size_t>(n));
        };
        readTarget(frame.src->get(), s.name, s.size, srcTarget);
        readTarget(frame.dst->get(), d->name, d->size, dstTarget);
    }
    Comparator::Decision decision = comparator_.decide(s, d, bothLinks ? &srcTarget : nullptr,
                                                       bothLinks ? &dstTarget : nullptr);
    if ((decision.action == Comparator::Action::upToDate || decision.action == Comparator::Action::metaOnly) && d &&
        frame.dst && attributesMayDiffer(s, *d)) {
        unsigned attrs = ctx_.meta.attributeDifferences(XattrTarget::at(frame.src->get(), s.name.c_str()),
                                                        XattrTarget::at(frame.dst->get(), d->name.c_str()));
        if (attrs) {
            decision.action = Comparator::Action::metaOnly;
            decision.reason = "meta";
            decision.metaReasons |= attrs;
        }
    }

    switch (decision.action) {
        case Comparator::Action::add:
        case Comparator::Action::update:
        case Comparator::Action::replace: {
            const char* word = Comparator::actionWord(decision.action);
            ctx_.items.source(rel, word, true, false, decision.reason);
            ctx_.items.dest(rel, word, false, decision.reason);
            if (d && d->isDirectory() && !clearForReplacement(frame, *d, rel, "COPIED", v)) {
                countSkipped(s);
                return;
            }
            placeItem(frame, s, v, rel);
            return;
        }
        case Comparator::Action::metaOnly:
            ctx_.items.source(rel, "update", true, false, decision.reason);
            ctx_.items.dest(rel, "update", false, decision.reason);
            updateMetadataOnly(frame, s, *d, v, rel, decision.metaReasons);
            countSkipped(s);
            return;
        case Comparator::Action::upToDate:
        case Comparator::Action::destNewer:
            ctx_.items.source(rel, "keep", true, false, decision.reason);
            ctx_.items.dest(rel, "keep", false, decision.reason);
            countSkipped(s);
            return;
    }
}

void TreeWalker::placeItem(Frame& frame, const EntryInfo& s, const PathVerdict& v, const std::string& rel) {
    if (ctx_.dryRun) {
        // What a real run would write.
        ++ctx_.counters.filesCompleted;
        ++ctx_.counters.itemsCopied;
        if (s.isRegular()) {
            ctx_.counters.bytesCopied += s.size;
            ctx_.counters.workDoneBytes += s.size;
        }
        return;
    }
    if (!ensureDest(frame)) {
        if (s.isRegular()) ctx_.counters.workDoneBytes += s.size;
        return;
    }
    ItemJob job;
    job.srcDir = frame.src;
    job.dstDir = frame.dst;
    job.source = s;
    job.rel = rel;
    job.removeExtraXattrs = frame.dstDefaultAcl;
    job.createdGid = frame.createdGid;
    job.verdict = v;
    if (s.isRegular()) {
        // The walker is not stuck while it waits for room in the copy queue.
        ctx_.board.end(0);
        pool_.submit([this, job = std::move(job)](int worker) {
            workerCopiers_.at(static_cast<size_t>(worker))->copyFile(job);
        });
    } else if (s.isSymlink()) {
        copier_.copySymlink(job);
    } else {
        copier_.copySpecial(job);
    }
}

void TreeWalker::updateMetadataOnly(Frame& frame, const EntryInfo& s, const EntryInfo& d, const PathVerdict& v,
                                    const std::string& rel, unsigned reasons) {
    (void)d;
    ++ctx_.counters.itemsUpdatedMetaOnly;
    countMetaReasons(reasons);
    if (ctx_.dryRun) return;
    ItemJob job;
    job.rel = rel;
    job.verdict = v;
    auto src = XattrTarget::at(frame.src->get(), s.name.c_str());
    auto dst = XattrTarget::at(frame.dst->get(), s.name.c_str());
    if (auto f = ctx_.meta.apply(s, src, dst, reasons, (reasons & (metaXattrs | metaAcl)) != 0)) {
        ItemCopier::report(ctx_, job, "UPDATED", f->error, f->syscall, true);
        return;
    }
    if (reasons & metaTimes) {
        if (auto f = MetadataSync::setTimesAt(frame.dst->get(), s.name.c_str(), s)) {
            ItemCopier::report(ctx_, job, "UPDATED", f->error, f->syscall, true);
        }
    }
}

void TreeWalker::syncFolderMetadata(Frame& frame, const EntryInfo& d, const std::string& rel, const PathVerdict& v) {
    unsigned reasons = ctx_.meta.statusDifferences(frame.srcSelf, d);
    if (attributesMayDiffer(frame.srcSelf, d)) {
        reasons |= ctx_.meta.attributeDifferences(XattrTarget::ofFd(frame.src->get()), XattrTarget::ofFd(frame.dst->get()));
    }
    const bool modeWaits = (reasons & metaMode) && modeCanWait(frame.srcSelf);
    if (reasons) {
        ++ctx_.counters.itemsUpdatedMetaOnly;
        countMetaReasons(reasons);
        if (!rel.empty()) {
            ctx_.items.source(rel, "update", true, true, "meta");
            ctx_.items.dest(rel, "update", true, "meta");
        }
        if (!ctx_.dryRun) {
            unsigned now = modeWaits ? (reasons & ~metaMode) : reasons;
            if (auto f = ctx_.meta.apply(frame.srcSelf, XattrTarget::ofFd(frame.src->get()),
                                         XattrTarget::ofFd(frame.dst->get()), now,
                                         (reasons & (metaXattrs | metaAcl)) != 0)) {
                ItemJob job;
                job.rel = rel;
                job.verdict = v;
                ItemCopier::report(ctx_, job, "UPDATED", f->error, f->syscall, true);
            }
        }
    } else if (!rel.empty()) {
        ctx_.items.source(rel, "keep", true, true, "up-to-date");
        ctx_.items.dest(rel, "keep", true, "up-to-date");
    }
    journalRetime(frame, modeWaits);
}

bool TreeWalker::clearForReplacement(Frame& frame, const EntryInfo& d, const std::string& rel, const char* verb,
                                     const PathVerdict& v) {
    if (!d.isDirectory()) {
        if (ctx_.dryRun) return true;
        if (::unlinkat(frame.dst->get(), d.name.c_str(), 0) != 0 && errno != ENOENT) {
            ItemJob job;
            job.rel = rel;
            job.verdict = v;
            ItemCopier::report(ctx_, job, verb, errno, "unlink", true);
            return false;
        }
        return true;
    }
    // A folder in the way: replacing it removes what is inside, which only a deleting run may do.
    if (!ctx_.options.deleteExtraneous) {
        ItemJob job;
        job.rel = rel;
        job.verdict = v;
        ItemCopier::report(ctx_, job, verb, EISDIR, "rename", true);
        return false;
    }
    TreeDeleter::Result r = deleter_.remove(frame.dst->get(), d, rel, *frame.scope);
    if (r == TreeDeleter::Result::deleted) return true;
    if (r == TreeDeleter::Result::kept) {
        ctx_.errors.warn("replace_blocked",
                         fmt::format("{} FAILED {}: rule-conflicting replacement — subtree contains preserved items; "
                                     "the folder was kept",
                                     verb, ctx_.dstPath(rel)),
                         ctx_.dstPath(rel));
    }
    return false;
}

bool TreeWalker::ensureDest(Frame& frame) {
    if (frame.dst) return true;
    if (!frame.parent || ctx_.dryRun) return false;
    if (!ensureDest(*frame.parent)) return false;
    return createFolder(*frame.parent, frame);
}

bool TreeWalker::createFolder(Frame& parent, Frame& child) {
    ItemJob job;
    job.rel = child.rel;
    if (::mkdirat(parent.dst->get(), child.name.c_str(), 0700) != 0 && errno != EEXIST) {
        ItemCopier::report(ctx_, job, "CREATED", errno, "mkdir", true);
        return false;
    }
    UniqueFd fd(::openat(parent.dst->get(), child.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        ItemCopier::report(ctx_, job, "CREATED", errno, "open", true);
        return false;
    }
    const bool modeWaits = modeCanWait(child.srcSelf);
    if (auto f = ctx_.meta.apply(child.srcSelf, XattrTarget::ofFd(child.src->get()), XattrTarget::ofFd(fd.get()),
                                 metaOwner | metaXattrs | metaAcl | (modeWaits ? 0u : metaMode), parent.dstDefaultAcl)) {
        ItemCopier::report(ctx_, job, "CREATED", f->error, f->syscall, true);
    }
    child.dst = shareFd(fd.release());
    noteDestFolder(child);
    child.dstFresh = true;
    child.pending = false;
    ++ctx_.counters.itemsCopied;
    journalRetime(child, modeWaits);
    return true;
}

void TreeWalker::handleDirectory(Frame& frame, const EntryInfo& s, const EntryInfo* d, const PathVerdict& v) {
    const std::string rel = frame.rel + "/" + s.name;
    if (ctx_.stop.stopping()) return;

    Frame child;
    child.parent = &frame;
    child.rel = rel;
    child.name = s.name;
    child.srcSelf = s;
    const bool crossesMount = s.dev != ctx_.srcRootDev;

    ItemJob job;
    job.rel = rel;
    job.verdict = v;
    if (!crossesMount) {
        UniqueFd fd(::openat(frame.src->get(), s.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.valid()) {
            int e = errno;
            if (e == ENOENT) return;  // vanished
            ItemCopier::report(ctx_, job, "COPIED", e, "open", false);
            if (d) {
                ctx_.errors.warn("folder_unreadable",
                                 fmt::format("{} couldn't be read — its copy {} was left alone", ctx_.srcPath(rel),
                                             ctx_.dstPath(rel)),
                                 ctx_.srcPath(rel), e);
            }
            return;
        }
        child.src = shareFd(fd.release());
    } else {
        ctx_.events.emit(Json{{"type", "info"},
                              {"kind", "mount_point"},
                              {"message", fmt::format("{} is another filesystem's mount point — copied as an empty folder",
                                                      ctx_.srcPath(rel))},
                              {"path", ctx_.srcPath(rel)}});
        UniqueFd fd(::openat(frame.src->get(), s.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.valid()) return;
        child.src = shareFd(fd.release());
    }
    child.scope = frame.scope->enter(s.name);

    if (d && d->isDirectory()) {
        if (d->dev != ctx_.dstRootDev) {
            ctx_.errors.warn("mount_point",
                             fmt::format("{} is another filesystem mounted inside the destination — left alone",
                                         ctx_.dstPath(rel)),
                             ctx_.dstPath(rel));
            return;
        }
        if (frame.dst) {
            UniqueFd fd(::openat(frame.dst->get(), s.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!fd.valid()) {
                ItemCopier::report(ctx_, job, "COPIED", errno, "open", true);
                return;
            }
            child.dst = shareFd(fd.release());
            noteDestFolder(child);
        }
        if (v.selected) {
            syncFolderMetadata(child, *d, rel, v);
        } else {
            ctx_.items.source(rel, "skip", false, true, "excluded");
            ctx_.items.dest(rel, "keep", true, "not-selected");
            journalRetime(child, false);
        }
    } else {
        if (d && !clearForReplacement(frame, *d, rel, "CREATED", v)) return;
        if (!v.selected) {
            // Created only if something inside is copied.
            child.pending = true;
            ctx_.items.source(rel, "skip", false, true, "excluded");
        } else {
            const char* word = d ? "update" : "add";
            ctx_.items.source(rel, word, true, true, d ? "type" : "new");
            ctx_.items.dest(rel, word, true, d ? "type" : "new");
            if (ctx_.dryRun) {
                ++ctx_.counters.itemsCopied;
                child.dstFresh = true;
            } else {
                if (!ensureDest(frame) || !createFolder(frame, child)) return;
            }
        }
        child.dstFresh = true;
    }
    if (crossesMount) return;
    processDirectory(child);
}

void TreeWalker::handleHardLink(Frame& frame, const EntryInfo& s, const EntryInfo* d, const PathVerdict& v,
                                const std::string& rel) {
    if (auto placed = links_.find(s.dev, s.ino)) {
        links_.linkSeen(s.dev, s.ino);
        if (d && d->isRegular() && placed->destIno != 0 && d->ino == placed->destIno) {
            ctx_.items.source(rel, "keep", true, false, "linked");
            ctx_.items.dest(rel, "keep", false, "linked");
            countSkipped(s);
            return;
        }
        const char* word = d ? "update" : "add";
        ctx_.items.source(rel, word, true, false, "link");
        ctx_.items.dest(rel, word, false, "link");
        if (ctx_.dryRun) {
            ++ctx_.counters.filesCompleted;
            ++ctx_.counters.itemsCopied;
            ctx_.counters.workDoneBytes += s.size;
            return;
        }
        if (d && d->isDirectory() && !clearForReplacement(frame, *d, rel, "LINKED", v)) {
            ctx_.counters.workDoneBytes += s.size;
            return;
        }
        if (!ensureDest(frame) || placed->destIno == 0) {
            ctx_.counters.workDoneBytes += s.size;
            return;
        }
        ItemJob job;
        job.srcDir = frame.src;
        job.dstDir = frame.dst;
        job.source = s;
        job.rel = rel;
        job.verdict = v;
        copier_.linkTo(job, placed->destRelative);
        return;
    }

    // The first link of this inode seen in the tree: an ordinary file, copied right here (so a
    // later link can point at it at once).
    Comparator::Decision decision = comparator_.decide(s, d);
    if ((decision.action == Comparator::Action::upToDate || decision.action == Comparator::Action::metaOnly) && d &&
        frame.dst && attributesMayDiffer(s, *d)) {
        if (unsigned attrs = ctx_.meta.attributeDifferences(XattrTarget::at(frame.src->get(), s.name.c_str()),
                                                            XattrTarget::at(frame.dst->get(), d->name.c_str()))) {
            decision.action = Comparator::Action::metaOnly;
            decision.reason = "meta";
            decision.metaReasons |= attrs;
        }
    }
    const std::string destRelative = rel.substr(1);
    switch (decision.action) {
        case Comparator::Action::add:
        case Comparator::Action::update:
        case Comparator::Action::replace: {
            const char* word = Comparator::actionWord(decision.action);
            ctx_.items.source(rel, word, true, false, decision.reason);
            ctx_.items.dest(rel, word, false, decision.reason);
            if (ctx_.dryRun) {
                ++ctx_.counters.filesCompleted;
                ++ctx_.counters.itemsCopied;
                ctx_.counters.bytesCopied += s.size;
                ctx_.counters.workDoneBytes += s.size;
                links_.place(s.dev, s.ino, s.nlink, {destRelative, 0});
                return;
            }
            if (d && d->isDirectory() && !clearForReplacement(frame, *d, rel, "COPIED", v)) {
                ctx_.counters.workDoneBytes += s.size;
                return;
            }
            if (!ensureDest(frame)) {
                ctx_.counters.workDoneBytes += s.size;
                return;
            }
            ItemJob job;
            job.srcDir = frame.src;
            job.dstDir = frame.dst;
            job.source = s;
            job.rel = rel;
            job.removeExtraXattrs = frame.dstDefaultAcl;
            job.createdGid = frame.createdGid;
            job.verdict = v;
            ItemCopier::Placed placed = copier_.copyFile(job);
            if (placed.ok) links_.place(s.dev, s.ino, s.nlink, {destRelative, placed.destIno});
            return;
        }
        case Comparator::Action::metaOnly:
            ctx_.items.source(rel, "update", true, false, decision.reason);
            ctx_.items.dest(rel, "update", false, decision.reason);
            updateMetadataOnly(frame, s, *d, v, rel, decision.metaReasons);
            countSkipped(s);
            links_.place(s.dev, s.ino, s.nlink, {destRelative, d->ino});
            return;
        case Comparator::Action::upToDate:
        case Comparator::Action::destNewer:
            ctx_.items.source(rel, "keep", true, false, decision.reason);
            ctx_.items.dest(rel, "keep", false, decision.reason);
            countSkipped(s);
            links_.place(s.dev, s.ino, s.nlink, {destRelative, d->ino});
            return;
    }
}

}  // namespace ql
