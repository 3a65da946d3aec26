#include "config-copy/many_hosts.h"

#include "config-copy/agent_session.h"
#include "config-copy/interrupt.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <semaphore>
#include <thread>

namespace config_copy {
namespace {

// Agents that are asked or wait for their place, beside those that copy: so many may be silent and
// hold up nobody.
constexpr rlim_t most_beside = 512;

// How many agents to be in contact with at a time. The files that the process may open bound it, as
// each contact holds a socket, and before that, while its name is looked up, one for each of up to
// three name servers. Waiting is no bound: it is poll(2)'s, and the library's sets of descriptors
// grow. The soft limit of 1024 that processes mostly begin with is there for select(2), so it may
// be raised.
std::size_t contacts_for(std::size_t agents, int jobs) {
    constexpr rlim_t files_each = 3;
    constexpr rlim_t other_files = 32;
    const rlim_t wanted = std::min<rlim_t>(agents, static_cast<rlim_t>(jobs) + most_beside);
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    if (const rlim_t needed = wanted * files_each + other_files; files.rlim_cur < needed) {
        files.rlim_cur = std::min(needed, files.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    return std::clamp<rlim_t>(
        files.rlim_cur > other_files ? (files.rlim_cur - other_files) / files_each : 0, 1, wanted);
}

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

Outcome copy_on(const netsnmp_session &defaults, const std::string &agent, const CopyOrder &order,
                std::counting_semaphore<> &places) {
    Outcome outcome = planned(order, agent);
    try {
        Session session = session_with(defaults, agent, order.is_verbose);
        // An agent that does not answer takes no place.
        session.get({copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, largest_index)});
        const Place place(places);
        return copy(session, order, [](std::string_view, std::chrono::seconds) {});
    } catch (const Failure &failure) {
        outcome.fail(failure);
    } catch (const Trouble &trouble) {
        outcome.fail(failure_of(trouble, agent));
    } catch (const std::exception &error) {
        outcome.fail({Ending::failed, agent + ": " + error.what()});
    }
    return outcome;
}

} // namespace

std::vector<Outcome> copy_on_all(const netsnmp_session &defaults,
                                 const std::vector<std::string> &agents, const CopyOrder &order,
                                 int jobs, Output &output) {
    std::vector<Outcome> outcomes(agents.size());
    std::atomic<std::size_t> next = 0;
    std::counting_semaphore<> places(jobs);
    const auto work = [&] {
        try {
            for (std::size_t i = next++; i < agents.size() && interrupting_signal() == 0;
                 i = next++) {
                outcomes[i] = copy_on(defaults, agents[i], order, places);
                output.outcome(outcomes[i]);
            }
        } catch (const Interrupted &) { // the others find out themselves
        }
    };
    {
        const std::size_t contacts = contacts_for(agents.size(), jobs);
        std::vector<std::jthread> workers;
        for (std::size_t i = 0; i < contacts; ++i) {
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
