#include "QLProtocol/runners/QlcopyJobRunner.h"

#include "QLProtocol/runners/CopyScriptValidator.h"
#include "QLProtocol/server/access/CopyAccessCheck.h"
#include "QLProtocol/runners/PayloadBuilder.h"
#include "QLProtocol/runners/QlcopyEvent.h"
#include "QLProtocol/runners/QlcopyLineHandler.h"
#include "QLProtocol/transport/VolumeBridge.h"
#include "QLSupport/Log.h"
#include "QLSupport/Uuid.h"

#include <asio/experimental/as_tuple.hpp>
#include <fmt/format.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace ql {

namespace wire = ql4::transport::v1;
namespace fs = std::filesystem;

// Everything the engine needs once both ends are prepared.
struct QlcopyJobRunner::Prepared {
    VolumeRef sourceRef;
    VolumeRef destinationRef;
    PickedEndpoint source;
    PickedEndpoint destination;
    std::string sourcePath;
    std::string destinationPath;
    std::optional<SnapshotContext> snapshot;
    std::optional<std::string> noOwnersMapping;
    std::vector<std::string> preserveIfAbsent;
    // The destination folder does not exist yet and may be created (its volume is proven).
    bool destinationFolderMissing = false;
    // A preview found no destination folder: nothing to compare against, the engine is not run.
    bool previewDestinationAbsent = false;
};

// The terminal event the run ends with when preparation stops it.
struct QlcopyJobRunner::Stop {
    Event terminal;
};

// The engine's own terminal event, with the line it came from.
struct QlcopyJobRunner::EngineTerminal {
    Event payload;
    QlcopyEvent event;
};

namespace {

using Level = wire::LogLine::Level;

std::string inQuotes(std::string_view name) { return fmt::format("“{}”", name); }

std::string runIDTextOf(const wire::RunId& id) {
    if (auto uuid = UUIDCodec::decode(id.value())) return uuid->text();
    std::string hex;
    for (unsigned char c : id.value()) hex += fmt::format("{:02x}", c);
    return hex;
}

std::string uuidTextOf(const std::string& bytes) {
    if (bytes.empty()) return "";
    if (auto uuid = UUIDCodec::decode(bytes)) return uuid->text();
    return "?";
}

// The path without "." and ".." components and trailing separators, symbolic links resolved
// where they exist. Used to compare mount points and paths.
std::string canonicalText(const std::string& path) {
    std::error_code ec;
    auto p = fs::weakly_canonical(fs::path(path), ec);
    if (ec) p = fs::path(path).lexically_normal();
    auto text = p.string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

bool samePath(const std::string& a, const std::string& b) { return canonicalText(a) == canonicalText(b); }

std::string priorText(const std::optional<bool>& prior) {
    if (!prior) return "unknown";
    return *prior ? "enabled" : "disabled";
}

std::string describeExit(const PosixSpawnedProcess::ExitStatus& status) {
    if (status.signalled) {
        const char* name = ::strsignal(status.signal);
        return fmt::format("it was stopped by signal {} ({})", status.signal, name ? name : "unknown");
    }
    return fmt::format("it exited with status {}", status.code);
}

}  // namespace

std::vector<std::string> QlcopyJobRunner::firmlinkEntries(std::string_view listText) {
    std::vector<std::string> entries;
    std::istringstream in{std::string(listText)};
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const auto tab = line.find('\t');
        std::string first = line.substr(0, tab);
        while (!first.empty() && (first.back() == ' ')) first.pop_back();
        std::size_t start = 0;
        while (start < first.size() && first[start] == '/') ++start;
        first = first.substr(start);
        if (!first.empty()) entries.push_back(first);
    }
    return entries;
}

QlcopyJobRunner::QlcopyJobRunner(const Executor& executor, std::shared_ptr<const Environment> environment,
                                 CopyRequest request, RunId runID, Options options)
    : Actor(executor),
      env_(std::move(environment)),
      options_(std::move(options)),
      request_(std::move(request)),
      runID_(std::move(runID)),
      runIDText_(runIDTextOf(runID_)),
      preparationCommandControl_(std::make_shared<CommandControl>()) {}

QlcopyJobRunner::~QlcopyJobRunner() = default;

// MARK: - JobRunner

namespace {
asio::awaitable<void> startRun(std::shared_ptr<QlcopyJobRunner> self, asio::awaitable<void> work) {
    (void)self;  // keeps the runner alive until the run's task has ended
    co_await std::move(work);
}
asio::awaitable<void> keepAlive(std::shared_ptr<QlcopyJobRunner> self, asio::awaitable<void> work) {
    (void)self;
    co_await std::move(work);
}
}  // namespace

JobRunner::Events::Consumer QlcopyJobRunner::run() {
    auto [producer, consumer] = Events::make();
    out_ = producer;
    // Nobody left to report to (the server is going away): stop the engine rather than let it
    // run unattended.
    std::weak_ptr<QlcopyJobRunner> weak = shared_from_this();
    producer.onConsumerGone([weak] {
        auto self = weak.lock();
        if (!self) return;
        asio::co_spawn(self->strand(), keepAlive(self, self->listenerGoneOnStrand()), asio::detached);
    });
    spawnDetached(startRun(shared_from_this(), runOnStrand()), kTag);
    return std::move(consumer);
}

asio::awaitable<void> QlcopyJobRunner::cancel() { co_await cancel(CancelReason::userRequested()); }

asio::awaitable<void> QlcopyJobRunner::cancel(CancelReason reason) {
    auto self = shared_from_this();
    co_await serialized(cancelOnStrand(std::move(reason)));
}

asio::awaitable<bool> QlcopyJobRunner::pause() {
    auto self = shared_from_this();
    co_return co_await serialized(pauseOnStrand());
}

asio::awaitable<bool> QlcopyJobRunner::resume() {
    auto self = shared_from_this();
    co_return co_await serialized(resumeOnStrand());
}

// MARK: - Events and logs

void QlcopyJobRunner::emit(Event event) {
    if (emittedTerminal_) return;
    out_.push(std::move(event));
}

void QlcopyJobRunner::logStep(std::string text, bool toClient) {
    Log::line(kTag, text);
    if (toClient) emit(PayloadBuilder::logPayload(wire::LogLine::LEVEL_INFO, std::move(text)));
}

void QlcopyJobRunner::logWarning(std::string text) {
    Log::line(kTag, text);
    emit(PayloadBuilder::logPayload(wire::LogLine::LEVEL_WARNING, std::move(text)));
}

void QlcopyJobRunner::beginPhase(std::string phase) {
    currentPhase_ = phase;
    emit(PayloadBuilder::phaseStartPayload(std::move(phase)));
}

void QlcopyJobRunner::endPhase(bool succeeded) {
    if (currentPhase_.empty()) return;
    emit(PayloadBuilder::phaseEndPayload(currentPhase_, succeeded));
    currentPhase_.clear();
}

void QlcopyJobRunner::beginStep(std::string step) {
    currentStep_ = step;
    emit(PayloadBuilder::stepStartPayload(currentPhase_, std::move(step)));
}

void QlcopyJobRunner::endStep(bool succeeded, std::string error) {
    if (currentStep_.empty()) return;
    emit(PayloadBuilder::stepEndPayload(currentPhase_, currentStep_, succeeded, std::move(error)));
    currentStep_.clear();
}

std::string QlcopyJobRunner::sideKey(EndpointSide side) const { return runIDText_ + "/" + std::string(caseName(side)); }

std::string QlcopyJobRunner::exitText() const {
    if (!spawnedChild_) return "none";
    if (!exitStatus_) return "unknown";
    return std::to_string(exitStatus_->code);
}

