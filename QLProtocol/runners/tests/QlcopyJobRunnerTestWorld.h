#pragma once

// A small machine for the file-copy runner's tests: two GPT partitions whose "mount points" are
// real temporary folders, a resolver over a fake disk probe that describes them, a volume-host
// lookup that knows which folder is which volume, and engines that are shell scripts writing
// NDJSON to descriptor 3 (or the real qlcopy).

#include "QLModel/FakeHardwareSerialProbe.h"
#include "QLModel/FakeVolumeProbe.h"
#include "QLModel/VolumeResolver.h"
#include "QLProtocol/runners/NoOpMountCoordinator.h"
#include "QLProtocol/runners/NoOpOnSuccessExecutor.h"
#include "QLProtocol/runners/NoOpShareConnectHandshake.h"
#include "QLProtocol/runners/QlcopyJobRunner.h"
#include "QLProtocol/transport/VolumeBridge.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/ShellRunner.h"
#include "QLSupport/Uuid.h"

#include <asio.hpp>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ql::testing {

namespace fs = std::filesystem;
namespace wire = ql4::transport::v1;

inline Uuid uuidOf(std::string_view text) { return Uuid::parse(text).value(); }

inline const Uuid kSourcePartition = uuidOf("5A5A5A5A-0000-4000-8000-000000000001");
inline const Uuid kDestinationPartition = uuidOf("D5D5D5D5-0000-4000-8000-000000000002");
inline constexpr std::uint64_t kSourceSize = 100'000'000'000ULL;
inline constexpr std::uint64_t kDestinationSize = 200'000'000'000ULL;
inline constexpr const char* kLinuxDataType = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";

// A fresh temporary folder, removed with everything in it at the end.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (fs::temp_directory_path() / "qljr-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

inline void writeFile(const fs::path& path, const std::string& content, mode_t mode = 0644) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    ::chmod(path.c_str(), mode);
}

inline std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Owners honoured everywhere, with every call recorded; `initially` says what each mount
// reports before the run.
class FakeVolumeOwnership final : public VolumeOwnership {
public:
    asio::awaitable<std::optional<bool>> ownersEnabled(std::string mountPath) override {
        std::lock_guard lock(mutex);
        calls.push_back("read " + mountPath);
        auto found = state.find(mountPath);
        if (found == state.end()) co_return true;
        co_return found->second;
    }
    asio::awaitable<tl::expected<void, std::string>> setOwnersEnabled(std::string mountPath, bool enabled) override {
        std::lock_guard lock(mutex);
        calls.push_back(std::string(enabled ? "enable " : "disable ") + mountPath);
        if (refuse.count(mountPath)) co_return tl::unexpected(std::string("this filesystem keeps no owners"));
        state[mountPath] = enabled;
        co_return tl::expected<void, std::string>{};
    }
    std::mutex mutex;
    std::map<std::string, bool> state;
    std::set<std::string> refuse;
    std::vector<std::string> calls;
};

// A disk probe that takes its time: every answer comes after `delay`, so that a test can act
// while a run is still resolving its volumes.
class DelayedVolumeProbe final : public VolumeProbe {
public:
    DelayedVolumeProbe(std::shared_ptr<VolumeProbe> inner, std::chrono::milliseconds delay)
        : inner_(std::move(inner)), delay_(delay) {}
    asio::awaitable<ListResult> listDisks() override {
        co_await pause();
        co_return co_await inner_->listDisks();
    }
    asio::awaitable<InfoResult> describe(std::string device) override {
        co_await pause();
        co_return co_await inner_->describe(std::move(device));
    }
    asio::awaitable<ContainersResult> listAPFSContainers() override {
        co_await pause();
        co_return co_await inner_->listAPFSContainers();
    }

private:
    asio::awaitable<void> pause() {
        asio::steady_timer timer(co_await asio::this_coro::executor);
        timer.expires_after(delay_);
        co_await timer.async_wait(asio::use_awaitable);
    }
    std::shared_ptr<VolumeProbe> inner_;
    std::chrono::milliseconds delay_;
};

