// What is written and run when all copies of a run have ended.
#include "config-copy/after/failed_hosts.h"
#include "config-copy/after/metrics.h"
#include "config-copy/after/on_done.h"
#include "config-copy/after/outcome_log.h"
#include "config-copy/command_line/hosts_file.h"
#include "config-copy/command_line/text_file.h"
#include "tests/unit/config-copy/support.h"
#include "tests/unit/scratch.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>

namespace config_copy {
namespace {

Outcome ended(const std::string &agent, ExitStatus status = ExitStatus::done) {
    Outcome outcome;
    outcome.agent = agent;
    outcome.status = status;
    return outcome;
}

std::string reason_of(const std::function<void()> &call) {
    try {
        call();
    } catch (const Failure &failure) {
        EXPECT_EQ(ExitStatus::failed, failure.status());
        return failure.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

// Those of a hosts file, as the command has them.
std::vector<Agent> agents_in(const std::string &text) {
    std::vector<Agent> agents;
    for (const ListedAgent &listed : hosts_in(text, "F").agents) {
        agents.push_back({listed.name, listed.group, nullptr, "", listed.options});
    }
    return agents;
}

TEST(FailedHosts, ListsThemWithTheirGroupsAndNoSecret) {
    const auto agents = agents_in(R"(first -t 10
second
[old] -v 2c -c secret
old1
old2 -c other
[new] -v 3 -u 'the user' -l authPriv -a SHA-256 -A passphrase1 -x AES -X passphrase2
new1
new2 -r 7
)");
    std::vector<Outcome> outcomes;
    for (const Agent &agent : agents) {
        outcomes.push_back(ended(agent.name, ExitStatus::failed));
    }
    outcomes[0].status = ExitStatus::unreachable;
    outcomes[1].status = outcomes[2].status = outcomes[4].status = ExitStatus::done;
    outcomes[5].cause = "timeout";
    const std::string text = failed_hosts_text(agents, outcomes);
    EXPECT_EQ("first -t 10 # not reachable\n"
              "[old]\n"
              "old2 -v 2c # failed\n"
              "[new]\n"
              "new2 -a SHA-256 -l authPriv -r 7 -u 'the user' -v 3 -x AES # failed, timeout\n",
              text);
    const auto again = agents_in(text);
    ASSERT_EQ(3U, again.size());
    EXPECT_EQ("new2", again[2].name);
    EXPECT_EQ("new", again[2].group);
    EXPECT_EQ("", failed_hosts_text(agents, std::vector<Outcome>(agents.size())));
}

TEST(FailedHosts, NamesAreReadBackAsTheyWere) {
    const std::string text = R"("it's" -u '$(id)`id`"\'
'a\b$HOME*;'
)";
    const auto agents = agents_in(text);
    const std::vector<Outcome> outcomes(agents.size(), ended("", ExitStatus::busy));
    const auto again = agents_in(failed_hosts_text(agents, outcomes));
    ASSERT_EQ(2U, again.size());
    EXPECT_EQ("it's", again[0].name);
    EXPECT_EQ("a\\b$HOME*;", again[1].name);
    EXPECT_EQ(agents[0].listed_options->words(), again[0].listed_options->words());
}

TEST(FailedHosts, TheFileIsReplaced) {
    const Scratch scratch;
    const std::string file = scratch.root() / "failed";
    Scratch::write(file, "before\n");
    const auto agents = agents_in("a\n");
    write_failed_hosts(file, agents, {ended("a", ExitStatus::busy)});
    EXPECT_EQ("a # busy\n", Scratch::read(file));
    write_failed_hosts(file, agents, {ended("a")});
    EXPECT_EQ("", Scratch::read(file));
    const std::string missing = scratch.root() / "no/failed";
    EXPECT_EQ("--failed-hosts: " + missing + " can't be written: No such file or directory",
              reason_of([&] { write_failed_hosts(missing, agents, {ended("a")}); }));
}

TEST(Metrics, OfEachAgent) {
    Outcome done = ended("core1");
    done.group = "core";
    done.seconds = 1.5;
    done.bytes = 0x100000000;
    done.is_unchanged = false;
    Outcome failed = ended("edge1", ExitStatus::failed);
    failed.cause = "timeout";
    const std::string former = "# HELP x\nconfig_copy_last_success_timestamp_seconds{agent="
                               "\"edge1\",profile=\"nightly\"} 17\n"
                               "config_copy_last_success_timestamp_seconds{agent=\"core1\"} soon\n"
                               "config_copy_last_success_timestamp_seconds";
    EXPECT_EQ(
        R"(# HELP config_copy_last_run_timestamp_seconds When the last run ended.
# TYPE config_copy_last_run_timestamp_seconds gauge
config_copy_last_run_timestamp_seconds{agent="core1",group="core",profile="nightly"} 1000
config_copy_last_run_timestamp_seconds{agent="edge1",profile="nightly"} 1000
config_copy_last_run_timestamp_seconds{agent="new",profile="nightly"} 1000
# HELP config_copy_last_success_timestamp_seconds When the last run in which this agent's copy was done ended.
# TYPE config_copy_last_success_timestamp_seconds gauge
config_copy_last_success_timestamp_seconds{agent="core1",group="core",profile="nightly"} 1000
config_copy_last_success_timestamp_seconds{agent="edge1",profile="nightly"} 17
# HELP config_copy_outcome How the last copy ended, in the labels; always 1.
# TYPE config_copy_outcome gauge
config_copy_outcome{agent="core1",group="core",profile="nightly",ending="done",cause=""} 1
config_copy_outcome{agent="edge1",profile="nightly",ending="failed",cause="timeout"} 1
config_copy_outcome{agent="new",profile="nightly",ending="not_reachable",cause=""} 1
# HELP config_copy_seconds How long the last copy took by the switch's clock.
# TYPE config_copy_seconds gauge
config_copy_seconds{agent="core1",group="core",profile="nightly"} 1.50
# HELP config_copy_bytes The size of the last copy.
# TYPE config_copy_bytes gauge
config_copy_bytes{agent="core1",group="core",profile="nightly"} 4294967296
# HELP config_copy_unchanged 1 if the file had the same content before, otherwise 0.
# TYPE config_copy_unchanged gauge
config_copy_unchanged{agent="core1",group="core",profile="nightly"} 0
)",
        metrics_text("nightly", {done, failed, ended("new", ExitStatus::unreachable)}, 1000,
                     successes_in(former)));
}

TEST(Metrics, NamesDoNotBreakOut) {
    const std::string text = metrics_text("", {ended("a\"} 1\nb{x=\"\\\xff")}, 1, {});
    EXPECT_NE(std::string::npos, text.find("\nconfig_copy_last_run_timestamp_seconds"
                                           "{agent=\"a\\\"} 1\\nb{x=\\\"\\\\\xEF\xBF\xBD\"} 1\n"))
        << text;
}

TEST(Metrics, TheLastSuccessStaysInTheFile) {
    const Scratch scratch;
    const std::string file = scratch.root() / "x.prom";
    write_metrics(file, "", {ended("a b\"\n"), ended("c", ExitStatus::busy)}, 5);
    EXPECT_EQ(0644U, Scratch::status_of(file).st_mode & 07777U);
    for (int time = 6; time < 8; ++time) {
        write_metrics(file, "", {ended("a b\"\n", ExitStatus::busy)}, time);
    }
    const Successes known{{"{agent=\"a b\\\"\\n\"}", "5"}};
    EXPECT_EQ(known, successes_in(Scratch::read(file)));
    write_metrics(file, "", {ended("a b\"\n")}, 9);
    EXPECT_EQ("9", successes_in(Scratch::read(file)).begin()->second);
    // Not over something that could not be read.
    std::filesystem::create_directory(scratch.root() / "folder");
    const std::string folder = scratch.root() / "folder";
    EXPECT_EQ("--metrics: " + folder + " can't be written: Is a directory",
              reason_of([&] { write_metrics(folder, "", {ended("a")}, 1); }));
}

TEST(OutcomeLog, KeepsWhatIsKnown) {
    const Scratch scratch;
    const std::string file = scratch.root() / "log";
    Outcome done = ended("core1");
    done.group = "core";
    done.from = "running";
    done.to = "./core1.cfg";
    done.text = "core1: running to ./core1.cfg copied";
    done.user = "netops";
    done.seconds = 1.256;
    done.bytes = 12345;
    done.is_unchanged = true;
    Outcome failed = ended("a\"b\n\xff", ExitStatus::failed);
    failed.attempts = 3;
    failed.cause = "timeout";
    failed.reason = "why";
    failed.text = "what";
    append_outcomes(file, {done, failed}, 1000);
    EXPECT_EQ(0600U, Scratch::status_of(file).st_mode & 07777U);
    const std::string first =
        R"({"time":"1970-01-01T00:16:40Z","agent":"core1","group":"core","ending":"done",)"
        R"("attempts":1,"from":"running","to":"./core1.cfg","seconds":1.26,"bytes":12345,)"
        R"("unchanged":true}
{"time":"1970-01-01T00:16:40Z","agent":"a\"b\n)"
        "\xEF\xBF\xBD"
        R"(","ending":"failed","attempts":3,"cause":"timeout","reason":"why","text":"what"}
)";
    EXPECT_EQ(first, Scratch::read(file));
    append_outcomes(file, {ended("x")}, 1001);
    EXPECT_EQ(first + R"({"time":"1970-01-01T00:16:41Z","agent":"x","ending":"done","attempts":1})"
                      "\n",
              Scratch::read(file));
}

TEST(OutcomeLog, ALineThatWasCutSpoilsNoOther) {
    const Scratch scratch;
    const std::string file = scratch.root() / "log";
    Scratch::write(file, R"({"time":"1970-01)");
    append_outcomes(file, {ended("x")}, 0);
    EXPECT_EQ(R"({"time":"1970-01
{"time":"1970-01-01T00:00:00Z","agent":"x","ending":"done","attempts":1}
)",
              Scratch::read(file));
}