QlcopyJobRunner::Stop QlcopyJobRunner::fail(const RunnerError& error) {
    const std::string message = error.message();
    Log::f(kTag, "{}: {}", error.caseName(), message);
    const std::string phase = currentPhase_.empty() ? std::string("prepare") : currentPhase_;
    endStep(false, message);
    endPhase(false);
    std::string side;
    switch (error.kind) {
        case RunnerError::Kind::identityMismatch:
        case RunnerError::Kind::endpointUnresolved:
        case RunnerError::Kind::shareNotConnected:
        case RunnerError::Kind::sourceNotMounted:
        case RunnerError::Kind::destinationNotMounted:
        case RunnerError::Kind::diskImageSupportUnavailable:
        case RunnerError::Kind::pathOnOtherVolume: side = std::string(caseName(error.side)); break;
        case RunnerError::Kind::sourceFolderMissing: side = "source"; break;
        case RunnerError::Kind::destinationNotAFolder:
        case RunnerError::Kind::destinationParentMissing:
        case RunnerError::Kind::destinationFolderUnprovable:
        case RunnerError::Kind::destinationFolderNotCreated: side = "destination"; break;
        default: break;
    }
    auto terminal = PayloadBuilder::failedPayload(message, phase, error.destinationNotConnected(), side);
    if (!error.path.empty()) terminal.mutable_failed()->set_failed_path(error.path);
    return Stop{std::move(terminal)};
}

std::optional<QlcopyJobRunner::Stop> QlcopyJobRunner::checkpoint(std::string_view step) {
    if (!isCancelled_) return std::nullopt;
    logStep(fmt::format("cancelled during prepare ({}) — {}", step, cancelReason_.description()));
    endStep(false, "cancelled");
    endPhase(false);
    if (cancelReason_.isUserRequested()) return Stop{PayloadBuilder::cancelledPayload()};
    return Stop{PayloadBuilder::failedPayload(cancelReason_.message().value_or("The copy was stopped."), "prepare")};
}

// MARK: - The run

asio::awaitable<void> QlcopyJobRunner::runOnStrand() {
    if (started_) co_return;
    started_ = true;
    statePath_ = env_->statePathFor
                     ? env_->statePathFor(request_, runID_, engineUid())
                     : (fs::temp_directory_path() / ("qlcopy-state-" + runIDText_ + ".json")).string();

    Event terminal;
    bool synthesized = true;
    auto prepared = co_await prepare();
    if (!prepared) {
        terminal = std::move(prepared.error().terminal);
    } else if (prepared->previewDestinationAbsent) {
        logStep("spawn skipped (destination folder pending creation)");
        terminal = PayloadBuilder::completedPayload(true);
    } else {
        beginPhase("files");
        beginStep("copyFile");
        if (env_->materializeTileState && !request_.tile_id().empty()) {
            auto tile = request_.tile_id();
            auto path = statePath_;
            try {
                co_await env_->materializeTileState(std::move(tile), std::move(path), engineUid());
            } catch (const std::exception& e) {
                Log::f(kTag, "tile-state materialize failed: {}", e.what());
            }
        }
        if (isCancelled_) {
            logStep(fmt::format("cancelled before copyFiles ({}) — qlcopy never spawned", cancelReason_.description()));
            terminal = cancelReason_.isUserRequested()
                           ? PayloadBuilder::cancelledPayload()
                           : PayloadBuilder::failedPayload(cancelReason_.message().value_or("The copy was stopped."),
                                                           "files");
        } else {
            co_await runEngine(*prepared);
            terminal = selectTerminal(synthesized);
        }
        const bool ok = terminal.has_completed();
        endStep(ok, terminal.has_failed() ? terminal.failed().error_message() : std::string());
        endPhase(ok);
    }
    co_await postCopy(std::move(terminal), synthesized);
}

// MARK: - Preparation

