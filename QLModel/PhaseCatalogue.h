#pragma once

#include "QLModel/ClientPhaseDescriptor.h"

#include <optional>
#include <string_view>
#include <vector>

namespace ql {

// Every phase of the run checklist with its steps and labels. Phase ids: "prepare", "snapshot",
// "files", "erase", "encrypt", "replicate", "finalize". The canonical order of all phases is
// erase, encrypt, prepare, snapshot, files (or replicate), finalize.
struct PhaseCatalogue {
    // "prepare": resolve, mount, ownership.
    static const ClientPhaseDescriptor& prepare();
    // "prepare" for a disk-image destination: resolve, attach, [erase,] mount, ownership.
    static const ClientPhaseDescriptor& prepareDiskImage(bool withErase);
    static const ClientPhaseDescriptor& snapshot();
    static const ClientPhaseDescriptor& files();
    static const ClientPhaseDescriptor& erase();
    static const ClientPhaseDescriptor& encrypt();
    static const ClientPhaseDescriptor& replicate();
    static const ClientPhaseDescriptor& finalize();

    // Every distinct descriptor above (both disk-image forms included).
    static std::vector<ClientPhaseDescriptor> all();

    // The phases the server may start on a checklist that lacks them ("snapshot", "encrypt",
    // "erase"): their descriptor and the phases they go before, in order of preference.
    struct Insertion {
        const ClientPhaseDescriptor* descriptor;
        std::vector<std::string_view> anchors;
    };
    static std::optional<Insertion> insertion(std::string_view phaseID);
};

}  // namespace ql
