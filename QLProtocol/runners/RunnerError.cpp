#include "QLProtocol/runners/RunnerError.h"

#include <fmt/format.h>

namespace ql {

namespace {
RunnerError make(RunnerError::Kind kind) {
    RunnerError e;
    e.kind = kind;
    return e;
}
RunnerError named(RunnerError::Kind kind, std::string name) {
    auto e = make(kind);
    e.name = std::move(name);
    return e;
}
}  // namespace

RunnerError RunnerError::identityMismatch(EndpointSide side, std::string name, std::string detail) {
    auto e = named(Kind::identityMismatch, std::move(name));
    e.side = side;
    e.detail = std::move(detail);
    return e;
}
RunnerError RunnerError::endpointUnresolved(EndpointSide side, std::string name, std::string reason,
                                            bool notConnected) {
    auto e = named(Kind::endpointUnresolved, std::move(name));
    e.side = side;
    e.detail = std::move(reason);
    e.notConnected = notConnected;
    return e;
}
RunnerError RunnerError::shareNotConnected(EndpointSide side, std::string text) {
    auto e = make(Kind::shareNotConnected);
    e.side = side;
    e.detail = std::move(text);
    e.notConnected = true;
    return e;
}
RunnerError RunnerError::volumeHostResolutionFailed(std::string path) {
    auto e = make(Kind::volumeHostResolutionFailed);
    e.path = std::move(path);
    return e;
}
RunnerError RunnerError::resolverTimedOut(std::string what, double seconds) {
    auto e = named(Kind::resolverTimedOut, std::move(what));
    e.seconds = seconds;
    return e;
}
RunnerError RunnerError::diskImageAmbiguousVolume(std::string name, std::int64_t count) {
    auto e = named(Kind::diskImageAmbiguousVolume, std::move(name));
    e.count = count;
    return e;
}
RunnerError RunnerError::imagePassphraseRefused(std::string text) {
    auto e = make(Kind::imagePassphraseRefused);
    e.detail = std::move(text);
    return e;
}
RunnerError RunnerError::sourceNotMounted(std::string name) {
    auto e = named(Kind::sourceNotMounted, std::move(name));
    e.side = EndpointSide::source;
    return e;
}
RunnerError RunnerError::destinationNotMounted(std::string name) {
    auto e = named(Kind::destinationNotMounted, std::move(name));
    e.side = EndpointSide::destination;
    return e;
}
RunnerError RunnerError::diskImageSupportUnavailable(EndpointSide side) {
    auto e = make(Kind::diskImageSupportUnavailable);
    e.side = side;
    return e;
}
RunnerError RunnerError::imageInsideSource(std::string name) { return named(Kind::imageInsideSource, std::move(name)); }
RunnerError RunnerError::imageInsideImage(std::string name) { return named(Kind::imageInsideImage, std::move(name)); }
RunnerError RunnerError::sourceIsInsideTheDestinationImage(std::string name) {
    return named(Kind::sourceIsInsideTheDestinationImage, std::move(name));
}
RunnerError RunnerError::sourceImageInsideDestination(std::string name) {
    return named(Kind::sourceImageInsideDestination, std::move(name));
}
RunnerError RunnerError::imageHostUnknown(std::string name) { return named(Kind::imageHostUnknown, std::move(name)); }
RunnerError RunnerError::imageEraseWouldLoseTheImagesIdentity(std::string name) {
    return named(Kind::imageEraseWouldLoseTheImagesIdentity, std::move(name));
}
RunnerError RunnerError::imageEraseCannotMatchTheSource(std::string name) {
    return named(Kind::imageEraseCannotMatchTheSource, std::move(name));
}
RunnerError RunnerError::imageEraseOfAStartupDiskCopyUnsupported(std::string name) {
    return named(Kind::imageEraseOfAStartupDiskCopyUnsupported, std::move(name));
}
RunnerError RunnerError::sourceFolderMissing(std::string path) {
    auto e = make(Kind::sourceFolderMissing);
    e.side = EndpointSide::source;
    e.path = std::move(path);
    return e;
}
RunnerError RunnerError::pathOnOtherVolume(EndpointSide side, std::string path, std::string volume) {
    auto e = named(Kind::pathOnOtherVolume, std::move(volume));
    e.side = side;
    e.path = std::move(path);
    return e;
}
RunnerError RunnerError::destinationNotAFolder(std::string path) {
    auto e = make(Kind::destinationNotAFolder);
    e.path = std::move(path);
    return e;
}
RunnerError RunnerError::destinationParentMissing(std::string path, std::string parent) {
    auto e = make(Kind::destinationParentMissing);
    e.path = std::move(path);
    e.detail = std::move(parent);
    return e;
}
RunnerError RunnerError::destinationFolderUnprovable(std::string name) {
    return named(Kind::destinationFolderUnprovable, std::move(name));
}
RunnerError RunnerError::destinationFolderNotCreated(std::string path, std::string error) {
    auto e = make(Kind::destinationFolderNotCreated);
    e.path = std::move(path);
    e.detail = std::move(error);
    return e;
}
RunnerError RunnerError::eraseThenCopyMisrouted() { return make(Kind::eraseThenCopyMisrouted); }
RunnerError RunnerError::refusedForOwner(std::string text) {
    auto e = make(Kind::refusedForOwner);
    e.detail = std::move(text);
    return e;
}

RunnerError RunnerError::copyRuleRefused(std::string text) {
    auto e = make(Kind::copyRuleRefused);
    e.detail = std::move(text);
    return e;
}
RunnerError RunnerError::snapshotMismatch() {
    auto e = make(Kind::snapshotMismatch);
    e.side = EndpointSide::source;
    return e;
}
RunnerError RunnerError::engineNotStarted(std::string binary, std::string error) {
    auto e = make(Kind::engineNotStarted);
    e.path = std::move(binary);
    e.detail = std::move(error);
    return e;
}

std::string RunnerError::message() const {
    const bool source = side == EndpointSide::source;
    switch (kind) {
        case Kind::identityMismatch:
            return source ? fmt::format("The source {} doesn't match the drive this backup was set up with ({}), so "
                                        "Quillo didn't copy from it. If you replaced or reformatted that drive, choose "
                                        "it again as this backup's source.",
                                        name, detail)
                          : fmt::format("The destination {} doesn't match the drive this backup was set up with ({}), "
                                        "so Quillo didn't write anything to it. If you replaced or reformatted that "
                                        "drive, choose it again as this backup's destination.",
                                        name, detail);
        case Kind::endpointUnresolved:
            if (notConnected) {
                return fmt::format("The {} {} isn't connected. Connect it, then run the copy again.", ql::caseName(side),
                                   name);
            }
            return fmt::format("Quillo couldn't find the {} {}, so nothing was copied: {}", ql::caseName(side), name,
                               detail);
        case Kind::shareNotConnected: return detail;
        case Kind::volumeHostResolutionFailed:
            return fmt::format("Quillo couldn't tell which drive {} is on, so it stopped rather than risk writing to "
                               "the wrong place. Check that the drive is connected, then try again.",
                               path);
        case Kind::resolverTimedOut:
            return fmt::format("Quillo gave up looking for {} after {:g} seconds. Check that it is connected, then try "
                               "again.",
                               name, seconds);
        case Kind::diskImageAmbiguousVolume:
            return fmt::format("{} holds more than one volume that could be the backup, and Quillo can't tell which "
                               "one to write to. Use a disk image that holds a single volume.",
                               name);
        case Kind::imagePassphraseRefused: return detail;
        case Kind::sourceNotMounted:
            return fmt::format("The source {} isn't mounted, and this version of Quillo can't mount it by itself. "
                               "Mount it, then run the copy again.",
                               name);
        case Kind::destinationNotMounted:
            return fmt::format("The destination {} isn't mounted, and this version of Quillo can't mount it by "
                               "itself. Mount it, then run the copy again.",
                               name);
        case Kind::diskImageSupportUnavailable:
            return source ? "This version of Quillo can't examine disk images. Choose a different source."
                          : "This version of Quillo can't examine disk images. Choose a different destination.";
        case Kind::imageInsideSource:
            return fmt::format("{} is stored on the very thing being backed up, so the backup would copy the disk "
                               "image into itself. Choose a disk image that lives on a different drive or server.",
                               name);
        case Kind::imageInsideImage:
            return fmt::format("{} is stored inside another disk image. Quillo can't back up into an image that lives "
                               "inside an image—choose one on a drive or server instead.",
                               name);
        case Kind::sourceIsInsideTheDestinationImage:
            return fmt::format("This job copies {} into itself—the source is the volume inside that very disk image. "
                               "Pick a different destination, or a different source.",
                               name);
        case Kind::sourceImageInsideDestination:
            return fmt::format("The disk image being copied FROM is stored inside the place this backup writes to, so "
                               "the copy would delete the image while reading from it. Back up somewhere that doesn't "
                               "contain {}.",
                               name);
        case Kind::imageHostUnknown:
            return fmt::format("Quillo couldn't tell which drive or server {} is stored on, so it stopped rather than "
                               "risk backing up the disk image into itself. Check that the drive or server holding it "
                               "is connected, then try again.",
                               name);
        case Kind::imageEraseWouldLoseTheImagesIdentity:
            return fmt::format("Quillo can’t empty the disk image {} in place—doing that would lose track of which "
                               "disk image this backup uses. Nothing inside the image was erased. Create a new disk "
                               "image and back up to that one instead.",
                               name);
        case Kind::imageEraseCannotMatchTheSource:
            return fmt::format("Quillo didn’t empty the disk image {}, because it couldn’t check how the drive being "
                               "copied handles upper and lower case in file names—and the disk image has to be set up "
                               "to match it. Nothing was changed. Make sure that drive is unlocked and available, then "
                               "run the copy again.",
                               name);
        case Kind::imageEraseOfAStartupDiskCopyUnsupported:
            return fmt::format("Quillo can’t empty the disk image {} in place: it holds a replicated startup disk, and "
                               "emptying only its Data volume would leave the rest behind. Nothing inside the image "
                               "was erased. Create a new disk image and back up to that one instead.",
                               name);
        case Kind::sourceFolderMissing: return fmt::format("source folder {} does not exist (moved or deleted?)", path);
        case Kind::pathOnOtherVolume:
            return source ? fmt::format("{} is on {}, not the source volume", path, name)
                          : fmt::format("{} is on volume {}, which is not the destination volume (or a member of its "
                                        "volume group)",
                                        path, name);
        case Kind::destinationNotAFolder: return fmt::format("destination path {} exists but is not a folder", path);
        case Kind::destinationParentMissing:
            return fmt::format("destination folder {} is missing and its parent {} does not exist", path, detail);
        case Kind::destinationFolderUnprovable:
            return fmt::format("\"{}\" doesn't exist, and Quillo can't confirm where it belongs on this drive, so it "
                               "won't risk creating it in the wrong place. Make sure the drive is fully connected and "
                               "mounted, then run again.",
                               name);
        case Kind::destinationFolderNotCreated:
            return fmt::format("could not create destination folder {}: {}", path, detail);
        case Kind::eraseThenCopyMisrouted:
            return "QlcopyJobRunner refuses Erase-then-copy (asr) — route to the M7 asr runner";
        case Kind::copyRuleRefused: return detail;
        case Kind::refusedForOwner: return detail;
        case Kind::snapshotMismatch:
            return "source snapshot mismatch: mounted snapshot is not of the source volume — refusing to copy (would "
                   "risk overwriting the destination from the wrong volume)";
        case Kind::engineNotStarted:
            return fmt::format("Quillo couldn't start its copy engine ({}): {}", path, detail);
    }
    return "the copy could not run";
}

std::string_view RunnerError::caseName() const {
    switch (kind) {
        case Kind::identityMismatch: return "identityMismatch";
        case Kind::endpointUnresolved: return "endpointUnresolved";
        case Kind::shareNotConnected: return "shareNotConnected";
        case Kind::volumeHostResolutionFailed: return "volumeHostResolutionFailed";
        case Kind::resolverTimedOut: return "resolverTimedOut";
        case Kind::diskImageAmbiguousVolume: return "diskImageAmbiguousVolume";
        case Kind::imagePassphraseRefused: return "imagePassphraseRefused";
        case Kind::sourceNotMounted: return "sourceNotMounted";
        case Kind::destinationNotMounted: return "destinationNotMounted";
        case Kind::diskImageSupportUnavailable: return "diskImageSupportUnavailable";
        case Kind::imageInsideSource: return "imageInsideSource";
        case Kind::imageInsideImage: return "imageInsideImage";
        case Kind::sourceIsInsideTheDestinationImage: return "sourceIsInsideTheDestinationImage";
        case Kind::sourceImageInsideDestination: return "sourceImageInsideDestination";
        case Kind::imageHostUnknown: return "imageHostUnknown";
        case Kind::imageEraseWouldLoseTheImagesIdentity: return "imageEraseWouldLoseTheImagesIdentity";
        case Kind::imageEraseCannotMatchTheSource: return "imageEraseCannotMatchTheSource";
        case Kind::imageEraseOfAStartupDiskCopyUnsupported: return "imageEraseOfAStartupDiskCopyUnsupported";
        case Kind::sourceFolderMissing: return "sourceFolderMissing";
        case Kind::pathOnOtherVolume: return "pathOnOtherVolume";
        case Kind::destinationNotAFolder: return "destinationNotAFolder";
        case Kind::destinationParentMissing: return "destinationParentMissing";
        case Kind::destinationFolderUnprovable: return "destinationFolderUnprovable";
        case Kind::destinationFolderNotCreated: return "destinationFolderNotCreated";
        case Kind::eraseThenCopyMisrouted: return "eraseThenCopyMisrouted";
        case Kind::copyRuleRefused: return "copyRuleRefused";
        case Kind::refusedForOwner: return "refusedForOwner";
        case Kind::snapshotMismatch: return "snapshotMismatch";
        case Kind::engineNotStarted: return "engineNotStarted";
    }
    return "unknown";
}

bool RunnerError::destinationNotConnected() const {
    switch (kind) {
        case Kind::endpointUnresolved:
        case Kind::shareNotConnected: return notConnected && side == EndpointSide::destination;
        case Kind::destinationNotMounted: return true;
        default: return false;
    }
}

}  // namespace ql