asio::awaitable<tl::expected<QlcopyJobRunner::Prepared, QlcopyJobRunner::Stop>> QlcopyJobRunner::prepare() {
    using Result = tl::expected<Prepared, Stop>;
    Prepared prepared;
    beginPhase("prepare");

    // 1. A request this runner must never carry out.
    if (request_.during_copy() == wire::DCM_ERASE_THEN_COPY && !request_.destination().key().has_disk_image()) {
        co_return Result(tl::unexpect, fail(RunnerError::eraseThenCopyMisrouted()));
    }

    // Whose rights the run uses.
    if (options_.authority.ownerRightsOnly) {
        const auto uid = options_.authority.ownerUid;
        auto user = UserCredentials::forUser(uid);
        if (!user) {
            co_return Result(tl::unexpect,
                             fail(RunnerError::refusedForOwner(CopyAccessCheck::unknownOwner(uid, user.error()))));
        }
        runAs_ = std::move(*user);
        logStep(fmt::format("this copy runs with the rights of {} (uid {}): the engine, its copy-rule check and the "
                            "destination folder act as that user",
                            runAs_->name.empty() ? runAs_->label() : runAs_->name, uid));
    }

    // 2. The copy rule must load before anything is touched.
    if (auto stop = checkpoint("copy-rule check")) co_return Result(tl::unexpect, std::move(*stop));
    if (!request_.copy_script_path().empty()) {
        CopyScriptValidator validator(*env_->shell);
        auto binary = env_->binary;
        auto request = request_;
        auto runAs = runAs_;
        auto verdict = co_await validator.validate(std::move(binary), std::move(request), env_->validationTimeout,
                                                   std::move(runAs));
        if (auto refused = verdict.asRefused()) {
            auto text = CopyScriptValidator::fileCopyRefusalMessage(
                CopyScriptValidator::ruleName(request_.copy_script_path()), refused->detail);
            co_return Result(tl::unexpect, fail(RunnerError::copyRuleRefused(std::move(text))));
        }
        if (auto unavailable = verdict.asUnavailable()) {
            logWarning(CopyScriptValidator::unavailableLogText(unavailable->reason));
        }
    }

    // 3. Resolve both ends.
    if (auto stop = checkpoint("resolve")) co_return Result(tl::unexpect, std::move(*stop));
    beginStep("resolve");
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        const bool isSource = side == EndpointSide::source;
        const auto& wireRef = isSource ? request_.source() : request_.destination();
        auto ref = VolumeBridge::fromWire(wireRef);
        if (!ref) {
            Log::f(kTag, "picker {}: all lookup paths failed (uuid={} bsd='{}')", caseName(side),
                   uuidTextOf(isSource ? request_.source_volume_uuid() : request_.destination_volume_uuid()),
                   isSource ? request_.source_bsd_device() : request_.destination_bsd_device());
            auto name = inQuotes(wireRef.display_name().empty() ? std::string(caseName(side)) : wireRef.display_name());
            auto reason = "its stored identity can't be read (" + ref.error().message() + ")";
            co_return Result(tl::unexpect, fail(RunnerError::endpointUnresolved(side, name, reason, false)));
        }
        (isSource ? prepared.sourceRef : prepared.destinationRef) = *ref;
    }
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        const bool isSource = side == EndpointSide::source;
        logStep(fmt::format("{} resolve", caseName(side)));
        auto ref = isSource ? prepared.sourceRef : prepared.destinationRef;
        auto label = std::string(caseName(side));
        auto picked = co_await pick(side, std::move(ref), std::move(label));
        if (!picked) co_return Result(tl::unexpect, fail(picked.error()));
        (isSource ? prepared.source : prepared.destination) = std::move(*picked);
        if (auto stop = checkpoint("resolve")) co_return Result(tl::unexpect, std::move(*stop));
    }
    logStep("resolve done");
    endStep(true);

    // 6. Mount what is not mounted.
    if (auto stop = checkpoint("mount")) co_return Result(tl::unexpect, std::move(*stop));
    beginStep("mount");
    const bool preview = request_.preview();
    if (preview) logStep("mount skipped (dry-run)");
    bool mountedSomething = false;
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        auto& endpoint = side == EndpointSide::source ? prepared.source : prepared.destination;
        if (endpoint.isNetworkShare) {
            logStep(fmt::format("mount: {} is a network share — diskutil mount cycle not applicable", caseName(side)));
            continue;
        }
        if (preview) {
            if (!endpoint.isMounted()) {
                auto error = side == EndpointSide::source ? RunnerError::sourceNotMounted(endpoint.quotedName)
                                                          : RunnerError::destinationNotMounted(endpoint.quotedName);
                co_return Result(tl::unexpect, fail(error));
            }
            continue;
        }
        logStep(fmt::format("mount: {} captured (mounted={})", caseName(side), endpoint.isMounted()));
        if (endpoint.isMounted()) continue;
        if (runAs_) {
            co_return Result(tl::unexpect, fail(RunnerError::refusedForOwner(fmt::format(
                                               "{} isn’t mounted, and mounting it needs an administrator’s approval. "
                                               "Mount it, or ask an administrator to set up this copy.",
                                               endpoint.quotedName))));
        }
        auto key = sideKey(side);
        auto device = endpoint.bsdDevice;
        auto mounted = co_await env_->mountCoordinator->mount(std::move(key), std::move(device));
        if (isCancelled_) {
            logStep("cancelled during mount preparation — stopped diskutil");
            if (auto stop = checkpoint("mount")) co_return Result(tl::unexpect, std::move(*stop));
        }
        if (!mounted) {
            Log::f(kTag, "mount: {} {} could not be mounted: {}", caseName(side), endpoint.bsdDevice, mounted.error());
            auto error = side == EndpointSide::source ? RunnerError::sourceNotMounted(endpoint.quotedName)
                                                      : RunnerError::destinationNotMounted(endpoint.quotedName);
            co_return Result(tl::unexpect, fail(error));
        }
        mountedSomething = true;
    }
    if (!preview && mountedSomething) {
        logStep("post-mount re-resolve:");
        for (auto side : {EndpointSide::source, EndpointSide::destination}) {
            const bool isSource = side == EndpointSide::source;
            auto& endpoint = isSource ? prepared.source : prepared.destination;
            if (endpoint.isNetworkShare) continue;
            auto ref = isSource ? prepared.sourceRef : prepared.destinationRef;
            auto label = fmt::format("{} (post-mount)", caseName(side));
            logStep(label);
            auto picked = co_await pick(side, std::move(ref), std::move(label));
            if (!picked) co_return Result(tl::unexpect, fail(picked.error()));
            endpoint = std::move(*picked);
        }
        logStep("mount: post-mount re-resolve done");
    }
    endStep(true);

    // 7. and 8. Compose and check the engine's paths.
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        const bool isSource = side == EndpointSide::source;
        auto path = composePath(side, isSource ? prepared.sourceRef : prepared.destinationRef,
                                isSource ? prepared.source : prepared.destination);
        if (!path) co_return Result(tl::unexpect, fail(path.error()));
        (isSource ? prepared.sourcePath : prepared.destinationPath) = *path;
    }
    {
        std::error_code ec;
        const auto& source = prepared.source;
        const auto& path = prepared.sourcePath;
        if (!fs::is_directory(path, ec)) co_return Result(tl::unexpect, fail(RunnerError::sourceFolderMissing(path)));
        if (!source.isNetworkShare) {
            auto host = env_->volumeHost(path);
            if (!host) co_return Result(tl::unexpect, fail(RunnerError::volumeHostResolutionFailed(path)));
            if (!samePath(host->mount, source.baseMount()) && !samePath(host->mount, source.mount)) {
                co_return Result(tl::unexpect,
                                 fail(RunnerError::pathOnOtherVolume(EndpointSide::source, path, host->mount)));
            }
        }
    }
    {
        std::error_code ec;
        const auto& destination = prepared.destination;
        const auto& path = prepared.destinationPath;
        const bool browsableMissing = destination.isAPFSGroup && !destination.browsableMount;
        if (browsableMissing) {
            logWarning(fmt::format("the destination group's browsable volume is not mounted — composed against {}; "
                                   "will refuse to CREATE a missing folder there",
                                   destination.mount));
        }
        if (fs::exists(path, ec)) {
            if (!fs::is_directory(path, ec)) {
                co_return Result(tl::unexpect, fail(RunnerError::destinationNotAFolder(path)));
            }
            if (!destination.isNetworkShare) {
                auto host = env_->volumeHost(path);
                if (!host) co_return Result(tl::unexpect, fail(RunnerError::volumeHostResolutionFailed(path)));
                if (!samePath(host->mount, destination.baseMount()) && !samePath(host->mount, destination.mount)) {
                    co_return Result(tl::unexpect, fail(RunnerError::pathOnOtherVolume(EndpointSide::destination,
                                                                                       path, host->mount)));
                }
            }
        } else {
            const auto parent = fs::path(path).parent_path().string();
            if (!fs::is_directory(parent, ec)) {
                co_return Result(tl::unexpect, fail(RunnerError::destinationParentMissing(path, parent)));
            }
            bool proven = !browsableMissing;
            if (proven && !destination.isNetworkShare) {
                auto host = env_->volumeHost(parent);
                proven = host && (samePath(host->mount, destination.baseMount()) || samePath(host->mount, destination.mount));
            }
            if (!proven) {
                co_return Result(tl::unexpect, fail(RunnerError::destinationFolderUnprovable(
                                                   fs::path(path).filename().string())));
            }
            prepared.destinationFolderMissing = true;
        }
    }

    // The owner's own access to both folders, asked of the kernel as the owner.
    if (runAs_) {
        if (auto refusal = ownerAccessRefusal(prepared.sourcePath, prepared.destinationPath)) {
            co_return Result(tl::unexpect, fail(*refusal));
        }
    }

    // 9. Ownership.
    if (auto stop = checkpoint("ownership")) co_return Result(tl::unexpect, std::move(*stop));
    beginStep("ownership");
    if (runAs_) {
        logStep("ownership: this copy runs with its owner’s rights — the volumes’ ownership settings are left as "
                "they are");
    } else {
        co_await enableOwnership(prepared);
    }
    endStep(true);
    endPhase(true);

    // 10. and 11. Snapshots.
    if (auto stop = checkpoint("snapshot")) co_return Result(tl::unexpect, std::move(*stop));
    auto snapshots = co_await takeSnapshots(prepared);
    if (!snapshots) co_return Result(tl::unexpect, std::move(snapshots.error()));

    // 12. Engine inputs.
    const bool sourceIsFolder = !samePath(prepared.sourcePath, prepared.source.baseMount());
    const bool destinationIsWholeVolume = samePath(prepared.destinationPath, prepared.destination.baseMount());
    const bool destinationCarriesScaffold =
        prepared.destination.isAPFSGroup ||
        (prepared.destinationRef.target.role() && prepared.destinationRef.target.role()->kind() == APFSVolumeRole::Kind::data);
    if (sourceIsFolder && destinationIsWholeVolume && request_.during_copy() == wire::DCM_SMART_UPDATE &&
        destinationCarriesScaffold) {
        std::ifstream list(env_->firmlinksPath);
        if (list) {
            std::stringstream text;
            text << list.rdbuf();
            prepared.preserveIfAbsent = firmlinkEntries(text.str());
            std::string joined;
            for (const auto& entry : prepared.preserveIfAbsent) joined += (joined.empty() ? "" : ", ") + entry;
            logStep("folder→clone Smart Update: preserving destination firmlink scaffold (not pruning): " + joined);
        }
    }

    // 13. The destination folder.
    if (prepared.destinationFolderMissing) {
        const auto& path = prepared.destinationPath;
        if (preview) {
            logStep(fmt::format("preview: destination folder {} doesn't exist yet—it will be created on the first copy, "
                                "and everything will be copied",
                                path));
            prepared.previewDestinationAbsent = true;
        } else {
            if (auto stop = checkpoint("destination folder")) co_return Result(tl::unexpect, std::move(*stop));
            std::error_code ec;
            if (runAs_) {
                if (auto made = ownerAccess().makeDirectories(*runAs_, path, 0755); !made) {
                    ec = std::error_code(made.error(), std::generic_category());
                }
            } else {
                fs::create_directory(path, ec);
            }
            if (ec) {
                beginPhase("files");
                co_return Result(tl::unexpect, fail(RunnerError::destinationFolderNotCreated(path, ec.message())));
            }
            logStep(fmt::format("created destination folder {} (first copy to a new folder)", path));
        }
    }
    destinationMount_ = prepared.destination.baseMount();
    co_return Result(std::move(prepared));
}

