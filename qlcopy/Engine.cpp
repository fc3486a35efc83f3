#include "qlcopy/Engine.h"

#include "QLSupport/Log.h"
#include "qlcopy/ActiveClock.h"
#include "qlcopy/ActivityBoard.h"
#include "qlcopy/BandwidthLimiter.h"
#include "qlcopy/CopyWorkerPool.h"
#include "qlcopy/DataCopier.h"
#include "qlcopy/DeferredList.h"
#include "qlcopy/DirRetimeJournal.h"
#include "qlcopy/EngineContext.h"
#include "qlcopy/EngineCounters.h"
#include "qlcopy/ErrnoText.h"
#include "qlcopy/ErrorLedger.h"
#include "qlcopy/EventWriter.h"
#include "qlcopy/FilesystemTraits.h"
#include "qlcopy/ItemReporter.h"
#include "qlcopy/KeybagProbe.h"
#include "qlcopy/MediumProbe.h"
#include "qlcopy/MetadataSync.h"
#include "qlcopy/ProgressReporter.h"
#include "qlcopy/RuleSetLoader.h"
#include "qlcopy/ScoutPass.h"
#include "qlcopy/SignalWatcher.h"
#include "qlcopy/SnapshotSource.h"
#include "qlcopy/StateFile.h"
#include "qlcopy/StopControl.h"
#include "qlcopy/TreeWalker.h"
#include "qlcopy/UniqueFd.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace ql {
namespace {

constexpr std::chrono::milliseconds stopGrace{6000};

std::string realPathOf(const std::string& path) {
    char resolved[PATH_MAX];
    if (!::realpath(path.c_str(), resolved)) return path;
    return resolved;
}

bool isWithin(const std::string& inner, const std::string& outer) {
    if (inner == outer) return true;
    if (outer == "/") return true;
    return inner.size() > outer.size() && inner.compare(0, outer.size(), outer) == 0 && inner[outer.size()] == '/';
}

std::string trimTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

void raiseDescriptorLimit() {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 1 << 16);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int automaticWorkers() {
    unsigned cores = std::thread::hardware_concurrency();
    if (cores == 0) cores = 2;
    return static_cast<int>(std::clamp(cores, 2u, 4u));
}

Json failureEvent(const EngineFailure& f) {
    Json e = {{"type", "failure"}, {"message", f.message}};
    if (!f.kind.empty()) e["kind"] = f.kind;
    if (!f.path.empty()) e["path"] = f.path;
    if (f.error != 0) e["errno_value"] = f.error;
    if (!f.syscall.empty()) e["syscall"] = f.syscall;
    if (!f.side.empty()) e["side"] = f.side;
    return e;
}

EngineFailure failureOf(std::string message, const std::string& path, const char* syscall, const char* side, int error) {
    EngineFailure f;
    f.message = std::move(message);
    f.path = path;
    f.syscall = syscall ? syscall : "";
    f.side = side ? side : "";
    f.error = error;
    return f;
}

// The final pass over the destination folders: their times (and the modes that had to wait)
// are set now that nothing more is written inside them.
void retimeFolders(EngineContext& ctx, DirRetimeJournal& journal, std::int64_t dstGranularity) {
    ctx.counters.retimeStarted.store(true);
    std::vector<DirRetimeJournal::Record> heldModes;
    journal.forEach([&](const DirRetimeJournal::Record& r) {
        if (ctx.stop.stopping()) return false;
        ctx.board.begin(0, ActivityBoard::Kind::retime, r.destRelative == "." ? "/" : "/" + r.destRelative,
                        ctx.clock.now());
        struct stat st;
        if (::fstatat(ctx.dstRootFd, r.destRelative.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode)) {
            EntryInfo now = EntryInfo::fromStat("", st);
            if (!FilesystemTraits::sameTime(now.mtime, r.mtime, dstGranularity)) {
                struct timespec times[2] = {r.atime, r.mtime};
                if (::utimensat(ctx.dstRootFd, r.destRelative.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0) {
                    ++ctx.counters.dirsRetimeRestamped;
                } else {
                    ItemFailure f{"UPDATED", ctx.dstPath(r.destRelative == "." ? "" : "/" + r.destRelative), "utimensat",
                                  "dst", errno, false};
                    ctx.errors.record(f);
                }
            }
            if (r.setMode && now.permissions() != r.mode) heldModes.push_back(r);
        }
        ++ctx.counters.dirsRetimeChecked;
        return true;
    });
    // Modes that would have blocked writing go on last, deepest first (a folder's mode may take
    // away the access its subfolders need).
    for (auto it = heldModes.rbegin(); it != heldModes.rend(); ++it) {
        if (::fchmodat(ctx.dstRootFd, it->destRelative.c_str(), it->mode, 0) != 0) {
            ItemFailure f{"UPDATED", ctx.dstPath(it->destRelative == "." ? "" : "/" + it->destRelative), "chmod", "dst",
                          errno, false};
            ctx.errors.record(f);
        }
    }
    ctx.board.end(0);
}

}  // namespace

Engine::Engine(EngineOptions options) : options_(std::move(options)) {}

int Engine::validateScript(const EngineOptions& options) {
    // The caller takes the whole of standard error as the reason: nothing else may go there.
    Log::setSink([](std::string_view) {});
    auto rules = RuleSetLoader::load(options);
    if (!rules) {
        std::string line = rules.error().detail;
        std::replace(line.begin(), line.end(), '\n', ' ');
        std::fprintf(stderr, "%s\n", line.c_str());
        return exitRuleRefused;
    }
    return exitClean;
}

int Engine::run() {
    raiseDescriptorLimit();
    // Items are created with their final permissions; every mode is set explicitly.
    ::umask(0);
    EventWriter events(options_.progressFd);
    EngineCounters counters;
    StopControl stop;
    ErrorLedger errors(events, stop, options_.abortOnErrorCount);

    auto fail = [&](const EngineFailure& f) {
        Log::f("Engine", "FAILED: {}", f.message);
        events.emitTerminal(failureEvent(f));
        return f.exitStatus;
    };

    Log::f("Engine", "qlcopy {} starting: {} → {} (copy mode {}, delete {}, dry run {})", QLCOPY_VERSION,
           options_.source, options_.destination, options_.copyMode == CopyMode::newer ? "newer" : "different",
           options_.deleteExtraneous ? "yes" : "no", options_.dryRun ? "yes" : "no");
    if (options_.consoleHome) Log::f("Engine", "console home {}", *options_.consoleHome);

    // The rule set: refused rules stop the run before anything is touched.
    auto loaded = RuleSetLoader::load(options_);
    if (!loaded) {
        EngineFailure f;
        f.kind = "script_load";
        f.message = "qlcopy.failure.script_load: " + loaded.error().detail;
        f.path = options_.scriptPath.value_or("");
        f.exitStatus = exitRuleRefused;
        return fail(f);
    }
    const SelectionRules& rules = **loaded;

    // Things worth telling once the stream has begun.
    std::vector<Json> notes;
    auto note = [&](const char* kind, std::string message) {
        Log::line("Engine", message);
        notes.push_back(Json{{"type", "info"}, {"kind", kind}, {"message", std::move(message)}});
    };

    // The source root (inside the snapshot when there is one).
    const std::string sourceGiven = trimTrailingSlashes(options_.source);
    std::string sourceRead = sourceGiven;
    if (options_.snapshotMount) {
        auto inSnapshot = SnapshotSource::resolve(sourceGiven, *options_.snapshotMount);
        if (!inSnapshot) {
            return fail(failureOf("The source " + sourceGiven + " can't be located inside the snapshot at " +
                                      *options_.snapshotMount + ": " + inSnapshot.error(),
                                  sourceGiven, "realpath", "src", ENOENT));
        }
        sourceRead = *inSnapshot;
        note("snapshot", fmt::format("src is a snapshot: reading {} from {} (mounted at {})", sourceGiven, sourceRead,
                                     *options_.snapshotMount));
    }
    UniqueFd srcRoot(::open(sourceRead.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!srcRoot.valid()) {
        int e = errno;
        return fail(failureOf(fmt::format("The source folder {} can't be read: {}", sourceRead, ErrnoText::describe(e)),
                              sourceRead, "open", "src", e));
    }
    struct stat srcStat;
    ::fstat(srcRoot.get(), &srcStat);
    const EntryInfo srcRootInfo = EntryInfo::fromStat("", srcStat);

    // The destination root: created when missing (its parent must exist), never in a dry run.
    const std::string destination = trimTrailingSlashes(options_.destination);
    struct stat dstStat;
    bool dstExisted = ::stat(destination.c_str(), &dstStat) == 0;
    if (!dstExisted && errno != ENOENT) {
        int e = errno;
        return fail(failureOf(fmt::format("The destination {} can't be reached: {}", destination, ErrnoText::describe(e)),
                              destination, "stat", "dst", e));
    }
    if (dstExisted && !S_ISDIR(dstStat.st_mode)) {
        return fail(failureOf(fmt::format("The destination {} is not a folder", destination), destination, "stat", "dst",
                              ENOTDIR));
    }
    // Neither root may hold the other: the copy would feed on itself, or delete its own source.
    // (A destination on another filesystem mounted inside the source is fine: the walk does not
    // cross into other filesystems.)
    const std::string realSource = realPathOf(sourceRead);
    std::string realDest = realPathOf(destination);
    dev_t destDevice = dstExisted ? dstStat.st_dev : 0;
    if (!dstExisted) {
        auto slash = destination.rfind('/');
        std::string parent = slash == std::string::npos ? "." : (slash == 0 ? "/" : destination.substr(0, slash));
        std::string leaf = slash == std::string::npos ? destination : destination.substr(slash + 1);
        realDest = realPathOf(parent);
        struct stat parentStat;
        if (::stat(realDest.c_str(), &parentStat) == 0) destDevice = parentStat.st_dev;
        realDest = (realDest == "/" ? "" : realDest) + "/" + leaf;
    }
    if ((dstExisted && srcStat.st_dev == dstStat.st_dev && srcStat.st_ino == dstStat.st_ino) ||
        isWithin(realSource, realDest) || (isWithin(realDest, realSource) && destDevice == srcStat.st_dev)) {
        return fail(failureOf(fmt::format("The source {} and the destination {} overlap — refusing to copy a folder "
                                          "into itself",
                                          realSource, realDest),
                              destination, "realpath", "dst", EINVAL));
    }
    if (!dstExisted && !options_.dryRun) {
        if (::mkdir(destination.c_str(), 0700) != 0) {
            int e = errno;
            return fail(failureOf(fmt::format("The destination folder {} can't be created: {}", destination,
                                              ErrnoText::describe(e)),
                                  destination, "mkdir", "dst", e));
        }
        note("destination_created", fmt::format("created the destination folder {}", destination));
    }
    UniqueFd dstRoot;
    EntryInfo dstRootInfo;
    if (dstExisted || !options_.dryRun) {
        dstRoot.reset(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!dstRoot.valid()) {
            int e = errno;
            return fail(failureOf(fmt::format("The destination folder {} can't be opened: {}", destination,
                                              ErrnoText::describe(e)),
                                  destination, "open", "dst", e));
        }
        ::fstat(dstRoot.get(), &dstStat);
        dstRootInfo = EntryInfo::fromStat("", dstStat);
    }

    // The scan mode, from the state of the previous run.
    const SourceIdentity identity = SourceIdentity::of(srcRoot.get(), sourceGiven);
    const std::string rulesHash = StateFile::hashRules(rules.fingerprint());
    std::optional<StateFile> previous;
    if (options_.statePath) {
        auto read = StateFile::read(*options_.statePath);
        if (read) {
            previous = *read;
        } else {
            Log::f("Engine", "no usable state: {}", read.error());
        }
    }
    const std::string reason = StateFile::fullScanReason(previous, identity, rulesHash);

    events.emit(Json{{"type", "phase_started"}, {"phase", "copyFiles"}});
    events.emit(Json{{"type", "scan_mode"}, {"mode", "full"}, {"reason", reason}});
    Log::f("Engine", "scan mode full ({})", reason);
    for (auto& n : notes) events.emit(std::move(n));

    // Everything the run's threads share.
    const int workers = options_.workers > 0 ? options_.workers : automaticWorkers();
    ActivityBoard board(workers + 1);
    ActiveClock clock;
    ItemReporter items(events, options_.emitItems);
    MetadataSync meta(MetadataSync::Policy{::geteuid() == 0, options_.noOwnersOwner, ::geteuid(), ::getegid()});
    if (options_.noOwnersOwner && ::geteuid() != 0) {
        Log::line("Engine", "not running as root — owners cannot be set, so --map-noowners-owner has no effect");
    }
    CopyRoutes routes;
    std::unique_ptr<KeybagProbe> keybag;
    if (options_.keybagSentinel && !options_.noKeybag) {
        keybag = std::make_unique<SentinelKeybagProbe>(*options_.keybagSentinel);
        Log::f("Engine", "keybag sentinel {} (uid {}, home {})", *options_.keybagSentinel,
               options_.keybagUid ? std::to_string(*options_.keybagUid) : "?", options_.keybagHome.value_or("?"));
    } else {
        keybag = std::make_unique<NoKeybagProbe>();
    }
    DeferredList deferred;
    BandwidthLimiter bandwidth(options_.bandwidthLimit, stop);
    const FilesystemTraits srcTraits = FilesystemTraits::of(srcRoot.get());
    const FilesystemTraits dstTraits = dstRoot.valid() ? FilesystemTraits::of(dstRoot.get()) : FilesystemTraits{};
    EngineContext ctx{options_, events, counters, errors, stop, board, clock, items, meta, routes, *keybag,
                      deferred, bandwidth, rules};
    ctx.dstRootFd = dstRoot.get();
    ctx.srcRootDev = srcStat.st_dev;
    ctx.dstRootDev = dstRoot.valid() ? dstStat.st_dev : 0;
    ctx.srcRoot = sourceRead == "/" ? std::string() : sourceRead;
    ctx.dstRoot = destination == "/" ? std::string() : destination;
    ctx.timeGranularityNs = std::max(srcTraits.timeGranularityNs, dstTraits.timeGranularityNs);
    ctx.dryRun = options_.dryRun;
    Log::f("Engine", "source filesystem {}, destination filesystem {}, time precision {} ns, {} copy threads",
           srcTraits.typeName, dstTraits.typeName, ctx.timeGranularityNs, workers);

    std::map<std::string, int> metaReasons;
    auto summary = [&](bool interrupted, const std::map<std::string, int>* reasons) {
        const double elapsed = events.elapsedSeconds();
        const double active = std::max(clock.now(), 1e-6);
        Json s = {{"type", "summary"}};
        s["elapsed_s"] = elapsed;
        s["items_evaluated"] = counters.itemsEvaluated.load();
        s["bytes_evaluated"] = counters.bytesEvaluated.load();
        s["items_copied"] = counters.itemsCopied.load();
        s["bytes_copied"] = counters.bytesCopied.load();
        s["items_updated_meta_only"] = counters.itemsUpdatedMetaOnly.load();
        s["items_deleted"] = counters.itemsDeleted.load();
        s["files_completed"] = counters.filesCompleted.load();
        s["files_skipped"] = counters.filesSkipped.load();
        s["bytes_skipped"] = counters.bytesSkipped.load();
        s["effective_rate_bps"] = static_cast<double>(counters.bytesCopied.load()) / active;
        s["errors"] = errors.errors();
        s["ignored_errors"] = errors.ignored();
        s["dirs_retime_total"] = counters.dirsRetimeTotal.load();
        s["dirs_retime_restamped"] = counters.dirsRetimeRestamped.load();
        s["scout_total_files"] = counters.scoutFiles.load();
        s["scout_total_bytes"] = counters.scoutBytes.load();
        if (reasons && !reasons->empty()) s["meta_reasons"] = *reasons;
        if (deferred.count() > 0) {
            s["deferred_count"] = deferred.count();
            s["deferred_paths"] = deferred.paths();
        }
        if (auto first = errors.first()) {
            s["first_error_path"] = first->path;
            s["first_error_syscall"] = first->syscall;
            s["first_error_side"] = first->side;
            s["first_error_errno"] = first->error;
            s["first_error_unix_nanos"] = first->unixNanos;
        }
        if (interrupted) s["interrupted"] = true;
        if (options_.dryRun) s["dry_run"] = true;
        return s;
    };
    auto completionLine = [&](const char* outcome) {
        Log::f("Engine",
               "{} elapsednanos={} items_evaluated={} items_copied={} bytes_copied={} items_updated_meta_only={} "
               "items_deleted={} errors={} ignored_errors={} deferred={}",
               outcome, static_cast<std::int64_t>(events.elapsedSeconds() * 1e9), counters.itemsEvaluated.load(),
               counters.itemsCopied.load(), counters.bytesCopied.load(), counters.itemsUpdatedMetaOnly.load(),
               counters.itemsDeleted.load(), errors.errors(), errors.ignored(), deferred.count());
    };

    ProgressReporter::Settings settings;
    settings.intervalSeconds = options_.progressIntervalSeconds;
    settings.stallAfterSeconds = options_.stallAfterSeconds;
    settings.slowAfterSeconds = options_.slowListingSeconds;
    settings.srcSolidState = MediumProbe::isSolidState(sourceRead);
    settings.dstSolidState = MediumProbe::isSolidState(dstRoot.valid() ? destination : realPathOf(destination + "/.."));
    settings.continuedCount = &SignalWatcher::continuedCount;
    const std::string snapshotMount = options_.snapshotMount.value_or("");
    settings.periodicCheck = [&, dev = dstStat.st_dev, ino = dstStat.st_ino] {
        if (dstRoot.valid()) {
            struct stat now;
            if (::stat(destination.c_str(), &now) != 0 || now.st_dev != dev || now.st_ino != ino) {
                int e = errno;
                stop.fail(failureOf(fmt::format("The destination {} disappeared during the copy (it is no longer the "
                                                "folder the copy started with) — stopped writing at once",
                                                destination),
                                    destination, "stat", "dst", e != 0 ? e : ENODEV));
            }
        }
        if (!snapshotMount.empty()) {
            struct stat now;
            if (::stat(sourceRead.c_str(), &now) != 0 || now.st_ino != srcStat.st_ino) {
                Log::line("Engine", "snapshot appears gone — treating further snapshot open failures as hard errors");
                stop.fail(failureOf(fmt::format("The source snapshot at {} disappeared during the copy: no such file or "
                                                "directory — the snapshot was removed",
                                                snapshotMount),
                                    sourceRead, "stat", "src", ENOENT));
            }
        }
    };
    ProgressReporter reporter(settings, counters, board, clock, events);

    SignalWatcher signals(
        [&](int sig) {
            Log::f("Engine", "signal {} received — stopping", sig);
            stop.requestSignalStop(sig);
        },
        [&](int sig) {
            // The orderly stop is taking too long (a call blocked in the kernel): report and end now.
            Log::f("Engine", "still busy {} ms after signal {} — ending now", stopGrace.count(), sig);
            events.emitTerminated(Json{{"type", "terminated"},
                                       {"signal", sig},
                                       {"scanner_path", reporter.scannerPath()},
                                       {"executor_path", reporter.executorPath()}});
            events.emitTerminal(summary(true, nullptr));
            completionLine("interrupted");
            std::_Exit(128 + sig);
        },
        stopGrace);

    DirRetimeJournal journal;
    {
        CopyWorkerPool pool(options_.dryRun ? 0 : workers, 256);
        ScoutPass scout(srcRoot.get(), srcStat.st_dev, rules, counters, stop);
        scout.start();
        reporter.start();
        TreeWalker walker(ctx, pool, journal);
        SharedFd srcShared = shareFd(srcRoot.release());
        SharedFd dstShared = dstRoot.valid() ? shareFd(::dup(dstRoot.get())) : SharedFd();
        walker.run(srcShared, srcRootInfo, dstShared, dstExisted ? &dstRootInfo : nullptr);
        board.end(0);  // the walker only waits for the copies from here on
        pool.drain();
        counters.walkDone.store(true);
        scout.stop();
        metaReasons = walker.metaReasons();
        if (!stop.stopping()) {
            // The walk's own count is exact.
            counters.scoutFiles.store(counters.filesSelected.load());
            counters.scoutBytes.store(counters.bytesSelected.load());
            counters.scoutDone.store(true);
        }
        if (!stop.stopping() && !options_.dryRun && dstRoot.valid()) retimeFolders(ctx, journal, dstTraits.timeGranularityNs);
    }
    reporter.stop();

    if (auto failure = stop.failure()) {
        signals.finished();
        completionLine("failed");
        return fail(*failure);
    }
    if (int sig = stop.signal()) {
        events.emitTerminated(Json{{"type", "terminated"},
                                   {"signal", sig},
                                   {"scanner_path", reporter.scannerPath()},
                                   {"executor_path", reporter.executorPath()}});
        events.emitTerminal(summary(true, &metaReasons));
        signals.finished();
        completionLine("interrupted");
        return 128 + sig;
    }

    reporter.emitNow();
    if (options_.statePath && !options_.dryRun && errors.errors() == 0) {
        StateFile state;
        state.source = identity;
        state.rulesHash = rulesHash;
        state.completedUnixNanos = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count();
        state.snapEventAnchor = options_.snapEventAnchor;
        if (auto written = state.write(*options_.statePath); !written) {
            errors.warn("state_write", "the state file could not be written: " + written.error(), *options_.statePath);
        }
    }
    events.emit(Json{{"type", "phase_completed"}, {"phase", "copyFiles"}});
    events.emitTerminal(summary(false, &metaReasons));
    signals.finished();
    completionLine("completed");
    return errors.errors() > 0 ? exitErrors : exitClean;
}

}  // namespace ql
