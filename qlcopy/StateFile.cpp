#include "qlcopy/StateFile.h"

#include "QLSupport/AtomicFile.h"
#include "QLSupport/Json.h"
#include "qlcopy/ErrnoText.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>

namespace ql {

SourceIdentity SourceIdentity::of(int rootFd, const std::string& path) {
    SourceIdentity id;
    id.path = path;
    struct statvfs vfs {};
    const bool haveFsid = ::fstatvfs(rootFd, &vfs) == 0 && vfs.f_fsid != 0;
    if (haveFsid) id.filesystemId = fmt::format("{:016x}", static_cast<unsigned long long>(vfs.f_fsid));
    struct stat st;
    if (::fstat(rootFd, &st) == 0) {
        id.rootInode = static_cast<std::uint64_t>(st.st_ino);
        // Filesystems without an id of their own are told apart by device number.
        if (!haveFsid) id.filesystemId = fmt::format("dev-{:x}", static_cast<unsigned long long>(st.st_dev));
    }
    return id;
}

tl::expected<StateFile, std::string> StateFile::read(const std::string& path) {
    auto bytes = AtomicFile::read(path);
    if (!bytes) return tl::unexpected(fmt::format("cannot read {}: {}", path, ErrnoText::describe(bytes.error())));
    auto json = parseJson(*bytes);
    if (!json) return tl::unexpected(fmt::format("{} is not JSON: {}", path, json.error()));
    try {
        const Json& j = *json;
        StateFile s;
        s.formatVersion = j.at("format_version").get<int>();
        const Json& src = j.at("source");
        s.source.filesystemId = src.at("filesystem_id").get<std::string>();
        s.source.rootInode = src.at("root_inode").get<std::uint64_t>();
        s.source.path = src.value("path", "");
        s.rulesHash = j.at("rules_hash").get<std::string>();
        s.completedUnixNanos = j.value("completed_unix_nanos", std::int64_t{0});
        if (j.contains("snap_event_anchor")) s.snapEventAnchor = j.at("snap_event_anchor").get<std::uint64_t>();
        return s;
    } catch (const Json::exception& e) {
        return tl::unexpected(fmt::format("{} is not a state file: {}", path, e.what()));
    }
}

tl::expected<void, std::string> StateFile::write(const std::string& path) const {
    Json j = {{"format_version", formatVersion},
              {"engine", "qlcopy"},
              {"source", {{"filesystem_id", source.filesystemId}, {"root_inode", source.rootInode}, {"path", source.path}}},
              {"rules_hash", rulesHash},
              {"completed_unix_nanos", completedUnixNanos}};
    if (snapEventAnchor) j["snap_event_anchor"] = *snapEventAnchor;
    auto r = AtomicFile::write(path, dumpJson(j, 2) + "\n", 0600);
    if (!r) return tl::unexpected(r.error().message());
    return {};
}

std::string StateFile::fullScanReason(const std::optional<StateFile>& previous, const SourceIdentity& source,
                                      const std::string& rulesHash) {
    if (!previous) return "first_run";
    if (!previous->source.sameSource(source)) return "first_run";
    if (previous->formatVersion != currentFormat) return "history_expired";
    if (previous->rulesHash != rulesHash) return "rules_changed";
    // The state holds no change history the engine could replay: every run scans in full.
    return "history_expired";
}

std::string StateFile::hashRules(const std::string& fingerprint) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(fingerprint.data(), fingerprint.size(), digest, &length, EVP_sha256(), nullptr);
    std::string hex;
    hex.reserve(length * 2);
    for (unsigned i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
    return hex;
}

}  // namespace ql