class QlcopyJobRunnerWorld {
public:
    QlcopyJobRunnerWorld() {
        sourceMount = folder.path() / "SourceVol";
        destinationMount = folder.path() / "DestinationVol";
        fs::create_directories(sourceMount);
        fs::create_directories(destinationMount);
        markers = folder.path() / "markers";
        fs::create_directories(markers);

        probe->list.allDisksAndPartitions.push_back(
            {"vda", "GUID_partition_scheme",
             {{"vda1", kLinuxDataType, kSourceSize, kSourcePartition, std::nullopt},
              {"vda2", kLinuxDataType, kDestinationSize, kDestinationPartition, std::nullopt}},
             {},
             {}});
        probe->infos["vda1"] = partition("vda1", kSourcePartition, kSourceSize, "Source", sourceMount.string());
        probe->infos["vda2"] = partition("vda2", kDestinationPartition, kDestinationSize, "Backup",
                                         destinationMount.string());
        typeNames[sourceMount.string()] = "ext4";
        typeNames[destinationMount.string()] = "ext4";
    }

    static ProbeInfo partition(std::string device, Uuid guid, std::uint64_t size, std::string name, std::string mount) {
        ProbeInfo info;
        info.deviceIdentifier = std::move(device);
        info.content = kLinuxDataType;
        info.totalSize = size;
        info.diskUUID = guid;
        info.partitionMapPartition = true;
        info.wholeDisk = false;
        info.volumeName = std::move(name);
        info.mountPoint = std::move(mount);
        return info;
    }

    VolumeResolverEnvironment resolverEnvironment() {
        VolumeResolverEnvironment env;
        env.probe = probe;
        if (probeDelay.count() > 0) env.probe = std::make_shared<DelayedVolumeProbe>(probe, probeDelay);
        env.serialProbe = std::make_shared<FakeHardwareSerialProbe>();
        env.serialRetryAttempts = 0;
        env.networkMounts = [] { return std::vector<NetworkMountEntry>{}; };
        env.attachedImages = [] { return std::vector<AttachedImageEntry>{}; };
        env.fileExistsAtPath = [](const std::string&) { return false; };
        env.filesystemTypeName = [this](const std::string& mount) -> tl::expected<std::string, int> {
            auto found = typeNames.find(mount);
            if (found == typeNames.end()) return tl::unexpected(2);
            return found->second;
        };
        return env;
    }

    // The volume holding a path: the fake volumes by their folders, the root otherwise.
    VolumeHost::Lookup volumeHost() {
        auto src = sourceMount.string();
        auto dst = destinationMount.string();
        return [src, dst](const std::string& path) -> std::optional<VolumeHost> {
            auto canonical = fs::weakly_canonical(path).string();
            auto within = [&](const std::string& mount) {
                return canonical == mount || canonical.rfind(mount + "/", 0) == 0;
            };
            if (within(src)) return VolumeHost{"vda1", src};
            if (within(dst)) return VolumeHost{"vda2", dst};
            return VolumeHost{"rootdisk", "/"};
        };
    }

    static VolumeRef ref(Uuid guid, std::uint64_t size, std::string name, std::optional<std::string> subpath) {
        VolumeRef r{VolumeKey::gptPartitionGUID(guid), VolumeTarget::wholeFilesystem(),
                    VolumeInvariants{size, PartitionMapType::gpt, FilesystemFamily::other, std::nullopt},
                    std::move(name), std::move(subpath), std::nullopt};
        return r;
    }

    // A Smart Update of SourceVol/<sourceFolder> to DestinationVol/<destinationFolder>.
    wire::CopyRequest request(std::optional<std::string> sourceFolder = "Documents",
                              std::optional<std::string> destinationFolder = "Backup of Documents") {
        wire::CopyRequest r;
        r.set_tile_id("0B5E55ED-0000-4000-8000-00000000C0DE");
        r.set_tile_name("Documents backup");
        *r.mutable_source() = VolumeBridge::toWire(ref(kSourcePartition, kSourceSize, "Source", sourceFolder));
        *r.mutable_destination() =
            VolumeBridge::toWire(ref(kDestinationPartition, kDestinationSize, "Backup", destinationFolder));
        r.set_during_copy(wire::DCM_SMART_UPDATE);
        return r;
    }

