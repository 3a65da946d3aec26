// config-copy: copies configurations of switches over SNMP. See config-copy(1).
#include "base/posix.h"
#include "config-copy/after/failed_hosts.h"
#include "config-copy/after/metrics.h"
#include "config-copy/after/on_done.h"
#include "config-copy/after/outcome_log.h"
#include "config-copy/agents/agent_session.h"
#include "config-copy/command_line/completion.h"
#include "config-copy/command_line/options.h"
#include "config-copy/command_line/password.h"
#include "config-copy/copies/copy_run.h"
#include "config-copy/copies/difference.h"
#include "config-copy/copies/keep.h"
#include "config-copy/copies/local_file.h"
#include "config-copy/copies/local_transfer.h"
#include "config-copy/copies/many_hosts.h"
#include "config-copy/copies/requests.h"
#include "config-copy/copies/retries.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"
#include "config-copy/output/output.h"
#include "config-copy/report/become_report.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>

namespace config_copy {
namespace {

// Another copy from or to a file of this machine ends sooner than that.
constexpr std::chrono::seconds wait_for_port(10);

// For a copy from or to a file of this machine.
void set_up_local(CopyJob &job, const Options &options) {
    job.is_replacement = options.is_replacement;
    if (options.local_address) {
        job.local_address = parsed_address(*options.local_address);
    }
    for (const Endpoint *file : {&job.from, &job.to}) {
        if (file->is_local() && (file == &job.from || job.is_diff) && !is_of_one_agent(*file)) {
            job.content = std::make_shared<ulmo::UniqueFd>(
                snapshot(local_path(*file, job.time), job.is_replacement));
        }
    }
    if (!job.is_dry_run || job.from.is_local()) {
        job.transfers = std::make_shared<LocalTransfers>(
            std::max<std::chrono::seconds>(job.wait_turn, wait_for_port));
    }
}

CopyJob job_of(const Options &options) {
    CopyJob job;
    job.from = options.from;
    job.to = options.to;
    job.time = values_of_time(std::time(nullptr));
    job.wait_turn = options.wait_turn;
    job.time_limit = options.time_limit;
    job.is_dry_run = options.is_dry_run;
    job.is_verbose = options.is_verbose;
    job.keeping = options.keeping;
    job.is_diff = options.command == Command::diff;
    if (job.is_local() || job.is_diff) {
        set_up_local(job, options);
        return job;
    }
    if (!job.has_file()) {
        return job;
    }
    job.server = server_address(job.file().host, job.time_limit);
    for (const Agent &agent : options.agents) {
        // Reports a name that is too long before any copy begins.
        file_name(job.file(), path_values(job, agent));
    }
    const bool is_needed = needs_password(job.file());
    // A dry run sends no password, so it does not ask for one.
    if (takes_password(job.file()) && (!job.is_dry_run || options.password_file)) {
        job.password = read_password(options.password_file, job.file().user + '@' + job.file().host,
                                     !is_needed, options.hosts_file == "-");
    }
    if ((is_needed || !job.password.empty()) &&
        std::any_of(options.agents.begin(), options.agents.end(), [](const Agent &agent) {
            return is_readable_on_the_way(*agent.settings, agent.name);
        })) {
        std::cerr << "config-copy: warning: the password travels to the agent unencrypted: use "
                     "SNMPv3 with -l authPriv\n";
    }
    return job;
}

Outcome copy_on_one(const Options &options, const CopyJob &job, Output &output) {
    const Agent &agent = options.agents.front();
    const Progress progress = [&](const Step &step) { output.progress(agent.name, step); };
    for (int attempt = 1;; ++attempt) {
        Outcome outcome = job.is_diff ? compare(agent, job, progress) : copy(agent, job, progress);
        keep(agent, job, progress, outcome);
        show_what_a_restore_brings(agent, job, progress, outcome);
        set_attempts(outcome, attempt);
        if (attempt > options.retries.count || !may_pass(outcome)) {
            output.outcome(outcome);
            return outcome;
        }
        wait_for_retry(1, options.retries.pause, output);
    }
}

// Writes and runs what the options want after all copies. Returns whether that was done.
bool pass_on(const Options &options, const std::vector<Outcome> &outcomes, Output &output) {
    bool is_done = true;
    const auto attempt = [&](const auto &step) {
        try {
            step();
        } catch (const Failure &failure) {
            is_done = false;
            output.failure(failure, "");
        }
    };
    if (options.failed_hosts) {
        attempt([&] { write_failed_hosts(*options.failed_hosts, options.agents, outcomes); });
    }
    if (options.metrics) {
        attempt([&] {
            write_metrics(*options.metrics, options.profile, outcomes, std::time(nullptr));
        });
    }
    if (options.outcomes) {
        attempt([&] { append_outcomes(*options.outcomes, outcomes, std::time(nullptr)); });
    }
    if (options.on_done) {
        for (const Outcome &outcome : outcomes) {
            attempt([&] { run_on_done(*options.on_done, outcome, time_limit_of_on_done); });
        }
    }
    return is_done;
}

ExitStatus copy(const Options &options, const CopyJob &job, Output &output) {
    const std::vector<Outcome> outcomes =
        options.hosts_file ? copy_on_all(options.agents, job, options.jobs, options.retries, output)
                           : std::vector{copy_on_one(options, job, output)};
    const ExitStatus status = status_of_all(outcomes);
    // A dry run changes nothing.
    const bool is_done = job.is_dry_run || pass_on(options, outcomes, output);
    return is_done || status != ExitStatus::done ? status : ExitStatus::failed;
}

ExitStatus run(const Options &options, Output &output) {
    if (options.command == Command::help) {
        output.put(usage_text());
        return ExitStatus::done;
    }
    if (options.command == Command::version) {
        output.put("config-copy " CONFIG_COPY_VERSION "\n");
        return ExitStatus::done;
    }
    if (options.command == Command::completion) {
        output.put(completion(options.completion));
        return ExitStatus::done;
    }
    if (options.command == Command::report) {
        become_report(options);
    }
    if (options.command == Command::copy || options.command == Command::diff) {
        const CopyJob job = job_of(options);
        try {
            return copy(options, job, output);
        } catch (const InterruptedWithRequests &interrupted) {
            std::cerr << "\nconfig-copy: interrupted: " << interrupted.text << std::endl;
            throw;
        } catch (const Interrupted &) {
            std::cerr << "\nconfig-copy: interrupted: no request stays on the switch" << std::endl;
            throw;
        }
    }
    const std::string &agent = options.agents.front().name;
    try {
        Session session = session_with(*options.agents.front().settings, agent, options.is_verbose,
                                       options.time_limit);
        if (options.command == Command::list) {
            list_requests(session, output);
        } else if (options.command == Command::errors) {
            list_errors(session, options.index, output);
        } else {
            abort_request(session, *options.index, output);
        }
    } catch (const Failure &failure) {
        output.failure(failure, agent);
        return failure.status();
    } catch (const Trouble &trouble) {
        const Failure failure = failure_of(trouble, agent);
        output.failure(failure, agent);
        return failure.status();
    }
    return ExitStatus::done;
}

// Nothing that is opened may get the number of a closed standard stream: texts for that stream
// would be written into it. What is opened instead refuses to be used, as the closed one would.
void reserve_standard_descriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0) {
            ulmo::check(::open("/dev/null",
                               descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY)); // the lowest
        }
    }
}

