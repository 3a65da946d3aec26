#include "config-copy/after/failed_hosts.h"

#include "base/replaced_file.h"
#include "config-copy/command_line/text_file.h"

#include <filesystem>
#include <system_error>

namespace config_copy {
namespace {

std::string line_of(const Agent &agent, const Outcome &outcome) {
    std::string line = quoted(agent.name);
    if (agent.listed_options) {
        const std::vector<std::string> words = agent.listed_options->words();
        for (std::size_t i = 0; i + 1 < words.size(); i += 2) { // an option and its value
            if (!is_secret(words[i].at(1))) {
                line += ' ' + words[i] + ' ' + quoted(words[i + 1]);
            }
        }
    }
    return line + " # " + std::string(name_of(outcome.status)) +
           (outcome.cause.empty() ? "" : ", " + outcome.cause) + '\n';
}

} // namespace

std::string failed_hosts_text(const std::vector<Agent> &agents,
                              const std::vector<Outcome> &outcomes) {
    std::string text;
    std::string group;
    for (std::size_t i = 0; i < agents.size(); ++i) {
        if (outcomes[i].status == ExitStatus::done) {
            continue;
        }
        if (agents[i].group != group) { // a group's agents follow each other
            group = agents[i].group;
            text += '[' + group + "]\n";
        }
        text += line_of(agents[i], outcomes[i]);
    }
    return text;
}

void write_failed_hosts(const std::string &file, const std::vector<Agent> &agents,
                        const std::vector<Outcome> &outcomes) {
    try {
        ulmo::ReplacedFile(std::filesystem::absolute(file), failed_hosts_text(agents, outcomes),
                           ulmo::ReplacedFile::Manner::unlocked)
            .commit();
    } catch (const std::system_error &error) {
        throw Failure(ExitStatus::failed,
                      "--failed-hosts: " + file + " can't be written: " + error.code().message());
    }
}

} // namespace config_copy
