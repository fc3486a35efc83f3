// Saves the tile store over and over, for the crash-safety test, which kills this process with
// SIGKILL at random moments and then checks what it left.
//
//     ql_tile_store_writer <state-dir> <last-save>
//
// The store is loaded first ("ready" on standard output); then save k adds the job
// `writerTile(k)` for k after the jobs already stored, up to <last-save>, printing "saved k"
// after each save has completed.
#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/tests/TileStoreWriterStates.h"
#include "QLSupport/Log.h"

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: ql_tile_store_writer <state-dir> <last-save>\n");
        return 2;
    }
    const std::filesystem::path directory = argv[1];
    const int last = std::atoi(argv[2]);
    ql::Log::setSink([](std::string_view) {});

    asio::io_context io;
    ql::BlockingPool pool(1);
    ql::LiveClock clock;
    ql::CopyTileStore store(io.get_executor(), directory / "tiles.json", pool, clock);
    int status = 0;
    asio::co_spawn(
        io,
        [&]() -> asio::awaitable<void> {
            co_await store.load();
            const int first = static_cast<int>((co_await store.list()).size()) + 1;
            std::printf("ready\n");
            std::fflush(stdout);
            for (int k = first; k <= last; ++k) {
                auto stored = co_await store.upsert(ql::testing::writerTile(k), ql::TileWriteOrigin::daemon);
                if (!stored) {
                    std::fprintf(stderr, "save %d failed: %s\n", k, stored.error().message.c_str());
                    status = 1;
                    co_return;
                }
                std::printf("saved %d\n", k);
                std::fflush(stdout);
            }
        },
        asio::detached);
    io.run();
    return status;
}
