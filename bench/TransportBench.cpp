// The transport over a real Unix socket, in one run: unary round trips per second (each a fresh
// connection, as every call makes one) and streamed events per second (one connection carrying
// a long stream of run events, as a run does). Both sides run in this process on a two-thread
// event loop; the benchmark thread only waits for results. Measure in a release build.

#include "QLProtocol/transport/ServiceCatalogue.h"
#include "QLProtocol/transport/UDSChannel.h"
#include "QLProtocol/transport/UDSServer.h"

#include <benchmark/benchmark.h>

#include <asio.hpp>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ql {
namespace {

class EchoSystem final : public SystemServiceProvider {
public:
    UnaryResult<wire::PingResponse> ping(CallContext, wire::PingRequest request) override {
        wire::PingResponse response;
        response.set_nonce(request.nonce());
        co_return response;
    }
};

// JoinRun streams as many progress events as the run id's length says, then ends.
class FloodingCopy final : public CopyServiceProvider {
public:
    StreamResult<wire::ClonerEvent> joinRun(CallContext, wire::JoinRunRequest request) override {
        const auto count = std::stoul(request.run_id().value());
        auto [producer, consumer] = EventStream<wire::ClonerEvent>::make();
        // Pushed from another thread while the server writes, as a runner would.
        std::thread([producer = producer, count] {
            wire::ClonerEvent event;
            event.mutable_run_id()->set_value(std::string(16, 'r'));
            event.mutable_progress()->set_bytes_copied(0);
            for (std::size_t i = 0; i < count; ++i) {
                event.set_timestamp_unix_nanos(static_cast<std::int64_t>(i));
                if (!producer.push(event)) return;
            }
            producer.finish();
        }).detach();
        co_return std::move(consumer);
    }
};

struct Fixture {
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
    std::vector<std::thread> threads;
    std::string folder;
    std::unique_ptr<UDSServer> server;
    std::shared_ptr<UDSChannel> channel;

    Fixture() {
        std::string pattern = "/tmp/qlbench-XXXXXX";
        folder = ::mkdtemp(pattern.data());
        ServiceCatalogue catalogue;
        catalogue.system = std::make_shared<EchoSystem>();
        catalogue.copy = std::make_shared<FloodingCopy>();
        UDSServer::Options options;
        options.socketPath = folder + "/bench.sock";
        server = std::make_unique<UDSServer>(context.get_executor(), options, catalogue.makeHandler());
        if (!server->start()) std::abort();
        UDSChannel::Options channelOptions;
        channelOptions.socketPath = options.socketPath;
        channel = std::make_shared<UDSChannel>(channelOptions);
        for (int i = 0; i < 2; ++i) threads.emplace_back([this] { context.run(); });
    }
    ~Fixture() {
        server->stop();
        guard.reset();
        context.stop();
        for (auto& t : threads) t.join();
        std::filesystem::remove_all(folder);
    }
};

void BM_UnaryRoundTrips(benchmark::State& state) {
    Fixture fixture;
    SystemServiceClient client(fixture.channel);
    wire::PingRequest request;
    request.set_nonce("0123456789abcdef");
    for (auto _ : state) {
        auto answer = asio::co_spawn(fixture.context, client.call<&SystemServiceProvider::ping>(request), asio::use_future)
                          .get();
        if (!answer) state.SkipWithError(answer.error().message().c_str());
        benchmark::DoNotOptimize(answer);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["round_trips_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                             benchmark::Counter::kIsRate);
}
BENCHMARK(BM_UnaryRoundTrips)->UseRealTime()->MinTime(2.0);

asio::awaitable<std::size_t> drain(CopyServiceClient client, std::size_t count) {
    wire::JoinRunRequest request;
    request.mutable_run_id()->set_value(std::to_string(count));
    auto stream = co_await client.call<&CopyServiceProvider::joinRun>(request);
    std::size_t received = 0;
    for (;;) {
        auto event = co_await stream.next();
        if (!event || !*event) break;
        ++received;
    }
    co_return received;
}

void BM_StreamedEvents(benchmark::State& state) {
    Fixture fixture;
    CopyServiceClient client(fixture.channel);
    const auto perStream = static_cast<std::size_t>(state.range(0));
    std::size_t total = 0;
    for (auto _ : state) {
        auto received = asio::co_spawn(fixture.context, drain(client, perStream), asio::use_future).get();
        if (received != perStream) state.SkipWithError("the stream ended early");
        total += received;
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(total));
    state.counters["events_per_s"] = benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StreamedEvents)->Arg(100'000)->UseRealTime()->MinTime(2.0);

}  // namespace
}  // namespace ql

BENCHMARK_MAIN();
