#include "config-copy/many_hosts.h"

#include "config-copy/agent_session.h"
#include "config-copy/difference.h"
#include "config-copy/interrupt.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <semaphore>
#include <thread>

namespace config_copy {
namespace {

// Agents that are being contacted or wait for a slot, in addition to those that copy: as many as
// this may be silent without delaying others.
constexpr rlim_t most_in_advance = 512;

// The number of agents to be in contact with at a time. It is limited by the files that the process
// may open: each contact holds a socket and, while its name is looked up, one for each of up to
// three name servers. Waiting sets no limit, because it uses poll(2) and descriptor sets of the
// library that grow. The usual soft limit of 1024 exists for select(2), so it may be raised.
std::size_t contacts_for(std::size_t agents, int jobs) {
    constexpr rlim_t files_each = 3;
    constexpr rlim_t other_files = 32;
    const rlim_t wanted = std::min<rlim_t>(agents, static_cast<rlim_t>(jobs) + most_in_advance);
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    if (const rlim_t needed = wanted * files_each + other_files; files.rlim_cur < needed) {
        files.rlim_cur = std::min(needed, files.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    return static_cast<std::size_t>(std::clamp<rlim_t>(
        files.rlim_cur > other_files ? (files.rlim_cur - other_files) / files_each : 0, 1, wanted));
}

// One of the copies that may run at a time; held while the object exists.
class Slot {
  public:
    explicit Slot(std::counting_semaphore<> &slots) : slots_(slots) {
        while (!slots_.try_acquire_for(std::chrono::milliseconds(100))) {
            if (interrupting_signal() != 0) {
                throw Interrupted{};
            }
        }
    }
    Slot(const Slot &) = delete;
    Slot &operator=(const Slot &) = delete;
    ~Slot() { slots_.release(); }

  private:
    std::counting_semaphore<> &slots_;
};

Outcome copy_on(const Agent &agent, const CopyJob &job, std::counting_semaphore<> &slots) {
    Outcome outcome = planned(job, agent);
    try {
        Session session = session_with(*agent.settings, agent.name, job.is_verbose, job.time_limit);
        // An agent that does not answer does not get a slot.
        session.get({copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, largest_index)});
        const Slot slot(slots);
        session.set_deadline(Clock::now() + job.time_limit, false);
        const Progress silent = [](const Step &) {};
        if (job.is_diff) {
            return compare(agent, job, silent);
        }
        outcome = copy(session, agent, job, silent);
        keep(agent, job, silent, outcome);
        show_what_a_restore_brings(agent, job, silent, outcome);
    } catch (const Failure &failure) {
        outcome.fail(failure);
    } catch (const Trouble &trouble) {
        outcome.fail(failure_of(trouble, agent.name));
    } catch (const std::exception &error) {
        outcome.fail({ExitStatus::failed, agent.name + ": " + error.what()});
    }
    return outcome;
}

} // namespace

std::vector<Outcome> copy_on_all(const std::vector<Agent> &agents, const CopyJob &job, int jobs,
                                 Output &output) {
    std::vector<Outcome> outcomes(agents.size());
    std::atomic<std::size_t> next = 0;
    std::counting_semaphore<> slots(jobs);
    std::mutex mutex;
    std::string left;
    const auto work = [&] {
        try {
            for (std::size_t i = next++; i < agents.size() && interrupting_signal() == 0;
                 i = next++) {
                outcomes[i] = copy_on(agents[i], job, slots);
                output.outcome(outcomes[i]);
            }
        } catch (const InterruptedWithRequests &interrupted) {
            const std::lock_guard lock(mutex);
            left += (left.empty() ? "" : "; ") + interrupted.text;
        } catch (const Interrupted &) { // the others will notice the signal themselves
        }
    };
    {
        const std::size_t contacts = contacts_for(agents.size(), jobs);
        std::vector<std::jthread> workers;
        for (std::size_t i = 0; i < contacts; ++i) {
            workers.emplace_back(work);
        }
    }
    if (!left.empty()) {
        throw InterruptedWithRequests{{}, left};
    }
    if (interrupting_signal() != 0) {
        throw Interrupted{};
    }
    output.summary(outcomes);
    return outcomes;
}

} // namespace config_copy
