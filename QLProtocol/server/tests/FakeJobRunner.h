#pragma once

// Scripted runners for tests of the job manager and of everything above it: a test decides
// which events a runner emits and when, and sees what it was asked to do.

#include "QLProtocol/server/JobRunner.h"
#include "QLProtocol/server/JobRunnerFactory.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ql::testing {

namespace v1 = ql4::transport::v1;

class FakeJobRunner final : public JobRunner {
public:
    FakeJobRunner(v1::CopyRequest request, v1::RunId runID) : request(std::move(request)), runID(std::move(runID)) {}

    Events::Consumer run() override {
        if (throwOnRun) throw std::runtime_error(throwOnRun);
        auto [p, c] = Events::make();
        producer = p;
        started = true;  // after the producer: a test that sees `started` may push
        for (const auto& e : scripted) producer.push(e);
        if (endAfterScript) producer.finish();
        return std::move(c);
    }

    asio::awaitable<void> cancel() override {
        ++cancels;
        if (endOnCancel) {
            cancelled();
        }
        co_return;
    }

    asio::awaitable<bool> pause() override {
        ++pauses;
        if (acceptPause) {
            v1::ClonerEvent e;
            e.mutable_pause_requested();
            emit(e);
        }
        co_return acceptPause;
    }

    asio::awaitable<bool> resume() override {
        ++resumes;
        if (acceptPause) {
            v1::ClonerEvent e;
            e.mutable_resumed();
            emit(e);
        }
        co_return acceptPause;
    }

    // ---- script ----
    bool emit(const v1::ClonerEvent& e) { return producer.valid() && producer.push(e); }
    void end(std::optional<StreamFailure> failure = std::nullopt) {
        if (producer.valid()) producer.finish(std::move(failure));
    }
    void log(const std::string& text) {
        v1::ClonerEvent e;
        e.mutable_log()->set_level(v1::LogLine::LEVEL_INFO);
        e.mutable_log()->set_text(text);
        emit(e);
    }
    void phase(const std::string& name) {
        v1::ClonerEvent e;
        e.mutable_phase_start()->set_name(name);
        emit(e);
    }
    void progress(std::int64_t bytes) {
        v1::ClonerEvent e;
        e.mutable_progress()->set_bytes_copied(bytes);
        emit(e);
    }
    void previewItem(const std::string& path, const std::string& action) {
        v1::ClonerEvent e;
        e.mutable_preview_item()->set_side(v1::PreviewItem::SIDE_DEST);
        e.mutable_preview_item()->set_path(path);
        e.mutable_preview_item()->set_action(action);
        emit(e);
    }
    void complete(std::int64_t bytes = 0) {
        v1::ClonerEvent e;
        e.mutable_completed()->set_bytes_copied(bytes);
        emit(e);
        end();
    }
    void fail(const std::string& message, const std::string& phase = "copyFiles") {
        v1::ClonerEvent e;
        e.mutable_failed()->set_error_message(message);
        e.mutable_failed()->set_failed_phase(phase);
        emit(e);
        end();
    }
    void cancelled() {
        v1::ClonerEvent e;
        e.mutable_cancelled();
        emit(e);
        end();
    }
    void endWithoutTerminal() { end(); }
    void endWithError(const std::string& message) { end(StreamFailure{message}); }
    // Drops the runner's end of the stream without finishing it.
    void vanish() { producer = Events::Producer(); }

    v1::CopyRequest request;
    v1::RunId runID;
    Events::Producer producer;
    std::atomic<bool> started{false};
    std::atomic<int> cancels{0};
    std::atomic<int> pauses{0};
    std::atomic<int> resumes{0};
    bool endOnCancel = true;
    bool acceptPause = true;
    const char* throwOnRun = nullptr;
    // Events pushed as soon as the run starts, and whether the stream then ends.
    std::vector<v1::ClonerEvent> scripted;
    bool endAfterScript = false;
};

class FakeJobRunnerFactory final : public JobRunnerFactory {
public:
    std::shared_ptr<JobRunner> makeRunner(const v1::CopyRequest& request, const v1::RunId& runID,
                                          const RunAuthority& authority) override {
        if (throwOnMake) throw std::runtime_error("the runner could not be built");
        {
            std::lock_guard lock(mutex);
            authorities.push_back(authority);
        }
        auto runner = std::make_shared<FakeJobRunner>(request, runID);
        if (configure) configure(*runner);
        std::lock_guard lock(mutex);
        made.push_back(runner);
        return runner;
    }

    // The latest runner made for a job, or null.
    std::shared_ptr<FakeJobRunner> runnerFor(const std::string& tileID) const {
        std::lock_guard lock(mutex);
        for (auto it = made.rbegin(); it != made.rend(); ++it)
            if ((*it)->request.tile_id() == tileID) return *it;
        return nullptr;
    }

    // The runners made so far (the list grows on the job manager's threads).
    std::vector<std::shared_ptr<FakeJobRunner>> snapshot() const {
        std::lock_guard lock(mutex);
        return made;
    }

    std::size_t count() const {
        std::lock_guard lock(mutex);
        return made.size();
    }

    std::vector<RunAuthority> authorities;
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<FakeJobRunner>> made;
    std::function<void(FakeJobRunner&)> configure;
    bool throwOnMake = false;
};

}  // namespace ql::testing
