#include "QLProtocol/server/FakeVolumeLister.h"
#include "QLProtocol/server/LiveSourceServiceProvider.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLProtocol/server/tests/SourceServiceTestSupport.h"
#include "QLProtocol/transport/MultiplexHandler.h"
#include "QLProtocol/transport/UDSServer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace ql {
namespace {

namespace fs = std::filesystem;
using testing::listedVolume;
using testing::SourceTestLoop;
using testing::TempDir;

void write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

TEST(SourceServiceBrowsing, StatTellsFoldersFilesAndMissingPathsApart) {
    TempDir dir;
    write(dir / "file.txt", "hello");
    fs::create_directories(dir / "folder");
    fs::create_symlink(dir / "folder", dir / "link");
    fs::create_symlink(dir / "nowhere", dir / "dangling");

    struct Case {
        fs::path path;
        bool exists, isDirectory;
    };
    const Case cases[] = {
        {dir.path(), true, true},
        {dir / "file.txt", true, false},
        {dir / "folder", true, true},
        {dir / "link", true, true},  // a link is looked through
        {dir / "dangling", false, false},
        {dir / "missing", false, false},
        {dir / "file.txt" / "below", false, false},
    };
    for (const auto& c : cases) {
        auto stat = LiveSourceServiceProvider::statNow(c.path.string());
        ASSERT_TRUE(stat) << c.path << ": " << stat.error();
        EXPECT_EQ(stat->exists(), c.exists) << c.path;
        EXPECT_EQ(stat->is_directory(), c.isDirectory) << c.path;
    }
    EXPECT_EQ(LiveSourceServiceProvider::statNow("relative/path").error(), "“relative/path” is not an absolute path");
    EXPECT_EQ(LiveSourceServiceProvider::statNow("").error(), "no path was given");
}

TEST(SourceServiceBrowsing, EnumerationListsEntriesInOrderWithSizesAndPackages) {
    TempDir dir;
    write(dir / "b.txt", "12345");
    write(dir / "a.txt", "");
    write(dir / "Tool.app" / "Contents" / "Info.plist", "x");
    fs::create_directories(dir / "Folder");
    fs::create_symlink(dir / "Folder", dir / "Shortcut");

    auto listed = LiveSourceServiceProvider::enumerateNow(dir.path().string());
    ASSERT_TRUE(listed) << listed.error();
    std::vector<std::string> summary;
    for (const auto& e : listed->entries()) {
        summary.push_back(e.name() + (e.is_directory() ? "/" : "") + (e.is_package() ? " package" : "") + " " +
                          std::to_string(e.size()));
    }
    EXPECT_EQ(summary, (std::vector<std::string>{"Folder/ 0", "Shortcut 0", "Tool.app/ package 0", "a.txt 0",
                                                 "b.txt 5"}));

    EXPECT_EQ(LiveSourceServiceProvider::enumerateNow((dir / "missing").string()).error(),
              "there is no folder at “" + (dir / "missing").string() + "”");
    EXPECT_EQ(LiveSourceServiceProvider::enumerateNow((dir / "b.txt").string()).error(),
              "“" + (dir / "b.txt").string() + "” is not a folder");
}

TEST(SourceServiceBrowsing, AnUnreadableFolderIsAnErrorNotAnEmptyListing) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder; the unreadable case needs another user";
    TempDir dir;
    fs::create_directories(dir / "locked");
    ::chmod((dir / "locked").c_str(), 0);
    auto listed = LiveSourceServiceProvider::enumerateNow((dir / "locked").string());
    ::chmod((dir / "locked").c_str(), 0755);
    ASSERT_FALSE(listed);
    EXPECT_NE(listed.error().find("could not read the folder"), std::string::npos) << listed.error();
}

// The provider behind a real socket, as clients meet it.
TEST(SourceServiceOverSocket, ListWatchStatAndRefusalsReachTheClient) {
    SourceTestLoop loop;
    TempDir dir;
    auto lister = std::make_shared<FakeVolumeLister>();
    auto watch = std::make_shared<FakeMountTableWatch>();
    lister->set({listedVolume("Root filesystem", "/", "vda", "U1")});
    LiveSourceServiceProvider::Collaborators c;
    c.lister = lister;
    c.mountWatch = watch;
    c.pool = std::make_shared<BlockingPool>(1);
    auto provider = std::make_shared<LiveSourceServiceProvider>(loop.executor(), c);

    auto handler = std::make_shared<MultiplexHandler>();
    handler->add(std::make_shared<SourceServiceServer>(provider));
    UDSServer::Options options;
    options.socketPath = (dir / "s.sock").string();
    auto server = std::make_shared<UDSServer>(loop.executor(), options, handler);
    ASSERT_TRUE(server->start());

    UDSChannel::Options channelOptions;
    channelOptions.socketPath = options.socketPath;
    SourceServiceClient client(std::make_shared<UDSChannel>(channelOptions));

    auto listed = loop.run(client.call<&SourceServiceProvider::listVolumes>(wire::ListVolumesRequest{}));
    ASSERT_TRUE(listed) << listed.error().message();
    ASSERT_EQ(listed->volumes_size(), 1);
    EXPECT_EQ(listed->volumes(0).name(), "Root filesystem");

    wire::StatPathRequest stat;
    stat.set_path(dir.path().string());
    auto statted = loop.run(client.call<&SourceServiceProvider::statPath>(stat));
    ASSERT_TRUE(statted) << statted.error().message();
    EXPECT_TRUE(statted->is_directory());

    stat.set_path("not/absolute");
    statted = loop.run(client.call<&SourceServiceProvider::statPath>(stat));
    ASSERT_FALSE(statted);
    EXPECT_EQ(statted.error().message(), "server returned error: “not/absolute” is not an absolute path");

    auto snapshot = loop.run(client.call<&SourceServiceProvider::createSnapshot>(wire::CreateSnapshotRequest{}));
    ASSERT_FALSE(snapshot);
    EXPECT_EQ(snapshot.error().message(),
              "server returned error: /ql4.transport.v1.SourceService/CreateSnapshot is not available on this server");

    // A watch over the socket sees a volume appear.
    auto stream = loop.run(client.call<&SourceServiceProvider::watchVolumes>(wire::WatchVolumesRequest{}));
    for (int i = 0; i < 200 && !watch->running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(watch->running());
    lister->set({listedVolume("Root filesystem", "/", "vda", "U1"), listedVolume("Stick", "/mnt/stick", "sdb1", "U2")});
    watch->fire();
    auto event = loop.run(stream.next());
    ASSERT_TRUE(event) << event.error().message();
    ASSERT_TRUE(*event);
    EXPECT_EQ((*event)->appeared().name(), "Stick");

    // The client going away stops the server's watch.
    auto cancel = [](ClientStream<wire::VolumeEvent>* s) -> asio::awaitable<void> {
        s->cancel();
        co_return;
    };
    loop.run(cancel(&stream));
    for (int i = 0; i < 300 && watch->running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(watch->running());

    server->stop();
    loop.run(provider->shutdown());
}

}  // namespace
}  // namespace ql
