// The engine's parts on real files: the data copier's routes and holes, the folder-time
// journal, the state file, the snapshot path, directory listing and the event writer's lines.

#include "qlcopy/DataCopier.h"
#include "qlcopy/DirRetimeJournal.h"
#include "qlcopy/DirectoryLister.h"
#include "qlcopy/EventWriter.h"
#include "qlcopy/SignalWatcher.h"
#include "qlcopy/SnapshotSource.h"
#include "qlcopy/StateFile.h"
#include "qlcopy/UniqueFd.h"
#include "support/TreeFixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

namespace ql {
namespace {

using test::TempDir;
using test::Tree;

struct CopyCase {
    const char* name;
    bool rangeUsable;
    bool sparse;
};

class DataCopierRoutes : public ::testing::TestWithParam<CopyCase> {};

TEST_P(DataCopierRoutes, CopyEveryByteAndKeepHoles) {
    const CopyCase& c = GetParam();
    TempDir tmp;
    const std::string src = tmp / "src.bin";
    const std::int64_t size = 9 * 1024 * 1024 + 123;
    {
        UniqueFd fd(::open(src.c_str(), O_WRONLY | O_CREAT, 0644));
        std::string block(300000, 'q');
        if (c.sparse) {
            ASSERT_EQ(::pwrite(fd.get(), block.data(), block.size(), 2 << 20), static_cast<ssize_t>(block.size()));
            ASSERT_EQ(::ftruncate(fd.get(), size), 0);
        } else {
            for (std::int64_t off = 0; off < size; off += static_cast<std::int64_t>(block.size())) {
                auto n = std::min<std::int64_t>(static_cast<std::int64_t>(block.size()), size - off);
                block[0] = static_cast<char>(off / 7);
                ASSERT_EQ(::pwrite(fd.get(), block.data(), static_cast<size_t>(n), off), n);
            }
        }
    }
    UniqueFd in(::open(src.c_str(), O_RDONLY));
    UniqueFd dir(::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY));
    struct stat st;
    ASSERT_EQ(::fstat(in.get(), &st), 0);
    CopyRoutes routes;
    routes.rangeUsable = c.rangeUsable;
    DataCopier copier(routes);
    DataCopier::Request r;
    r.srcFd = in.get();
    r.size = size;
    r.sparse = st.st_blocks * 512 < size;
    r.dstDirFd = dir.get();
    r.tmpName = "copy.bin";
    r.chunkBytes = 1 << 20;
    std::int64_t work = 0, written = 0;
    r.progress = [&](std::int64_t w, std::int64_t b) {
        work += w;
        written += b;
        return true;
    };
    auto out = copier.copy(r);
    UniqueFd dst(out.fd);
    ASSERT_EQ(out.error, 0) << out.syscall;
    EXPECT_FALSE(out.cancelled);
    EXPECT_EQ(work, size) << "holes count as work done";
    EXPECT_EQ(Tree::read(tmp / "copy.bin"), Tree::read(src));
    struct stat copied;
    ASSERT_EQ(::fstat(dst.get(), &copied), 0);
    if (c.sparse) {
        EXPECT_LT(written, size);
        EXPECT_LT(copied.st_blocks * 512, 2 << 20) << "the copy has holes too";
    } else {
        EXPECT_EQ(written, size);
    }
}

INSTANTIATE_TEST_SUITE_P(Routes, DataCopierRoutes,
                         ::testing::Values(CopyCase{"kernelRangeCopy", true, false}, CopyCase{"readWrite", false, false},
                                           CopyCase{"sparseRange", true, true}, CopyCase{"sparseReadWrite", false, true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(DataCopier, StopsWhenProgressSaysSo) {
    TempDir tmp;
    Tree::write(tmp / "src.bin", std::string(4 << 20, 'z'));
    UniqueFd in(::open((tmp / "src.bin").c_str(), O_RDONLY));
    UniqueFd dir(::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY));
    CopyRoutes routes;
    DataCopier copier(routes);
    DataCopier::Request r;
    r.srcFd = in.get();
    r.size = 4 << 20;
    r.dstDirFd = dir.get();
    r.tmpName = "part.bin";
    r.chunkBytes = 1 << 20;
    int calls = 0;
    r.progress = [&](std::int64_t, std::int64_t) { return ++calls < 2; };
    auto out = copier.copy(r);
    UniqueFd dst(out.fd);
    EXPECT_TRUE(out.cancelled);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(out.error, 0);
}

TEST(DataCopier, AnExistingTemporaryNameIsAnErrorNotAnOverwrite) {
    TempDir tmp;
    Tree::write(tmp / "src.bin", "data");
    Tree::write(tmp / "taken", "someone else's");
    UniqueFd in(::open((tmp / "src.bin").c_str(), O_RDONLY));
    UniqueFd dir(::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY));
    CopyRoutes routes;
    DataCopier copier(routes);
    DataCopier::Request r;
    r.srcFd = in.get();
    r.size = 4;
    r.dstDirFd = dir.get();
    r.tmpName = "taken";
    auto out = copier.copy(r);
    EXPECT_EQ(out.error, EEXIST);
    EXPECT_TRUE(out.onDestination);
    EXPECT_EQ(Tree::read(tmp / "taken"), "someone else's");
}

TEST(DirRetimeJournal, ReadsBackEveryRecordInOrder) {
    DirRetimeJournal j;
    for (int i = 0; i < 5000; ++i) {
        DirRetimeJournal::Record r;
        r.destRelative = "dir/" + std::string(static_cast<size_t>(i % 50), 'n') + std::to_string(i);
        r.mtime = {1000 + i, i * 3};
        r.atime = {2000 + i, i};
        r.mode = 0700 + static_cast<mode_t>(i % 8);
        r.setMode = i % 3 == 0;
        ASSERT_TRUE(j.append(r));
    }
    EXPECT_EQ(j.count(), 5000);
    int seen = 0;
    ASSERT_TRUE(j.forEach([&](const DirRetimeJournal::Record& r) {
        EXPECT_EQ(r.destRelative, "dir/" + std::string(static_cast<size_t>(seen % 50), 'n') + std::to_string(seen));
        EXPECT_EQ(r.mtime.tv_sec, 1000 + seen);
        EXPECT_EQ(r.mtime.tv_nsec, seen * 3);
        EXPECT_EQ(r.atime.tv_sec, 2000 + seen);
        EXPECT_EQ(r.setMode, seen % 3 == 0);
        ++seen;
        return true;
    }));
    EXPECT_EQ(seen, 5000);
}

TEST(StateFile, WritesAndReadsBack) {
    TempDir tmp;
    StateFile s;
    s.source = {"abcd", 77, "/Volumes/Data"};
    s.rulesHash = StateFile::hashRules("rules");
    s.completedUnixNanos = 1'700'000'000'123'456'789;
    s.snapEventAnchor = 99;
    ASSERT_TRUE(s.write(tmp / "state.json"));
    auto back = StateFile::read(tmp / "state.json");
    ASSERT_TRUE(back) << back.error();
    EXPECT_TRUE(back->source.sameSource(s.source));
    EXPECT_EQ(back->rulesHash, s.rulesHash);
    EXPECT_EQ(back->completedUnixNanos, s.completedUnixNanos);
    EXPECT_EQ(back->snapEventAnchor, 99u);
    Tree::write(tmp / "wrong.json", R"({"format_version": 1})");
    EXPECT_FALSE(StateFile::read(tmp / "wrong.json"));
    EXPECT_FALSE(StateFile::read(tmp / "missing.json"));
}

TEST(SnapshotSource, MapsTheSourceIntoTheSnapshotMount) {
    TempDir tmp;
    Tree::mkdirs(tmp / "data/Users/ann");
    auto root = SnapshotSource::volumeRoot(tmp / "data/Users/ann");
    ASSERT_TRUE(root) << root.error();
    char real[PATH_MAX];
    ASSERT_TRUE(::realpath((tmp / "data/Users/ann").c_str(), real));
    std::string full = real;
    ASSERT_EQ(full.rfind(*root == "/" ? "" : *root, 0), 0u);
    auto inside = SnapshotSource::resolve(tmp / "data/Users/ann", "/snap/");
    ASSERT_TRUE(inside);
    EXPECT_EQ(*inside, "/snap" + (*root == "/" ? full : full.substr(root->size())));
    EXPECT_FALSE(SnapshotSource::resolve(tmp / "no/such", "/snap"));
}

TEST(DirectoryLister, SortsNamesAndReadsTheirStatus) {
    TempDir tmp;
    for (const char* n : {"b", "a", "c", ".hidden"}) Tree::write(tmp / n, n);
    Tree::mkdirs(tmp / "dir");
    UniqueFd dir(::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY));
    auto listing = DirectoryLister::list(dir.get());
    ASSERT_TRUE(listing.complete());
    std::vector<std::string> names;
    for (const auto& e : listing.entries) names.push_back(e.name);
    EXPECT_EQ(names, (std::vector<std::string>{".hidden", "a", "b", "c", "dir"}));
    EXPECT_TRUE(listing.entries.back().isDirectory());
    EXPECT_EQ(listing.entries[1].size, 1);
}

TEST(EventWriter, WholeLinesFromManyThreadsAndOneTerminal) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    std::string received;
    std::thread reader([&] {
        char buffer[65536];
        ssize_t n;
        while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) received.append(buffer, static_cast<size_t>(n));
    });
    {
        EventWriter w(fds[1]);
        std::vector<std::thread> writers;
        for (int t = 0; t < 4; ++t) {
            writers.emplace_back([&w, t] {
                for (int i = 0; i < 200; ++i) {
                    w.emit(Json{{"type", "progress"}, {"thread", t}, {"filler", std::string(500, 'f')}});
                }
            });
        }
        for (auto& t : writers) t.join();
        EXPECT_TRUE(w.emitTerminated(Json{{"type", "terminated"}}));
        EXPECT_FALSE(w.emitTerminated(Json{{"type", "terminated"}}));
        EXPECT_TRUE(w.emitTerminal(Json{{"type", "summary"}}));
        EXPECT_FALSE(w.emitTerminal(Json{{"type", "failure"}}));
        EXPECT_FALSE(w.emit(Json{{"type", "progress"}})) << "nothing after the terminal";
    }
    ::close(fds[1]);
    reader.join();
    ::close(fds[0]);
    std::istringstream lines(received);
    std::string line;
    int count = 0;
    std::string last;
    while (std::getline(lines, line)) {
        auto j = parseJson(line);
        ASSERT_TRUE(j) << line.substr(0, 80);
        EXPECT_TRUE(j->contains("ts"));
        EXPECT_TRUE(j->contains("elapsed_s"));
        last = (*j)["type"];
        ++count;
    }
    EXPECT_EQ(count, 802);
    EXPECT_EQ(last, "summary");
}

