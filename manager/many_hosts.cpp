#include "manager/many_hosts.h"

#include "manager/interrupt.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>

namespace config_copy {
namespace {

Outcome copy_on(const netsnmp_session &defaults, const std::string &agent, const CopyOrder &order) {
    try {
        return copy(defaults, agent, order, [](std::string_view, std::chrono::seconds) {});
    } catch (const std::exception &error) {
        Outcome outcome;
        outcome.agent = agent;
        outcome.ending = Ending::failed;
        outcome.text = agent + ": " + error.what();
        return outcome;
    }
}

} // namespace

std::vector<Outcome> copy_on_all(const netsnmp_session &defaults, const std::vector<std::string> &agents, const CopyOrder &order, int jobs,
                                 Output &output) {
    std::vector<Outcome> outcomes(agents.size());
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        try {
            for (std::size_t i = next++; i < agents.size() && interrupting_signal() == 0; i = next++) {
                outcomes[i] = copy_on(defaults, agents[i], order);
                output.outcome(outcomes[i]);
            }
        } catch (const Interrupted &) { // the others find out themselves
        }
    };
    {
        std::vector<std::jthread> workers;
        for (std::size_t i = 0; i < std::min(agents.size(), static_cast<std::size_t>(jobs)); ++i) {
            workers.emplace_back(work);
        }
    }
    if (interrupting_signal() != 0) {
        throw Interrupted{};
    }
    output.summary(outcomes);
    return outcomes;
}

} // namespace config_copy
