#include "QLModel/FakeAPFSVolumeInfoProbe.h"
#include "QLModel/FakeVolumeProbe.h"
#include "QLModel/LiveAPFSVolumeInfoProbe.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

template <typename T>
T run(asio::awaitable<T> operation) {
    asio::io_context io;
    std::optional<T> result;
    asio::co_spawn(io, std::move(operation), [&](std::exception_ptr error, T value) {
        if (error) std::rethrow_exception(error);
        result = std::move(value);
    });
    io.run();
    return std::move(*result);
}

const Uuid kGroup = Uuid::parse("6E7F8A9B-0C1D-4E2F-A3B4-C5D6E7F8A9B0").value();
const Uuid kVolume = Uuid::parse("7A8B9C0D-1E2F-4A3B-8C4D-5E6F7A8B9C0D").value();

TEST(APFSVolumeInfoProbe, readsTheVolumesDescription) {
    auto probe = std::make_shared<FakeVolumeProbe>();
    ProbeInfo data;
    data.deviceIdentifier = "disk3s5";
    data.content = "41504653-0000-11aa-aa11-00306543ecac";
    data.apfsVolumeGroupUUID = kGroup;
    data.apfsVolumeRole = {"Data", "User"};
    data.volumeUUID = kVolume;
    data.mediaType = "Generic";
    probe->infos["disk3s5"] = data;
    ProbeInfo hfs;
    hfs.deviceIdentifier = "disk2s2";
    hfs.content = "Apple_HFS";
    hfs.filesystemPersonality = "Journaled HFS+";
    hfs.partitionMapPartition = true;
    probe->infos["disk2s2"] = hfs;
    ProbeInfo container = hfs;
    container.deviceIdentifier = "disk0s2";
    container.content = "Apple_APFS";
    container.filesystemPersonality = "APFS";
    probe->infos["disk0s2"] = container;

    LiveAPFSVolumeInfoProbe live(probe);
    EXPECT_EQ(run(live.volumeInfo("disk3s5")), (APFSVolumeInfo{kGroup, "Data", kVolume, "Generic", true}));
    EXPECT_EQ(run(live.volumeInfo("disk2s2")),
              (APFSVolumeInfo{std::nullopt, std::nullopt, std::nullopt, std::nullopt, false}));
    // A container partition is APFS, but not an APFS volume.
    EXPECT_FALSE(run(live.volumeInfo("disk0s2"))->isAPFS);
    EXPECT_EQ(run(live.volumeInfo("disk99")), std::nullopt);
}

TEST(APFSVolumeInfoProbe, fakeAnswersFromEntries) {
    FakeAPFSVolumeInfoProbe fake({{"disk3s5", APFSVolumeInfo{kGroup, "Data", kVolume, std::nullopt, true}}});
    EXPECT_EQ(run(fake.volumeInfo("disk3s5"))->role, "Data");
    EXPECT_EQ(run(fake.volumeInfo("disk3s1")), std::nullopt);
}

}  // namespace
}  // namespace ql
