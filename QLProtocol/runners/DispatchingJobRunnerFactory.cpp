#include "QLProtocol/runners/DispatchingJobRunnerFactory.h"

#include "QLProtocol/runners/UnavailableJobRunner.h"

#include "QLProtocol/server/RunIdText.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>

#include <stdexcept>

namespace ql {
namespace v1 = ql4::transport::v1;

namespace {

const char* boolText(bool value) { return value ? "true" : "false"; }

bool isNetworkShare(const v1::VolumeRef& ref) { return ref.key().kind_case() == v1::VolumeKey::kNetworkShare; }
bool isDiskImage(const v1::VolumeRef& ref) { return ref.key().kind_case() == v1::VolumeKey::kDiskImage; }

}  // namespace

DispatchingJobRunnerFactory::DispatchingJobRunnerFactory(std::shared_ptr<JobRunnerFactory> qlcopyFactory,
                                                         std::shared_ptr<JobRunnerFactory> asrFactory,
                                                         std::shared_ptr<JobRunnerFactory> eraseAndCopyFactory)
    : qlcopyFactory_(std::move(qlcopyFactory)),
      asrFactory_(std::move(asrFactory)),
      eraseAndCopyFactory_(std::move(eraseAndCopyFactory)) {
    if (!qlcopyFactory_ || !asrFactory_ || !eraseAndCopyFactory_)
        throw std::invalid_argument("dispatch needs all three runner factories");
}

std::string DispatchingJobRunnerFactory::modeText(int duringCopy) {
    switch (duringCopy) {
        case v1::DCM_UNSPECIFIED: return "dcmUnspecified";
        case v1::DCM_SMART_UPDATE: return "dcmSmartUpdate";
        case v1::DCM_ERASE_THEN_COPY: return "dcmEraseThenCopy";
        case v1::DCM_COPY_NEWER: return "dcmCopyNewer";
        case v1::DCM_COPY_DIFFERENT: return "dcmCopyDifferent";
        default: return fmt::format("UNRECOGNIZED({})", duringCopy);
    }
}

DispatchingJobRunnerFactory::Decision DispatchingJobRunnerFactory::decide(const v1::CopyRequest& received,
                                                                          const v1::RunId& runID) {
    Decision d;
    d.request = received;
    auto& request = d.request;

    // 1. Facts of the request as received.
    const bool folderSource = !received.source().subpath().empty() || !received.source_path().empty();
    const bool folderDestination = !received.destination().subpath().empty() || !received.destination_path().empty();
    // Only the known case counts: an unrecognised number is never an erase.
    const bool eraseThenCopy = received.during_copy() == v1::DCM_ERASE_THEN_COPY;
    const bool networkDestination = isNetworkShare(received.destination());
    const bool diskImageDestination = isDiskImage(received.destination());

    // 2. The runner's name for the log, from the request as received. It does not look at
    // network or disk-image destinations; those are coerced below.
    if (eraseThenCopy && received.is_catchup())
        d.runnerName = "QlcopyJobRunner(catch-up coerced from erase)";
    else if (eraseThenCopy && folderDestination)
        d.runnerName = "QlcopyJobRunner(folder-dest coerced from erase)";
    else if (eraseThenCopy && folderSource && received.as_bootable())
        d.runnerName = "EraseAndCopyJobRunner(folder-source: bootable stripped)";
    else if (eraseThenCopy && !received.as_bootable())
        d.runnerName = "EraseAndCopyJobRunner";
    else if (eraseThenCopy)
        d.runnerName = "AsrJobRunner";
    else
        d.runnerName = "QlcopyJobRunner";

    // 3. The dispatch line.
    d.logLines.push_back(fmt::format(
        "runner={} mode={} bootable={} folder(src={} dst={}) source(bsd={}) destination(bsd={}) runID={}", d.runnerName,
        modeText(received.during_copy()), boolText(received.as_bootable()), boolText(folderSource),
        boolText(folderDestination), received.source_bsd_device().empty() ? "?" : received.source_bsd_device(),
        received.destination_bsd_device().empty() ? "?" : received.destination_bsd_device(),
        RunIdText::hex(runID.value())));

    auto coerceToSmartUpdate = [&request](std::string sentence, Decision& out) {
        request.set_during_copy(v1::DCM_SMART_UPDATE);
        request.set_as_bootable(false);
        out.logLines.push_back(std::move(sentence));
        out.kind = RunnerKind::qlcopy;
    };

    // 5. A preview, and likewise a dry run, only looks: it never erases and never replicates.
    if (received.preview() || received.dry_run()) {
        if (eraseThenCopy) request.set_during_copy(v1::DCM_SMART_UPDATE);
        d.logLines.push_back(received.preview() ? "preview → QlcopyJobRunner (dry-run; erase/asr suppressed)"
                                                : "dry run → QlcopyJobRunner (evaluate only; erase/asr suppressed)");
        d.kind = RunnerKind::qlcopy;
        return d;
    }

    // 4.1 A copy inside a disk image can't start up a Mac.
    if (request.as_bootable() && diskImageDestination) {
        request.set_as_bootable(false);
        d.logLines.push_back(
            "disk-image destination with a bootable copy — clearing bootable (a copy inside a disk image can't start "
            "up a Mac)");
    }

    if (!eraseThenCopy) {
        d.kind = RunnerKind::qlcopy;
        return d;
    }

    // 4.2 Erase-then-copy: the first rule that holds decides.
    if (received.is_catchup()) {
        coerceToSmartUpdate("catch-up with erase-then-copy — coercing to Smart Update (a catch-up must never erase)", d);
    } else if (folderDestination) {
        coerceToSmartUpdate(
            "folder destination with erase-then-copy — coercing to Smart Update (folder erase-then-copy is "
            "unsupported)",
            d);
    } else if (networkDestination) {
        coerceToSmartUpdate(
            "network destination with erase-then-copy — coercing to Smart Update (a share cannot be erased)", d);
    } else if (diskImageDestination) {
        d.logLines.push_back(
            "disk-image destination with erase-then-copy → QlcopyJobRunner (erases the volume inside the image)");
        d.kind = RunnerKind::qlcopy;
    } else if (folderSource && request.as_bootable()) {
        request.set_as_bootable(false);
        d.logLines.push_back(
            "folder source with a bootable erase-then-copy — clearing bootable and erasing the destination for a "
            "file-level copy (a folder can't be replicated; asr would copy the whole source volume)");
        d.kind = RunnerKind::eraseAndCopy;
    } else if (request.as_bootable()) {
        d.kind = RunnerKind::asr;
    } else {
        d.kind = RunnerKind::eraseAndCopy;
    }
    return d;
}

std::shared_ptr<JobRunner> DispatchingJobRunnerFactory::makeRunner(const v1::CopyRequest& request,
                                                                   const v1::RunId& runID,
                                                                   const RunAuthority& authority) {
    auto decision = decide(request, runID);
    for (const auto& line : decision.logLines) Log::line("dispatch", line);
    if (authority.ownerRightsOnly && decision.kind != RunnerKind::qlcopy) {
        Log::f("dispatch", "{} refused for {}: it needs an administrator's approval",
               decision.kind == RunnerKind::asr ? "replication" : "erase-then-copy", authority.describe());
        return std::make_shared<UnavailableJobRunner>(
            decision.kind == RunnerKind::asr ? kReplicationNeedsApproval : kEraseNeedsApproval, runID);
    }
    switch (decision.kind) {
        case RunnerKind::asr: return asrFactory_->makeRunner(decision.request, runID, authority);
        case RunnerKind::eraseAndCopy: return eraseAndCopyFactory_->makeRunner(decision.request, runID, authority);
        case RunnerKind::qlcopy: break;
    }
    return qlcopyFactory_->makeRunner(decision.request, runID, authority);
}

}  // namespace ql
