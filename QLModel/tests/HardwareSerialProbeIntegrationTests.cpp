// The Linux registry lookups over device trees built in a temporary folder: the same layout the
// kernel shows under /sys, without needing the hardware.
#if defined(__linux__)

#include "QLModel/LiveDiskImageBackingProbe.h"
#include "QLModel/LiveHardwareSerialProbe.h"
#include "QLModel/VolumeResolverEnvironment.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace ql {
namespace {

namespace fs = std::filesystem;

class FakeSysfs : public ::testing::Test {
protected:
    void SetUp() override {
        root = fs::temp_directory_path() / ("ql-sysfs-" + std::to_string(::getpid()) + "-" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root);
        fs::create_directories(root / "class" / "block");
        fs::create_directories(root / "dev" / "block");
        fs::create_directories(root / "udev");
    }
    void TearDown() override { fs::remove_all(root); }

    static void write(const fs::path& path, std::string_view text) {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }

    // A block device at `devicePath` (relative to the tree's devices folder), listed in
    // class/block, with its number and an optional parent device folder.
    fs::path addDisk(const std::string& name, const std::string& devicePath, const std::string& dev,
                     std::optional<fs::path> hardware = std::nullopt) {
        auto dir = root / "devices" / devicePath / "block" / name;
        fs::create_directories(dir);
        write(dir / "dev", dev + "\n");
        write(dir / "size", "2048\n");
        fs::create_symlink(dir, root / "class" / "block" / name);
        if (hardware) fs::create_directory_symlink(*hardware, dir / "device");
        return dir;
    }

    fs::path addPartition(const fs::path& disk, const std::string& name, int number) {
        auto dir = disk / name;
        fs::create_directories(dir);
        write(dir / "partition", std::to_string(number) + "\n");
        write(dir / "dev", "259:" + std::to_string(number) + "\n");
        fs::create_symlink(dir, root / "class" / "block" / name);
        return dir;
    }

    LiveHardwareSerialProbe probe() const { return LiveHardwareSerialProbe({root.string(), (root / "udev").string()}); }

