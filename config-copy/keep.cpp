#include "config-copy/keep.h"

#include "config-copy/agent_session.h"
#include "config-copy/copy_run.h"

#include <algorithm>

namespace config_copy {
namespace {

using namespace std::chrono_literals;

// For routes and neighbours to settle after the change.
constexpr auto longest_silence = 30s;

constexpr const char *what_follows =
    ", so it is not saved: with the setting confirm_limit the switch goes back by itself to the "
    "configuration before, otherwise when it restarts";

// Throws Trouble or Failure if the agent does not answer.
void await_answer(const Agent &agent, const CopyJob &job, const Progress &progress) {
    const auto began = Clock::now();
    for (;;) {
        const auto waited = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began);
        progress("waiting for an answer", waited);
        try {
            Session session =
                session_with(*agent.settings, agent.name, job.is_verbose,
                             std::min<std::chrono::seconds>(job.time_limit, longest_silence));
            session.get({copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, largest_index)});
            return;
        } catch (const Trouble &) {
            if (Clock::now() - began >= longest_silence) {
                throw;
            }
        }
    }
}

Outcome saved(const Agent &agent, const CopyJob &job, const Progress &progress) {
    CopyJob save = job;
    save.from = {FileType::running, {}, {}};
    save.to = {FileType::startup, {}, {}};
    if (job.keeping == Keeping::confirm) {
        try {
            await_answer(agent, job, progress);
        } catch (const Failure &failure) {
            Outcome silent = planned(save, agent);
            silent.fail(failure);
            return silent;
        } catch (const Trouble &trouble) {
            Outcome silent = planned(save, agent);
            silent.fail(failure_of(trouble, agent.name));
            return silent;
        }
    }
    return copy(agent, save, progress);
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
    const Outcome save = saved(agent, job, progress);
    outcome.is_saved = save.status == ExitStatus::done;
    if (*outcome.is_saved) {
        outcome.text += "; saved to startup";
        return;
    }
    outcome.status = save.status;
    outcome.text += ", but " + save.text + what_follows;
}

} // namespace config_copy
