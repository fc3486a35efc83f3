#include "app/core/TileProse.h"

#include "app/core/ScheduleGrammar.h"

namespace ql {

namespace {

using Run = TileProse::Run;

Run plain(std::string text) { return {Run::Kind::plain, std::move(text), {}, {}}; }
Run link(std::string text, std::string slot, std::string hint, Run::Kind kind = Run::Kind::link) {
    return {kind, std::move(text), std::move(slot), std::move(hint)};
}

std::string destinationText(const Tile& tile) {
    if (tile.destinationIsDiskImage) return "the disk image";
    return tile.destinationName;
}

}  // namespace

std::string TileProse::whenPhrase(const Tile& tile) {
    const auto& s = tile.schedule;
    const std::string d = destinationText(tile);
    if (!s.scheduleOn && !s.mountOn) return "when you click Copy Now, not on a schedule";
    if (!s.scheduleOn) return "when " + d + " is connected";
    std::string out = ScheduleGrammar::phrase(s);
    if (s.mountOn) out += ", and when " + d + " is connected";
    return out;
}

std::vector<Run> TileProse::runs(const Tile& tile) { return runs(tile, Context{}); }

std::vector<Run> TileProse::runs(const Tile& tile, const Context& context) {
    std::vector<Run> out;
    const std::string source = tile.sourceName;
    const std::string destination = destinationText(tile);

    // Configuration.
    out.push_back(plain("Copy files from "));
    out.push_back(link(source, "source", "Pick a different source volume"));
    out.push_back(plain(" to "));
    if (destination.empty()) {
        out.push_back(link("your selected destination", "destination", "Pick the destination volume",
                           Run::Kind::missingLink));
    } else {
        out.push_back(link(destination, "destination", "Pick a different destination volume"));
    }
    out.push_back(plain(", using "));
    if (context.copyRuleMissing) {
        out.push_back(link(Tile::ruleDisplayName(tile.copyRuleFilename), "copy-script",
                           "This Copy Rule can’t be found—pick a different one", Run::Kind::attentionLink));
    } else {
        out.push_back(link(Tile::ruleDisplayName(tile.copyRuleFilename), "copy-script",
                           "Pick what to copy from the source"));
    }
    out.push_back(plain(" with "));
    out.push_back(link(Tile::displayName(tile.copyMode), "during-copy", "Change how files are compared"));
    out.push_back(plain(". "));

    // Bootability.
    if (tile.asBootable) {
        out.push_back(plain("The result will be "));
        out.push_back(link("bootable", "bootable", "Choose whether the destination is bootable"));
        out.push_back(plain(". "));
    } else {
        out.push_back(link("The result will not be bootable.", "bootable", "Choose whether the destination is bootable"));
        out.push_back(plain(" "));
    }

    // What the mode does.
    const std::string d = destination.empty() ? "the destination" : destination;
    std::string mode;
    bool keepsBackups = true;
    switch (tile.copyMode) {
        case Tile::CopyMode::smartUpdate: mode = "Smart Update makes " + d + " identical to your selections from " + source + "."; break;
        case Tile::CopyMode::copyNewer: mode = "Copy Newer updates " + d + " with any newer files selected from " + source + "."; break;
        case Tile::CopyMode::copyDifferent:
            mode = "Copy Different updates " + d + " with any different files selected from " + source + ".";
            break;
        case Tile::CopyMode::eraseThenCopy:
            keepsBackups = false;
            mode = tile.asBootable ? "Erase Then Copy replicates " + source + " onto " + d +
                                         " block by block as a bootable backup—every file, no filtering."
                                   : "Erase Then Copy erases " + d + " and replaces it with the selections from " +
                                         source + ". The result is a plain volume, not bootable.";
            break;
    }
    if (context.timeMachine.destinationHasBackup) {
        mode += keepsBackups ? " Time Machine backups are preserved." : " Time Machine backups are overwritten.";
    } else if (context.timeMachine.sourceHasBackup) {
        mode += " Time Machine backups are included in the copy.";
    }
    out.push_back(plain(mode + " "));

    // When.
    out.push_back(plain("Runs "));
    const auto& s = tile.schedule;
    if (!s.scheduleOn && !s.mountOn) {
        out.push_back(plain("when you click Copy Now, not on a "));
        out.push_back(link("schedule", "schedule", "Edit schedule"));
    } else if (!s.scheduleOn) {
        out.push_back(link("when " + d + " is connected", "schedule", "Edit schedule"));
    } else {
        out.push_back(link(ScheduleGrammar::phrase(s), "schedule", "Edit schedule"));
        if (s.mountOn) {
            out.push_back(plain(", and "));
            out.push_back(link("when " + d + " is connected", "schedule", "Edit schedule"));
        }
    }
    if (context.needsUnlock) {
        out.push_back(plain(" "));
        out.push_back(link("once copying is unlocked", "unlock", "Allow unattended copies"));
    }

    // On success.
    std::vector<std::string> actions;
    using Power = Tile::OnSuccessChoice::PowerAction;
    using Extra = Tile::OnSuccessChoice::AdditionalAction;
    switch (tile.onSuccess.powerAction) {
        case Power::shutdown: actions.push_back("shuts the Mac down on success"); break;
        case Power::restart: actions.push_back("restarts the Mac on success"); break;
        case Power::sleep: actions.push_back("puts the Mac to sleep on success"); break;
        case Power::doNothing: break;
    }
    if (tile.onSuccess.additional.count(Extra::ejectSource)) actions.push_back("ejects " + source + " on success");
    if (tile.onSuccess.additional.count(Extra::ejectDestination)) actions.push_back("ejects " + d + " on success");
    if (tile.onSuccess.additional.count(Extra::notify)) actions.push_back("sends a notification after every copy");
    if (tile.shortcut) {
        actions.push_back(actions.empty() ? "Shortcut " + tile.shortcut->name + " runs with every copy"
                                          : "and runs Shortcut " + tile.shortcut->name + " with every copy");
    }
    if (actions.empty()) {
        out.push_back(plain(", with "));
        out.push_back(link("no actions on success", "on-success", "Choose follow-up actions"));
    } else {
        out.push_back(plain("; "));
        out.push_back(link(ScheduleGrammar::joinList(actions), "on-success", "Choose follow-up actions"));
    }
    out.push_back(plain("."));
    return out;
}

std::string TileProse::plainText(const std::vector<Run>& runs) {
    std::string out;
    for (const auto& r : runs) out += r.text;
    return out;
}

}  // namespace ql
