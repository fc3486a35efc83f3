#include "QLModel/LinuxBlockDeviceProbe.h"
#include "QLSupport/tests/MachineLimits.h"
#include "QLModel/LiveHardwareSerialProbe.h"
#include "QLModel/VolumeResolver.h"
#include "QLProtocol/server/LiveSourceServiceProvider.h"
#include "QLProtocol/server/tests/SourceServiceTestSupport.h"
#include "QLProtocol/transport/VolumeBridge.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace ql {
namespace {

namespace fs = std::filesystem;
using testing::SourceTestLoop;

// A small ext4 image with a label, loop-mounted (and unmounted) on request.
class LoopFilesystem {
public:
    LoopFilesystem() {
        char pattern[] = "/tmp/ql-srcvol-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) return;
        root_ = pattern;
        image_ = root_ / "volume.img";
        mountPoint_ = root_ / "mnt";
        fs::create_directories(mountPoint_);
        const std::string cmd = "truncate -s 32M '" + image_.string() + "' && mkfs.ext4 -q -F -L QLSourceTest '" +
                                image_.string() + "' >/dev/null 2>&1";
        formatted_ = std::system(cmd.c_str()) == 0;
    }
    ~LoopFilesystem() {
        unmount();
        if (!root_.empty()) fs::remove_all(root_);
    }
    bool formatted() const { return formatted_; }
    bool mount() {
        mounted_ = std::system(("mount -o loop '" + image_.string() + "' '" + mountPoint_.string() + "' 2>/dev/null").c_str()) == 0;
        return mounted_;
    }
    bool unmount() {
        if (!mounted_) return true;
        mounted_ = std::system(("umount '" + mountPoint_.string() + "'").c_str()) != 0;
        return !mounted_;
    }
    const fs::path& image() const { return image_; }
    const fs::path& mountPoint() const { return mountPoint_; }

private:
    fs::path root_, image_, mountPoint_;
    bool formatted_ = false;
    bool mounted_ = false;
};

struct LiveWorld {
    SourceTestLoop loop;
    std::shared_ptr<BlockingPool> pool = std::make_shared<BlockingPool>(2);
    std::shared_ptr<VolumeResolver> resolver;
    std::shared_ptr<LiveSourceServiceProvider> provider;

    LiveWorld() {
        auto env = VolumeResolverEnvironment::live(std::make_shared<LinuxBlockDeviceProbe>(pool.get()),
                                                   std::make_shared<LiveHardwareSerialProbe>());
        env.serialRetryAttempts = 0;
        resolver = std::make_shared<VolumeResolver>(loop.executor(), env);
        provider = LiveSourceServiceProvider::live(loop.executor(), resolver, pool);
    }
    ~LiveWorld() { loop.run(provider->shutdown()); }

    // Events until one matches, for at most `seconds`.
    static asio::awaitable<std::optional<wire::VolumeEvent>> awaitEvent(ServerStream<wire::VolumeEvent>* stream,
                                                                        std::string mountPoint, std::string device,
                                                                        bool appearing, int seconds) {
        using namespace asio::experimental::awaitable_operators;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < deadline) {
            asio::steady_timer timer(co_await asio::this_coro::executor, deadline);
            auto result = co_await (stream->next() || timer.async_wait(asio::use_awaitable));
            if (result.index() == 1) co_return std::nullopt;
            auto& event = std::get<0>(result);
            if (!event) co_return std::nullopt;
            if (appearing && event->has_appeared() && event->appeared().mount_point() == mountPoint) co_return *event;
            if (!appearing && event->has_disappeared() && event->disappeared().bsd_device() == device) co_return *event;
        }
        co_return std::nullopt;
    }
};

const wire::VolumeSummary* find(const wire::ListVolumesResponse& list, const std::string& mountPoint) {
    for (const auto& v : list.volumes()) {
        if (v.mount_point() == mountPoint) return &v;
    }
    return nullptr;
}

