#pragma once

#include "QLProtocol/runners/EndpointSide.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace ql {

// Why the file-copy runner refused or stopped a run before the engine could copy anything,
// with the sentence the user reads. Names passed in (`name`) are shown as given: callers put
// volume and image names in typographic quotes (“Backup”).
//
// Identity and resolution:
//   identityMismatch(side, name, detail)    the volume found is not the one the job was bound to
//   endpointUnresolved(side, name, reason, notConnected)
//                                           the volume could not be found or checked
//   shareNotConnected(side, text)           a network share is not mounted and could not be connected
//   volumeHostResolutionFailed(path)        which volume holds a path could not be determined
//   resolverTimedOut(what, seconds)         looking for a volume took too long
//   sourceNotMounted(name), destinationNotMounted(name)
//                                           the volume is not mounted and this build can't mount it
// Disk images:
//   diskImageSupportUnavailable(side)       this build has no disk-image support
//   diskImageAmbiguousVolume(name, count)   imageInsideSource(name)   imageInsideImage(name)
//   sourceIsInsideTheDestinationImage(name) sourceImageInsideDestination(name)
//   imageHostUnknown(name)                  imagePassphraseRefused(text)
//   imageEraseWouldLoseTheImagesIdentity(name) imageEraseCannotMatchTheSource(name)
//   imageEraseOfAStartupDiskCopyUnsupported(name)
// Paths:
//   sourceFolderMissing(path)               pathOnOtherVolume(side, path, volume)
//   destinationNotAFolder(path)             destinationParentMissing(path, parent)
//   destinationFolderUnprovable(name)       destinationFolderNotCreated(path, error)
// Other refusals:
//   eraseThenCopyMisrouted                  copyRuleRefused(text)
//   snapshotMismatch                        engineNotStarted(binary, error)
struct RunnerError {
    enum class Kind {
        identityMismatch,
        endpointUnresolved,
        shareNotConnected,
        volumeHostResolutionFailed,
        resolverTimedOut,
        diskImageAmbiguousVolume,
        imagePassphraseRefused,
        sourceNotMounted,
        destinationNotMounted,
        diskImageSupportUnavailable,
        imageInsideSource,
        imageInsideImage,
        sourceIsInsideTheDestinationImage,
        sourceImageInsideDestination,
        imageHostUnknown,
        imageEraseWouldLoseTheImagesIdentity,
        imageEraseCannotMatchTheSource,
        imageEraseOfAStartupDiskCopyUnsupported,
        sourceFolderMissing,
        pathOnOtherVolume,
        destinationNotAFolder,
        destinationParentMissing,
        destinationFolderUnprovable,
        destinationFolderNotCreated,
        eraseThenCopyMisrouted,
        copyRuleRefused,
        snapshotMismatch,
        engineNotStarted,
        refusedForOwner,
    };

    Kind kind = Kind::identityMismatch;
    EndpointSide side = EndpointSide::destination;
    // The name, path, detail and count each case carries (see the list above).
    std::string name;
    std::string path;
    std::string detail;
    std::int64_t count = 0;
    double seconds = 0;
    bool notConnected = false;

    static RunnerError identityMismatch(EndpointSide side, std::string name, std::string detail);
    static RunnerError endpointUnresolved(EndpointSide side, std::string name, std::string reason, bool notConnected);
    static RunnerError shareNotConnected(EndpointSide side, std::string text);
    static RunnerError volumeHostResolutionFailed(std::string path);
    static RunnerError resolverTimedOut(std::string what, double seconds);
    static RunnerError diskImageAmbiguousVolume(std::string name, std::int64_t count);
    static RunnerError imagePassphraseRefused(std::string text);
    static RunnerError sourceNotMounted(std::string name);
    static RunnerError destinationNotMounted(std::string name);
    static RunnerError diskImageSupportUnavailable(EndpointSide side);
    static RunnerError imageInsideSource(std::string name);
    static RunnerError imageInsideImage(std::string name);
    static RunnerError sourceIsInsideTheDestinationImage(std::string name);
    static RunnerError sourceImageInsideDestination(std::string name);
    static RunnerError imageHostUnknown(std::string name);
    static RunnerError imageEraseWouldLoseTheImagesIdentity(std::string name);
    static RunnerError imageEraseCannotMatchTheSource(std::string name);
    static RunnerError imageEraseOfAStartupDiskCopyUnsupported(std::string name);
    static RunnerError sourceFolderMissing(std::string path);
    static RunnerError pathOnOtherVolume(EndpointSide side, std::string path, std::string volume);
    static RunnerError destinationNotAFolder(std::string path);
    static RunnerError destinationParentMissing(std::string path, std::string parent);
    static RunnerError destinationFolderUnprovable(std::string name);
    static RunnerError destinationFolderNotCreated(std::string path, std::string error);
    static RunnerError eraseThenCopyMisrouted();
    static RunnerError copyRuleRefused(std::string text);
    static RunnerError snapshotMismatch();
    static RunnerError engineNotStarted(std::string binary, std::string error);
    // A run with its owner's rights that can't go ahead as that owner (the owner can't read the
    // source or write the destination, or a step needs an administrator): `text` is the sentence.
    static RunnerError refusedForOwner(std::string text);

    // The sentence the user reads.
    std::string message() const;
    // "identityMismatch", "destinationNotMounted", …
    std::string_view caseName() const;
    // Whether the failure means that the destination is not connected, so that the client can
    // offer to connect it.
    bool destinationNotConnected() const;

    friend bool operator==(const RunnerError&, const RunnerError&) = default;
};

}  // namespace ql
