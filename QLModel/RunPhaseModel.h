#pragma once

#include "QLModel/RunPhase.h"

#include <optional>
#include <string_view>
#include <vector>

namespace ql {

// The run checklist's pure functions: the initial list for each kind of run, and the moves that
// the server's phase and step reports make. The client keeps one list per running job and
// replaces it with each result.
struct RunPhaseModel {
    enum class RunShape {
        smartUpdate,    // files are updated in place
        eraseThenCopy,  // the destination is erased first
    };

    struct SeedInputs {
        bool destinationIsDiskImage = false;
        // The disk image will be erased before copying.
        bool imageEraseWillRun = false;
    };

    // The initial checklist, every phase and step pending:
    //   smartUpdate                      prepare, snapshot, files (the disk-image prepare, without
    //                                    its erase step, for a disk-image destination)
    //   eraseThenCopy, bootable          prepare, replicate, finalize
    //   eraseThenCopy, not a disk image  erase, prepare, snapshot, files
    //   eraseThenCopy, disk image        disk-image prepare (with erase when imageEraseWillRun),
    //                                    snapshot, files
    // The bootable flag is consulted only for eraseThenCopy.
    static std::vector<RunPhase> seed(RunShape shape, bool bootable, SeedInputs inputs);

    // The server started phase `phaseID`: earlier phases become done, it becomes active, later
    // ones pending. "snapshot", "encrypt" and "erase" are inserted when missing (before the first
    // of their anchors present, else at the end); any other unknown id leaves the list unchanged
    // and, with `logUnknown`, logs "[applyPhaseStart] unrecognised daemon phase '<id>'".
    static std::vector<RunPhase> applyPhaseStart(std::vector<RunPhase> phases, std::string_view phaseID,
                                                 bool logUnknown);

    // The server started step `stepID` of phase `phaseID`: the phase becomes active if it was
    // pending; earlier pending steps become done (a skipped step shows as done); the step becomes
    // active. Unknown phase: unchanged. Unknown step: unchanged, with
    // "[applyStepStart] no step '<step>' in client phase '<phase>'".
    static std::vector<RunPhase> applyStepStart(std::vector<RunPhase> phases, std::string_view phaseID,
                                                std::string_view stepID);

    // As step start, but the step becomes done; the unknown-step line reads "[applyStepEnd] ...".
    static std::vector<RunPhase> applyStepEnd(std::vector<RunPhase> phases, std::string_view phaseID,
                                              std::string_view stepID);

    // The server ended phase `phaseID`: found (or inserted) as for a start, earlier phases become
    // done, the phase becomes done and its pending and active steps become done.
    static std::vector<RunPhase> applyPhaseEnd(std::vector<RunPhase> phases, std::string_view phaseID,
                                               bool logUnknown);

    // The run failed. The named phase (found or inserted as for a start; otherwise the active
    // phase) shows its failed label, earlier phases become done, and the named step (otherwise
    // the phase's active step) fails too. With no phase named: the active phase and its active
    // step fail.
    static std::vector<RunPhase> applyFailure(std::vector<RunPhase> phases, std::optional<std::string_view> phaseID,
                                              std::optional<std::string_view> stepID);

    // The index of phase `phaseID`, or -1.
    static int phaseIndex(const std::vector<RunPhase>& phases, std::string_view phaseID);
};

}  // namespace ql
