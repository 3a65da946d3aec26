#include "config-copy/copies/difference.h"

#include "base/posix.h"
#include "base/program_run.h"
#include "base/text.h"
#include "config-copy/agents/agent_session.h"
#include "config-copy/copies/local_file.h"

#include <unistd.h>

#include <chrono>
#include <sstream>

namespace config_copy {
namespace {

constexpr const char *diff_program = "/usr/bin/diff";
constexpr std::chrono::seconds longest_comparison(60);

// A file in memory as a program of ours finds it by name.
std::string path_of(const ulmo::UniqueFd &file) {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(file.get());
}

bool has_replace_line(std::string_view text) {
    return ulmo::trimmed(text.substr(0, text.find('\n'))) == replace_line;
}

// The line is no part of a configuration, but tells what to do with it.
std::string without_replace_line(std::string text) {
    if (has_replace_line(text)) {
        const std::size_t end = text.find('\n');
        text.erase(0, end == std::string::npos ? end : end + 1);
    }
    return text;
}

// The content of FROM or TO; empty, with the outcome of the copy that failed, if it can't be had.
std::optional<std::string> content_at(const Agent &agent, const Endpoint &endpoint,
                                      const CopyJob &job, const Progress &progress,
                                      Outcome &outcome) {
    if (endpoint.is_local()) {
        return content_of(
            job.content ? job.content->get()
                        : snapshot(local_path(endpoint, path_values(job, agent)), false).get());
    }
    CopyJob fetch = job;
    fetch.from = endpoint;
    fetch.to = {FileType::network, {}, "this machine"};
    fetch.is_dry_run = false;
    fetch.into = std::make_shared<ulmo::UniqueFd>(memory_file());
    const Outcome fetched = copy(agent, fetch, progress);
    if (fetched.status != ExitStatus::done) {
        outcome.status = fetched.status;
        outcome.text = fetched.text;
        return std::nullopt;
    }
    return content_of(fetch.into->get());
}

std::string count_of_lines(const Difference &difference) {
    return std::to_string(difference.added) + (difference.added == 1 ? " line" : " lines") +
           " added, " + std::to_string(difference.removed) + " removed";
}

// Compares, unless the outcome tells why not. Returns whether TO begins with the line that makes it
// replace a configuration.
bool compare(Agent agent, const CopyJob &job, const Endpoint &from, const Endpoint &to,
             const Progress &progress, Outcome &outcome) {
    if (has_template(from, "name") || has_template(to, "name")) {
        try {
            Session session =
                session_with(*agent.settings, agent.name, job.is_verbose, job.time_limit);
            learn_name(session, job, agent);
        } catch (const Failure &failure) {
            outcome.fail(failure);
            return false;
        } catch (const Trouble &trouble) {
            outcome.fail(failure_of(trouble, agent.name));
            return false;
        }
    }
    const PathValues values = path_values(job, agent);
    outcome.from = endpoint_text(job.from, values);
    outcome.to = endpoint_text(job.to, values);
    const auto one = content_at(agent, from, job, progress, outcome);
    const auto other = one ? content_at(agent, to, job, progress, outcome) : std::nullopt;
    if (!one || !other) {
        return false;
    }
    outcome.difference = difference(without_replace_line(*one), without_replace_line(*other),
                                    endpoint_text(from, values), endpoint_text(to, values));
    return has_replace_line(*other);
}

} // namespace

Difference difference(const std::string &from, const std::string &to, const std::string &from_name,
                      const std::string &to_name) {
    Difference found;
    if (from == to) {
        return found;
    }
    const ulmo::UniqueFd second = memory_file();
    ulmo::write_whole(second.get(), to, to_name);
    // A change between empty lines takes most: its heading with the numbers of the lines is longer
    // than all of them.
    const std::size_t largest =
        8 * (from.size() + to.size()) + from_name.size() + to_name.size() + 4096;
    const ulmo::ProgramCall call{
        {diff_program, "-a", "-u", "--label", from_name, "--label", to_name, "-", path_of(second)},
        from,
        longest_comparison,
        largest};
    const ulmo::ProgramEnd end = ulmo::run_program(call);
    if (end.exit_status != 1) {
        throw Failure(ExitStatus::failed,
                      std::string(diff_program) + ": " + ulmo::failure_of(call, end));
    }
    found.text = end.output;
    std::istringstream lines(found.text);
    std::string line;
    std::getline(lines, line); // the two headings
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        found.added += line.starts_with('+') ? 1 : 0;
        found.removed += line.starts_with('-') ? 1 : 0;
    }
    return found;
}

Outcome compare(const Agent &agent, const CopyJob &job, const Progress &progress) {
    Outcome outcome = planned(job, agent);
    compare(agent, job, job.from, job.to, progress, outcome);
    if (outcome.difference) {
        const bool is_different = outcome.difference->any();
        outcome.status = is_different ? ExitStatus::different : ExitStatus::done;
        outcome.text =
            agent.name + ": " + outcome.from + " and " + outcome.to +
            (is_different ? " differ: " + count_of_lines(*outcome.difference) : " are the same");
    }
    return outcome;
}

void show_what_a_restore_brings(const Agent &agent, const CopyJob &job, const Progress &progress,
                                Outcome &outcome) {
    if (!job.is_dry_run || !job.from.is_local() || outcome.status != ExitStatus::done) {
        return;
    }
    const std::string planned_text = outcome.text;
    const bool replaces =
        compare(agent, job, {FileType::running, {}, {}}, job.from, progress, outcome);
    if (outcome.difference) {
        outcome.text =
            planned_text + "; compared with running: " + count_of_lines(*outcome.difference);
        if (outcome.difference->removed > 0 && !replaces && !job.is_replacement) {
            outcome.text += " (but a line that the file lacks stays, unless --replace is given)";
        }
    }
}

} // namespace config_copy
