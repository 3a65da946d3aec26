#include "manager/many_hosts.h"

#include "manager/interrupt.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <semaphore>
#include <thread>

namespace config_copy {
namespace {

// Each has a socket, and select(2), with which the library waits for an answer, takes 1024 descriptors.
constexpr std::size_t most_contacts = 512;

// One of the copies that may run at a time, held as long as the object is there.
class Place {
  public:
    explicit Place(std::counting_semaphore<> &places) : places_(places) {
        while (!places_.try_acquire_for(std::chrono::milliseconds(100))) {
            if (interrupting_signal() != 0) {
                throw Interrupted{};
            }
        }
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;
    ~Place() { places_.release(); }

  private:
    std::counting_semaphore<> &places_;
};

Outcome copy_on(const netsnmp_session &defaults, const std::string &agent, const CopyOrder &order, std::counting_semaphore<> &places) {
    try {
        Session session(defaults, agent);
        session.get({copy_cell(column_row_status, largest_index)}); // who does not answer takes no place
        const Place place(places);
        return copy(session, order, [](std::string_view, std::chrono::seconds) {});
    } catch (const Failure &failure) {
        return outcome_of(agent, failure);
    } catch (const std::exception &error) {
        return outcome_of(agent, {Ending::failed, agent + ": " + error.what()});
    }
}

} // namespace

std::vector<Outcome> copy_on_all(const netsnmp_session &defaults, const std::vector<std::string> &agents, const CopyOrder &order, int jobs,
                                 Output &output) {
    std::vector<Outcome> outcomes(agents.size());
    std::atomic<std::size_t> next = 0;
    std::counting_semaphore<> places(jobs);
    const auto work = [&] {
        try {
            for (std::size_t i = next++; i < agents.size() && interrupting_signal() == 0; i = next++) {
                outcomes[i] = copy_on(defaults, agents[i], order, places);
                output.outcome(outcomes[i]);
            }
        } catch (const Interrupted &) { // the others find out themselves
        }
    };
    {
        std::vector<std::jthread> workers;
        for (std::size_t i = 0; i < std::min(agents.size(), most_contacts); ++i) {
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
