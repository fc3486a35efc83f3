#include "QLModel/FilesystemFamilyClassifier.h"

#include <algorithm>

namespace ql {
namespace {

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return out;
}

bool contains(std::string_view haystack, std::string_view needle) {
    return haystack.find(needle) != std::string_view::npos;
}

// Appends the UTF-8 sequence starting at `text[i]` if it is well formed and returns its length,
// or returns 0.
std::size_t validSequenceLength(std::string_view text, std::size_t i) {
    auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char b0 = byte(i);
    if (b0 < 0x80) return 1;
    std::size_t length;
    unsigned char lo = 0x80, hi = 0xBF;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        length = 2;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        length = 3;
        if (b0 == 0xE0) lo = 0xA0;
        if (b0 == 0xED) hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        length = 4;
        if (b0 == 0xF0) lo = 0x90;
        if (b0 == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    if (byte(i + 1) < lo || byte(i + 1) > hi) return 0;
    for (std::size_t k = 2; k < length; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
    }
    return length;
}

}  // namespace

FilesystemFamilyClassifier::FilesystemFamilyClassifier() : typeNameCall_(&FilesystemFamilyClassifier::liveTypeName) {}

FilesystemFamilyClassifier::FilesystemFamilyClassifier(TypeNameCall typeNameCall)
    : typeNameCall_(std::move(typeNameCall)) {}

FilesystemFamily FilesystemFamilyClassifier::classify(const DeviceFilesystemFacts& facts) const {
    if (facts.contentName) {
        const std::string& content = *facts.contentName;
        if (content.rfind("Apple_APFS", 0) == 0) return FilesystemFamily::apfsContainer;
        if (content == "Apple_HFS" || content == "Apple_HFSX") return FilesystemFamily::hfsPlus;
        if (content == "Microsoft Basic Data" && facts.filesystemTypeName) {
            auto type = lowercased(*facts.filesystemTypeName);
            if (contains(type, "exfat")) return FilesystemFamily::exfat;
            if (contains(type, "fat32")) return FilesystemFamily::fat32;
            if (contains(type, "ms-dos")) return FilesystemFamily::fat32;
            if (contains(type, "ntfs")) return FilesystemFamily::ntfs;
        }
    }
    if (facts.mountPoint && !facts.mountPoint->empty()) {
        if (!typeNameCall_) return FilesystemFamily::other;
        auto typeName = typeNameCall_(*facts.mountPoint);
        if (!typeName) return FilesystemFamily::other;
        return familyOfMountedTypeName(*typeName);
    }
    return FilesystemFamily::other;
}

FilesystemFamily FilesystemFamilyClassifier::familyOfMountedTypeName(std::string_view typeName) {
    auto name = lowercased(typeName);
    if (name == "apfs") return FilesystemFamily::apfsContainer;
    if (name == "hfs") return FilesystemFamily::hfsPlus;
    if (name == "exfat") return FilesystemFamily::exfat;
    if (name == "msdos") return FilesystemFamily::fat32;
    if (name == "ntfs") return FilesystemFamily::ntfs;
    if (contains(name, "ntfs")) return FilesystemFamily::ntfs;
    if (contains(name, "exfat")) return FilesystemFamily::exfat;
    return FilesystemFamily::other;
}

std::string FilesystemFamilyClassifier::decodeTypeName(const char* buffer, std::size_t size) {
    std::size_t limit = std::min<std::size_t>(size, 16);
    std::string_view raw(buffer, limit);
    if (auto nul = raw.find('\0'); nul != std::string_view::npos) raw = raw.substr(0, nul);
    std::string out;
    out.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size();) {
        std::size_t length = validSequenceLength(raw, i);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(raw.substr(i, length));
            i += length;
        }
    }
    return out;
}

}  // namespace ql
