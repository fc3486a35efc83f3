#include "app/core/CopyPlan.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace ql {

namespace fs = std::filesystem;
namespace wire = ql4::transport::v1;

namespace {

std::string inQuotes(const std::string& path) { return "“" + path + "”"; }

bool isInside(const std::string& inner, const std::string& outer) {
    if (outer == "/") return inner != "/";
    return inner.size() > outer.size() && inner.compare(0, outer.size(), outer) == 0 && inner[outer.size()] == '/';
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

tl::expected<std::pair<std::string, std::string>, std::string> CopyPlan::checkPaths(
    const std::string& source, const std::string& destination, const std::string& workingDirectory) {
    if (source.empty()) return tl::unexpected(std::string("No source folder was given."));
    if (destination.empty()) return tl::unexpected(std::string("No destination folder was given."));
    auto absolute = [&](const std::string& p) {
        fs::path path(p);
        if (path.is_relative()) path = fs::path(workingDirectory) / path;
        return path.lexically_normal();
    };
    const auto typedSource = absolute(source);
    const auto typedDestination = absolute(destination);

    std::error_code error;
    auto sourceStatus = fs::status(typedSource, error);
    if (error || !fs::exists(sourceStatus)) {
        if (error && error != std::errc::no_such_file_or_directory && error != std::errc::not_a_directory) {
            return tl::unexpected("Quillo can’t look at the source " + inQuotes(withoutTrailingSlashes(typedSource.string())) +
                                  ": " + error.message() + ".");
        }
        return tl::unexpected("There is no folder at " + inQuotes(withoutTrailingSlashes(typedSource.string())) +
                              ": check the source path.");
    }
    if (!fs::is_directory(sourceStatus)) {
        return tl::unexpected("The source " + inQuotes(withoutTrailingSlashes(typedSource.string())) +
                              " is a file, not a folder. Quillo copies folders and volumes.");
    }
    const std::string sourcePath = fs::canonical(typedSource, error).string();
    if (error) return tl::unexpected("Quillo can’t read the source " + inQuotes(typedSource.string()) + ": " + error.message() + ".");

    // The destination may not exist yet; the folder that would hold it must.
    auto destinationCanonical = fs::weakly_canonical(typedDestination, error);
    if (error) {
        return tl::unexpected("Quillo can’t look at the destination " + inQuotes(typedDestination.string()) + ": " +
                              error.message() + ".");
    }
    const std::string destinationPath = withoutTrailingSlashes(destinationCanonical.string());
    auto destinationStatus = fs::status(destinationPath, error);
    if (!error && fs::exists(destinationStatus)) {
        if (!fs::is_directory(destinationStatus)) {
            return tl::unexpected("The destination " + inQuotes(destinationPath) + " is a file, not a folder.");
        }
    } else {
        const auto parent = fs::path(destinationPath).parent_path();
        if (!fs::is_directory(parent, error)) {
            return tl::unexpected("The destination " + inQuotes(destinationPath) + " does not exist, and neither does " +
                                  inQuotes(parent.string()) + " that would hold it. Create that folder first.");
        }
    }

    if (sourcePath == destinationPath) {
        return tl::unexpected("The source and the destination are the same folder (" + inQuotes(sourcePath) +
                              "). Pick a different destination.");
    }
    if (isInside(destinationPath, sourcePath)) {
        return tl::unexpected("The destination " + inQuotes(destinationPath) + " is inside the source " +
                              inQuotes(sourcePath) + ", so the copy would copy itself. Pick a destination outside " +
                              "the folder being copied.");
    }
    if (isInside(sourcePath, destinationPath)) {
        return tl::unexpected("The source " + inQuotes(sourcePath) + " is inside the destination " +
                              inQuotes(destinationPath) + ", so updating the destination would change the source. " +
                              "Pick a destination that does not contain the source.");
    }
    return std::make_pair(sourcePath, destinationPath);
}

std::optional<wire::VolumeSummary> CopyPlan::volumeHolding(const std::string& path,
                                                           const std::vector<wire::VolumeSummary>& volumes) {
    const wire::VolumeSummary* best = nullptr;
    for (const auto& v : volumes) {
        const auto mount = withoutTrailingSlashes(v.mount_point());
        if (mount.empty()) continue;
        if (path != mount && !isInside(path, mount)) continue;
        if (!best || mount.size() > withoutTrailingSlashes(best->mount_point()).size()) best = &v;
    }
    if (!best) return std::nullopt;
    return *best;
}

std::string CopyPlan::subpathWithin(const std::string& path, const std::string& mountPoint) {
    const auto mount = withoutTrailingSlashes(mountPoint);
    if (path == mount) return {};
    if (mount == "/") return path.substr(1);
    return path.substr(mount.size() + 1);
}

wire::VolumeBinding CopyPlan::binding(const Endpoint& endpoint) {
    wire::VolumeBinding b;
    const auto& v = endpoint.volume;
    b.set_partition_guid(v.partition_guid());
    b.set_volume_uuid(v.volume_uuid());
    b.set_target_kind(wire::VolumeBinding::TARGET_KIND_WHOLE_FILESYSTEM);
    b.set_filesystem_family(v.filesystem_family());
    b.set_display_name(v.name());
    b.set_bsd_device_hint(v.bsd_device());
    b.set_network_url(v.network_url());
    b.set_subpath(endpoint.subpath);
    // The partition's size, map type and serial are the server's to fill in from the device:
    // they are facts a later run checks, never guesses.
    return b;
}

bool CopyPlan::sameFolder(const wire::VolumeBinding& a, const wire::VolumeBinding& b) {
    auto strip = [](std::string s) {
        while (!s.empty() && s.front() == '/') s.erase(0, 1);
        while (!s.empty() && s.back() == '/') s.pop_back();
        return s;
    };
    if (strip(a.subpath()) != strip(b.subpath())) return false;
    if (!a.volume_uuid().empty() || !b.volume_uuid().empty()) return a.volume_uuid() == b.volume_uuid();
    if (!a.partition_guid().empty() || !b.partition_guid().empty()) return a.partition_guid() == b.partition_guid();
    if (!a.network_url().empty() || !b.network_url().empty()) return a.network_url() == b.network_url();
    return !a.bsd_device_hint().empty() && a.bsd_device_hint() == b.bsd_device_hint();
}

std::optional<wire::CopyTile> CopyPlan::findJob(const std::vector<wire::CopyTile>& jobs,
                                                const wire::VolumeBinding& source,
                                                const wire::VolumeBinding& destination) {
    for (const auto& job : jobs) {
        if (sameFolder(job.source(), source) && sameFolder(job.destination(), destination)) return job;
    }
    return std::nullopt;
}

std::string CopyPlan::jobName(const Endpoint& source, const Endpoint& destination) {
    auto nameOf = [](const Endpoint& e) {
        if (e.subpath.empty()) return e.volume.name();
        return fs::path(e.path).filename().string();
    };
    return nameOf(source) + " → " + nameOf(destination);
}

wire::CopyTile CopyPlan::newJob(const Endpoint& source, const Endpoint& destination, std::string name,
                                Tile::CopyMode mode, const std::string& ruleFile) {
    wire::CopyTile job;
    job.set_name(std::move(name));
    job.set_copy_mode(Tile::toWire(mode));
    job.set_copy_rule_filename(ruleFile);
    *job.mutable_source() = binding(source);
    *job.mutable_destination() = binding(destination);
    job.set_configuring_user_uid(static_cast<std::uint32_t>(::getuid()));
    return job;
}

std::optional<Tile::CopyMode> CopyPlan::modeNamed(const std::string& word) {
    if (word == "smart") return Tile::CopyMode::smartUpdate;
    if (word == "newer") return Tile::CopyMode::copyNewer;
    if (word == "different") return Tile::CopyMode::copyDifferent;
    return std::nullopt;
}

wire::CopyRequest CopyPlan::request(const wire::CopyTile& job, const wire::VolumeRef& source,
                                    const wire::VolumeRef& destination, const Endpoint& sourceNow,
                                    const Endpoint& destinationNow, bool dryRun, const std::string& ruleFilePath,
                                    const std::vector<std::string>& ruleSearchDirectories) {
    wire::CopyRequest r;
    r.set_tile_id(job.id());
    r.set_tile_name(job.name());
    *r.mutable_source() = source;
    *r.mutable_destination() = destination;
    r.mutable_source()->set_subpath(job.source().subpath());
    r.mutable_destination()->set_subpath(job.destination().subpath());
    r.set_source_path(sourceNow.path);
    r.set_destination_path(destinationNow.path);
    r.set_source_bsd_device(sourceNow.volume.bsd_device());
    r.set_source_volume_uuid(sourceNow.volume.volume_uuid());
    r.set_destination_bsd_device(destinationNow.volume.bsd_device());
    r.set_destination_volume_uuid(destinationNow.volume.volume_uuid());
    switch (Tile::copyModeFromWire(job.copy_mode())) {
        case Tile::CopyMode::smartUpdate: r.set_during_copy(wire::DCM_SMART_UPDATE); break;
        case Tile::CopyMode::copyNewer: r.set_during_copy(wire::DCM_COPY_NEWER); break;
        case Tile::CopyMode::copyDifferent: r.set_during_copy(wire::DCM_COPY_DIFFERENT); break;
        case Tile::CopyMode::eraseThenCopy: r.set_during_copy(wire::DCM_ERASE_THEN_COPY); break;
    }
    r.set_copy_script_path(ruleFilePath);
    for (const auto& d : ruleSearchDirectories) r.add_copy_script_search_dirs(d);
    r.set_dry_run(dryRun);
    r.set_as_bootable(job.as_bootable());
    r.set_configuring_user_uid(static_cast<std::uint32_t>(::getuid()));
    return r;
}

}  // namespace ql