TEST(SignalWatcher, StopsInOrderOrEndsWhenTheGraceRunsOut) {
    SignalWatcher::prepareProcess();
    std::atomic<int> stops{0}, emergencies{0}, lastSignal{0};
    {
        SignalWatcher w([&](int sig) { ++stops; lastSignal = sig; }, [&](int) { ++emergencies; },
                        std::chrono::milliseconds(300));
        ::kill(::getpid(), SIGTERM);
        for (int i = 0; i < 100 && stops == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(stops, 1);
        EXPECT_EQ(lastSignal, SIGTERM);
        w.finished();  // in time: no emergency
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        EXPECT_EQ(emergencies, 0);
    }
    {
        SignalWatcher w([&](int) { ++stops; }, [&](int) { ++emergencies; }, std::chrono::milliseconds(200));
        ::kill(::getpid(), SIGINT);
        for (int i = 0; i < 200 && emergencies == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(stops, 2);
        EXPECT_EQ(emergencies, 1) << "a run that does not finish within the grace is ended";
    }
    const auto before = SignalWatcher::continuedCount();
    ::kill(::getpid(), SIGCONT);
    for (int i = 0; i < 100 && SignalWatcher::continuedCount() == before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(SignalWatcher::continuedCount(), before + 1);
}

}  // namespace
}  // namespace ql
