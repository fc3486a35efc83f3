#pragma once

// A job manager on a single-threaded io_context in virtual time, with recording collaborators.

#include "QLProtocol/server/JobManager.h"
#include "QLProtocol/server/tests/FakeJobRunner.h"
#include "QLSupport/Clock.h"
#include "QLSupport/Log.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ql::testing {

// The name of an event's payload ("queued", "started", "phase_start", …).
inline std::string kindOf(const v1::ClonerEvent& event) {
    if (event.payload_case() == v1::ClonerEvent::PAYLOAD_NOT_SET) return "none";
    return event.GetDescriptor()->FindFieldByNumber(event.payload_case())->name();
}

// Everything one subscriber received.
struct Collected {
    std::vector<v1::ClonerEvent> events;
    bool ended = false;
    std::optional<StreamFailure> failure;

    std::vector<std::string> kinds() const {
        std::vector<std::string> out;
        for (const auto& e : events) out.push_back(kindOf(e));
        return out;
    }
    std::size_t count(const std::string& kind) const {
        std::size_t n = 0;
        for (const auto& e : events) n += kindOf(e) == kind;
        return n;
    }
};

inline asio::awaitable<void> collectInto(JobManager::Events::Consumer consumer, std::shared_ptr<Collected> out) {
    while (auto event = co_await consumer.next()) out->events.push_back(std::move(*event));
    out->failure = consumer.failure();
    out->ended = true;
}

// A 16-byte volume UUID made of one repeated letter (empty for '\0').
inline std::string vol(char c) { return c == '\0' ? std::string() : std::string(16, c); }

inline v1::CopyRequest copyRequest(const std::string& tile, char source, char destination, char group = '\0') {
    v1::CopyRequest r;
    r.set_tile_id(tile);
    r.set_tile_name("Job " + tile);
    r.set_source_volume_uuid(vol(source));
    r.set_destination_volume_uuid(vol(destination));
    r.set_destination_volume_group_uuid(vol(group));
    r.mutable_source()->set_display_name("Source " + tile);
    r.mutable_destination()->set_display_name("Destination " + tile);
    r.set_during_copy(v1::DCM_SMART_UPDATE);
    return r;
}

struct RecordingRunRecordSink final : RunRecordSink {
    asio::awaitable<void> record(v1::RunRecord record, std::string fullLog) override {
        records.push_back(std::move(record));
        logs.push_back(std::move(fullLog));
        order->push_back("record " + records.back().tile_id());
        co_return;
    }
    std::vector<v1::RunRecord> records;
    std::vector<std::string> logs;
    std::shared_ptr<std::vector<std::string>> order;
};

struct RecordingDeferredPathsSink final : DeferredPathsSink {
    asio::awaitable<void> record(std::string tileID, std::vector<std::string> paths, SystemTime) override {
        recorded.emplace_back(std::move(tileID), std::move(paths));
        co_return;
    }
    std::vector<std::pair<std::string, std::vector<std::string>>> recorded;
};

struct RecordingDeferredExecutor final : DeferredActionExecutor {
    asio::awaitable<void> eject(v1::VolumeRef volume) override {
        order->push_back("eject " + volume.display_name());
        co_return;
    }
    asio::awaitable<void> disconnect(std::string, std::string mountPath) override {
        order->push_back("disconnect " + mountPath);
        co_return;
    }
    asio::awaitable<void> power(PowerAction action) override {
        order->push_back("power " + std::string(caseName(action)));
        co_return;
    }
    std::shared_ptr<std::vector<std::string>> order;
};

struct CountingPowerAssertions final : PowerAssertionFactory {
    struct Held final : PowerAssertion {
        explicit Held(std::shared_ptr<int> live) : live(std::move(live)) { ++*this->live; }
        ~Held() override { --*live; }
        std::shared_ptr<int> live;
    };
    std::unique_ptr<PowerAssertion> take(const std::string& reason) override {
        reasons.push_back(reason);
        return std::make_unique<Held>(live);
    }
    std::shared_ptr<int> live = std::make_shared<int>(0);
    std::vector<std::string> reasons;
};