TEST(OutcomeLog, IsWrittenWholeOrNotAtAll) {
    const Scratch scratch;
    const std::string file = scratch.root() / "log";
    const std::string before = "{}\n" + std::string(1000, ' ') + '\n';
    Scratch::write(file, before);
    rlimit limit{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &limit));
    const rlimit lower{before.size() + 100, limit.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &lower));
    const std::string reason = reason_of([&] {
        append_outcomes(file, {ended("x"), ended("y"), ended("z")}, 0);
    });
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ("--outcomes: " + file + " can't be written: File too large", reason);
    EXPECT_EQ(before, Scratch::read(file));
    for (const std::string path : {"/dev/null", "/"}) {
        EXPECT_EQ("--outcomes: " + path +
                      " can't be written: " + (path == "/" ? "Is a directory" : "Invalid argument"),
                  reason_of([&] { append_outcomes(path, {ended("x")}, 0); }));
    }
}

std::string program_in(const Scratch &scratch, const std::string &commands) {
    const std::string file = scratch.root() / "program";
    Scratch::write(file, "#!/bin/sh\n" + commands);
    ::chmod(file.c_str(), 0755);
    return file;
}

TEST(OnDone, TheOutcomeIsInTheEnvironment) {
    const Scratch scratch;
    const std::string out = scratch.root() / "out";
    const std::string program = program_in(
        scratch, "[ $# = 0 ] && env | grep ^CONFIG_COPY_ | LC_ALL=C sort > " + out + '\n');
    Outcome outcome = ended("$(touch x); \"'", ExitStatus::unreachable);
    outcome.group = "core";
    outcome.cause = "timeout";
    outcome.reason = "why";
    outcome.text = "what";
    outcome.from = "running";
    outcome.to = "./a.cfg";
    outcome.bytes = 7;
    outcome.seconds = 2;
    outcome.sha256 = "00ff";
    outcome.is_unchanged = true;
    outcome.attempts = 3;
    run_on_done(program, outcome, std::chrono::seconds(20));
    EXPECT_EQ(R"(CONFIG_COPY_AGENT=$(touch x); "'
CONFIG_COPY_ATTEMPTS=3
CONFIG_COPY_BYTES=7
CONFIG_COPY_CAUSE=timeout
CONFIG_COPY_ENDING=not_reachable
CONFIG_COPY_FROM=running
CONFIG_COPY_GROUP=core
CONFIG_COPY_REASON=why
CONFIG_COPY_SECONDS=2.00
CONFIG_COPY_SHA256=00ff
CONFIG_COPY_STATUS=4
CONFIG_COPY_TEXT=what
CONFIG_COPY_TO=./a.cfg
CONFIG_COPY_UNCHANGED=yes
)",
              Scratch::read(out));
}

TEST(OnDone, AProgramThatFails) {
    const Scratch scratch;
    const auto failure = [&](const std::string &commands) {
        const std::string program = program_in(scratch, commands);
        const std::string text =
            reason_of([&] { run_on_done(program, ended("sw"), std::chrono::milliseconds(1500)); });
        const std::string beginning = "--on-done: " + program + " failed for sw: ";
        EXPECT_TRUE(text.starts_with(beginning)) << text;
        return text.substr(std::min(beginning.size(), text.size()));
    };
    EXPECT_EQ("no such ticket", failure("echo no such ticket >&2; exit 3\n"));
    EXPECT_EQ("it ended with status 3 and gave no reason", failure("exit 3\n"));
    EXPECT_EQ("it did not end within 1 second and was killed", failure("sleep 60\n"));
    EXPECT_EQ("--on-done: /nowhere failed for sw: No such file or directory",
              reason_of([] { run_on_done("/nowhere", ended("sw"), std::chrono::seconds(1)); }));
}

} // namespace
} // namespace config_copy
