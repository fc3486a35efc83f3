#include "app/cli/CommandLine.h"
#include "app/cli/ProgressRenderer.h"

#include <gtest/gtest.h>

#include <sstream>

namespace ql {
namespace {

namespace wire = ql4::transport::v1;

std::variant<CommandLine, CommandLine::Exit> parse(std::vector<const char*> args) {
    args.insert(args.begin(), "quillo");
    return CommandLine::parse(static_cast<int>(args.size()), args.data());
}

TEST(CommandLine, ReadsEveryCommand) {
    auto copy = std::get<CommandLine>(parse({"copy", "src", "dst", "--mode", "newer", "--rule", "Mine", "--dry-run",
                                             "--name", "Nightly"}));
    EXPECT_EQ(copy.command, CommandLine::Command::copy);
    EXPECT_EQ(copy.source, "src");
    EXPECT_EQ(copy.destination, "dst");
    EXPECT_EQ(copy.mode, "newer");
    EXPECT_EQ(copy.rule, std::optional<std::string>("Mine"));
    EXPECT_TRUE(copy.dryRun);
    EXPECT_EQ(copy.name, std::optional<std::string>("Nightly"));

    auto plain = std::get<CommandLine>(parse({"--plain", "copy", "a", "b"}));
    EXPECT_TRUE(plain.plain);
    EXPECT_EQ(plain.mode, "smart");
    EXPECT_FALSE(plain.rule);

    struct Case {
        std::vector<const char*> args;
        CommandLine::Command command;
        const char* job;
    };
    const Case cases[] = {
        {{"jobs"}, CommandLine::Command::jobs, ""},
        {{"run", "Docs"}, CommandLine::Command::run, "Docs"},
        {{"watch"}, CommandLine::Command::watch, ""},
        {{"cancel", "Docs"}, CommandLine::Command::cancel, "Docs"},
        {{"pause", "7E2C"}, CommandLine::Command::pause, "7E2C"},
        {{"resume", "Docs"}, CommandLine::Command::resume, "Docs"},
        {{"remove", "Docs"}, CommandLine::Command::remove, "Docs"},
        {{"status"}, CommandLine::Command::status, ""},
    };
    for (const auto& c : cases) {
        auto line = std::get<CommandLine>(parse(c.args));
        EXPECT_EQ(line.command, c.command) << c.args[0];
        EXPECT_EQ(line.job, c.job) << c.args[0];
    }
    auto server = std::get<CommandLine>(parse({"server", "--state-root", "/tmp/x"}));
    EXPECT_EQ(server.command, CommandLine::Command::server);
    EXPECT_EQ(server.serverArguments, (std::vector<std::string>{"--state-root", "/tmp/x"}));
}

TEST(CommandLine, MistakesExitWithAReason) {
    struct Case {
        std::vector<const char*> args;
        const char* mentions;
    };
    const Case cases[] = {
        {{}, "subcommand"},
        {{"copy", "only-one"}, "DEST"},
        {{"copy", "a", "b", "--mode", "erase"}, "erase"},
        {{"run"}, "JOB"},
        {{"frobnicate"}, "frobnicate"},
    };
    for (const auto& c : cases) {
        auto result = parse(c.args);
        auto* exit = std::get_if<CommandLine::Exit>(&result);
        ASSERT_NE(exit, nullptr) << (c.args.empty() ? "(nothing)" : c.args[0]);
        EXPECT_EQ(exit->status, 2);
        EXPECT_NE(exit->text.find(c.mentions), std::string::npos) << exit->text;
    }
    auto help = parse({"--help"});
    ASSERT_TRUE(std::holds_alternative<CommandLine::Exit>(help));
    EXPECT_EQ(std::get<CommandLine::Exit>(help).status, 0);
    EXPECT_NE(std::get<CommandLine::Exit>(help).text.find("copy"), std::string::npos);
}

TEST(ProgressRenderer, BarsAndCutPaths) {
    EXPECT_EQ(ProgressRenderer::bar(0, 10), "[----------]");
    EXPECT_EQ(ProgressRenderer::bar(0.48, 10), "[####------]");
    EXPECT_EQ(ProgressRenderer::bar(1, 10), "[##########]");
    EXPECT_EQ(ProgressRenderer::bar(2, 4), "[####]");
    EXPECT_EQ(ProgressRenderer::fitTail("short", 10), "short");
    EXPECT_EQ(ProgressRenderer::fitTail("/a/very/long/path/file.txt", 10), "…/file.txt");
    EXPECT_EQ(ProgressRenderer::fitTail("/dossier/été.txt", 8), "…été.txt");
    EXPECT_EQ(ProgressRenderer::fitHead("short", 10), "short");
    EXPECT_EQ(ProgressRenderer::fitHead("48% · 1.5 MB/s", 8), "48% · 1…");
}

wire::ClonerEvent event(std::int64_t second) {
    wire::ClonerEvent e;
    e.set_timestamp_unix_nanos(1'700'000'000'000'000'000 + second * 1'000'000'000);
    e.mutable_run_id()->set_value(std::string(16, 'r'));
    return e;
}

wire::ClonerEvent progress(std::int64_t second, std::int64_t done, std::string path) {
    auto e = event(second);
    auto* p = e.mutable_progress();
    p->set_files_copied(done / 100);
    p->set_bytes_copied(done);
    p->set_files_evaluated(done / 100);
    p->set_bytes_evaluated(done);
    p->set_work_done_bytes(done);
    p->set_scout_done(true);
    p->set_scout_total_bytes(1000);
    p->set_scout_total_files(10);
    p->set_walk_done(true);
    p->set_rate_window_bps(1'500'000);
    p->set_rate_window_valid(true);
    p->set_rate_effective_bps(1'500'000);
    p->set_eta_seconds(400);
    p->set_eta_selected_seconds(400);
    p->set_current_copy_path(path);
    p->set_current_path(std::move(path));
    return e;
}

TEST(ProgressRenderer, PlainOutputIsOneLinePerChangeWorthReading) {
    std::ostringstream out;
    ProgressRenderer::Options options;
    options.title = "Copying /a → /b (Smart Update)";
    ProgressRenderer renderer(out, options);
    Tile tile;
    tile.name = "Docs";
    RunTracker tracker(tile);
    renderer.begin();
    const auto t0 = ProgressRenderer::Clock::now();
    auto feed = [&](const wire::ClonerEvent& e, int ms) {
        renderer.update(tracker, tracker.apply(e), t0 + std::chrono::milliseconds(ms));
    };
    auto started = event(0);
    started.mutable_started();
    feed(started, 0);
    auto prepare = event(0);
    prepare.mutable_phase_start()->set_name("prepare");
    feed(prepare, 1);
    for (const auto* step : {"resolve", "mount"}) {
        auto begin = event(0);
        begin.mutable_step_start()->set_phase_name("prepare");
        begin.mutable_step_start()->set_name(step);
        feed(begin, 2);
        auto end = event(0);
        end.mutable_step_end()->set_phase_name("prepare");
        end.mutable_step_end()->set_name(step);
        end.mutable_step_end()->set_succeeded(true);
        feed(end, 3);
    }
    auto files = event(0);
    files.mutable_phase_start()->set_name("files");
    feed(files, 10);
    feed(progress(1, 100, "a.txt"), 1000);
    feed(progress(1, 150, "b.txt"), 1200);  // within the second: no line
    feed(progress(2, 500, "c.txt"), 2100);
    auto stall = event(3);
    stall.mutable_log()->set_text("stall: subject=copy stalled_s=30 path=/a/c.txt");
    feed(stall, 2200);
    auto filesDone = event(4);
    filesDone.mutable_phase_end()->set_name("files");
    filesDone.mutable_phase_end()->set_succeeded(true);
    feed(filesDone, 2900);
    auto done = event(4);
    done.mutable_completed()->set_items_copied(3);
    done.mutable_completed()->set_items_evaluated(4);
    done.mutable_completed()->set_bytes_copied(1000);
    done.mutable_completed()->set_bytes_evaluated(1000);
    done.mutable_completed()->set_elapsed_nanos(4'000'000'000);
    feed(done, 3000);
    renderer.finish(tracker);

    EXPECT_EQ(out.str(),
              "Copying /a → /b (Smart Update)\n"
              "Preparing\n"
              "Preparing destination\n"
              "Preparing destination: Resolving volumes\n"
              "Preparing destination: Mounting volumes\n"  // not "Preparing destination" again in between
              "Copying files\n"
              "  10% · 1.5 MB/s · About 5 minutes remaining · a.txt\n"
              "  50% · 1.5 MB/s · About 5 minutes remaining · c.txt\n"
              "Copying large file: Still working — 30 seconds and counting…\n"
              "Finishing\n"
              "Copy complete.\n"
              "Copied 3 items (1.0 KB), updated 0, deleted 0; checked 4 items (1.0 KB) in 4.0 s.\n");
}

TEST(ProgressRenderer, TerminalOutputRedrawsOneBlockInPlace) {
    std::ostringstream out;
    ProgressRenderer::Options options;
    options.terminal = true;
    options.width = 60;
    ProgressRenderer renderer(out, options);
    RunTracker tracker(Tile{});
    auto started = event(0);
    started.mutable_started();
    const auto t0 = ProgressRenderer::Clock::now();
    renderer.update(tracker, tracker.apply(started), t0);
    renderer.update(tracker, tracker.apply(progress(1, 480, "dir/file.bin")), t0 + std::chrono::seconds(1));
    const auto text = out.str();
    EXPECT_NE(text.find("\x1b[3A"), std::string::npos) << "the second draw moves up over the first";
    EXPECT_NE(text.find("\r\x1b[2K[#########-----------] 48% · 1.5 MB/s · About 5 minutes rem…\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("\r\x1b[2Kdir/file.bin\n"), std::string::npos);
}

TEST(ProgressRenderer, SummariesOfFailedAndCancelledRuns) {
    RunTracker failed(Tile{});
    auto f = event(1);
    f.mutable_failed()->set_error_message("The destination ran out of space.");
    f.mutable_failed()->set_failed_path("/dst/big.iso");
    f.mutable_failed()->set_error_count(1);
    failed.apply(f);
    EXPECT_EQ(ProgressRenderer::summary(failed, false),
              (std::vector<std::string>{"Copy failed: The destination ran out of space.",
                                        "Last file seen before the failure: /dst/big.iso"}));

    RunTracker cancelled(Tile{});
    auto started = event(0);
    started.mutable_started();
    cancelled.apply(started);
    cancelled.markUserCancelled();
    auto c = event(1);
    c.mutable_cancelled();
    cancelled.apply(c);
    EXPECT_EQ(ProgressRenderer::summary(cancelled, false),
              (std::vector<std::string>{"Copy cancelled.", "Cancelled before any data was copied."}));

    RunTracker dry(Tile{});
    auto d = event(1);
    d.mutable_completed()->set_items_copied(2);
    dry.apply(d);
    EXPECT_EQ(ProgressRenderer::summary(dry, true).front(), "Dry run complete: nothing was changed.");
    EXPECT_EQ(ProgressRenderer::summary(dry, true).back().rfind("Would copy 2 items", 0), 0u);
}

}  // namespace
}  // namespace ql