    fs::path root;
};

void expectFound(const SerialRegistryAnswer& answer, const std::string& property,
                 const std::optional<std::string>& value) {
    EXPECT_EQ(answer.kind, SerialRegistryAnswer::Kind::found);
    EXPECT_EQ(answer.property, property);
    EXPECT_EQ(answer.value, value);
}

TEST_F(FakeSysfs, nvmeSerialAttribute) {
    auto controller = root / "devices" / "pci0000:00" / "nvme" / "nvme0";
    addDisk("nvme0n1", "pci0000:00/nvme/nvme0", "259:0", controller);
    write(controller / "serial", "S4EWNX0N123456      \n");
    expectFound(probe().lookUp("nvme0n1"), "Serial Number", "S4EWNX0N123456      \n");
    EXPECT_EQ(probe().serial("/dev/nvme0n1"), HardwareSerial{"S4EWNX0N123456"});
}

TEST_F(FakeSysfs, partitionsShareTheirDisksSerial) {
    auto scsi = root / "devices" / "pci0000:00" / "ata1" / "host0" / "target0:0:0" / "0:0:0:0";
    auto disk = addDisk("sda", "pci0000:00/ata1/host0/target0:0:0/0:0:0:0", "8:0", scsi);
    addPartition(disk, "sda2", 2);
    std::string page("\x00\x80\x00\x0e  WD-WCC4E1234", 18);
    write(scsi / "vpd_pg80", page);
    EXPECT_EQ(probe().serial("sda2"), HardwareSerial{"WD-WCC4E1234"});
}

TEST_F(FakeSysfs, unreadableUnitSerialPageIsUnusable) {
    auto scsi = root / "devices" / "scsi" / "0:0:0:0";
    addDisk("sdb", "scsi/0:0:0:0", "8:16", scsi);
    write(scsi / "vpd_pg80", std::string("\x00\x80\x00\x04\x01\x02\x03\x04", 8));
    expectFound(probe().lookUp("sdb"), "Serial Number", std::nullopt);
}

TEST_F(FakeSysfs, usbSerialAboveTheDisk) {
    auto usb = root / "devices" / "pci0000:00" / "usb2" / "2-1";
    auto scsi = usb / "2-1:1.0" / "host4" / "target4:0:0" / "4:0:0:0";
    addDisk("sdc", "pci0000:00/usb2/2-1/2-1:1.0/host4/target4:0:0/4:0:0:0", "8:32", scsi);
    write(usb / "idVendor", "0781\n");
    write(usb / "serial", "4C530001231120115142\n");
    expectFound(probe().lookUp("sdc"), "USB Serial Number", "4C530001231120115142\n");
}

TEST_F(FakeSysfs, udevDatabaseWhenPresent) {
    addDisk("vdb", "virtual/vdb", "254:16");
    write(root / "udev" / "b254:16",
          "S:disk/by-id/virtio-QM0001\nE:ID_SERIAL=QEMU_HARDDISK_QM0001\nE:ID_SERIAL_SHORT=QM0001\n");
    expectFound(probe().lookUp("vdb"), "Serial Number", "QM0001");
}

TEST_F(FakeSysfs, emptyAttributesAreUnusableNotMissing) {
    auto dir = addDisk("vda", "virtio/vda", "254:0");
    write(dir / "serial", "\n");
    expectFound(probe().lookUp("vda"), "Serial Number", "");
    EXPECT_EQ(probe().serial("vda"), std::nullopt);
}

TEST_F(FakeSysfs, outcomesWithoutASerial) {
    addDisk("loop0", "virtual/loop0", "7:0");
    EXPECT_EQ(probe().lookUp("loop0").kind, SerialRegistryAnswer::Kind::neitherProperty);
    EXPECT_EQ(probe().lookUp("sdz").kind, SerialRegistryAnswer::Kind::noService);
    EXPECT_EQ(probe().lookUp("../sda").kind, SerialRegistryAnswer::Kind::noMatchingDictionary);
    EXPECT_EQ(probe().lookUp("").kind, SerialRegistryAnswer::Kind::noMatchingDictionary);
}

TEST_F(FakeSysfs, loopDevicesAreImageBacked) {
    auto image = root / "images" / "work.img";
    write(image, "image");
    auto disk = addDisk("loop3", "virtual/loop3", "7:3");
    addPartition(disk, "loop3p1", 1);
    write(disk / "loop" / "backing_file", image.string() + " (deleted)\n");
    addDisk("vda", "virtio/vda", "254:0");
    struct stat info {};
    ASSERT_EQ(::stat(image.c_str(), &info), 0);
    fs::create_directory_symlink(
        root / "class" / "block" / "vda",
        root / "dev" / "block" / (std::to_string(major(info.st_dev)) + ":" + std::to_string(minor(info.st_dev))));

    LiveDiskImageBackingProbe backing({(root / "class" / "block").string(), (root / "dev" / "block").string()});
    EXPECT_EQ(backing.backing("loop3p1"), (DiskImageBacking{image.string(), "vda"}));
    EXPECT_EQ(backing.backing("/dev/loop3"), (DiskImageBacking{image.string(), "vda"}));
    EXPECT_EQ(backing.backing("vda"), std::nullopt);
    EXPECT_EQ(backing.backing("nothing"), std::nullopt);
}

TEST_F(FakeSysfs, backupStoreMarkers) {
    auto volume = root / "volume";
    fs::create_directories(volume / "Backups.backupdb");
    EXPECT_FALSE(VolumeResolverEnvironment::liveHasTimeMachine(volume.string()));
    fs::create_directories(volume / ".HFS+ Private Directory Data\r");
    EXPECT_TRUE(VolumeResolverEnvironment::liveHasTimeMachine(volume.string()));
    fs::remove_all(volume / "Backups.backupdb");
    EXPECT_FALSE(VolumeResolverEnvironment::liveHasTimeMachine(volume.string()));
}

TEST_F(FakeSysfs, canonicalPathsAndExistence) {
    write(root / "real" / "a.dmg", "x");
    fs::create_directory_symlink(root / "real", root / "link");
    EXPECT_EQ(VolumeResolverEnvironment::liveCanonicalPath((root / "link" / "a.dmg").string()),
              fs::canonical(root / "real" / "a.dmg").string());
    EXPECT_EQ(VolumeResolverEnvironment::liveCanonicalPath((root / "link" / "b.dmg").string()), std::nullopt);
    EXPECT_TRUE(VolumeResolverEnvironment::liveFileExists((root / "link" / "a.dmg").string()));
    EXPECT_FALSE(VolumeResolverEnvironment::liveFileExists((root / "real" / "b.dmg").string()));
}

TEST(VolumeResolverEnvironment, numericAndLocalHostsAreEquivalent) {
    EXPECT_TRUE(VolumeResolverEnvironment::liveNetworkHostsEquivalent("127.0.0.1", "127.0.0.1"));
    EXPECT_FALSE(VolumeResolverEnvironment::liveNetworkHostsEquivalent("127.0.0.1", "127.0.0.2"));
    EXPECT_FALSE(VolumeResolverEnvironment::liveNetworkHostsEquivalent("", "127.0.0.1"));
}

}  // namespace
}  // namespace ql

#endif
