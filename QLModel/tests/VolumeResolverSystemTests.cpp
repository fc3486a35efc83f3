// The resolver over real block devices: disk images attached as loop devices, partitioned with
// sgdisk (or an MBR written here), formatted with mkfs, and found again through libblkid and
// sysfs. Needs root and loop devices; skips with the reason where the machine has neither.
#if defined(__linux__)

#include "QLModel/LinuxBlockDeviceProbe.h"
#include "QLModel/LiveHardwareSerialProbe.h"
#include "QLModel/VolumeResolver.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/Log.h"
#include "QLSupport/ShellRunner.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace ql {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

constexpr std::uint64_t kMiB = 1024 * 1024;
// GPT layout of the test images (512-byte sectors): two 16 MiB partitions, free space after.
constexpr const char* kFirstPartition = "1:2048:34815";
constexpr const char* kSecondPartition = "2:34816:67583";
constexpr const char* kGrownSecondPartition = "2:34816:83967";

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

std::optional<std::string> readFile(const fs::path& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return trimmed(text);
}

class Machine {
public:
    Machine() : runner_(pool_) {}

    // Runs a tool; a failure is recorded as a test failure and returned as absent.
    std::optional<std::string> run(const std::string& executable, std::vector<std::string> arguments) {
        auto outcome =
            runner_.runBlocking(ShellCommand{executable, arguments, std::nullopt, std::chrono::seconds(60), nullptr, std::nullopt});
        std::string line = executable;
        for (const auto& a : arguments) line += " " + a;
        if (!outcome) {
            ADD_FAILURE() << line << ": " << outcome.error().message();
            return std::nullopt;
        }
        if (outcome->exitCode != 0) {
            ADD_FAILURE() << line << " exited with " << outcome->exitCode << ": " << outcome->stderr;
            return std::nullopt;
        }
        return outcome->stdout;
    }

    // Whether a tool succeeds, for steps that may fail without failing the test.
    bool succeeds(const std::string& executable, std::vector<std::string> arguments) {
        auto outcome = runner_.runBlocking(ShellCommand{executable, arguments, std::nullopt, std::chrono::seconds(60), nullptr, std::nullopt});
        return outcome && outcome->exitCode == 0;
    }

    // For clean-up: failures are only reported.
    void tryRun(const std::string& executable, std::vector<std::string> arguments) {
        auto outcome =
            runner_.runBlocking(ShellCommand{executable, arguments, std::nullopt, std::chrono::seconds(60), nullptr, std::nullopt});
        if (!outcome || outcome->exitCode != 0) {
            std::fprintf(stderr, "clean-up: %s %s failed: %s\n", executable.c_str(),
                         arguments.empty() ? "" : arguments.back().c_str(),
                         outcome ? outcome->stderr.c_str() : outcome.error().message().c_str());
        }
    }

    // Why this machine can't run the tests, if it can't.
    std::optional<std::string> missingPrerequisite() {
        if (::geteuid() != 0) return "needs root to attach loop devices";
        if (!fs::exists("/dev/loop-control"))
            return "no /dev/loop-control: this kernel or container has no loop devices";
        for (const char* tool : {"/usr/sbin/losetup", "/usr/sbin/sgdisk", "/usr/bin/partx", "/usr/sbin/mkfs.ext4",
                                 "/usr/sbin/mkfs.vfat"}) {
            if (::access(tool, X_OK) != 0) return std::string(tool) + " is not installed";
        }
        auto outcome = runner_.runBlocking(
            ShellCommand{"/usr/sbin/losetup", {"-f"}, std::nullopt, std::chrono::seconds(10), nullptr, std::nullopt});
        if (!outcome || outcome->exitCode != 0) {
            return "losetup -f can't find a free loop device: " +
                   (outcome ? outcome->stderr : outcome.error().message());
        }
        return std::nullopt;
    }

    BlockingPool& pool() { return pool_; }

private:
    BlockingPool pool_{2};
    LiveShellRunner runner_;
};