asio::awaitable<tl::expected<PickedEndpoint, RunnerError>> QlcopyJobRunner::pick(EndpointSide side, VolumeRef ref,
                                                                                  std::string label) {
    using Result = tl::expected<PickedEndpoint, RunnerError>;
    const bool isSource = side == EndpointSide::source;
    const std::string name = inQuotes(ref.displayName.empty() ? std::string(caseName(side)) : ref.displayName);
    if (ref.isDiskImage()) co_return Result(tl::unexpect, RunnerError::diskImageSupportUnavailable(side));

    auto lookup = ref;
    auto resolution = co_await env_->resolver->resolve(std::move(lookup));
    if (ref.isNetworkShare() && !resolution.state()) {
        const auto& url = ref.key.as<VolumeKey::NetworkShare>()->url;
        logStep(fmt::format("resolve: share not mounted—awaiting user-session connect ({})", url));
        ShareConnectHandshake::Request request{runID_.value(), url, ref.displayName, isSource};
        std::weak_ptr<QlcopyJobRunner> weak = shared_from_this();
        ShareConnectHandshake::Emit emitter = [weak](Event event) {
            auto self = weak.lock();
            if (!self) return;
            asio::post(self->strand(), [self, event = std::move(event)]() mutable { self->emit(std::move(event)); });
        };
        auto connected = co_await env_->shareConnect->connect(std::move(request), std::move(emitter));
        if (!connected) {
            co_return Result(tl::unexpect, RunnerError::shareNotConnected(side, connected.error()));
        }
        logStep("share connected");
        (isSource ? didConnectSourceShare_ : didConnectDestinationShare_) = true;
        (isSource ? sourceShareURL_ : destinationShareURL_) = url;
        auto again = ref;
        resolution = co_await env_->resolver->resolve(std::move(again));
    }

    if (auto unresolved = resolution.as<Resolution::Unresolved>()) {
        Log::f(kTag, "picker {}: all lookup paths failed (uuid={} bsd='{}')", label,
               uuidTextOf(isSource ? request_.source_volume_uuid() : request_.destination_volume_uuid()),
               isSource ? request_.source_bsd_device() : request_.destination_bsd_device());
        Log::f(kTag, "picker {}: {}", label, unresolved->reason.description());
        const bool missing = unresolved->reason.kind() == UnresolvedReason::Kind::volumeMissing;
        std::string reason = unresolved->reason.detail();
        if (reason.empty()) reason = unresolved->reason.description();
        co_return Result(tl::unexpect, RunnerError::endpointUnresolved(side, name, reason, missing));
    }
    if (auto suspicious = resolution.as<Resolution::Suspicious>()) {
        std::string detail;
        for (const auto& mismatch : suspicious->mismatches) {
            if (!detail.empty()) detail += "; ";
            detail += fmt::format("{} expected={} actual={}", mismatch.field, mismatch.expected, mismatch.actual);
        }
        Log::f(kTag, "{}: identity mismatch — {}", label, detail);
        co_return Result(tl::unexpect, RunnerError::identityMismatch(side, name, detail));
    }

    const CurrentVolumeState& state = *resolution.state();
    PickedEndpoint endpoint;
    endpoint.picked = state;
    endpoint.bsdDevice = state.bsdDevice;
    endpoint.quotedName = name;
    endpoint.isNetworkShare = ref.isNetworkShare();
    if (state.standaloneVolume) {
        endpoint.mount = state.standaloneVolume->mountPoint.value_or("");
        if (!state.standaloneVolume->bsdDevice.empty()) endpoint.bsdDevice = state.standaloneVolume->bsdDevice;
    } else if (state.containerState) {
        const auto& volumes = state.containerState->allVolumes;
        auto withRole = [&](APFSVolumeRole::Kind kind) -> const APFSVolumeState* {
            for (const auto& v : volumes)
                if (v.role.kind() == kind) return &v;
            return nullptr;
        };
        if (ref.target.kind() == VolumeTarget::Kind::apfsVolumeGroup) {
            endpoint.isAPFSGroup = true;
            const auto* system = withRole(APFSVolumeRole::Kind::system);
            const auto* data = withRole(APFSVolumeRole::Kind::data);
            if (data) {
                endpoint.dataVolumeUUID = data->volumeUUID;
                endpoint.dataVolumeBSD = data->bsdDevice;
                if (data->mountPoint) endpoint.browsableMount = *data->mountPoint;
                endpoint.bsdDevice = data->bsdDevice;
            }
            if (system && system->mountPoint) endpoint.mount = *system->mountPoint;
            if (endpoint.mount.empty() && endpoint.browsableMount) endpoint.mount = *endpoint.browsableMount;
        } else if (const auto* role = ref.target.role()) {
            for (const auto& v : volumes) {
                if (v.role == *role) {
                    endpoint.mount = v.mountPoint.value_or("");
                    endpoint.bsdDevice = v.bsdDevice;
                    break;
                }
            }
        } else {
            for (const auto& v : volumes) {
                if (v.mountPoint || volumes.size() == 1) {
                    endpoint.mount = v.mountPoint.value_or("");
                    endpoint.bsdDevice = v.bsdDevice;
                    break;
                }
            }
        }
    }
    Log::f(kTag, "{}: {} → {} mounted at '{}'", label, ref.key.description(), endpoint.bsdDevice, endpoint.mount);
    co_return Result(std::move(endpoint));
}

tl::expected<std::string, RunnerError> QlcopyJobRunner::composePath(EndpointSide side, const VolumeRef& ref,
                                                                   const PickedEndpoint& endpoint) {
    const bool isSource = side == EndpointSide::source;
    const std::string& base = endpoint.baseMount();
    if (base.empty()) {
        return tl::unexpected(isSource ? RunnerError::sourceNotMounted(endpoint.quotedName)
                                       : RunnerError::destinationNotMounted(endpoint.quotedName));
    }
    std::string path = base;
    if (ref.subpath && !ref.subpath->empty()) {
        auto relative = fs::path(*ref.subpath).relative_path().lexically_normal();
        auto composed = (fs::path(base) / relative).lexically_normal().string();
        while (composed.size() > 1 && composed.back() == '/') composed.pop_back();
        const auto rel = fs::path(composed).lexically_relative(base).string();
        if (rel.empty() || rel.rfind("..", 0) == 0) {
            return tl::unexpected(RunnerError::pathOnOtherVolume(side, composed, "another volume"));
        }
        path = composed;
        Log::f(kTag, "composed {}_path='{}' from ref subpath post-mount", caseName(side), path);
    } else {
        const std::string& hint = isSource ? request_.source_path() : request_.destination_path();
        if (!hint.empty() && !samePath(hint, base) && !samePath(hint, endpoint.mount)) {
            path = fs::path(hint).lexically_normal().string();
            while (path.size() > 1 && path.back() == '/') path.pop_back();
            Log::f(kTag, "composed {}_path='{}' from the request's path", caseName(side), path);
        }
    }
    return path;
}

