#include "QLModel/VolumeResolverEnvironment.h"

#include "QLSupport/PropertyList.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>

namespace ql {
namespace {

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return out;
}

std::set<std::string> addressesOf(const std::string& host) {
    std::set<std::string> out;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return out;
    for (auto* entry = found; entry; entry = entry->ai_next) {
        char text[NI_MAXHOST];
        if (::getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0) {
            out.insert(text);
        }
    }
    ::freeaddrinfo(found);
    return out;
}

}  // namespace

VolumeResolverEnvironment VolumeResolverEnvironment::live(std::shared_ptr<VolumeProbe> probe,
                                                          std::shared_ptr<HardwareSerialProbe> serialProbe) {
    VolumeResolverEnvironment env;
    env.probe = std::move(probe);
    env.serialProbe = std::move(serialProbe);
    env.networkMounts = &VolumeResolverEnvironment::liveNetworkMounts;
    env.networkHostsEquivalent = &VolumeResolverEnvironment::liveNetworkHostsEquivalent;
    env.attachedImages = &VolumeResolverEnvironment::liveAttachedImages;
    env.imageBackingProbe = liveImageBackingProbe();
    env.canonicalPathAtPath = &VolumeResolverEnvironment::liveCanonicalPath;
    env.fileExistsAtPath = &VolumeResolverEnvironment::liveFileExists;
    env.hasTimeMachine = &VolumeResolverEnvironment::liveHasTimeMachine;
    env.filesystemTypeName = &FilesystemFamilyClassifier::liveTypeName;
    env.clock = std::make_shared<LiveClock>();
    env.sleeper = std::make_shared<LiveSleeper>();
    return env;
}

std::string VolumeResolverEnvironment::hostAliasPair(std::string_view a, std::string_view b) {
    auto left = lowercased(a);
    auto right = lowercased(b);
    if (right < left) std::swap(left, right);
    return left + std::string(1, '\0') + right;
}

bool VolumeResolverEnvironment::liveHasTimeMachine(const std::string& mountPoint) {
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path root(mountPoint);
    bool privateData = fs::exists(root / ".HFS+ Private Directory Data\r", error) ||
                       fs::exists(root / ".HFS+ Private Directory Data", error);
    return privateData && fs::is_directory(root / "Backups.backupdb", error);
}

std::optional<std::string> VolumeResolverEnvironment::liveCanonicalPath(const std::string& path) {
    std::error_code error;
    auto resolved = std::filesystem::canonical(path, error);
    if (error) return std::nullopt;
    return resolved.string();
}

bool VolumeResolverEnvironment::liveFileExists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

bool VolumeResolverEnvironment::liveNetworkHostsEquivalent(const std::string& a, const std::string& b) {
    auto left = addressesOf(a);
    if (left.empty()) return false;
    for (const auto& address : addressesOf(b)) {
        if (left.count(address)) return true;
    }
    return false;
}

std::optional<std::string> VolumeResolverEnvironment::shareURLFromMountSource(std::string_view type,
                                                                              std::string_view source) {
    if (type == "cifs" || type == "smb3" || type == "smbfs") {
        if (source.substr(0, 2) != "//" || source.size() <= 2) return std::nullopt;
        return "smb:" + std::string(source);
    }
    if (type == "nfs" || type == "nfs4") {
        std::string_view host, path;
        if (!source.empty() && source.front() == '[') {
            auto close = source.find("]:");
            if (close == std::string_view::npos) return std::nullopt;
            host = source.substr(0, close + 1);
            path = source.substr(close + 2);
        } else {
            auto colon = source.find(':');
            if (colon == std::string_view::npos || colon == 0) return std::nullopt;
            host = source.substr(0, colon);
            path = source.substr(colon + 1);
        }
        if (path.empty() || path.front() != '/') return "nfs://" + std::string(host) + "/" + std::string(path);
        return "nfs://" + std::string(host) + std::string(path);
    }
    if (type == "afpfs" || type == "fuse.afpfs") {
        if (source.substr(0, 6) == "afp://") return std::string(source);
        if (source.substr(0, 2) == "//" && source.size() > 2) return "afp:" + std::string(source);
    }
    return std::nullopt;
}

std::vector<AttachedImageEntry> VolumeResolverEnvironment::attachedImagesFromHdiutilInfo(std::string_view plist) {
    std::vector<AttachedImageEntry> images;
    auto root = PropertyList::read(plist);
    if (!root) return images;
    const auto* list = root->find("images");
    if (!list || !list->asArray()) return images;
    for (const auto& image : *list->asArray()) {
        const auto* path = image.find("image-path");
        if (!path || !path->asString()) continue;
        AttachedImageEntry entry;
        entry.imagePath = *path->asString();
        if (const auto* entities = image.find("system-entities"); entities && entities->asArray()) {
            for (const auto& entity : *entities->asArray()) {
                const auto* device = entity.find("dev-entry");
                if (!device || !device->asString()) continue;
                std::string name = *device->asString();
                if (name.rfind("/dev/", 0) == 0) name.erase(0, 5);
                entry.devices.push_back(std::move(name));
            }
        }
        // Whole disk first: "disk4" sorts before "disk4s1".
        std::stable_sort(entry.devices.begin(), entry.devices.end(),
                         [](const std::string& a, const std::string& b) { return a.size() < b.size(); });
        images.push_back(std::move(entry));
    }
    return images;
}

}  // namespace ql