// An image file attached as a loop device, with its partitions' device nodes; detached (and
// any node made here removed) when it goes away, whatever happened in between.
class LoopDevice {
public:
    LoopDevice(Machine& machine, fs::path image) : machine_(machine), image_(std::move(image)) {
        auto attached = machine_.run("/usr/sbin/losetup", {"--find", "--show", "--partscan", image_.string()});
        if (!attached) return;
        device_ = fs::path(trimmed(*attached)).filename().string();
        waitForPartitions();
    }
    // Attached at a given device, if that device is free (not attached otherwise).
    LoopDevice(Machine& machine, fs::path image, const std::string& device)
        : machine_(machine), image_(std::move(image)) {
        if (machine_.succeeds("/usr/sbin/losetup", {"/dev/" + device, image_.string()})) device_ = device;
    }
    ~LoopDevice() { detach(); }
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;

    void detach() {
        if (device_.empty()) return;
        for (const auto& node : madeNodes_) fs::remove(node);
        madeNodes_.clear();
        machine_.tryRun("/usr/sbin/losetup", {"-d", node()});
        device_.clear();
    }

    const std::string& name() const { return device_; }
    std::string node() const { return "/dev/" + device_; }
    std::string partition(int number) const { return device_ + "p" + std::to_string(number); }
    std::string partitionNode(int number) const { return "/dev/" + partition(number); }
    bool attached() const { return !device_.empty(); }