int run(int count, char **words) {
    Style style;
    style.is_json = asks_for_json(count, words);
    std::unique_ptr<Output> output = make_output(style);
    ExitStatus status = ExitStatus::done;
    try {
        reserve_standard_descriptors();
        watch_signals();
        if (const std::optional<Options> options = parse_options(count, words)) {
            const bool is_output_taken =
                options->to.local == standard_stream && !options->is_dry_run;
            style = {options->is_json, options->is_quiet || is_output_taken, options->is_verbose,
                     options->command == Command::diff, options->hosts_file.has_value()};
            output = make_output(style);
            status = run(*options, *output);
        }
    } catch (const Failure &failure) {
        output->failure(failure, "");
        status = failure.status();
    } catch (const std::exception &error) {
        status = ExitStatus::failed;
        output->failure({status, error.what()}, "");
    }
    if (output->error() != 0) {
        std::cerr << "config-copy: standard output can't be written: "
                  << std::strerror(output->error()) << std::endl;
        status = status == ExitStatus::done ? ExitStatus::failed : status;
    }
    return exit_number(status, style.is_diff);
}

int main_of(int count, char **words) {
    try {
        return run(count, words);
    } catch (const Interrupted &) {
        end_by_signal(interrupting_signal());
    }
}

} // namespace
} // namespace config_copy

int main(int count, char **words) {
    return config_copy::main_of(count, words);
}
