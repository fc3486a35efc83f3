#include "QLModel/PhaseCatalogue.h"

namespace ql {
namespace {

using Step = ClientPhaseDescriptor::StepDescriptor;

Step step(const char* id, const char* pending, const char* active, const char* done) {
    return Step{id, PhaseLabels(pending, active, done)};
}

Step resolveStep() { return step("resolve", "Resolve volumes", "Resolving volumes", "Resolved volumes"); }
Step mountStep() { return step("mount", "Mount volumes", "Mounting volumes", "Mounted volumes"); }
// The done label of "ownership" reads the same as its pending label.
Step ownershipStep() { return step("ownership", "Set ownership", "Setting ownership", "Set ownership"); }
Step attachStep() { return step("attach", "Open disk image", "Opening disk image", "Opened disk image"); }
Step eraseStep() { return step("erase", "Erase destination", "Erasing destination", "Erased destination"); }

PhaseLabels prepareLabels() {
    return PhaseLabels("Prepare destination", "Preparing destination", "Prepared destination");
}

}  // namespace

const ClientPhaseDescriptor& PhaseCatalogue::prepare() {
    static const ClientPhaseDescriptor d{"prepare", prepareLabels(), {resolveStep(), mountStep(), ownershipStep()},
                                         false};
    return d;
}

const ClientPhaseDescriptor& PhaseCatalogue::prepareDiskImage(bool withErase) {
    static const ClientPhaseDescriptor withEraseStep{
        "prepare", prepareLabels(), {resolveStep(), attachStep(), eraseStep(), mountStep(), ownershipStep()}, false};
    static const ClientPhaseDescriptor withoutEraseStep{
        "prepare", prepareLabels(), {resolveStep(), attachStep(), mountStep(), ownershipStep()}, false};
    return withErase ? withEraseStep : withoutEraseStep;
}

const ClientPhaseDescriptor& PhaseCatalogue::snapshot() {
    static const ClientPhaseDescriptor d{
        "snapshot",
        PhaseLabels("Capture snapshot", "Capturing snapshot", "Captured snapshot"),
        {step("snapshot", "Capture snapshot", "Capturing snapshot", "Captured snapshot")},
        false};
    return d;
}

const ClientPhaseDescriptor& PhaseCatalogue::files() {
    static const ClientPhaseDescriptor d{"files",
                                         PhaseLabels("Copy files", "Copying files", "Copied files"),
                                         {step("copyFile", "Copy files", "Copying files", "Copied files")},
                                         true};
    return d;
}

const ClientPhaseDescriptor& PhaseCatalogue::erase() {
    static const ClientPhaseDescriptor d{
        "erase", PhaseLabels("Erase destination", "Erasing destination", "Erased destination"), {eraseStep()}, false};
    return d;
}

const ClientPhaseDescriptor& PhaseCatalogue::encrypt() {
    static const ClientPhaseDescriptor d{
        "encrypt",
        PhaseLabels("Re-encrypt destination", "Re-encrypting destination", "Re-encrypted destination"),
        {step("encrypt", "Re-encrypt destination", "Re-encrypting destination", "Re-encrypted destination")},
        false};
    return d;
}

const ClientPhaseDescriptor& PhaseCatalogue::replicate() {
    static const ClientPhaseDescriptor d{
        "replicate",
        PhaseLabels("Replicate volumes", "Replicating volumes", "Replicated volumes"),
        {
            step("replicate:system", "Replicate System volume", "Replicating System volume", "Replicated System volume"),
            step("replicate:data", "Replicate Data volume", "Replicating Data volume", "Replicated Data volume"),
            step("replicate:preboot", "Update Preboot volume", "Updating Preboot volume", "Updated Preboot volume"),
            step("replicate:recovery", "Update Recovery volume", "Updating Recovery volume", "Updated Recovery volume"),
            step("replicate:vm", "Update VM volume", "Updating VM volume", "Updated VM volume"),
        },
        true};
    return d;
}

const ClientPhaseDescriptor& PhaseCatalogue::finalize() {
    static const ClientPhaseDescriptor d{
        "finalize",
        PhaseLabels("Make destination bootable", "Making destination bootable", "Made destination bootable"),
        {
            step("finalize:rename", "Rename destination volumes", "Renaming destination volumes",
                 "Renamed destination volumes"),
            step("finalize:cryptexes", "Copy Cryptexes", "Copying Cryptexes", "Copied Cryptexes"),
            step("finalize:bindingRefresh", "Refresh destination identity", "Refreshing destination identity",
                 "Refreshed destination identity"),
        },
        false};
    return d;
}

std::vector<ClientPhaseDescriptor> PhaseCatalogue::all() {
    return {prepare(), prepareDiskImage(true), prepareDiskImage(false), snapshot(), files(),
            erase(),   encrypt(),              replicate(),             finalize()};
}

std::optional<PhaseCatalogue::Insertion> PhaseCatalogue::insertion(std::string_view phaseID) {
    if (phaseID == "snapshot") return Insertion{&snapshot(), {"files", "finalize"}};
    if (phaseID == "encrypt") return Insertion{&encrypt(), {"prepare", "snapshot", "files", "finalize"}};
    if (phaseID == "erase") return Insertion{&erase(), {"encrypt", "prepare", "snapshot", "files", "finalize"}};
    return std::nullopt;
}

}  // namespace ql