    std::vector<std::string> partitions() const {
        std::vector<std::string> found;
        std::error_code error;
        for (fs::directory_iterator it("/sys/block/" + device_, error), end; !error && it != end; it.increment(error)) {
            if (fs::exists(it->path() / "partition")) found.push_back(it->path().filename().string());
        }
        return found;
    }

private:
    // The kernel scans the table when attached with --partscan; where it didn't, ask partx. Without
    // udev the partition nodes may be missing too: make them from sysfs.
    void waitForPartitions() {
        bool expectsPartitions = fs::file_size(image_) >= 512 && hasPartitionTable();
        if (!expectsPartitions) return;
        for (int attempt = 0; attempt < 20 && partitions().empty(); ++attempt) {
            if (attempt == 0) machine_.tryRun("/usr/bin/partx", {"-a", node()});
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        for (const auto& partition : partitions()) {
            auto node = fs::path("/dev") / partition;
            if (fs::exists(node)) continue;
            auto dev = readFile(fs::path("/sys/block") / device_ / partition / "dev");
            unsigned major = 0, minor = 0;
            if (!dev || std::sscanf(dev->c_str(), "%u:%u", &major, &minor) != 2) continue;
            if (::mknod(node.c_str(), S_IFBLK | 0600, makedev(major, minor)) == 0) madeNodes_.push_back(node);
        }
    }

    bool hasPartitionTable() const {
        std::ifstream in(image_, std::ios::binary);
        char sector[512];
        if (!in.read(sector, sizeof sector)) return false;
        return static_cast<unsigned char>(sector[510]) == 0x55 && static_cast<unsigned char>(sector[511]) == 0xAA;
    }

    Machine& machine_;
    fs::path image_;
    std::string device_;
    std::vector<fs::path> madeNodes_;
};

// Hides a device node for a while, as if it could not be read.
class HiddenNode {
public:
    explicit HiddenNode(std::string node) : node_(std::move(node)), hidden_(node_ + ".ql-hidden") {
        fs::rename(node_, hidden_);
    }
    ~HiddenNode() {
        std::error_code error;
        fs::rename(hidden_, node_, error);
    }

private:
    std::string node_;
    std::string hidden_;
};

class ResolverOnLoopDevices : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto missing = machine.missingPrerequisite()) GTEST_SKIP() << *missing;
        // One of these tests at a time: each changes what the others' scans see (attaching,
        // detaching, hiding device nodes).
        lock = ::open("/tmp/quillo-loop-device-tests.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lock >= 0) ::flock(lock, LOCK_EX);
        folder = fs::temp_directory_path() / ("ql-resolver-" + std::to_string(::getpid()) + "-" +
                                              ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
    void TearDown() override {
        if (!folder.empty()) fs::remove_all(folder);
    }
    ~ResolverOnLoopDevices() override {
        if (lock >= 0) ::close(lock);  // after every loop device of the test is gone
    }

    fs::path emptyImage(const std::string& name, std::uint64_t size) {
        auto path = folder / name;
        std::ofstream(path).close();
        fs::resize_file(path, size);
        return path;
    }

    // Two 16 MiB partitions: FAT (Microsoft basic data) and ext4 (Linux filesystem).
    fs::path gptImage(const std::string& name) {
        auto path = emptyImage(name, 48 * kMiB);
        machine.run("/usr/sbin/sgdisk",
                    {"-n", kFirstPartition, "-t", "1:0700", "-n", kSecondPartition, "-t", "2:8300", path.string()});
        return path;
    }

    void formatPartitions(const LoopDevice& loop) {
        machine.run("/usr/sbin/mkfs.vfat", {"-n", "CAMERA", loop.partitionNode(1)});
        machine.run("/usr/sbin/mkfs.ext4", {"-q", "-F", "-L", "Archive", loop.partitionNode(2)});
    }

    VolumeResolverEnvironment environment() {
        auto probe = std::make_shared<LinuxBlockDeviceProbe>(&machine.pool());
        auto env = VolumeResolverEnvironment::live(probe, std::make_shared<LiveHardwareSerialProbe>());
        env.serialRetryAttempts = 0;
        return env;
    }

    template <typename T>
    T await(std::function<asio::awaitable<T>(VolumeResolver&)> operation) {
        io.restart();
        auto work = asio::make_work_guard(io);
        VolumeResolver resolver(io.get_executor(), environment());
        std::optional<T> result;
        std::exception_ptr failure;
        asio::co_spawn(io, operation(resolver), [&](std::exception_ptr error, T value) {
            failure = error;
            if (!error) result = std::move(value);
            work.reset();
        });
        io.run();
        if (failure) std::rethrow_exception(failure);
        return std::move(*result);
    }

    Resolution resolve(const VolumeRef& ref) {
        return await<Resolution>([ref](VolumeResolver& resolver) { return resolver.resolve(ref); });
    }

    VolumeResolver::BindingResult bind(const std::string& device, ImageBackedDevicePolicy policy, bool slice = false) {
        return await<VolumeResolver::BindingResult>([&](VolumeResolver& resolver) {
            return slice ? resolver.bindSlice(device, policy) : resolver.bind(device, policy);
        });
    }

    std::string blkid(const std::string& tag, const std::string& node) {
        return trimmed(machine.run("/usr/sbin/blkid", {"-p", "-o", "value", "-s", tag, node}).value_or(""));
    }

    // Declared before the machine: the pool's threads may still hold executors of this context
    // for a moment after a result arrived, so the pool must be joined before it goes away.
    asio::io_context io;
    Machine machine;
    fs::path folder;
    int lock = -1;
};

TEST_F(ResolverOnLoopDevices, partitionIsFoundAgainUnderAnotherLoopDevice) {
    auto image = gptImage("disk.img");
    std::optional<VolumeRef> ref;
    std::string firstDevice;
    std::string partitionGUID;
    {
        LoopDevice loop(machine, image);
        ASSERT_TRUE(loop.attached());
        ASSERT_EQ(loop.partitions().size(), 2u) << "the kernel didn't show the partitions of " << loop.name();
        formatPartitions(loop);
        firstDevice = loop.name();
        partitionGUID = blkid("PART_ENTRY_UUID", loop.partitionNode(2));

        // The probe's own facts.
        LinuxBlockDeviceProbe probe;
        auto info = probe.describeNow(loop.partition(2));
        ASSERT_TRUE(info) << info.error();
        EXPECT_EQ(info->diskUUID, Uuid::parse(partitionGUID).value());
        EXPECT_EQ(info->volumeUUID, Uuid::parse(blkid("UUID", loop.partitionNode(2))).value());
        EXPECT_EQ(info->volumeName, "Archive");
        EXPECT_EQ(info->totalSize, 16 * kMiB);
        EXPECT_EQ(info->content, "0FC63DAF-8483-4772-8E79-3D69D8477DE4");
        EXPECT_TRUE(info->partitionMapPartition);
        EXPECT_EQ(info->wholeDisk, false);
        EXPECT_EQ(info->parentWholeDisk, loop.name());
        EXPECT_EQ(info->wholeDiskRegistryID,
                  std::stoull(readFile("/sys/block/" + loop.name() + "/diskseq").value_or("0")));
        auto disk = probe.describeNow(loop.name());
        ASSERT_TRUE(disk) << disk.error();
        EXPECT_EQ(disk->wholeDisk, true);
        EXPECT_EQ(disk->content, "GUID_partition_scheme");

        // A device inside a disk image is refused as a destination, allowed for reading.
        auto refused = bind(loop.partition(2), ImageBackedDevicePolicy::refuse);
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().message, loop.partition(2) + " belongs to a disk image; bind the image file instead");
        auto fat = bind(loop.partition(1), ImageBackedDevicePolicy::allowForReading);
        ASSERT_TRUE(fat) << fat.error();
        EXPECT_EQ(fat->invariants.filesystemFamily, FilesystemFamily::fat32);
        auto bound = bind(loop.partition(2), ImageBackedDevicePolicy::allowForReading);
        ASSERT_TRUE(bound) << bound.error();
        EXPECT_EQ(bound->key, VolumeKey::gptPartitionGUID(Uuid::parse(partitionGUID).value()));
        EXPECT_EQ(bound->invariants,
                  (VolumeInvariants{16 * kMiB, PartitionMapType::gpt, FilesystemFamily::other, std::nullopt}));
        EXPECT_EQ(bound->displayName, "Archive");
        ref = *bound;

        auto resolution = resolve(*ref);
        ASSERT_TRUE(resolution.isOk()) << resolution;
        EXPECT_EQ(resolution.state()->bsdDevice, loop.partition(2));
        EXPECT_TRUE(resolution.state()->hostBSDDevice);  // the disk holding the image file
    }

    // Detached: a complete scan that finds nothing.
    auto missing = resolve(*ref);
    EXPECT_EQ(missing.kind(), Resolution::Kind::unresolved) << missing;
    ASSERT_TRUE(missing.reason());
    EXPECT_EQ(*missing.reason(), UnresolvedReason::volumeMissing());

    // Attached again under another number: a placeholder holds the old one (or someone else does).
    LoopDevice placeholder(machine, emptyImage("placeholder.img", kMiB), firstDevice);
    std::unique_ptr<LoopDevice> again;
    for (int attempt = 0; attempt < 5; ++attempt) {
        again = std::make_unique<LoopDevice>(machine, image);
        if (!again->attached() || again->name() != firstDevice) break;
        again.reset();
    }
    ASSERT_TRUE(again && again->attached());
    ASSERT_NE(again->name(), firstDevice);
    auto found = resolve(*ref);
    ASSERT_TRUE(found.isOk()) << found;
    EXPECT_EQ(found.state()->bsdDevice, again->partition(2));
    EXPECT_EQ(found.state()->partitionGUID, Uuid::parse(partitionGUID).value());
}