asio::awaitable<void> QlcopyJobRunner::enableOwnership(Prepared& prepared) {
    if (request_.preview() || request_.dry_run()) {
        logStep("ownership skipped (dry-run)");
        co_return;
    }
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        const bool isSource = side == EndpointSide::source;
        const auto& endpoint = isSource ? prepared.source : prepared.destination;
        if (endpoint.isNetworkShare) {
            logStep(fmt::format("ownership: {} is a network share — ownership not applicable", caseName(side)));
            continue;
        }
        auto mount = endpoint.mount;
        auto prior = co_await env_->ownership->ownersEnabled(std::move(mount));
        (isSource ? sourcePriorEnabled_ : destinationPriorEnabled_) = prior;
    }
    logStep(fmt::format("enable ownership: source={} destination={}", priorText(sourcePriorEnabled_),
                        priorText(destinationPriorEnabled_)));
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        const bool isSource = side == EndpointSide::source;
        const auto& endpoint = isSource ? prepared.source : prepared.destination;
        const auto& prior = isSource ? sourcePriorEnabled_ : destinationPriorEnabled_;
        if (endpoint.isNetworkShare || !prior || *prior) continue;
        auto mount = endpoint.mount;
        auto changed = co_await env_->ownership->setOwnersEnabled(std::move(mount), true);
        bool took = false;
        if (changed) {
            (isSource ? sourceOwnershipChanged_ : destinationOwnershipChanged_) = true;
            (isSource ? sourceOwnershipMount_ : destinationOwnershipMount_) = endpoint.mount;
            auto again = endpoint.mount;
            auto now = co_await env_->ownership->ownersEnabled(std::move(again));
            took = now.value_or(false);
        }
        if (!took) {
            logWarning(fmt::format("ownership: enable did not take effect on {} — files will not preserve original "
                                   "uid/gid{}",
                                   caseName(side), changed ? "" : " (" + changed.error() + ")"));
            if (isSource) {
                if (auto user = env_->consoleUser ? env_->consoleUser() : std::nullopt) {
                    prepared.noOwnersMapping = user->ownerText();
                    logStep(fmt::format("no-owners source: destination owner will be remapped to {}", user->ownerText()));
                }
            }
        }
    }
}

asio::awaitable<tl::expected<void, QlcopyJobRunner::Stop>> QlcopyJobRunner::takeSnapshots(Prepared& prepared) {
    using Result = tl::expected<void, Stop>;
    beginPhase("snapshot");
    beginStep("snapshot");
    const auto& source = prepared.source;
    if (runAs_) {
        logStep("snapshot skipped (this copy runs with its owner’s rights; snapshots need an administrator’s "
                "approval); copying live source");
    } else if (source.isNetworkShare) {
        logStep("snapshot skipped (source not snapshottable)");
    } else if (!env_->snapshotCoordinator) {
        logStep("snapshot unavailable (source snapshots are not available in this build); copying live source");
    } else {
        SourceSnapshotCoordinator::Source what{source.bsdDevice, source.mount, source.quotedName};
        auto handle = co_await env_->snapshotCoordinator->acquire(std::move(what));
        if (!handle) {
            if (handle.error().notSnapshottable) {
                logStep("snapshot skipped (source not snapshottable)");
            } else {
                logStep(fmt::format("snapshot unavailable ({}); copying live source", handle.error().reason));
            }
        } else {
            acquiredSnapshotLease_ = *handle;
            if (handle->ofDevice != source.bsdDevice) {
                co_return Result(tl::unexpect, fail(RunnerError::snapshotMismatch()));
            }
            auto host = env_->volumeHost(prepared.sourcePath);
            if (host && !samePath(host->mount, source.mount) && !samePath(host->mount, source.baseMount())) {
                logStep(fmt::format("source folder is on {}, not the snapshotted Data volume; copying live source",
                                    host->mount));
            } else {
                prepared.snapshot = SnapshotContext{handle->mountPath, handle->eventID};
                logStep(fmt::format("snapshot {} mounted at {} (event {})", handle->snapshotName, handle->mountPath,
                                    handle->eventID));
            }
        }
    }
    if (auto stop = checkpoint("snapshot")) co_return Result(tl::unexpect, std::move(*stop));
    endStep(true);

    // 11. A recovery snapshot of a local destination.
    const auto& destination = prepared.destination;
    destinationIsLocal_ = !destination.isNetworkShare;
    if (destinationIsLocal_ && runAs_) {
        logStep("destination recovery snapshot skipped (this copy runs with its owner’s rights)");
    } else if (destinationIsLocal_ && !request_.preview() && !request_.dry_run() && env_->recoverySnapshot) {
        auto mount = destination.mount;
        auto outcome = co_await env_->recoverySnapshot->take(std::move(mount), preparationCommandControl_);
        switch (outcome.kind) {
            case DestinationRecoverySnapshot::Outcome::Kind::taken:
                logStep(fmt::format("destination recovery snapshot taken of {} (tmutil localsnapshot, TM-thinned)",
                                    destination.quotedName));
                break;
            case DestinationRecoverySnapshot::Outcome::Kind::declined:
                logStep(fmt::format("destination recovery snapshot not retained for {} (tmutil declined — TM-excluded "
                                    "volume?)",
                                    destination.quotedName));
                break;
            case DestinationRecoverySnapshot::Outcome::Kind::unavailable:
                logStep(fmt::format("destination recovery snapshot skipped for {} ({})", destination.quotedName,
                                    outcome.detail));
                break;
        }
        if (auto stop = checkpoint("recovery snapshot")) co_return Result(tl::unexpect, std::move(*stop));
    }
    endPhase(true);
    co_return Result();
}


// MARK: - The engine

namespace {

// The server's environment with the owner's HOME, USER and LOGNAME, for an engine running as
// the owner (anything that looks in the home folder must find the owner's, not root's).
std::vector<std::string> environmentFor(const UserCredentials& user) {
    std::vector<std::string> out;
    for (char** entry = environ; entry && *entry; ++entry) {
        std::string_view text(*entry);
        if (text.starts_with("HOME=") || text.starts_with("USER=") || text.starts_with("LOGNAME=")) continue;
        out.emplace_back(text);
    }
    if (!user.home.empty()) out.push_back("HOME=" + user.home);
    if (!user.name.empty()) {
        out.push_back("USER=" + user.name);
        out.push_back("LOGNAME=" + user.name);
    }
    return out;
}

}  // namespace

const OwnerAccessProbe& QlcopyJobRunner::ownerAccess() const {
    static const LiveOwnerAccessProbe live;
    if (env_->ownerAccess) return *env_->ownerAccess;
    return live;
}

std::optional<RunnerError> QlcopyJobRunner::ownerAccessRefusal(const std::string& source,
                                                               const std::string& destination) const {
    // The probe forks a child that checks as the owner and exits at once: milliseconds.
    CopyAccessCheck check(ownerAccess());
    auto verdict = check.check(options_.authority.ownerUid, source, destination);
    if (verdict) return std::nullopt;
    return RunnerError::refusedForOwner(verdict.error());
}