    // An engine: a shell script whose body follows a prologue that records its pid and arguments.
    std::string engineScript(const std::string& body) {
        auto path = folder.path() / ("engine-" + std::to_string(++engineCount) + ".sh");
        std::string script = "#!/bin/sh\n"
                             "echo $$ > '" + (markers / "pid").string() + "'\n"
                             "printf '%s\\n' \"$@\" > '" + (markers / "args").string() + "'\n" + body;
        writeFile(path, script, 0755);
        return path.string();
    }

    std::shared_ptr<QlcopyJobRunner::Environment> environment(const std::string& engine) {
        auto env = std::make_shared<QlcopyJobRunner::Environment>();
        env->binary = engine;
        env->resolver = std::make_shared<VolumeResolver>(io.get_executor(), resolverEnvironment());
        env->volumeHost = volumeHost();
        auto stateDir = folder.path() / "state";
        env->statePathFor = [stateDir](const wire::CopyRequest& r, const wire::RunId&, std::uint32_t) {
            return (stateDir / (r.tile_id() + ".state")).string();
        };
        env->shell = shell;
        env->mountCoordinator = std::make_shared<NoOpMountCoordinator>();
        env->ownership = ownership;
        env->shareConnect = std::make_shared<NoOpShareConnectHandshake>();
        env->onSuccessExecutor = std::make_shared<NoOpOnSuccessExecutor>();
        env->consoleUser = [] { return std::optional<ConsoleUser>(ConsoleUser{1000, 1000, "ann", "/home/ann"}); };
        env->killGrace = std::chrono::milliseconds(1500);
        env->quietPauseAfter = std::chrono::milliseconds(400);
        env->pauseDeadline = std::chrono::milliseconds(800);
        return env;
    }

    std::shared_ptr<QlcopyJobRunner> runner(std::shared_ptr<const QlcopyJobRunner::Environment> env,
                                            wire::CopyRequest request, QlcopyJobRunner::Options options = {}) {
        wire::RunId id;
        id.set_value(UUIDCodec::encode(Uuid::mint()));
        return std::make_shared<QlcopyJobRunner>(io.get_executor(), std::move(env), std::move(request), id,
                                                 std::move(options));
    }

    // Runs `operation` on the io_context's threads and waits for its result.
    template <typename T>
    T await(std::function<asio::awaitable<T>()> operation,
            std::chrono::milliseconds limit = std::chrono::seconds(30)) {
        auto future = asio::co_spawn(io, operation(), asio::use_future);
        if (future.wait_for(limit) != std::future_status::ready) throw std::runtime_error("timed out");
        return future.get();
    }

    // Collects a run's events until its stream ends.
    struct Collected {
        std::vector<wire::ClonerEvent> events;
        std::optional<StreamFailure> failure;

        std::vector<wire::ClonerEvent> terminals() const {
            std::vector<wire::ClonerEvent> out;
            for (const auto& e : events)
                if (e.has_completed() || e.has_failed() || e.has_cancelled()) out.push_back(e);
            return out;
        }
        bool has(wire::ClonerEvent::PayloadCase kind) const {
            for (const auto& e : events)
                if (e.payload_case() == kind) return true;
            return false;
        }
        std::vector<std::string> logTexts() const {
            std::vector<std::string> out;
            for (const auto& e : events)
                if (e.has_log()) out.push_back(e.log().text());
            return out;
        }
        // "phase_start prepare", "step_start prepare/resolve", …
        std::vector<std::string> checklist() const {
            std::vector<std::string> out;
            for (const auto& e : events) {
                if (e.has_phase_start()) out.push_back("phase_start " + e.phase_start().name());
                if (e.has_phase_end())
                    out.push_back("phase_end " + e.phase_end().name() + (e.phase_end().succeeded() ? "" : " failed"));
                if (e.has_step_start())
                    out.push_back("step_start " + e.step_start().phase_name() + "/" + e.step_start().name());
                if (e.has_step_end())
                    out.push_back("step_end " + e.step_end().phase_name() + "/" + e.step_end().name() +
                                  (e.step_end().succeeded() ? "" : " failed"));
            }
            return out;
        }
    };