TEST_F(ResolverOnLoopDevices, remadeWholeDiskFilesystemIsNotTheSameVolume) {
    auto image = emptyImage("whole.img", 16 * kMiB);
    machine.run("/usr/sbin/mkfs.ext4", {"-q", "-F", "-L", "Whole", image.string()});
    LoopDevice loop(machine, image);
    ASSERT_TRUE(loop.attached());

    auto bound = bind(loop.name(), ImageBackedDevicePolicy::allowForReading);
    ASSERT_TRUE(bound) << bound.error();
    EXPECT_EQ(bound->key, VolumeKey::wholeDiskVolume(Uuid::parse(blkid("UUID", loop.node())).value()));
    EXPECT_EQ(bound->invariants.partitionMapType, PartitionMapType::wholeDisk);
    auto slice = bind(loop.name(), ImageBackedDevicePolicy::allowForReading, true);
    ASSERT_FALSE(slice);
    EXPECT_EQ(slice.error().message,
              loop.name() + " is not a GPT partition slice, a whole-disk APFS container, or an MBR/APM slice");

    auto before = resolve(*bound);
    ASSERT_TRUE(before.isOk()) << before;
    EXPECT_EQ(before.state()->bsdDevice, loop.name());

    machine.run("/usr/sbin/mkfs.ext4", {"-q", "-F", "-L", "Whole", loop.node()});
    auto after = resolve(*bound);
    EXPECT_FALSE(after.isOk()) << after;
    EXPECT_EQ(after.kind(), Resolution::Kind::unresolved) << after;
}