struct RecordingPreviewWriter final : PreviewWriter {
    asio::awaitable<void> beginGather(std::string previewID, std::string tileID, std::int64_t) override {
        calls.push_back("begin " + tileID);
        (void)previewID;
        co_return;
    }
    asio::awaitable<void> appendItems(std::string, std::vector<v1::PreviewItem> items) override {
        if (failAppends) throw std::runtime_error("sqlite step: disk I/O error");
        std::string call = "append";
        for (const auto& item : items) call += " " + item.path();
        calls.push_back(call);
        co_return;
    }
    asio::awaitable<void> finish(std::string, std::int64_t, bool destinationAbsent) override {
        calls.push_back(destinationAbsent ? "finish absent" : "finish");
        co_return;
    }
    asio::awaitable<void> fail(std::string, std::int64_t, std::string message) override {
        calls.push_back("fail " + message);
        co_return;
    }
    asio::awaitable<void> cancel(std::string, std::int64_t) override {
        calls.push_back("cancel");
        co_return;
    }
    std::vector<std::string> calls;
    bool failAppends = false;
};

class JobManagerHarness {
public:
    explicit JobManagerHarness(JobManager::Settings settings = {}) {
        sink->order = order;
        executor->order = order;
        JobManager::Collaborators deps;
        deps.factory = factory;
        deps.clock = time;
        deps.runRecordSink = sink;
        deps.deferredPathsSink = deferredPaths;
        deps.deferredExecutor = executor;
        deps.powerAssertions = assertions;
        deps.previewStore = previews;
        manager = JobManager::create(io.get_executor(), std::move(deps), settings);
    }

    ~JobManagerHarness() {
        // End every run still going so that no coroutine is left waiting on a stream.
        // Queued runs begin as the ones ahead of them end, so repeat until no new runner appears.
        std::size_t seen = 0;
        do {
            seen = factory->count();
            for (const auto& runner : factory->made)
                if (runner->started) runner->complete();
            settle();
        } while (factory->count() != seen);
    }

    // Runs everything that is ready until nothing is (suspended coroutines keep the io_context's
    // work count up, so `run()` would never return).
    void settle() {
        for (;;) {
            io.restart();
            if (io.poll() == 0) break;
        }
    }

    template <typename T>
    T await(asio::awaitable<T> operation) {
        std::optional<T> result;
        std::exception_ptr error;
        asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e, T value) {
            error = e;
            if (!e) result.emplace(std::move(value));
        });
        settle();
        if (error) std::rethrow_exception(error);
        if (!result) throw std::runtime_error("the operation did not finish");
        return std::move(*result);
    }

    void awaitVoid(asio::awaitable<void> operation) {
        bool done = false;
        std::exception_ptr error;
        asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e) {
            error = e;
            done = true;
        });
        settle();
        if (error) std::rethrow_exception(error);
        if (!done) throw std::runtime_error("the operation did not finish");
    }

    std::shared_ptr<Collected> follow(JobManager::Events::Consumer consumer) {
        auto out = std::make_shared<Collected>();
        asio::co_spawn(io, collectInto(std::move(consumer), out), asio::detached);
        settle();
        return out;
    }

    struct Started {
        std::string runID;
        bool attached = false;
        std::shared_ptr<Collected> events;
    };

    Started submit(v1::CopyRequest request, JobManager::RunKind kind = JobManager::RunKind::copy) {
        auto submission = await(manager->enqueue(std::move(request), kind));
        Started s{submission.runID, submission.attached, nullptr};
        s.events = follow(std::move(submission.events));
        return s;
    }

    asio::io_context io;
    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    std::shared_ptr<std::vector<std::string>> order = std::make_shared<std::vector<std::string>>();
    std::shared_ptr<FakeJobRunnerFactory> factory = std::make_shared<FakeJobRunnerFactory>();
    std::shared_ptr<RecordingRunRecordSink> sink = std::make_shared<RecordingRunRecordSink>();
    std::shared_ptr<RecordingDeferredPathsSink> deferredPaths = std::make_shared<RecordingDeferredPathsSink>();
    std::shared_ptr<RecordingDeferredExecutor> executor = std::make_shared<RecordingDeferredExecutor>();
    std::shared_ptr<CountingPowerAssertions> assertions = std::make_shared<CountingPowerAssertions>();
    std::shared_ptr<RecordingPreviewWriter> previews = std::make_shared<RecordingPreviewWriter>();
    std::shared_ptr<JobManager> manager;
};

}  // namespace ql::testing
