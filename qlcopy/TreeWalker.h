#pragma once

#include "qlcopy/Comparator.h"
#include "qlcopy/CopyWorkerPool.h"
#include "qlcopy/DirRetimeJournal.h"
#include "qlcopy/DirectoryLister.h"
#include "qlcopy/EngineContext.h"
#include "qlcopy/HardLinkTracker.h"
#include "qlcopy/ItemCopier.h"
#include "qlcopy/TreeDeleter.h"
#include "qlcopy/UniqueFd.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ql {

// Walks source and destination together, one directory at a time, depth first: list both
// sides, remove what the source no longer has (when deleting, and only if the source directory
// was read completely), then decide each source item against its destination counterpart and
// act — regular files go to the copy threads, everything else is done here. Only the
// directories on the current path are held in memory, so the tree's size does not matter.
class TreeWalker {
public:
    TreeWalker(EngineContext& ctx, CopyWorkerPool& pool, DirRetimeJournal& journal);

    // `dstRoot` is null in a dry run onto a destination that does not exist yet.
    void run(SharedFd srcRoot, const EntryInfo& srcRootInfo, SharedFd dstRoot, const EntryInfo* dstRootInfo);

    const std::map<std::string, int>& metaReasons() const { return metaReasons_; }

private:
    struct Frame {
        Frame* parent = nullptr;
        SharedFd src;
        SharedFd dst;               // absent while the destination folder does not exist
        std::string rel;            // "" for the root, else "/a/b"
        std::string name;
        std::unique_ptr<SelectionScope> scope;
        EntryInfo srcSelf;
        bool dstFresh = false;      // created by this run (or would be): nothing inside to compare
        bool pending = false;       // not selected itself; created once something inside is copied
        bool dstDefaultAcl = false; // the destination folder hands down a default ACL
        gid_t createdGid = 0;       // the group of items created in the destination folder
    };

    void processDirectory(Frame& frame);
    void handleDestOnly(Frame& frame, const EntryInfo& d, bool sourceComplete);
    void handleSource(Frame& frame, const EntryInfo& s, const EntryInfo* d);
    void handleDirectory(Frame& frame, const EntryInfo& s, const EntryInfo* d, const PathVerdict& v);
    void handleHardLink(Frame& frame, const EntryInfo& s, const EntryInfo* d, const PathVerdict& v,
                        const std::string& rel);
    void placeItem(Frame& frame, const EntryInfo& s, const PathVerdict& v, const std::string& rel);
    void updateMetadataOnly(Frame& frame, const EntryInfo& s, const EntryInfo& d, const PathVerdict& v,
                            const std::string& rel, unsigned reasons);
    void syncFolderMetadata(Frame& frame, const EntryInfo& d, const std::string& rel, const PathVerdict& v);

    // Makes sure the frame's destination folder exists (creating pending ancestors); false when
    // it could not be made (the error is reported).
    bool ensureDest(Frame& frame);
    bool createFolder(Frame& parent, Frame& child);
    // Clears a destination item of another type out of the way; false when it must stay.
    bool clearForReplacement(Frame& frame, const EntryInfo& d, const std::string& rel, const char* verb,
                             const PathVerdict& v);
    void journalRetime(const Frame& frame, bool modeHeldBack);
    void countSkipped(const EntryInfo& s);
    void countMetaReasons(unsigned reasons);
    bool attributesMayDiffer(const EntryInfo& s, const EntryInfo& d) const;
    bool modeCanWait(const EntryInfo& dir) const;
    void noteDestFolder(Frame& frame);

    EngineContext& ctx_;
    CopyWorkerPool& pool_;
    DirRetimeJournal& journal_;
    Comparator comparator_;
    ItemCopier copier_;
    std::vector<std::unique_ptr<ItemCopier>> workerCopiers_;
    TreeDeleter deleter_;
    HardLinkTracker links_;
    std::map<std::string, int> metaReasons_;
};

}  // namespace ql