TEST_F(ResolverOnLoopDevices, grownPartitionIsSuspicious) {
    auto image = gptImage("grow.img");
    std::optional<VolumeRef> ref;
    std::string guid;
    {
        LoopDevice loop(machine, image);
        ASSERT_TRUE(loop.attached());
        formatPartitions(loop);
        guid = blkid("PART_ENTRY_UUID", loop.partitionNode(2));
        auto bound = bind(loop.partition(2), ImageBackedDevicePolicy::allowForReading);
        ASSERT_TRUE(bound) << bound.error();
        ref = *bound;
    }
    // The same partition (same unique GUID), 8 MiB larger.
    machine.run("/usr/sbin/sgdisk",
                {"-d", "2", "-n", kGrownSecondPartition, "-t", "2:8300", "-u", "2:" + guid, image.string()});
    LoopDevice loop(machine, image);
    ASSERT_TRUE(loop.attached());
    auto resolution = resolve(*ref);
    ASSERT_EQ(resolution.kind(), Resolution::Kind::suspicious) << resolution;
    EXPECT_THAT(resolution.mismatches(), ElementsAre(InvariantMismatch{"partitionSizeBytes", std::to_string(16 * kMiB),
                                                                       std::to_string(24 * kMiB)}));
}

TEST_F(ResolverOnLoopDevices, unreadableDeviceMakesTheScanIncompleteNotMissing) {
    auto image = gptImage("gone.img");
    std::optional<VolumeRef> partitionRef;
    {
        LoopDevice loop(machine, image);
        ASSERT_TRUE(loop.attached());
        formatPartitions(loop);
        auto bound = bind(loop.partition(2), ImageBackedDevicePolicy::allowForReading);
        ASSERT_TRUE(bound) << bound.error();
        partitionRef = *bound;
    }
    auto wholeImage = emptyImage("whole.img", 8 * kMiB);
    machine.run("/usr/sbin/mkfs.ext4", {"-q", "-F", wholeImage.string()});
    auto wholeRef =
        VolumeRef{VolumeKey::wholeDiskVolume(Uuid::mint()),
                  VolumeTarget::wholeFilesystem(),
                  VolumeInvariants{8 * kMiB, PartitionMapType::wholeDisk, FilesystemFamily::other, std::nullopt},
                  "Gone",
                  std::nullopt,
                  std::nullopt};

    LoopDevice other(machine, gptImage("other.img"));
    LoopDevice whole(machine, wholeImage);
    ASSERT_TRUE(other.attached() && whole.attached());
    {
        HiddenNode hiddenDisk(other.node());
        HiddenNode hiddenWhole(whole.node());
        LogCapture capture;
        auto partition = resolve(*partitionRef);
        ASSERT_EQ(partition.kind(), Resolution::Kind::unresolved) << partition;
        EXPECT_EQ(*partition.reason(),
                  UnresolvedReason::probeFailed(std::string(VolumeResolver::partitionScanIncomplete)));
        EXPECT_TRUE(capture.contains("couldn't read " + other.partition(1) + " while looking for partition"));
        auto disk = resolve(wholeRef);
        ASSERT_EQ(disk.kind(), Resolution::Kind::unresolved) << disk;
        EXPECT_EQ(*disk.reason(), UnresolvedReason::probeFailed(std::string(VolumeResolver::wholeDiskScanIncomplete)));
        EXPECT_TRUE(capture.contains("couldn't read " + whole.name() + " while looking for whole-disk volume"));
    }
    // Readable again: now the partition scan is complete and the partition is missing.
    EXPECT_EQ(*resolve(*partitionRef).reason(), UnresolvedReason::volumeMissing());
    // The whole-disk scan is complete too, unless some other disk of this machine can't be read
    // (a sandbox may forbid opening the root disk): then it still must not say "missing".
    LinuxBlockDeviceProbe probe;
    std::vector<std::string> unreadable;
    for (const auto& disk : probe.wholeDisks()) {
        if (probe.partitionsOf(disk).empty() && !probe.describeNow(disk)) unreadable.push_back(disk);
    }
    auto disk = resolve(wholeRef);
    if (unreadable.empty()) {
        EXPECT_EQ(*disk.reason(), UnresolvedReason::volumeMissing());
    } else {
        std::printf("note: %zu other disk(s) unreadable here (%s…), so the whole-disk scan stays incomplete\n",
                    unreadable.size(), unreadable.front().c_str());
        EXPECT_EQ(*disk.reason(), UnresolvedReason::probeFailed(std::string(VolumeResolver::wholeDiskScanIncomplete)));
    }
}