namespace {

asio::awaitable<void> sleepFor(const asio::any_io_executor& executor, std::chrono::milliseconds duration) {
    asio::steady_timer timer(executor);
    timer.expires_after(duration);
    co_await timer.async_wait(asio::experimental::as_tuple(asio::use_awaitable));
}

}  // namespace

asio::awaitable<void> QlcopyJobRunner::runEngine(const Prepared& prepared) {
    QlcopyInvocation::Inputs inputs;
    inputs.statePath = statePath_;
    inputs.snapshot = prepared.snapshot;
    if (auto user = env_->consoleUser ? env_->consoleUser() : std::nullopt) inputs.consoleHome = user->home;
    if (env_->keybagSentinel) inputs.keybag = env_->keybagSentinel();
    inputs.preserveIfAbsent = prepared.preserveIfAbsent;
    inputs.noOwnersMapping = prepared.noOwnersMapping;
    inputs.sourcePath = prepared.sourcePath;
    inputs.destinationPath = prepared.destinationPath;
    const auto invocation = QlcopyInvocation::make(env_->binary, request_, inputs);

    logStep("spawning: " + invocation.argumentsText());
    logStep("spawn begin");
    PosixSpawnedProcess::Options options;
    options.eventPipe = true;
    // Its own process group: a terminal's Ctrl-C aimed at a foreground server must not reach
    // the engine behind the runner's back.
    options.ownProcessGroup = true;
    if (runAs_) {
        options.runAs = runAs_;
        options.environment = environmentFor(*runAs_);
    }
    auto child = PosixSpawnedProcess::spawn(invocation.binary, invocation.arguments, options);
    if (!child) {
        spawnError_ = RunnerError::engineNotStarted(invocation.binary, child.error().message());
        Log::f(kTag, "spawn failed: {}", child.error().message());
        co_return;
    }
    spawnedChild_ = std::make_shared<PosixSpawnedProcess>(std::move(*child));
    Log::f(kTag, "qlcopy pid {}", spawnedChild_->pid);
    lastEventAt_ = std::chrono::steady_clock::now();
    if (pauseState_ == PauseState::pauseRequested) stopEngineForPause("requested before the engine started");

    auto executor = strand();
    auto events = std::make_shared<asio::posix::stream_descriptor>(executor, spawnedChild_->ndjsonHandle.release());
    auto errors = std::make_shared<asio::posix::stream_descriptor>(executor, spawnedChild_->stderrHandle.release());
    auto output = std::make_shared<asio::posix::stream_descriptor>(executor, spawnedChild_->stdoutHandle.release());
    spawnDetached(keepAlive(shared_from_this(), readDiagnostics(errors, true)), kTag);
    spawnDetached(keepAlive(shared_from_this(), readDiagnostics(output, false)), kTag);
    spawnDetached(keepAlive(shared_from_this(), awaitExit(events)), kTag);

    co_await readEvents(events);
    // The engine closes its event stream when it ends; one that lingers after that is stopped.
    const auto lingerLimit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool killed = false;
    while (!exitStatus_) {
        if (!killed && std::chrono::steady_clock::now() > lingerLimit) {
            Log::line(kTag, "qlcopy closed its event stream but is still running 30 s later — killing it");
            (void)spawnedChild_->signalGroup(SIGKILL);
            killed = true;
        }
        co_await sleepFor(executor, env_->exitPollInterval);
    }
    logStep("qlcopy exit " + exitText(), false);
}

asio::awaitable<void> QlcopyJobRunner::readEvents(std::shared_ptr<asio::posix::stream_descriptor> pipe) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        auto [error, count] = co_await pipe->async_read_some(asio::buffer(buffer), asio::experimental::as_tuple(asio::use_awaitable));
        if (count > 0) {
            for (const auto& line : lines_.append(std::string_view(buffer.data(), count))) handleLine(line);
        }
        if (error) {
            if (error != asio::error::eof && error != asio::error::operation_aborted) {
                Log::f(kTag, "event pipe read failed: {}", error.message());
            }
            break;
        }
    }
    if (auto tail = lines_.flush()) handleLine(*tail);
    eventsEnded_ = true;
    std::error_code ignored;
    pipe->close(ignored);
}

asio::awaitable<void> QlcopyJobRunner::readDiagnostics(std::shared_ptr<asio::posix::stream_descriptor> pipe,
                                                       bool keep) {
    // The engine's standard error is its own log: every line goes to the server log, and the
    // last few kilobytes are kept for a failure that has nothing better to say.
    std::vector<char> buffer(16 * 1024);
    LineAccumulator lines;
    constexpr std::size_t kTailLimit = 8 * 1024;
    auto take = [&](const std::string& line) {
        if (line.empty()) return;
        if (keep) {
            Log::line("qlcopy", line);
            diagnosticsTail_ += line;
            diagnosticsTail_ += '\n';
            if (diagnosticsTail_.size() > kTailLimit) diagnosticsTail_.erase(0, diagnosticsTail_.size() - kTailLimit);
        }
    };
    for (;;) {
        auto [error, count] = co_await pipe->async_read_some(asio::buffer(buffer), asio::experimental::as_tuple(asio::use_awaitable));
        if (count > 0) {
            for (const auto& line : lines.append(std::string_view(buffer.data(), count))) take(line);
        }
        if (error) break;
    }
    if (auto tail = lines.flush()) take(*tail);
    std::error_code ignored;
    pipe->close(ignored);
}

asio::awaitable<void> QlcopyJobRunner::awaitExit(std::shared_ptr<asio::posix::stream_descriptor> pipe) {
    auto executor = strand();
    while (!exitStatus_) {
        auto status = spawnedChild_->tryWait();
        if (!status) {
            Log::f(kTag, "waiting for qlcopy failed (errno {}) — treating it as gone", status.error());
            exitStatus_ = PosixSpawnedProcess::ExitStatus{-1, false, 0};
            break;
        }
        if (*status) {
            exitStatus_ = **status;
            break;
        }
        co_await sleepFor(executor, env_->exitPollInterval);
    }
    // Whatever the engine wrote before it ended is read to the end; a pipe that something else
    // keeps open is closed after the drain limit.
    const auto deadline = std::chrono::steady_clock::now() + env_->pipeDrainLimit;
    while (!eventsEnded_ && std::chrono::steady_clock::now() < deadline) {
        co_await sleepFor(executor, env_->exitPollInterval);
    }
    if (!eventsEnded_) {
        Log::line(kTag, "qlcopy exited but its event pipe is still open — closing it");
        std::error_code ignored;
        pipe->cancel(ignored);
        pipe->close(ignored);
    }
}

void QlcopyJobRunner::handleLine(const std::string& line) {
    lastEventAt_ = std::chrono::steady_clock::now();
    auto outcome = QlcopyLineHandler::handle(line);
    for (const auto& text : outcome.serverLog) Log::line(kTag, text);
    if (outcome.event && outcome.event->type == QlcopyEvent::Kind::terminated) {
        terminatedSignal_ = outcome.event->signal.value_or(0);
        awaitingInterruptedVerdict_ = true;
        Log::f(kTag, "engine reported `terminated` for signal {} (scanner at '{}', executor at '{}'); waiting for the "
               "summary's verdict",
               *terminatedSignal_, outcome.event->scannerPath.value_or(""), outcome.event->executorPath.value_or(""));
    }
    if (outcome.forward) {
        if (outcome.isTerminal) {
            if (!engineTerminal_) {
                engineTerminal_ = std::make_unique<EngineTerminal>(EngineTerminal{*outcome.forward, *outcome.event});
            } else {
                Log::line(kTag, "a second terminal event from qlcopy ignored");
            }
            if (outcome.isSummary) capturedSummary_ = *outcome.forward;
            awaitingInterruptedVerdict_ = false;
        } else {
            if (outcome.isProgress) lastProgress_ = *outcome.forward;
            emit(std::move(*outcome.forward));
        }
    }
    if (pauseState_ == PauseState::pauseRequested) stopEngineForPause("at an event boundary");
}

