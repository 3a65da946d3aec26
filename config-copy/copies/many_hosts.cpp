#include "config-copy/copies/many_hosts.h"

#include "config-copy/agents/agent_session.h"
#include "config-copy/agents/scout.h"
#include "config-copy/copies/difference.h"
#include "config-copy/interrupt.h"

#include <sys/resource.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <numeric>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace config_copy {
namespace {

// The number of copies that run at a time. It is limited by the files that the process may open:
// each copy holds a socket, a file of this machine, and one more for a moment. The usual soft limit
// of 1024 exists for select(2), which nothing here uses, so it may be raised.
std::size_t copies_at_a_time(std::size_t agents, int jobs) {
    constexpr rlim_t files_each = 3;
    constexpr rlim_t other_files = 256; // of what looks up names
    const rlim_t wanted = std::min<rlim_t>(agents, static_cast<rlim_t>(jobs));
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    if (const rlim_t needed = wanted * files_each + other_files; files.rlim_cur < needed) {
        files.rlim_cur = std::min(needed, files.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    return static_cast<std::size_t>(std::clamp<rlim_t>(
        files.rlim_cur > other_files ? (files.rlim_cur - other_files) / files_each : 0, 1, wanted));
}

// Agents that are there and wait for their copy.
class Queue {
  public:
    struct Ready {
        std::size_t agent;
        std::string address;
    };

    void push(Ready ready) {
        const std::lock_guard lock(mutex_);
        ready_.push_back(std::move(ready));
        news_.notify_one();
    }

    // No more will be pushed.
    void close() {
        const std::lock_guard lock(mutex_);
        is_closed_ = true;
        news_.notify_all();
    }

    // Waits for the next one; empty if there is none, or the user wants to stop.
    std::optional<Ready> pop() {
        std::unique_lock lock(mutex_);
        news_.wait(lock, [&] { return is_closed_ || !ready_.empty(); });
        if (ready_.empty() || interrupting_signal() != 0) {
            return std::nullopt;
        }
        Ready next = std::move(ready_.front());
        ready_.pop_front();
        return next;
    }

    std::size_t size() {
        const std::lock_guard lock(mutex_);
        return ready_.size();
    }

  private:
    std::mutex mutex_;
    std::condition_variable news_;
    std::deque<Ready> ready_;
    bool is_closed_ = false;
};

class Closing {
  public:
    explicit Closing(Queue &queue) : queue_(queue) {}
    Closing(const Closing &) = delete;
    Closing &operator=(const Closing &) = delete;
    ~Closing() { queue_.close(); }

  private:
    Queue &queue_;
};

Outcome copy_on(const Agent &agent, const std::string &address, const CopyJob &job) {
    Outcome outcome = planned(job, agent);
    try {
        const Progress silent = [](const Step &) {};
        if (job.is_diff) {
            return compare(agent, job, silent);
        }
        Session session =
            session_at(*agent.settings, {agent.name, address}, job.is_verbose, job.time_limit);
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

using Report = std::function<void(const Outcome &outcome)>;

// Tries the copy once on each agent.
std::vector<Outcome> try_on_all(const std::vector<Agent> &agents, const CopyJob &job, int jobs,
                                const Report &report, int attempt) {
    std::vector<Outcome> outcomes(agents.size());
    Queue queue;
    Scout scout(agents, job.time_limit, job.is_verbose);
    std::mutex mutex;
    std::string left;
    const auto work = [&] {
        try {
            while (const auto ready = queue.pop()) {
                scout.wake(); // there is room for one more
                outcomes[ready->agent] = copy_on(agents[ready->agent], ready->address, job);
                set_attempts(outcomes[ready->agent], attempt);
                report(outcomes[ready->agent]);
            }
        } catch (const InterruptedWithRequests &interrupted) {
            const std::lock_guard lock(mutex);
            left += (left.empty() ? "" : "; ") + interrupted.text;
        } catch (const Interrupted &) { // the others will notice the signal themselves
        }
    };
    {
        const std::size_t most = copies_at_a_time(agents.size(), jobs);
        std::vector<std::jthread> workers; // as many as were ever needed at a time
        const Closing closing(queue);      // before they are waited for
        const auto found = [&](std::size_t agent, const std::string &address) {
            queue.push({agent, address});
            if (workers.size() < most) {
                try {
                    workers.emplace_back(work);
                } catch (const std::system_error &) { // of those that run each does more
                    if (workers.empty()) {
                        throw;
                    }
                }
            }
        };
        const auto missing = [&](std::size_t agent, const Failure &reason) {
            outcomes[agent] = planned(job, agents[agent]);
            outcomes[agent].fail(reason);
            set_attempts(outcomes[agent], attempt);
            report(outcomes[agent]);
        };
        // An agent that has been found should not wait for long.
        const auto room = [&] { return most - std::min(most, queue.size()); };
        try {
            scout.run({room, found, missing});
        } catch (const Interrupted &) { // the workers clean up
        }
    }
    if (!left.empty()) {
        throw InterruptedWithRequests{{}, left};
    }
    if (interrupting_signal() != 0) {
        throw Interrupted{};
    }
    return outcomes;
}

} // namespace

std::vector<Outcome> copy_on_all(const std::vector<Agent> &agents, const CopyJob &job, int jobs,
                                 const Retries &retries, Output &output) {
    std::vector<Outcome> outcomes(agents.size());
    std::vector<std::size_t> open(agents.size()); // those that have no last outcome
    std::iota(open.begin(), open.end(), 0);
    for (int attempt = 1; !open.empty(); ++attempt) {
        if (attempt > 1) {
            wait_for_retry(open.size(), retries.pause, output);
        }
        const auto is_last = [&](const Outcome &outcome) {
            return attempt > retries.count || !may_pass(outcome);
        };
        const Report report = [&](const Outcome &outcome) {
            if (is_last(outcome)) {
                output.outcome(outcome);
            }
        };
        std::vector<Agent> tried;
        tried.reserve(open.size());
        for (const std::size_t agent : open) {
            tried.push_back(agents[agent]);
        }
        std::vector<Outcome> ended = try_on_all(tried, job, jobs, report, attempt);
        std::vector<std::size_t> still_open;
        for (std::size_t i = 0; i < open.size(); ++i) {
            if (!is_last(ended[i])) {
                still_open.push_back(open[i]);
            }
            outcomes[open[i]] = std::move(ended[i]);
        }
        open = std::move(still_open);
    }
    output.summary(outcomes);
    return outcomes;
}

} // namespace config_copy
