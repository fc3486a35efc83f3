#include "app/cli/QuilloClient.h"

#include "QLProtocol/runners/CopyRuleSearchPath.h"
#include "QLProtocol/server/RunIdText.h"
#include "QLProtocol/server/ServerPaths.h"
#include "QLProtocol/transport/SocketPath.h"
#include "app/cli/ProgressRenderer.h"
#include "app/core/CopyPlan.h"
#include "app/core/DisplayFormat.h"
#include "app/core/JobVolumeRef.h"
#include "app/core/RunTracker.h"
#include "app/core/ScheduleGrammar.h"
#include "app/core/ServerLauncher.h"
#include "app/core/Tile.h"
#include "app/core/TileProse.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <ostream>

namespace ql {

namespace fs = std::filesystem;

namespace {

std::string inQuotes(const std::string& text) { return "“" + text + "”"; }

std::string userName() {
    if (const auto* pw = ::getpwuid(::getuid()); pw && pw->pw_name) return pw->pw_name;
    return std::to_string(::getuid());
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// "2024-05-01 14:03" in local time.
std::string localTime(SystemTime when) {
    const std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &tm);
    return buffer;
}

std::string lastResult(const Tile& tile) {
    if (tile.runHistory.empty()) return "never run";
    const auto& run = tile.runHistory.front();
    using Outcome = Tile::HistoryRun::Outcome;
    std::string what;
    switch (run.outcome) {
        case Outcome::ok:
            what = fmt::format("succeeded — {} copied ({}), {} updated, {} deleted",
                               DisplayFormat::count(run.filesCopied, "item", "items"), run.bytesText, run.filesUpdated,
                               run.filesDeleted);
            break;
        case Outcome::cancelled: what = "cancelled"; break;
        case Outcome::failed: what = "failed — " + (run.reason.empty() ? std::string("no reason given") : run.reason); break;
        case Outcome::skipped: what = "skipped — " + run.reason; break;
    }
    return localTime(run.when) + ", " + what;
}

std::string sideText(const std::string& volume, const std::optional<std::string>& subpath) {
    if (!subpath || subpath->empty()) return volume;
    return volume + ": " + *subpath;
}

}  // namespace

struct QuilloClient::Follow {
    Follow(Tile tile, ProgressRenderer::Options options, std::ostream& out)
        : tracker(std::move(tile)), renderer(out, std::move(options)) {}
    RunTracker tracker;
    ProgressRenderer renderer;
    ClientStream<wire::ClonerEvent> stream;
    bool interrupted = false;       // the user pressed Ctrl-C
    bool cancelPending = false;     // a cancel waits for the run's id
    bool done = false;
};

QuilloClient::QuilloClient(asio::io_context& io, CommandLine command, Environment environment)
    : io_(io), command_(std::move(command)), env_(std::move(environment)) {}

QuilloClient::~QuilloClient() = default;

void QuilloClient::fail(const std::string& sentence) { err() << "quillo: " << sentence << "\n"; }

std::string QuilloClient::refusal(const std::string& what, const TransportError& error) {
    // A refusal the server explains in a sentence of its own is shown as it stands.
    const bool providersOwn = error.kind == TransportError::Kind::handlerThrew ||
                              (error.kind == TransportError::Kind::statusError &&
                               error.status == ql4::transport::v1::WireResponse::HANDLER_ERROR);
    if (providersOwn && !error.detail.empty()) return error.detail;
    return what + ": " + error.message();
}

asio::awaitable<int> QuilloClient::run() {
    switch (command_.command) {
        case CommandLine::Command::copy: co_return co_await copy();
        case CommandLine::Command::jobs: co_return co_await jobs();
        case CommandLine::Command::run: co_return co_await runJob();
        case CommandLine::Command::watch: co_return co_await watch();
        case CommandLine::Command::cancel:
        case CommandLine::Command::pause:
        case CommandLine::Command::resume: co_return co_await control();
        case CommandLine::Command::remove: co_return co_await remove();
        case CommandLine::Command::edit: co_return co_await edit();
        case CommandLine::Command::status: co_return co_await status();
        case CommandLine::Command::server: co_return server();
    }
    co_return kFailure;
}

// ---- Connecting ------------------------------------------------------------------------------

asio::awaitable<bool> QuilloClient::connect(bool startServer) {
    connection_ = std::make_unique<DaemonConnection>(io_.get_executor());
    if (co_await connection_->probe()) co_return true;
    const auto firstError = connection_->status().description();
    if (!startServer) co_return false;

    auto executable = ServerLauncher::findServer(env_.selfExecutable, env_.pathVariable);
    if (!executable) {
        fail("No copy server answers at " + connection_->socketPath() + " (" + firstError +
             "), and qlcopyserver was not found next to quillo or on PATH to start one.");
        co_return false;
    }
    // The socket a server started for this user listens on: the one the user named, or the
    // user-mode default (which the socket-path rule finds once it exists).
    const auto named = SocketPath::processEnvironment()(SocketPath::environmentVariable);
    const bool userNamedSocket = named && !named->empty();
    const std::string socket = userNamedSocket ? *named : SocketPath::serverDefault();
    ServerLauncher::Plan plan;
    plan.executable = *executable;
    plan.arguments = {"--socket", socket};
    plan.logPath = (ServerPaths::forPlatform().logDirectory() / "qlcopyserver.log").string();
    out() << "No copy server is answering, so quillo is starting one for " << userName()
          << " in the background (log: " << plan.logPath << ").\n";
    out().flush();
    auto started = ServerLauncher::start(plan);
    if (!started) {
        fail("The copy server could not be started: " + started.error() + ".");
        co_return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + env_.serverStartLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        asio::steady_timer pause(io_, std::chrono::milliseconds(150));
        co_await pause.async_wait(asio::use_awaitable);
        connection_->reopen(socket);
        if (co_await connection_->probe()) co_return true;
    }
    fail("The copy server started (process " + std::to_string(*started) + ") but did not answer at " + socket +
         " within " + std::to_string(env_.serverStartLimit.count() / 1000) + " seconds: " +
         connection_->status().description() + ". Its log is " + plan.logPath + ".");
    co_return false;
}

asio::awaitable<std::optional<wire::CopyTile>> QuilloClient::findJob(std::string named) {
    auto listed = co_await connection_->tiles().call<&TileServiceProvider::listTiles>(wire::ListTilesRequest{});
    if (!listed) {
        fail("The copy server could not list the jobs: " + listed.error().message());
        co_return std::nullopt;
    }
    std::vector<wire::CopyTile> matches;
    for (const auto& t : listed->tiles()) {
        if (t.id() == named || lower(t.id()) == lower(named)) co_return t;
    }
    for (const auto& t : listed->tiles()) {
        if (lower(t.name()) == lower(named) || (named.size() >= 4 && lower(t.id()).rfind(lower(named), 0) == 0)) {
            matches.push_back(t);
        }
    }
    if (matches.size() == 1) co_return matches.front();
    if (matches.empty()) {
        fail("There is no job named " + inQuotes(named) + ". `quillo jobs` lists the jobs.");
    } else {
        fail(inQuotes(named) + " names " + std::to_string(matches.size()) + " jobs; give the job's id instead.");
    }
    co_return std::nullopt;
}

// ---- Following a run -------------------------------------------------------------------------

void QuilloClient::watchSignals(std::shared_ptr<Follow> run) {
    signals_ = std::make_unique<asio::signal_set>(io_, SIGINT, SIGTERM);
    armSignals(std::move(run));
}

void QuilloClient::armSignals(std::shared_ptr<Follow> run) {
    if (!signals_) return;
    signals_->async_wait([this, run](std::error_code error, int) {
        if (error || run->done) return;
        if (run->interrupted) {
            // A second Ctrl-C: stop waiting; the server finishes the cancel on its own.
            run->renderer.note("Stopped waiting; the copy server is still cancelling the copy.");
            std::_Exit(kInterrupted);
        }
        run->interrupted = true;
        run->tracker.markUserCancelled();
        run->renderer.note("Cancelling the copy… (Ctrl-C again to stop waiting)");
        asio::co_spawn(io_, cancelRun(run), asio::detached);
        armSignals(run);
    });
}

asio::awaitable<void> QuilloClient::cancelRun(std::shared_ptr<Follow> run) {
    if (run->tracker.runIDBytes().empty()) {
        run->cancelPending = true;
        co_return;
    }
    wire::RunControlRequest request;
    request.mutable_run_id()->set_value(run->tracker.runIDBytes());
    auto answer = co_await connection_->copy().call<&CopyServiceProvider::cancelRun>(request);
    if (!answer) {
        run->renderer.note("The cancel request failed: " + answer.error().message());
    } else if (!answer->ok() && !answer->error_message().empty()) {
        run->renderer.note("The copy server did not cancel the copy: " + answer->error_message());
    }
}

asio::awaitable<int> QuilloClient::follow(std::shared_ptr<Follow> run) {
    watchSignals(run);
    run->renderer.begin();
    int rejoins = 0;
    for (;;) {
        auto item = co_await run->stream.next();
        if (item && *item) {
            const auto change = run->tracker.apply(**item);
            if (run->cancelPending && !run->tracker.runIDBytes().empty()) {
                run->cancelPending = false;
                asio::co_spawn(io_, cancelRun(run), asio::detached);
            }
            if (command_.verbose && (*item)->has_log()) Log::line("run", (*item)->log().text());
            run->renderer.update(run->tracker, change);
            if (run->tracker.ended()) break;
            continue;
        }
        // The stream ended without a terminal event: join the run again while it is active.
        const std::string why = item ? "the stream ended" : item.error().message();
        if (run->tracker.runIDBytes().empty() || rejoins >= 5) {
            run->done = true;
            run->renderer.note("The connection to the copy server ended before the copy did (" + why +
                               "); its outcome is unknown. `quillo jobs` shows it once it is recorded.");
            co_return kFailure;
        }
        ++rejoins;
        asio::steady_timer pause(io_, std::chrono::milliseconds(400));
        co_await pause.async_wait(asio::use_awaitable);
        wire::JoinRunRequest join;
        join.mutable_run_id()->set_value(run->tracker.runIDBytes());
        run->stream = co_await connection_->copy().call<&CopyServiceProvider::joinRun>(join);
    }
    run->done = true;
    signals_.reset();
    run->renderer.finish(run->tracker);
    const auto& last = run->tracker.lastRun();
    if (last && last->outcome == Tile::HistoryRun::Outcome::ok) co_return kSuccess;
    if (run->interrupted) co_return kInterrupted;
    co_return kFailure;
}

// ---- copy --------------------------------------------------------------------------------------

asio::awaitable<int> QuilloClient::copy() {
    auto paths = CopyPlan::checkPaths(command_.source, command_.destination, env_.workingDirectory);
    if (!paths) {
        fail(paths.error());
        co_return kFailure;
    }
    auto mode = CopyPlan::modeNamed(command_.mode);
    if (!mode) {
        fail("Unknown copy mode " + inQuotes(command_.mode) + ": use smart, newer or different.");
        co_return kFailure;
    }

    // The copy rule, when one is named: the user's rule folders first, then Quillo's own.
    std::string ruleFile, rulePath;
    const char* home = std::getenv("HOME");
    const auto searchDirs = CopyRuleSearchPath::directories(home ? std::optional<std::string>(home) : std::nullopt,
                                                            CopyRuleSearchPath::bundleResources());
    if (command_.rule) {
        ruleFile = *command_.rule;
        if (fs::path(ruleFile).extension() != ".dset") ruleFile += ".dset";
        for (const auto& dir : searchDirs) {
            std::error_code error;
            if (fs::is_regular_file(fs::path(dir) / ruleFile, error)) {
                rulePath = (fs::path(dir) / ruleFile).string();
                break;
            }
        }
        if (rulePath.empty()) {
            std::string where;
            for (const auto& d : searchDirs) where += (where.empty() ? "" : ", ") + d;
            fail("The copy rule " + inQuotes(Tile::ruleDisplayName(ruleFile)) + " was not found in " +
                 (where.empty() ? std::string("any rule folder") : where) + ".");
            co_return kFailure;
        }
    }

    if (!co_await connect(true)) co_return kUnreachable;

    auto volumes = co_await connection_->source().call<&SourceServiceProvider::listVolumes>(wire::ListVolumesRequest{});
    if (!volumes) {
        fail("The copy server could not list the volumes: " + volumes.error().message());
        co_return kFailure;
    }
    std::vector<wire::VolumeSummary> list(volumes->volumes().begin(), volumes->volumes().end());
    auto endpoint = [&](const std::string& path, bool exists) -> tl::expected<CopyPlan::Endpoint, std::string> {
        const auto lookup = exists ? path : fs::path(path).parent_path().string();
        auto volume = CopyPlan::volumeHolding(lookup, list);
        if (!volume) {
            return tl::unexpected("No volume Quillo can copy holds " + inQuotes(path) +
                                  " (it may be on a temporary or system filesystem).");
        }
        CopyPlan::Endpoint e;
        e.path = path;
        e.exists = exists;
        e.volume = *volume;
        e.subpath = CopyPlan::subpathWithin(path, volume->mount_point());
        return e;
    };
    std::error_code ignored;
    auto source = endpoint(paths->first, true);
    auto destination = endpoint(paths->second, fs::exists(paths->second, ignored));
    if (!source || !destination) {
        fail(!source ? source.error() : destination.error());
        co_return kFailure;
    }

    // The job for this pair: reuse it, or create it.
    auto sourceBinding = CopyPlan::binding(*source);
    auto destinationBinding = CopyPlan::binding(*destination);
    auto listed = co_await connection_->tiles().call<&TileServiceProvider::listTiles>(wire::ListTilesRequest{});
    if (!listed) {
        fail("The copy server could not list the jobs: " + listed.error().message());
        co_return kFailure;
    }
    std::vector<wire::CopyTile> existing(listed->tiles().begin(), listed->tiles().end());
    auto job = CopyPlan::findJob(existing, sourceBinding, destinationBinding);
    if (!job) {
        auto name = command_.name.value_or(CopyPlan::jobName(*source, *destination));
        wire::CreateTileRequest create;
        *create.mutable_tile() = CopyPlan::newJob(*source, *destination, name, *mode, ruleFile);
        create.mutable_tile()->set_name_user_set(command_.name.has_value());
        create.set_as_administrator(command_.asAdmin);
        auto created = co_await connection_->tiles().call<&TileServiceProvider::createTile>(create);
        if (!created) {
            fail(refusal("The copy server refused to create the job", created.error()));
            co_return kFailure;
        }
        job = created->tile();
        out() << "Created the job " << inQuotes(job->name()) << ".\n";
    } else {
        bool changed = false;
        wire::CopyTile updated = *job;
        if (!command_.dryRun) {
            if (updated.copy_mode() != Tile::toWire(*mode)) {
                updated.set_copy_mode(Tile::toWire(*mode));
                changed = true;
            }
            if (command_.rule && updated.copy_rule_filename() != ruleFile) {
                updated.set_copy_rule_filename(ruleFile);
                changed = true;
            }
            if (command_.name && updated.name() != *command_.name) {
                updated.set_name(*command_.name);
                updated.set_name_user_set(true);
                changed = true;
            }
        }
        const bool askApproval = command_.asAdmin && !job->approved_as_administrator();
        if (changed || askApproval) {
            wire::UpdateTileRequest update;
            *update.mutable_tile() = updated;
            update.set_as_administrator(command_.asAdmin);
            auto answer = co_await connection_->tiles().call<&TileServiceProvider::updateTile>(update);
            if (!answer) {
                fail(refusal("The copy server refused to update the job " + inQuotes(job->name()), answer.error()));
                co_return kFailure;
            }
            job = updated;
        }
        out() << "Using the job " << inQuotes(job->name()) << ".\n";
    }
    // The job's rule, when this command named none: the one the job records.
    if (!command_.rule && !job->copy_rule_filename().empty()) {
        for (const auto& dir : searchDirs) {
            if (fs::is_regular_file(fs::path(dir) / job->copy_rule_filename(), ignored)) {
                rulePath = (fs::path(dir) / job->copy_rule_filename()).string();
                break;
            }
        }
    }

    auto sourceRef = JobVolumeRef::fromBinding(job->source());
    auto destinationRef = JobVolumeRef::fromBinding(job->destination());
    if (!sourceRef || !destinationRef) {
        fail("Quillo can’t run this copy yet: " + (!sourceRef ? sourceRef.error() : destinationRef.error()) + ".");
        co_return kFailure;
    }
    auto request = CopyPlan::request(*job, *sourceRef, *destinationRef, *source, *destination, command_.dryRun, rulePath,
                                     searchDirs);
    if (command_.dryRun) {
        // A dry run uses this command's choices without storing them in the job.
        request.set_during_copy(*mode == Tile::CopyMode::copyNewer       ? wire::DCM_COPY_NEWER
                                : *mode == Tile::CopyMode::copyDifferent ? wire::DCM_COPY_DIFFERENT
                                                                         : wire::DCM_SMART_UPDATE);
    }

    ProgressRenderer::Options options;
    options.terminal = env_.terminal && !command_.plain;
    options.width = env_.width;
    options.dryRun = command_.dryRun;
    options.title = fmt::format("{} {} → {} ({})", command_.dryRun ? "Dry run of" : "Copying", source->path,
                                destination->path, Tile::displayName(Tile::copyModeFromWire(job->copy_mode())));
    auto run = std::make_shared<Follow>(Tile::fromWire(*job), options, out());
    run->stream = co_await connection_->copy().call<&CopyServiceProvider::runCloner>(request);
    co_return co_await follow(run);
}

// ---- run ---------------------------------------------------------------------------------------

asio::awaitable<int> QuilloClient::runJob() {
    if (!co_await connect(true)) co_return kUnreachable;
    auto job = co_await findJob(command_.job);
    if (!job) co_return kFailure;

    auto volumes = co_await connection_->source().call<&SourceServiceProvider::listVolumes>(wire::ListVolumesRequest{});
    std::vector<wire::VolumeSummary> list;
    if (volumes) list.assign(volumes->volumes().begin(), volumes->volumes().end());
    // Where each side is mounted now, as hints for the server.
    auto now = [&](const wire::VolumeBinding& b) {
        CopyPlan::Endpoint e;
        e.subpath = b.subpath();
        for (const auto& v : list) {
            const bool same = (!b.volume_uuid().empty() && v.volume_uuid() == b.volume_uuid()) ||
                              (!b.network_url().empty() && v.network_url() == b.network_url());
            if (!same) continue;
            e.volume = v;
            e.path = (fs::path(v.mount_point()) / b.subpath()).lexically_normal().string();
            while (e.path.size() > 1 && e.path.back() == '/') e.path.pop_back();
            e.exists = true;
        }
        return e;
    };
    auto sourceRef = JobVolumeRef::fromBinding(job->source());
    auto destinationRef = JobVolumeRef::fromBinding(job->destination());
    if (!sourceRef || !destinationRef) {
        fail("Quillo can’t run " + inQuotes(job->name()) + " yet: " +
             (!sourceRef ? sourceRef.error() : destinationRef.error()) + ".");
        co_return kFailure;
    }
    std::string rulePath;
    const char* home = std::getenv("HOME");
    const auto searchDirs = CopyRuleSearchPath::directories(home ? std::optional<std::string>(home) : std::nullopt,
                                                            CopyRuleSearchPath::bundleResources());
    if (!job->copy_rule_filename().empty()) {
        std::error_code ignored;
        for (const auto& dir : searchDirs) {
            if (fs::is_regular_file(fs::path(dir) / job->copy_rule_filename(), ignored)) {
                rulePath = (fs::path(dir) / job->copy_rule_filename()).string();
                break;
            }
        }
    }
    auto sourceNow = now(job->source());
    auto destinationNow = now(job->destination());
    auto request = CopyPlan::request(*job, *sourceRef, *destinationRef, sourceNow, destinationNow, false, rulePath,
                                     searchDirs);
    ProgressRenderer::Options options;
    options.terminal = env_.terminal && !command_.plain;
    options.width = env_.width;
    options.title = fmt::format("Running {} ({})", inQuotes(job->name()),
                                Tile::displayName(Tile::copyModeFromWire(job->copy_mode())));
    auto run = std::make_shared<Follow>(Tile::fromWire(*job), options, out());
    run->stream = co_await connection_->copy().call<&CopyServiceProvider::runCloner>(request);
    co_return co_await follow(run);
}

// ---- watch -------------------------------------------------------------------------------------

asio::awaitable<int> QuilloClient::watch() {
    if (!co_await connect(true)) co_return kUnreachable;
    auto active = co_await connection_->copy().call<&CopyServiceProvider::listActiveRuns>(wire::ListActiveRunsRequest{});
    if (!active) {
        fail("The copy server could not list the running copies: " + active.error().message());
        co_return kFailure;
    }
    if (active->runs_size() == 0) {
        out() << "No copies are running.\n";
        co_return kSuccess;
    }
    auto listed = co_await connection_->tiles().call<&TileServiceProvider::listTiles>(wire::ListTilesRequest{});
    int status = kSuccess;
    for (const auto& a : active->runs()) {
        wire::CopyTile job;
        job.set_id(a.tile_id());
        job.set_name(a.tile_id());
        if (listed) {
            for (const auto& t : listed->tiles()) {
                if (t.id() == a.tile_id()) job = t;
            }
        }
        ProgressRenderer::Options options;
        options.terminal = env_.terminal && !command_.plain;
        options.width = env_.width;
        options.title = fmt::format("Watching {}{}", inQuotes(job.name()),
                                    a.state() == wire::ActiveRun::STATE_QUEUED ? " (queued)" : "");
        auto run = std::make_shared<Follow>(Tile::fromWire(job), options, out());
        wire::JoinRunRequest join;
        *join.mutable_run_id() = a.run_id();
        run->stream = co_await connection_->copy().call<&CopyServiceProvider::joinRun>(join);
        const int one = co_await follow(run);
        if (one == kInterrupted) co_return one;
        if (one != kSuccess) status = one;
    }
    co_return status;
}

// ---- cancel, pause, resume, remove -----------------------------------------------------------

asio::awaitable<int> QuilloClient::control() {
    if (!co_await connect(false)) {
        fail("No copy server answers at " + connection_->socketPath() + ": " + connection_->status().description());
        co_return kUnreachable;
    }
    auto job = co_await findJob(command_.job);
    if (!job) co_return kFailure;
    auto active = co_await connection_->copy().call<&CopyServiceProvider::listActiveRuns>(wire::ListActiveRunsRequest{});
    if (!active) {
        fail("The copy server could not list the running copies: " + active.error().message());
        co_return kFailure;
    }
    const wire::ActiveRun* found = nullptr;
    for (const auto& a : active->runs()) {
        if (a.tile_id() == job->id()) found = &a;
    }
    if (!found) {
        fail(inQuotes(job->name()) + " is not running.");
        co_return kFailure;
    }
    wire::RunControlRequest request;
    *request.mutable_run_id() = found->run_id();
    tl::expected<wire::RunControlResponse, TransportError> answer;
    std::string done;
    switch (command_.command) {
        case CommandLine::Command::pause:
            answer = co_await connection_->copy().call<&CopyServiceProvider::pauseRun>(request);
            done = "Pausing";
            break;
        case CommandLine::Command::resume:
            answer = co_await connection_->copy().call<&CopyServiceProvider::resumeRun>(request);
            done = "Resuming";
            break;
        default:
            answer = co_await connection_->copy().call<&CopyServiceProvider::cancelRun>(request);
            done = "Cancelling";
            break;
    }
    if (!answer) {
        fail("The copy server did not take the request: " + answer.error().message());
        co_return kFailure;
    }
    if (!answer->ok()) {
        fail("The copy server refused: " +
             (answer->error_message().empty() ? std::string("the copy is no longer running") : answer->error_message()));
        co_return kFailure;
    }
    out() << done << " " << inQuotes(job->name()) << ".\n";
    co_return kSuccess;
}

asio::awaitable<int> QuilloClient::remove() {
    if (!co_await connect(true)) co_return kUnreachable;
    auto job = co_await findJob(command_.job);
    if (!job) co_return kFailure;
    wire::DeleteTileRequest request;
    request.set_id(job->id());
    auto answer = co_await connection_->tiles().call<&TileServiceProvider::deleteTile>(request);
    if (!answer) {
        fail("The copy server refused to remove " + inQuotes(job->name()) + ": " + answer.error().message());
        co_return kFailure;
    }
    out() << "Removed the job " << inQuotes(job->name()) << ". Its copies are left where they are.\n";
    co_return kSuccess;
}

// ---- edit --------------------------------------------------------------------------------------

asio::awaitable<int> QuilloClient::edit() {
    if (!co_await connect(true)) co_return kUnreachable;
    auto job = co_await findJob(command_.job);
    if (!job) co_return kFailure;
    if (command_.asAdmin && job->approved_as_administrator()) {
        out() << "The job " << inQuotes(job->name()) << " already copies as administrator.\n";
        co_return kSuccess;
    }
    wire::UpdateTileRequest request;
    *request.mutable_tile() = *job;
    request.set_as_administrator(command_.asAdmin);
    auto answer = co_await connection_->tiles().call<&TileServiceProvider::updateTile>(request);
    if (!answer) {
        fail(refusal("The copy server refused to change " + inQuotes(job->name()), answer.error()));
        co_return kFailure;
    }
    out() << "The job " << inQuotes(job->name()) << " now copies as administrator.\n";
    co_return kSuccess;
}

// ---- jobs --------------------------------------------------------------------------------------

asio::awaitable<int> QuilloClient::jobs() {
    if (!co_await connect(true)) co_return kUnreachable;
    auto listed = co_await connection_->tiles().call<&TileServiceProvider::listTiles>(wire::ListTilesRequest{});
    if (!listed) {
        fail("The copy server could not list the jobs: " + listed.error().message());
        co_return kFailure;
    }
    if (listed->tiles_size() == 0) {
        out() << "No copy jobs yet. `quillo copy SOURCE DEST` makes one.\n";
        co_return kSuccess;
    }
    bool first = true;
    for (const auto& w : listed->tiles()) {
        const auto tile = Tile::fromWire(w);
        if (!first) out() << "\n";
        first = false;
        out() << tile.name << "  (" << tile.id << ")\n";
        out() << "  Source:       " << sideText(tile.sourceName, tile.sourceSubpath) << "\n";
        out() << "  Destination:  " << sideText(tile.destinationName, tile.destinationSubpath) << "\n";
        out() << "  Copy mode:    " << Tile::displayName(tile.copyMode) << ", " << Tile::ruleDisplayName(tile.copyRuleFilename)
              << "\n";
        out() << "  Schedule:     " << TileProse::whenPhrase(tile) << "\n";
        out() << "  Last result:  " << lastResult(tile) << "\n";
    }
    co_return kSuccess;
}

// ---- status and server -------------------------------------------------------------------------

asio::awaitable<int> QuilloClient::status() {
    const bool reachable = co_await connect(false);
    out() << "Socket:       " << connection_->socketPath() << "\n";
    out() << "Server:       " << (reachable ? "reachable" : "not reachable") << " ("
          << connection_->status().description() << ")\n";
    if (!reachable) co_return kUnreachable;
    if (auto stamp = connection_->daemonBinaryStampUnix()) {
        out() << "Version:      qlcopyserver built " << localTime(std::chrono::system_clock::from_time_t(*stamp)) << "\n";
    } else {
        out() << "Version:      qlcopyserver (no build stamp reported)\n";
    }
    auto active = co_await connection_->copy().call<&CopyServiceProvider::listActiveRuns>(wire::ListActiveRunsRequest{});
    if (!active) {
        out() << "Active runs:  unknown (" << active.error().message() << ")\n";
        co_return kFailure;
    }
    if (active->runs_size() == 0) {
        out() << "Active runs:  none\n";
        co_return kSuccess;
    }
    auto listed = co_await connection_->tiles().call<&TileServiceProvider::listTiles>(wire::ListTilesRequest{});
    out() << "Active runs:  " << active->runs_size() << "\n";
    for (const auto& a : active->runs()) {
        std::string name = a.tile_id();
        if (listed) {
            for (const auto& t : listed->tiles()) {
                if (t.id() == a.tile_id()) name = t.name();
            }
        }
        out() << "  " << name << " — " << (a.state() == wire::ActiveRun::STATE_QUEUED ? "queued" : "running")
              << " (run " << RunIdText::uuid(a.run_id().value()) << ")\n";
    }
    co_return kSuccess;
}

int QuilloClient::server() {
    auto executable = ServerLauncher::findServer(env_.selfExecutable, env_.pathVariable);
    if (!executable) {
        fail("qlcopyserver was not found next to quillo or on PATH.");
        return kFailure;
    }
    ServerLauncher::Plan plan;
    plan.executable = *executable;
    const auto named = SocketPath::processEnvironment()(SocketPath::environmentVariable);
    if (named && !named->empty()) plan.arguments = {"--socket", *named};
    plan.arguments.insert(plan.arguments.end(), command_.serverArguments.begin(), command_.serverArguments.end());
    fail(ServerLauncher::exec(plan));
    return kFailure;
}

}  // namespace ql