TEST(SourceServiceSystem, ListsTheRootFilesystemAndALoopMountedFilesystemAndWatchesItComeAndGo) {
    if (auto why = ql::testing::whyNoVolumeHoldsRoot()) GTEST_SKIP() << *why;

    if (::geteuid() != 0) GTEST_SKIP() << "loop-mounting a test filesystem needs root";
    LoopFilesystem volume;
    if (!volume.formatted()) GTEST_SKIP() << "mkfs.ext4 could not format a test image here";

    LiveWorld world;
    auto watch = world.loop.run(world.provider->watchVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_TRUE(watch) << watch.error().message;

    if (!volume.mount()) GTEST_SKIP() << "this machine can't loop-mount an ext4 image (no loop devices?)";

    auto appeared = world.loop.run(
        LiveWorld::awaitEvent(&*watch, volume.mountPoint().string(), {}, true, 10), std::chrono::seconds(15));
    ASSERT_TRUE(appeared) << "no appeared event for the mounted test filesystem";
    const auto device = appeared->appeared().bsd_device();
    EXPECT_EQ(appeared->appeared().name(), "QLSourceTest");
    EXPECT_EQ(device.rfind("loop", 0), 0u) << device;

    auto listed = world.loop.run(world.provider->listVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_TRUE(listed) << listed.error().message;
    const auto* root = find(*listed, "/");
    ASSERT_NE(root, nullptr) << "the root filesystem is not listed";
    EXPECT_TRUE(root->is_boot_system());
    EXPECT_TRUE(root->is_attached());
    EXPECT_GT(root->total_bytes(), 0u);
    EXPECT_FALSE(root->os_version().empty()) << "the root filesystem carries the system's version";

    const auto* loop = find(*listed, volume.mountPoint().string());
    ASSERT_NE(loop, nullptr) << "the loop-mounted filesystem is not listed";
    EXPECT_EQ(loop->name(), "QLSourceTest");
    EXPECT_EQ(loop->bsd_device(), device);
    EXPECT_EQ(loop->disk_image_backing_path(), volume.image().string());
    EXPECT_FALSE(loop->is_physical());
    EXPECT_EQ(loop->volume_uuid().size(), 16u);
    EXPECT_EQ(loop->filesystem_family(), "other");
    ASSERT_TRUE(loop->has_case_sensitive());
    EXPECT_TRUE(loop->case_sensitive());
    EXPECT_GT(loop->total_bytes(), 20'000'000u);
    EXPECT_GE(loop->total_bytes(), loop->used_bytes() + loop->free_bytes() / 2);

    // The mounted filesystem resolves through the resolver as the volume it was bound as.
    auto bound = world.loop.run(world.resolver->bind(device, ImageBackedDevicePolicy::allowForReading));
    ASSERT_TRUE(bound) << bound.error().message;
    wire::GetVolumeInfoRequest request;
    *request.mutable_ref() = VolumeBridge::toWire(*bound);
    auto info = world.loop.run(world.provider->getVolumeInfo(ql::CallContext::ofThisProcess(), request));
    ASSERT_TRUE(info) << info.error().message;
    EXPECT_EQ(info->resolution(), wire::GetVolumeInfoResponse::RES_OK);
    EXPECT_EQ(info->state().plain_volume().mount_point(), volume.mountPoint().string());

    ASSERT_TRUE(volume.unmount());
    auto gone = world.loop.run(LiveWorld::awaitEvent(&*watch, {}, device, false, 10), std::chrono::seconds(15));
    ASSERT_TRUE(gone) << "no disappeared event after unmounting";
    EXPECT_EQ(gone->disappeared().volume_uuid(), loop->volume_uuid());

    listed = world.loop.run(world.provider->listVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_TRUE(listed);
    EXPECT_EQ(find(*listed, volume.mountPoint().string()), nullptr);
}

}  // namespace
}  // namespace ql
