#include "qlcopy/EngineOptions.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <charconv>

namespace ql {
namespace {

std::optional<OwnerMapping> parseOwnerMapping(const std::string& text) {
    auto colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return std::nullopt;
    unsigned long long uid = 0, gid = 0;
    auto r1 = std::from_chars(text.data(), text.data() + colon, uid);
    if (r1.ec != std::errc{} || r1.ptr != text.data() + colon) return std::nullopt;
    auto r2 = std::from_chars(text.data() + colon + 1, text.data() + text.size(), gid);
    if (r2.ec != std::errc{} || r2.ptr != text.data() + text.size()) return std::nullopt;
    if (uid > 0xFFFFFFFFull || gid > 0xFFFFFFFFull) return std::nullopt;
    return OwnerMapping{static_cast<uid_t>(uid), static_cast<gid_t>(gid)};
}

struct Parser {
    CLI::App app{"qlcopy — copies a folder tree faithfully and reports progress as JSON lines", "qlcopy"};
    EngineOptions options;
    std::string copyMode = "different";
    std::string ownerMapping;
    bool validate = false;
    bool version = false;
    std::vector<std::string> positionals;

    Parser() {
        app.set_help_flag("-h,--help", "Print this help and exit");
        app.allow_extras(false);
        app.add_option("--progress-fd", options.progressFd, "Descriptor that receives the JSON event lines")
            ->check(CLI::NonNegativeNumber);
        app.add_option("--state", options.statePath, "State file read at start and rewritten after a clean run");
        app.add_option("--snapshot", options.snapshotMount, "Read the source from this snapshot mount");
        app.add_option("--snap-event-anchor", options.snapEventAnchor, "Event identifier at which the snapshot was taken");
        app.add_option("--copy-mode", copyMode, "different, newer, or smart (different with --delete)")
            ->check(CLI::IsMember({"different", "newer", "smart"}));
        app.add_flag("--delete", options.deleteExtraneous, "Remove destination items the source does not have");
        app.add_flag("--clone-families", options.cloneFamilies, "Clone file data when both sides are on one filesystem that can");
        app.add_option("--script", options.scriptPath, "Copy rule document (.dset)");
        app.add_option("--script-search-dir", options.scriptSearchDirs, "Folder searched for included rule documents")
            ->allow_extra_args(false);
        app.add_flag("--strict-includes", options.strictIncludes, "Refuse the rule when an include cannot be found");
        app.add_flag("--dry-run", options.dryRun, "Change nothing; report what a copy would do");
        app.add_option("--abort-on-error-count", options.abortOnErrorCount, "Stop after this many item errors (0: never)")
            ->check(CLI::NonNegativeNumber);
        app.add_flag("--emit-items", options.emitItems, "Report every decision as an item event");
        app.add_option("--console-home", options.consoleHome, "Home folder of the console user");
        app.add_flag("--no-keybag", options.noKeybag, "There is no user keybag to watch");
        app.add_option("--keybag-sentinel", options.keybagSentinel, "Protected file whose readability tells whether the keybag is locked");
        app.add_option("--keybag-uid", options.keybagUid, "Console user of the keybag sentinel");
        app.add_option("--keybag-home", options.keybagHome, "Home folder of the keybag's user");
        app.add_option("--preserve-if-absent", options.preserveIfAbsent, "Keep destination items matching this pattern when the source lacks them")
            ->allow_extra_args(false);
        app.add_option("--optional", options.optionalPatterns, "Items matching this pattern may be unreadable or absent without failing")
            ->allow_extra_args(false);
        app.add_option("--retain-on-error", options.retainOnError, "Keep the destination copy of items matching this pattern when they fail")
            ->allow_extra_args(false);
        app.add_option("--map-noowners-owner", ownerMapping, "Give every written item this owner (uid:gid)");
        app.add_flag("--validate-script", validate, "Only check that the --script document loads (exit 0, or 3 with the reason)");
        app.add_flag("--version", version, "Print the engine version and exit");
        app.add_option("--workers", options.workers, "File-copy threads (0: automatic)")->check(CLI::Range(0, 64));
        app.add_option("--progress-interval", options.progressIntervalSeconds, "Seconds between progress events")
            ->check(CLI::Range(0.05, 60.0));
        app.add_option("--stall-after", options.stallAfterSeconds, "Seconds without progress that make a stall")
            ->check(CLI::Range(0.1, 86400.0));
        app.add_option("--slow-listing-after", options.slowListingSeconds, "Seconds after which a directory listing is slow")
            ->check(CLI::Range(0.1, 86400.0));
        app.add_option("--bwlimit", options.bandwidthLimit, "Limit file data to this many bytes per second");
        app.add_option("paths", positionals, "SOURCE DEST")->expected(0, 2);
    }
};

}  // namespace

std::string EngineOptions::usageText() {
    Parser p;
    return p.app.help();
}

tl::expected<EngineOptions, EngineOptions::UsageError> EngineOptions::parse(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv;
    argv.push_back("qlcopy");
    for (const auto& a : arguments) argv.push_back(a.c_str());
    return parse(static_cast<int>(argv.size()), argv.data());
}

tl::expected<EngineOptions, EngineOptions::UsageError> EngineOptions::parse(int argc, const char* const* argv) {
    Parser p;
    try {
        p.app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        EngineOptions o;
        o.command = Command::help;
        o.helpText = p.app.help();
        return o;
    } catch (const CLI::ParseError& e) {
        return tl::unexpected(UsageError{e.what()});
    }
    EngineOptions o = std::move(p.options);
    if (p.copyMode == "newer") {
        o.copyMode = CopyMode::newer;
    } else if (p.copyMode == "smart") {
        o.copyMode = CopyMode::different;
        o.deleteExtraneous = true;
    }
    if (!p.ownerMapping.empty()) {
        auto mapping = parseOwnerMapping(p.ownerMapping);
        if (!mapping) {
            return tl::unexpected(UsageError{fmt::format(
                "--map-noowners-owner: expected uid:gid in decimal, got '{}'", p.ownerMapping)});
        }
        o.noOwnersOwner = mapping;
    }
    if (o.noKeybag && o.keybagSentinel) {
        return tl::unexpected(UsageError{"--no-keybag and --keybag-sentinel contradict each other"});
    }
    if (p.version) {
        o.command = Command::version;
        return o;
    }
    if (p.validate) {
        o.command = Command::validateScript;
        if (!o.scriptPath || o.scriptPath->empty()) {
            return tl::unexpected(UsageError{"--validate-script needs --script PATH"});
        }
        return o;
    }
    if (p.positionals.size() != 2) {
        return tl::unexpected(UsageError{"expected two paths: SOURCE DEST"});
    }
    if (p.positionals[0].empty() || p.positionals[1].empty()) {
        return tl::unexpected(UsageError{"SOURCE and DEST must not be empty"});
    }
    if (o.progressFd < 0) {
        return tl::unexpected(UsageError{"--progress-fd is required"});
    }
    o.source = p.positionals[0];
    o.destination = p.positionals[1];
    return o;
}

}  // namespace ql