    // Starts the stream reader; `onEvent` runs on the io threads for each event.
    std::future<Collected> collect(JobRunner::Events::Consumer consumer,
                                   std::function<void(const wire::ClonerEvent&)> onEvent = {}) {
        auto state = std::make_shared<JobRunner::Events::Consumer>(std::move(consumer));
        auto promise = std::make_shared<std::promise<Collected>>();
        auto future = promise->get_future();
        asio::co_spawn(io, drain(state, promise, std::move(onEvent)), asio::detached);
        return future;
    }

    static asio::awaitable<void> drain(std::shared_ptr<JobRunner::Events::Consumer> consumer,
                                       std::shared_ptr<std::promise<Collected>> promise,
                                       std::function<void(const wire::ClonerEvent&)> onEvent) {
        Collected collected;
        for (;;) {
            auto next = co_await consumer->next();
            if (!next) break;
            if (onEvent) onEvent(*next);
            collected.events.push_back(std::move(*next));
        }
        collected.failure = consumer->failure();
        promise->set_value(std::move(collected));
    }

    static Collected wait(std::future<Collected>& future, std::chrono::seconds limit = std::chrono::seconds(30)) {
        if (future.wait_for(limit) != std::future_status::ready) throw std::runtime_error("the run never ended");
        return future.get();
    }

    std::optional<pid_t> enginePid() const {
        auto text = readFile(markers / "pid");
        if (text.empty()) return std::nullopt;
        return static_cast<pid_t>(std::stol(text));
    }

    // The one-letter state of a process ("R", "S", "T" …) from /proc.
    static std::string processState(pid_t pid) {
        auto stat = readFile("/proc/" + std::to_string(pid) + "/stat");
        auto close = stat.rfind(')');
        if (close == std::string::npos || close + 2 >= stat.size()) return "";
        return stat.substr(close + 2, 1);
    }

    // The process's state once it has settled on `wanted` (a signal takes effect when the process
    // is next scheduled), or the last state seen when it doesn't within the limit.
    static std::string settledState(pid_t pid, const std::string& wanted,
                                    std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        std::string state = processState(pid);
        while (state != wanted && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            state = processState(pid);
        }
        return state;
    }

    asio::io_context io;
    TemporaryFolder folder;
    fs::path sourceMount;
    fs::path destinationMount;
    fs::path markers;
    std::shared_ptr<FakeVolumeProbe> probe = std::make_shared<FakeVolumeProbe>();
    std::map<std::string, std::string> typeNames;
    // Slows every answer of the disk probe down (see DelayedVolumeProbe).
    std::chrono::milliseconds probeDelay{0};
    BlockingPool pool{2};
    std::shared_ptr<ShellRunner> shell = std::make_shared<LiveShellRunner>(pool);
    std::shared_ptr<FakeVolumeOwnership> ownership = std::make_shared<FakeVolumeOwnership>();
    int engineCount = 0;
};

// Runs an io_context on two threads for the lifetime of the object.
class IoThreads {
public:
    explicit IoThreads(asio::io_context& io) : io_(io), guard_(asio::make_work_guard(io)) {
        for (int i = 0; i < 2; ++i) threads_.emplace_back([this] { io_.run(); });
    }
    ~IoThreads() {
        guard_.reset();
        io_.stop();
        for (auto& t : threads_) t.join();
    }

private:
    asio::io_context& io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::vector<std::thread> threads_;
};

}  // namespace ql::testing