void QlcopyJobRunner::stopEngineForPause(std::string_view why) {
    if (!spawnedChild_ || exitStatus_) return;
    // An engine that has already ended can't be stopped; its exit is what comes next.
    if (auto status = spawnedChild_->tryWait(); status && *status) {
        exitStatus_ = **status;
        Log::f(kTag, "pause: qlcopy had already ended ({})", describeExit(*exitStatus_));
        return;
    }
    if (auto stopped = spawnedChild_->stop(); !stopped) {
        Log::f(kTag, "pause: SIGSTOP failed (errno {})", stopped.error());
        return;
    }
    pauseState_ = PauseState::paused;
    ++pauseGeneration_;
    logStep(fmt::format("paused qlcopy (SIGSTOP, {})", why));
    emit(PayloadBuilder::pausedPayload());
}

asio::awaitable<void> QlcopyJobRunner::pauseDeadline(std::uint64_t generation) {
    co_await sleepFor(strand(), env_->pauseDeadline);
    if (generation != pauseGeneration_ || pauseState_ != PauseState::pauseRequested) co_return;
    stopEngineForPause("no event before the pause deadline");
}

asio::awaitable<void> QlcopyJobRunner::killAfterGrace(std::uint64_t) {
    co_await sleepFor(strand(), env_->killGrace);
    if (!spawnedChild_ || exitStatus_) co_return;
    auto status = spawnedChild_->tryWait();
    if (status && *status) {
        exitStatus_ = **status;
        co_return;
    }
    // Signal 0 only asks whether the process is still there.
    if (spawnedChild_->sendSignal(0)) {
        Log::f("cancel", "QlcopyJobRunner: qlcopy is still running {} ms after SIGINT — sending SIGKILL",
               env_->killGrace.count());
        (void)(spawnedChild_->hasOwnProcessGroup() ? spawnedChild_->signalGroup(SIGKILL) : spawnedChild_->kill());
    }
}

// MARK: - Control

asio::awaitable<void> QlcopyJobRunner::listenerGoneOnStrand() {
    if (emittedTerminal_ || isCancelled_) co_return;
    Log::line(kTag, "nobody listens to this run any more — stopping it");
    co_await cancelOnStrand(CancelReason::userRequested());
}

asio::awaitable<void> QlcopyJobRunner::cancelOnStrand(CancelReason reason) {
    if (emittedTerminal_) {
        Log::f("cancel", "QlcopyJobRunner cancel({}) after the terminal — nothing to stop", reason.description());
        co_return;
    }
    const bool running = spawnedChild_ && !exitStatus_;
    if (isCancelled_) {
        Log::f("cancel", "QlcopyJobRunner cancel({}) received — already cancelling ({})", reason.description(),
               cancelReason_.description());
        co_return;
    }
    Log::f("cancel", "QlcopyJobRunner cancel({}) received — child {}", reason.description(),
           running ? "spawned; sending SIGINT" : "not spawned yet (checkpoint will stop the run)");
    cancelReason_ = std::move(reason);
    isCancelled_ = true;
    if (preparationCommandControl_) preparationCommandControl_->cancel();
    if (running) {
        if (auto sent = spawnedChild_->interrupt(); !sent) Log::f("cancel", "SIGINT failed (errno {})", sent.error());
        // A stopped engine can't act on SIGINT until it runs again.
        if (pauseState_ == PauseState::paused) (void)spawnedChild_->resume();
        spawnDetached(keepAlive(shared_from_this(), killAfterGrace(0)), kTag);
    }
    if (pauseState_ != PauseState::running) {
        pauseState_ = PauseState::running;
        ++pauseGeneration_;
    }
}

asio::awaitable<bool> QlcopyJobRunner::pauseOnStrand() {
    if (emittedTerminal_ || isCancelled_ || (spawnedChild_ && exitStatus_)) co_return false;
    if (pauseState_ != PauseState::running) co_return true;
    pauseState_ = PauseState::pauseRequested;
    emit(PayloadBuilder::pauseRequestedPayload());
    if (!spawnedChild_) {
        logStep("pause requested before qlcopy started — it will be paused as soon as it starts");
        co_return true;
    }
    const auto quiet = std::chrono::steady_clock::now() - lastEventAt_;
    if (quiet >= env_->quietPauseAfter) {
        stopEngineForPause("qlcopy had gone quiet");
    } else {
        spawnDetached(keepAlive(shared_from_this(), pauseDeadline(++pauseGeneration_)), kTag);
    }
    co_return true;
}

asio::awaitable<bool> QlcopyJobRunner::resumeOnStrand() {
    if (emittedTerminal_) co_return false;
    switch (pauseState_) {
        case PauseState::running: co_return false;
        case PauseState::pauseRequested:
            ++pauseGeneration_;
            pauseState_ = PauseState::running;
            logStep("pause withdrawn before qlcopy was stopped");
            emit(PayloadBuilder::resumedPayload());
            co_return true;
        case PauseState::paused:
            if (spawnedChild_ && !exitStatus_) {
                if (auto sent = spawnedChild_->resume(); !sent) Log::f(kTag, "SIGCONT failed (errno {})", sent.error());
            }
            pauseState_ = PauseState::running;
            lastEventAt_ = std::chrono::steady_clock::now();
            logStep("resumed qlcopy (SIGCONT)");
            emit(PayloadBuilder::resumedPayload());
            co_return true;
    }
    co_return false;
}

// MARK: - The terminal