// An MBR with one FAT32 partition, written here: no tool on the machine is needed for it.
void writeMBR(const fs::path& image, std::uint32_t firstSector, std::uint32_t sectors) {
    std::fstream out(image, std::ios::in | std::ios::out | std::ios::binary);
    unsigned char sector[512] = {};
    sector[440] = 0x51;  // disk signature
    sector[441] = 0x4C;
    unsigned char* entry = sector + 446;
    entry[0] = 0x00;
    entry[1] = 0xFE, entry[2] = 0xFF, entry[3] = 0xFF;
    entry[4] = 0x0C;  // FAT32 (LBA)
    entry[5] = 0xFE, entry[6] = 0xFF, entry[7] = 0xFF;
    for (int i = 0; i < 4; ++i) {
        entry[8 + i] = static_cast<unsigned char>(firstSector >> (8 * i));
        entry[12 + i] = static_cast<unsigned char>(sectors >> (8 * i));
    }
    sector[510] = 0x55;
    sector[511] = 0xAA;
    out.write(reinterpret_cast<const char*>(sector), sizeof sector);
}

TEST_F(ResolverOnLoopDevices, mbrSliceIsKeyedByItsVolume) {
    auto image = emptyImage("mbr.img", 48 * kMiB);
    writeMBR(image, 2048, 40 * 2048);
    std::optional<VolumeRef> ref;
    {
        LoopDevice loop(machine, image);
        ASSERT_TRUE(loop.attached());
        ASSERT_EQ(loop.partitions().size(), 1u);
        machine.run("/usr/sbin/mkfs.vfat", {"-F", "32", "-s", "1", "-n", "CAMERA", loop.partitionNode(1)});
        auto bound = bind(loop.partition(1), ImageBackedDevicePolicy::allowForReading);
        ASSERT_TRUE(bound) << bound.error();
        ASSERT_EQ(bound->key.kind(), VolumeKey::Kind::mbrSlice) << bound->key.description();
        EXPECT_EQ(bound->invariants.partitionMapType, PartitionMapType::mbr);
        EXPECT_EQ(bound->invariants.partitionSizeBytes, 40 * kMiB);
        ref = *bound;
        auto resolution = resolve(*ref);
        ASSERT_TRUE(resolution.isOk()) << resolution;
    }
    LoopDevice placeholder(machine, emptyImage("placeholder.img", kMiB));
    LoopDevice again(machine, image);
    ASSERT_TRUE(again.attached());
    auto resolution = resolve(*ref);
    ASSERT_TRUE(resolution.isOk()) << resolution;
    EXPECT_EQ(resolution.state()->bsdDevice, again.partition(1));
}

TEST_F(ResolverOnLoopDevices, mountedPartitionReportsItsMountPoint) {
    auto image = gptImage("mounted.img");
    LoopDevice loop(machine, image);
    ASSERT_TRUE(loop.attached());
    formatPartitions(loop);
    auto mountPoint = folder / "mnt";
    fs::create_directories(mountPoint);
    ASSERT_TRUE(machine.run("/usr/bin/mount", {"-t", "ext4", loop.partitionNode(2), mountPoint.string()}));
    struct Unmount {
        Machine& machine;
        fs::path at;
        ~Unmount() { machine.tryRun("/usr/bin/umount", {at.string()}); }
    } unmount{machine, mountPoint};

    LinuxBlockDeviceProbe probe;
    auto info = probe.describeNow(loop.partition(2));
    ASSERT_TRUE(info) << info.error();
    EXPECT_EQ(info->mountPoint, mountPoint.string());
    EXPECT_GT(info->volumeFreeSpace, 0u);
    EXPECT_GT(info->volumeUsedSpace, 0u);

    auto bound = bind(loop.partition(2), ImageBackedDevicePolicy::allowForReading);
    ASSERT_TRUE(bound) << bound.error();
    auto resolution = resolve(*bound);
    ASSERT_TRUE(resolution.isOk()) << resolution;
    EXPECT_EQ(resolution.state()->standaloneVolume->mountPoint, mountPoint.string());
    EXPECT_EQ(resolution.state()->standaloneVolume->name, "Archive");
}

}  // namespace
}  // namespace ql

#endif
