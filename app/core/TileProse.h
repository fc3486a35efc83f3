#pragma once

#include "app/core/Tile.h"

#include <string>
#include <vector>

namespace ql {

// A job told in a few sentences in which every choice is a phrase the user can act on:
//
//   Copy files from Documents to Backup, using Backup - all files with Smart Update. The result
//   will not be bootable. Smart Update makes Backup identical to your selections from
//   Documents. Runs when you click Copy Now, not on a schedule, with no actions on success.
struct TileProse {
    // One segment of the prose.
    struct Run {
        enum class Kind { plain, bold, link, boldLink, missingLink, attentionLink };
        Kind kind = Kind::plain;
        std::string text;
        std::string slot;  // the picker a link opens: "source", "destination", "copy-script", ...
        std::string hint;
        friend bool operator==(const Run&, const Run&) = default;
    };

    // Whether each endpoint holds a Time Machine backup folder.
    struct TimeMachineContext {
        bool sourceHasBackup = false;
        bool destinationHasBackup = false;
    };

    struct Context {
        TimeMachineContext timeMachine;
        // The rule file could not be found.
        bool copyRuleMissing = false;
        // Unattended copies still need the administrator's approval.
        bool needsUnlock = false;
    };

    static std::vector<Run> runs(const Tile& tile, const Context& context);
    static std::vector<Run> runs(const Tile& tile);
    // The runs' texts joined, for a terminal.
    static std::string plainText(const std::vector<Run>& runs);
    // "Runs …" without the on-success part: "when you click Copy Now, not on a schedule",
    // "every weeknight at 11:00 PM, and when Backup is connected".
    static std::string whenPhrase(const Tile& tile);
};

}  // namespace ql
