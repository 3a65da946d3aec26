#include "config-copy/after/metrics.h"

#include "base/posix.h"
#include "base/replaced_file.h"
#include "config-copy/command_line/text_file.h"
#include "config-copy/output/json_output.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <system_error>

namespace config_copy {
namespace {

constexpr mode_t for_everybody = 0644; // the collector runs as another user
constexpr std::string_view success_metric = "config_copy_last_success_timestamp_seconds";

std::string label(std::string_view name, const std::string &value) {
    std::string text = std::string(name) + "=\"";
    for (const char c : utf8_of(value)) {
        if (c == '\n') {
            text += "\\n";
        } else {
            text.append(c == '\\' || c == '"' ? "\\" : "").push_back(c);
        }
    }
    return text + '"';
}

// Labels without a value are the same as none.
std::string labels_of(const std::string &profile, const Outcome &outcome) {
    return label("agent", outcome.agent) +
           (outcome.group.empty() ? "" : ',' + label("group", outcome.group)) +
           (profile.empty() ? "" : ',' + label("profile", profile));
}

struct Metric {
    std::string_view name;
    std::string_view help;
    // Empty: there is none for the agent.
    std::function<std::string(const Outcome &outcome, const std::string &labels)> value;
    // In addition to those that each metric has.
    std::function<std::string(const Outcome &outcome)> labels = {};
};

bool is_time(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](unsigned char c) { return std::isdigit(c) != 0; });
}

Successes former_successes(const std::string &file) {
    try {
        return successes_in(read_text_file(file).text);
    } catch (const std::system_error &error) {
        if (error.code().value() == ENOENT) {
            return {};
        }
        throw;
    }
}

} // namespace

Successes successes_in(std::string_view text) {
    Successes found;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const std::size_t blank = line.rfind(' ');
        if (line.starts_with(success_metric) && blank != std::string_view::npos &&
            is_time(line.substr(blank + 1))) {
            found.emplace(line.substr(success_metric.size(), blank - success_metric.size()),
                          line.substr(blank + 1));
        }
    }
    return found;
}

std::string metrics_text(const std::string &profile, const std::vector<Outcome> &outcomes,
                         std::time_t now, const Successes &former) {
    std::string time = std::to_string(now);
    const std::vector<Metric> metrics{
        {"config_copy_last_run_timestamp_seconds", "When the last run ended.",
         [&](const Outcome &, const std::string &) { return time; }},
        {success_metric, "When the last run in which this agent's copy was done ended.",
         [&](const Outcome &outcome, const std::string &labels) {
             const auto known = former.find(labels);
             return outcome.status == ExitStatus::done ? time
                    : known == former.end()            ? std::string()
                                                       : known->second;
         }},
        {"config_copy_outcome", "How the last copy ended, in the labels; always 1.",
         [](const Outcome &, const std::string &) { return std::string("1"); },
         [](const Outcome &outcome) {
             return ',' + label("ending", key_of(outcome.status)) + ',' +
                    label("cause", outcome.cause);
         }},
        {"config_copy_seconds", "How long the last copy took by the switch's clock.",
         [](const Outcome &outcome, const std::string &) {
             return outcome.seconds ? seconds_text(*outcome.seconds) : std::string();
         }},
        {"config_copy_bytes", "The size of the last copy.",
         [](const Outcome &outcome, const std::string &) {
             return outcome.bytes ? std::to_string(*outcome.bytes) : std::string();
         }},
        {"config_copy_unchanged", "1 if the file had the same content before, otherwise 0.",
         [](const Outcome &outcome, const std::string &) {
             return outcome.is_unchanged ? std::to_string(int{*outcome.is_unchanged})
                                         : std::string();
         }}};
    std::string text;
    for (const Metric &metric : metrics) {
        const std::string name(metric.name);
        text.append("# HELP ").append(name).append(" ").append(metric.help).append("\n");
        text.append("# TYPE ").append(name).append(" gauge\n");
        for (const Outcome &outcome : outcomes) {
            const std::string labels = labels_of(profile, outcome);
            const std::string value = metric.value(outcome, '{' + labels + '}');
            if (!value.empty()) {
                text.append(name).append("{").append(labels);
                text.append(metric.labels ? metric.labels(outcome) : "").append("} ");
                text.append(value).append("\n");
            }
        }
    }
    return text;
}

void write_metrics(const std::string &file, const std::string &profile,
                   const std::vector<Outcome> &outcomes, std::time_t now) {
    try {
        ulmo::ReplacedFile replaced(std::filesystem::absolute(file),
                                    metrics_text(profile, outcomes, now, former_successes(file)),
                                    ulmo::ReplacedFile::Manner::unlocked);
        ulmo::check(::fchmod(replaced.descriptor(), for_everybody), "cannot open up", file);
        replaced.commit();
    } catch (const std::system_error &error) {
        throw Failure(ExitStatus::failed,
                      "--metrics: " + file + " can't be written: " + error.code().message());
    }
}

} // namespace config_copy
