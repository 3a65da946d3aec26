// config-copy: copies configurations of switches over SNMP. See config-copy(1).
#include "config-copy/agent_session.h"
#include "config-copy/copy_run.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"
#include "config-copy/many_hosts.h"
#include "config-copy/options.h"
#include "config-copy/output.h"
#include "config-copy/password.h"
#include "config-copy/requests.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>

namespace config_copy {
namespace {

CopyOrder order_of(const Options &options) {
    CopyOrder order;
    order.from = options.from;
    order.to = options.to;
    order.date = date_value(std::time(nullptr));
    order.wait_turn = options.wait_turn;
    order.time_limit = options.time_limit;
    order.is_dry_run = options.is_dry_run;
    order.is_verbose = options.is_verbose;
    order.snmp_user = security_name(options.session);
    if (!order.has_file()) {
        return order;
    }
    order.server = server_address(order.file().host);
    for (const std::string &agent : options.agents) {
        // one that is too long shows before any copy begins
        file_name(order.file(), {host_value(agent), order.date});
    }
    const bool is_needed = needs_password(order.file());
    // which asks nobody for one that it does not send
    if (takes_password(order.file()) && (!order.is_dry_run || options.password_file)) {
        order.password =
            read_password(options.password_file, order.file().user + '@' + order.file().host,
                          !is_needed, options.hosts_file == "-");
    }
    if ((is_needed || !order.password.empty()) &&
        std::any_of(options.agents.begin(), options.agents.end(), [&](const std::string &agent) {
            return is_readable_on_the_way(options.session, agent);
        })) {
        std::cerr << "config-copy: warning: the password travels to the agent unencrypted: use "
                     "SNMPv3 with -l authPriv\n";
    }
    return order;
}

void tell_interruption(const CopyOrder &order) {
    const std::string rest = words_of_what_goes_on(order.from.type, order.to.type);
    std::cerr << "\nconfig-copy: interrupted: no request stays on the switch"
              << (rest.empty() ? "" : "; once begun, " + rest) << std::endl;
}

Ending copy(const Options &options, const CopyOrder &order, Output &output) {
    if (options.hosts_file) {
        return ending_of_all(
            copy_on_all(options.session, options.agents, order, options.jobs, output));
    }
    const std::string &agent = options.agents.front();
    const Outcome outcome = copy(options.session, agent, order,
                                 [&](std::string_view state, std::chrono::seconds elapsed) {
                                     output.progress(agent, state, elapsed);
                                 });
    output.outcome(outcome);
    return outcome.ending;
}

Ending run(const Options &options, Output &output) {
    if (options.command == Command::help) {
        output.put(usage_text);
        return Ending::done;
    }
    if (options.command == Command::version) {
        output.put("config-copy " CONFIG_COPY_VERSION "\n");
        return Ending::done;
    }
    if (options.command == Command::copy) {
        const CopyOrder order = order_of(options);
        try {
            return copy(options, order, output);
        } catch (const Interrupted &) {
            tell_interruption(order);
            throw;
        }
    }
    const std::string &agent = options.agents.front();
    try {
        Session session = session_with(options.session, agent, options.is_verbose);
        if (options.command == Command::list) {
            list_requests(session, output);
        } else if (options.command == Command::errors) {
            list_errors(session, options.index, output);
        } else {
            abort_request(session, *options.index, output);
        }
    } catch (const Failure &failure) {
        output.failure(failure, agent);
        return failure.ending();
    } catch (const Trouble &trouble) {
        const Failure failure = failure_of(trouble, agent);
        output.failure(failure, agent);
        return failure.ending();
    }
    return Ending::done;
}

Ending run(int count, char **words) {
    std::unique_ptr<Output> output = make_output(false, asks_for_json(count, words), false);
    Ending ending = Ending::done;
    try {
        watch_signals();
        if (const std::optional<Options> options = parse_options(count, words)) {
            output = make_output(options->is_quiet, options->is_json, options->is_verbose);
            ending = run(*options, *output);
        }
    } catch (const Failure &failure) {
        output->failure(failure, "");
        ending = failure.ending();
    } catch (const std::exception &error) {
        ending = Ending::failed;
        output->failure({ending, error.what()}, "");
    }
    if (output->error() != 0) {
        std::cerr << "config-copy: standard output can't be written: "
                  << std::strerror(output->error()) << std::endl;
        return ending == Ending::done ? Ending::failed : ending;
    }
    return ending;
}

int main_of(int count, char **words) {
    try {
        return static_cast<int>(run(count, words));
    } catch (const Interrupted &) {
        end_by_signal(interrupting_signal());
    }
}

} // namespace
} // namespace config_copy

int main(int count, char **words) {
    return config_copy::main_of(count, words);
}
