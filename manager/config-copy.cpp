// config-copy: copies configurations of switches over SNMP. See config-copy(1).
#include "manager/copy_run.h"
#include "manager/failure.h"
#include "manager/interrupt.h"
#include "manager/many_hosts.h"
#include "manager/options.h"
#include "manager/output.h"
#include "manager/password.h"
#include "manager/requests.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <iostream>

namespace config_copy {
namespace {

CopyOrder order_of(const Options &options) {
    CopyOrder order;
    order.from = options.from;
    order.to = options.to;
    order.date = date_value(std::time(nullptr));
    order.wait_turn = options.wait_turn;
    order.time_limit = options.time_limit;
    if (!order.has_file()) {
        return order;
    }
    order.server = server_address(order.file().host);
    for (const std::string &agent : options.agents) {
        file_name(order.file(), {host_value(agent), order.date}); // one that is too long shows before any copy begins
    }
    if (takes_password(order.file())) {
        order.password = read_password(options.password_file, order.file().user + '@' + order.file().host, !needs_password(order.file()));
    }
    if (!order.password.empty() && std::any_of(options.agents.begin(), options.agents.end(),
                                               [&](const std::string &agent) { return is_readable_on_the_way(options.session, agent); })) {
        std::cerr << "config-copy: warning: the password travels to the agent unencrypted: use SNMPv3 with -l authPriv\n";
    }
    return order;
}

void tell_interruption(const CopyOrder &order) {
    std::cerr << "\nconfig-copy: interrupted: no request stays on the switch"
              << (order.has_file() ? "; a transfer that runs may still end there" : "") << std::endl;
}

Ending copy(const Options &options, const CopyOrder &order, Output &output) {
    if (options.hosts_file) {
        return ending_of_all(copy_on_all(options.session, options.agents, order, options.jobs, output));
    }
    const std::string &agent = options.agents.front();
    const Outcome outcome = copy(options.session, agent, order,
                                 [&](std::string_view state, std::chrono::seconds elapsed) { output.progress(agent, state, elapsed); });
    output.outcome(outcome);
    return outcome.ending;
}

Ending run(const Options &options) {
    Output output(options.is_quiet, options.is_json);
    if (options.command == Command::help) {
        std::cout << usage_text;
        return Ending::done;
    }
    if (options.command == Command::version) {
        std::cout << "config-copy " << CONFIG_COPY_VERSION << '\n';
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
    try {
        Session session(options.session, options.agents.front());
        if (options.command == Command::list) {
            list_requests(session, output);
        } else if (options.command == Command::errors) {
            list_errors(session, options.index, output);
        } else {
            abort_request(session, *options.index, output);
        }
    } catch (const Failure &failure) {
        output.outcome(outcome_of(options.agents.front(), failure));
        return failure.ending();
    }
    return Ending::done;
}

int main_of(int count, char **words) {
    try {
        watch_signals();
        const std::optional<Options> options = parse_options(count, words);
        return options ? static_cast<int>(run(*options)) : 0;
    } catch (const Failure &failure) {
        std::cerr << "config-copy: " << failure.what() << std::endl;
        return static_cast<int>(failure.ending());
    } catch (const Interrupted &) {
        end_by_signal(interrupting_signal());
    } catch (const std::exception &error) {
        std::cerr << "config-copy: " << error.what() << std::endl;
        return static_cast<int>(Ending::failed);
    }
}

} // namespace
} // namespace config_copy

int main(int count, char **words) {
    return config_copy::main_of(count, words);
}
