#include "qlcopy/Comparator.h"

#include "qlcopy/FilesystemTraits.h"

namespace ql {
namespace {

bool later(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

}  // namespace

Comparator::Comparator(CopyMode mode, std::int64_t timeGranularityNs, const MetadataSync& meta)
    : mode_(mode), granularity_(timeGranularityNs), meta_(meta) {}

const char* Comparator::actionWord(Action action) {
    switch (action) {
        case Action::add: return "add";
        case Action::update:
        case Action::replace:
        case Action::metaOnly: return "update";
        case Action::upToDate:
        case Action::destNewer: return "keep";
    }
    return "keep";
}

Comparator::Decision Comparator::decide(const EntryInfo& s, const EntryInfo* d, const std::string* srcTarget,
                                        const std::string* dstTarget) const {
    if (!d) return {Action::add, "new", 0};
    const bool sameTime = FilesystemTraits::sameTime(s.mtime, d->mtime, granularity_);

    if (mode_ == CopyMode::newer) {
        // Only a strictly later source replaces what is there.
        if (sameTime || !later(s.mtime, d->mtime)) {
            if (s.type() == d->type() && sameTime && (!s.isRegular() || s.size == d->size)) {
                unsigned meta = meta_.statusDifferences(s, *d);
                if (meta) return {Action::metaOnly, "meta", meta};
                return {Action::upToDate, "up-to-date", 0};
            }
            return {Action::destNewer, "dest-newer", 0};
        }
        if (s.type() != d->type()) return {Action::replace, "type", 0};
        return {Action::update, "newer", 0};
    }

    if (s.type() != d->type()) return {Action::replace, "type", 0};
    if (s.isRegular()) {
        if (s.size != d->size) return {Action::update, "size", 0};
        if (!sameTime) return {Action::update, "mtime", 0};
    } else if (s.isSymlink()) {
        if (srcTarget && dstTarget && *srcTarget != *dstTarget) return {Action::update, "target", 0};
    } else if (S_ISCHR(s.mode) || S_ISBLK(s.mode)) {
        if (s.rdev != d->rdev) return {Action::update, "device", 0};
    }
    unsigned meta = meta_.statusDifferences(s, *d);
    if (!s.isRegular() && !s.isDirectory() && !sameTime) meta |= metaTimes;
    if (meta) return {Action::metaOnly, "meta", meta};
    return {Action::upToDate, "up-to-date", 0};
}

}  // namespace ql
