#include "config-copy/copies/keep.h"

#include "config-copy/agents/agent_session.h"
#include "config-copy/copies/copy_line.h"
#include "config-copy/copies/copy_run.h"
#include "config-copy/interrupt.h"

#include <algorithm>

namespace config_copy {
namespace {

using namespace std::chrono_literals;

// What a change cuts off may answer for a moment longer.
constexpr auto settling_time = 2s;
// For routes and neighbours to come back after the change.
constexpr auto longest_silence = 30s;

constexpr const char *what_follows =
    ", so it is not saved: with the setting confirm_limit the switch goes back by itself to the "
    "configuration before, otherwise when it restarts";
constexpr const char *went_back = ", but the switch has gone back to the configuration before: the "
                                  "change was not saved within its confirm_limit";
constexpr const char *perhaps_went_back =
    "; running was saved to startup, but whether the switch had gone back to the configuration "
    "before by then is not known: ";

// Whether the change is no longer in force, as far as the switch tells. Throws Trouble or Failure
// if the agent does not answer.
bool is_undone(const Agent &agent, const CopyJob &job, const Outcome &outcome) {
    Session session = session_with(*agent.settings, agent.name, job.is_verbose,
                                   std::min<std::chrono::seconds>(job.time_limit, longest_silence));
    session.get({copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, largest_index)});
    const auto line = line_of_copy(session, *outcome.index, outcome.started);
    return line && line->is_undone;
}

// The same, and repeats it while the agent does not answer.
bool is_undone_after_silence(const Agent &agent, const CopyJob &job, const Outcome &outcome,
                             const Progress &progress) {
    const auto limit = std::min<std::chrono::seconds>(job.time_limit, longest_silence);
    copy_client::pause_for(settling_time, interrupt_descriptor());
    const auto began = Clock::now();
    for (;;) {
        progress({"waiting for an answer",
                  std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began)});
        try {
            return is_undone(agent, job, outcome);
        } catch (const Trouble &) {
            if (Clock::now() - began >= limit) {
                throw;
            }
        }
    }
}

// Throws Trouble or Failure if the agent does not answer.
void save(const Agent &agent, const CopyJob &job, const Progress &progress, Outcome &outcome) {
    bool is_over = job.keeping == Keeping::confirm
                       ? is_undone_after_silence(agent, job, outcome, progress)
                       : is_undone(agent, job, outcome);
    if (!is_over) {
        CopyJob save = job;
        save.from = {FileType::running, {}, {}};
        save.to = {FileType::startup, {}, {}};
        const Outcome saved = copy(agent, save, progress);
        if (saved.status != ExitStatus::done) {
            outcome.status = saved.status;
            outcome.text += ", but " + saved.text + what_follows;
            return;
        }
        outcome.is_saved.reset(); // perhaps it was undone shortly before
        is_over = is_undone(agent, job, outcome);
    }
    outcome.is_saved = !is_over;
    if (is_over) {
        outcome.status = ExitStatus::failed;
        outcome.text += went_back;
        return;
    }
    outcome.text += "; saved to startup";
}

} // namespace

void keep(const Agent &agent, const CopyJob &job, const Progress &progress, Outcome &outcome) {
    if (job.keeping == Keeping::no || job.is_dry_run) {
        return;
    }
    if (outcome.status != ExitStatus::done) {
        if (outcome.status == ExitStatus::unreachable && !outcome.start_time.empty()) {
            outcome.is_saved = false;
            outcome.text += "; it may be in force, and is not confirmed";
            outcome.text += what_follows;
        }
        return;
    }
    outcome.is_saved = false;
    const auto fail = [&](const Failure &failure) {
        outcome.status = failure.status();
        outcome.text += outcome.is_saved ? std::string(", but ") + failure.what() + what_follows
                                         : std::string(perhaps_went_back) + failure.what();
    };
    try {
        save(agent, job, progress, outcome);
    } catch (const Failure &failure) {
        fail(failure);
    } catch (const Trouble &trouble) {
        fail(failure_of(trouble, agent.name));
    }
}

} // namespace config_copy