QlcopyJobRunner::Event QlcopyJobRunner::selectTerminal(bool& synthesized) {
    synthesized = true;
    if (spawnError_) return PayloadBuilder::failedPayload(spawnError_->message(), "copyFiles");

    if (engineTerminal_) {
        const auto& event = engineTerminal_->event;
        const bool interrupted = event.type == QlcopyEvent::Kind::summary && event.interrupted.value_or(false);
        if (!interrupted) {
            if (isCancelled_) Log::line(kTag, "the engine finished its work before the signal; reporting its own terminal");
            synthesized = false;
            return engineTerminal_->payload;
        }
        if (isCancelled_ && cancelReason_.isUserRequested()) {
            Log::line(kTag, "the engine stopped on the user's cancel; reporting cancelled");
            return PayloadBuilder::cancelledPayload();
        }
        // Interrupted by a watcher's cancel, or by a signal nobody here sent: a failure, with the
        // summary's facts.
        const int signal = terminatedSignal_.value_or(exitStatus_ && exitStatus_->signalled ? exitStatus_->signal : 0);
        std::string message;
        if (isCancelled_) {
            message = cancelReason_.message().value_or("The copy was stopped.");
        } else {
            message = fmt::format("The copy was interrupted{} before it finished, after copying {} item{} ({} bytes). "
                                  "Run the copy again to finish it.",
                                  signal ? fmt::format(" by signal {}", signal) : std::string(),
                                  event.itemsCopied.value_or(0), event.itemsCopied.value_or(0) == 1 ? "" : "s",
                                  event.bytesCopied.value_or(0));
        }
        auto terminal = PayloadBuilder::failedPayload(message, "copyFiles");
        auto* failed = terminal.mutable_failed();
        failed->set_error_count(event.errors.value_or(0));
        failed->set_failed_path(event.firstErrorPath.value_or(""));
        failed->set_failed_syscall(event.firstErrorSyscall.value_or(""));
        failed->set_failed_side(event.firstErrorSide.value_or(""));
        failed->set_failed_errno(event.firstErrorErrno.value_or(0));
        failed->set_failed_at_unix_nanos(event.firstErrorUnixNanos.value_or(0));
        Log::f(kTag, "interrupted summary after {}; reporting failed", isCancelled_ ? cancelReason_.description()
                                                                                    : std::string("an engine-side stop"));
        return terminal;
    }

    std::string what;
    Event terminal;
    if (isCancelled_ && cancelReason_.isUserRequested()) {
        what = "cancelled";
        terminal = PayloadBuilder::cancelledPayload();
    } else if (isCancelled_) {
        what = "failed (" + cancelReason_.description() + ")";
        terminal = PayloadBuilder::failedPayload(cancelReason_.message().value_or("The copy was stopped."), "copyFiles");
    } else {
        const auto exit = exitStatus_.value_or(PosixSpawnedProcess::ExitStatus{-1, false, 0});
        std::string progress;
        if (lastProgress_) {
            const auto& p = lastProgress_->progress();
            progress = p.files_total() > 0
                           ? fmt::format(" after copying {} of {} files", p.files_copied(), p.files_total())
                           : fmt::format(" after copying {} files", p.files_copied());
        }
        auto message = fmt::format("The copy engine stopped unexpectedly ({}) without reporting a result{}. Run the "
                                   "copy again to finish it.",
                                   describeExit(exit), progress);
        what = "failed (" + describeExit(exit) + ")";
        terminal = PayloadBuilder::failedPayload(message, "copyFiles");
        if (lastProgress_) terminal.mutable_failed()->set_failed_path(lastProgress_->progress().current_path());
        if (!diagnosticsTail_.empty()) Log::f(kTag, "qlcopy's last words:\n{}", diagnosticsTail_);
    }
    Log::f(kTag, "the engine did not finish its work; substituting {}", what);
    return terminal;
}

// MARK: - Post-copy

asio::awaitable<void> QlcopyJobRunner::postCopy(Event terminal, bool synthesized) {
    const bool succeeded = terminal.has_completed();
    logStep(fmt::format("post-copy: begin (exit={}, cancelled={}, hook={})", exitText(), isCancelled_,
                        static_cast<bool>(options_.postCopyRestore)));

    logStep("post-copy: tile-state capture begin");
    if (spawnedChild_ && !request_.preview() && !request_.dry_run() && env_->captureTileState &&
        !request_.tile_id().empty()) {
        auto tile = request_.tile_id();
        auto path = statePath_;
        try {
            co_await env_->captureTileState(std::move(tile), std::move(path), engineUid());
        } catch (const std::exception& e) {
            Log::f(kTag, "post-copy: tile-state capture failed: {}", e.what());
        }
    }
    logStep("post-copy: tile-state capture done");

    if (options_.postCopyRestore && succeeded) {
        Log::f("finalize", "post-copy restore hook @ {} (exitCode=0)", destinationMount_);
        auto mount = destinationMount_;
        try {
            co_await options_.postCopyRestore(std::move(mount));
        } catch (const std::exception& e) {
            Log::f(kTag, "post-copy: restore hook failed: {}", e.what());
        }
        logStep("post-copy: restore hook done");
    }

    logStep(fmt::format("post-copy: snapshot release begin (held={})", acquiredSnapshotLease_.has_value()));
    if (acquiredSnapshotLease_ && env_->snapshotCoordinator) {
        const auto lease = acquiredSnapshotLease_->lease;
        acquiredSnapshotLease_.reset();
        try {
            co_await env_->snapshotCoordinator->release(lease);
        } catch (const std::exception& e) {
            Log::f(kTag, "post-copy: snapshot release failed: {}", e.what());
        }
    }
    logStep("post-copy: snapshot release done");

    logStep(fmt::format("post-copy: ownership restore begin (src={} dst={})", priorText(sourcePriorEnabled_),
                        priorText(destinationPriorEnabled_)));
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        const bool isSource = side == EndpointSide::source;
        if (!(isSource ? sourceOwnershipChanged_ : destinationOwnershipChanged_)) continue;
        auto mount = isSource ? sourceOwnershipMount_ : destinationOwnershipMount_;
        Log::f(kTag, "ownership restore: {} begin ({})", caseName(side), mount);
        try {
            auto restored = co_await env_->ownership->setOwnersEnabled(std::move(mount), false);
            if (!restored) Log::f(kTag, "ownership restore: {} failed: {}", caseName(side), restored.error());
        } catch (const std::exception& e) {
            Log::f(kTag, "ownership restore: {} failed: {}", caseName(side), e.what());
        }
    }
    Log::line(kTag, "ownership restore: done");

    logStep("post-copy: mount cleanup begin");
    if (request_.destination_connect_triggered()) {
        Log::f(kTag, "mount-restore: tile {} — destination left as the user connected it (run-on-connect fired this "
               "run; its pre-run state was sampled mid-attach, not chosen)",
               request_.tile_id());
    }
    try {
        auto key = runIDText_;
        co_await env_->mountCoordinator->cleanup(std::move(key), succeeded);
    } catch (const std::exception& e) {
        Log::f(kTag, "post-copy: mount cleanup failed: {}", e.what());
    }
    for (auto side : {EndpointSide::source, EndpointSide::destination}) {
        const bool isSource = side == EndpointSide::source;
        if (!(isSource ? didConnectSourceShare_ : didConnectDestinationShare_)) continue;
        auto url = isSource ? sourceShareURL_ : destinationShareURL_;
        try {
            co_await env_->shareConnect->disconnect(std::move(url));
        } catch (const std::exception& e) {
            Log::f(kTag, "post-copy: disconnecting the {} share failed: {}", caseName(side), e.what());
        }
    }
    logStep("post-copy: mount cleanup done");

    if (options_.startupDiskFlag) {
        logStep("post-copy: startup-disk flag begin");
        auto mount = destinationMount_;
        try {
            co_await options_.startupDiskFlag(std::move(mount));
        } catch (const std::exception& e) {
            Log::f(kTag, "post-copy: startup-disk flag failed: {}", e.what());
        }
        logStep("post-copy: startup-disk flag done");
    }
    logStep("post-copy: cleanup done");

    std::vector<wire::OnSuccessAction> actions;
    for (int action : request_.on_success()) actions.push_back(static_cast<wire::OnSuccessAction>(action));
    if (!actions.empty() && env_->onSuccessExecutor) {
        const auto outcome = succeeded ? OnSuccessExecutor::RunOutcome::completed
                             : terminal.has_cancelled() ? OnSuccessExecutor::RunOutcome::cancelled
                                                        : OnSuccessExecutor::RunOutcome::failed;
        OnSuccessExecutor::RunFacts facts{request_.tile_id(), request_.tile_name(), runIDText_, request_.source(),
                                          request_.destination()};
        try {
            co_await env_->onSuccessExecutor->perform(std::move(actions), outcome, std::move(facts));
        } catch (const std::exception& e) {
            Log::f(kTag, "post-copy: on-success actions failed: {}", e.what());
        }
    }
    if (!request_.shortcut_name().empty()) {
        logWarning(fmt::format("shortcut '{}' not run — this version of Quillo can't run Shortcuts",
                               request_.shortcut_name()));
    }

    if (!emittedTerminal_) {
        out_.push(std::move(terminal));
        emittedTerminal_ = true;
    }
    Log::f(kTag, "post-copy: terminal emitted (synthesized={})", synthesized);
    out_.finish();
}

}  // namespace ql
