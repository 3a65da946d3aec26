// Texts for people, with a live line on a terminal.
#include "config-copy/output/text_output.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <utility>

namespace config_copy {
namespace {

const std::vector<std::string> switch_headings{"ADDRESS", "SWITCH", "REPORTED"};

std::vector<std::vector<std::string>> switch_rows(const std::vector<SwitchOutcome> &switches) {
    std::vector<std::vector<std::string>> rows;
    rows.reserve(switches.size());
    for (const auto &[address, wwn, text] : switches) {
        rows.push_back({address.empty() ? std::string(absent) : address, wwn, text});
    }
    return rows;
}

// Success goes to standard output, everything else to standard error.
class TextOutput : public Output {
  public:
    TextOutput(const Style &style, bool has_live_line)
        : style_(style), has_live_line_(has_live_line) {}

    // On a terminal the line is redrawn; elsewhere only changes are printed.
    void progress(std::string_view agent, const Step &step) override {
        if (style_.is_quiet) {
            return;
        }
        const std::string line = std::string(agent) + ": " + std::string(step.state);
        if (has_live_line_) {
            put('\r' + line + ", " + std::to_string(step.elapsed.count()) + " s" +
                (step.octets ? ", " + octets_text(*step.octets) : "") + "\033[K");
            is_live_ = true;
        } else if (step.state != last_state_ && !style_.is_diff) { // whose output is the difference
            put(line + '\n');
        }
        last_state_ = step.state;
    }

    void outcome(const Outcome &outcome) override {
        const std::lock_guard lock(mutex_);
        end_live_line();
        const std::string told =
            (outcome.group.empty() ? "" : '[' + outcome.group + "] ") + outcome.text;
        if (outcome.difference && !style_.has_many_agents) {
            const bool has_colours = has_live_line_ && std::getenv("NO_COLOR") == nullptr;
            if (!style_.is_quiet) {
                put(has_colours ? coloured(outcome.difference->text) : outcome.difference->text);
            }
            if (style_.is_diff) {
                return; // as diff(1), it says no more
            }
        }
        if (outcome.status == ExitStatus::done || outcome.status == ExitStatus::different) {
            line(told);
            return;
        }
        std::string text = "config-copy: " + told + '\n';
        if (!outcome.switches.empty()) {
            text += lines(switch_headings, switch_rows(outcome.switches));
        }
        std::cerr << text << std::flush;
    }

    void retrying(std::size_t agents, std::chrono::seconds pause) override {
        end_live_line();
        if (style_.is_diff && !style_.has_many_agents) { // whose output is the difference
            return;
        }
        line(std::to_string(agents) + (agents == 1 ? " agent is" : " agents are") +
             " tried again in " + std::to_string(pause.count()) + " s");
    }

    void summary(const std::vector<Outcome> &outcomes) override {
        line(summary_of(outcomes, style_.is_diff));
    }

    void table(const Table &table) override {
        if (table.rows.empty()) {
            line(table.when_empty);
            return;
        }
        std::vector<std::string> headings;
        headings.reserve(table.headings.size());
        for (const Heading &heading : table.headings) {
            headings.push_back(heading.text);
        }
        put(lines(headings, table.rows));
    }

    void removed(const std::string &, unsigned long, const std::string &text) override {
        line(text);
    }

    void failure(const Failure &failure, const std::string &) override {
        end_live_line();
        std::cerr << "config-copy: " + std::string(failure.what()) + '\n' << std::flush;
    }

  private:
    void line(const std::string &text) {
        if (!style_.is_quiet) {
            put(text + '\n');
        }
    }

    static std::string lines(const std::vector<std::string> &headings,
                             const std::vector<std::vector<std::string>> &rows) {
        std::string text;
        for (const std::string &line : table_lines(headings, rows)) {
            text += line + '\n';
        }
        return text;
    }

    void end_live_line() {
        if (std::exchange(is_live_, false)) {
            put("\r\033[K");
        }
    }

    Style style_;
    bool has_live_line_;
    bool is_live_ = false;
    std::string last_state_;
};

} // namespace

std::unique_ptr<Output> text_output(const Style &style, bool has_live_line) {
    return std::make_unique<TextOutput>(style, has_live_line);
}

std::string summary_of(const std::vector<Outcome> &outcomes, bool is_diff) {
    const bool is_dry_run = !outcomes.empty() && outcomes.front().is_dry_run;
    std::string text =
        std::to_string(outcomes.size()) + (outcomes.size() == 1 ? " agent" : " agents");
    for (const ExitStatus status : all_statuses) {
        const bool is_done = status == ExitStatus::done;
        if (const std::size_t count = count_of(outcomes, status); count > 0 || is_done) {
            text += (is_done ? ": " : ", ") + std::to_string(count) + ' ';
            text += is_done && is_diff            ? "same"
                    : is_done && is_dry_run       ? "ready"
                    : status == ExitStatus::usage ? "with unusable input"
                                                  : name_of(status);
        }
        if (const auto unchanged = std::count_if(
                outcomes.begin(), outcomes.end(),
                [](const Outcome &outcome) { return outcome.is_unchanged.value_or(false); });
            is_done && unchanged > 0) {
            text += " (" + std::to_string(unchanged) + " unchanged)";
        }
    }
    return text;
}

std::string coloured(const std::string &difference) {
    std::string text;
    std::istringstream lines(difference);
    for (std::string line; std::getline(lines, line);) {
        const char *colour = line.starts_with("---") || line.starts_with("+++") ? "\033[1m"
                             : line.starts_with('-')                            ? "\033[31m"
                             : line.starts_with('+')                            ? "\033[32m"
                             : line.starts_with("@@")                           ? "\033[36m"
                                                                                : "";
        text += *colour == '\0' ? line + '\n' : colour + line + "\033[0m\n";
    }
    return text;
}

std::vector<std::string> table_lines(const std::vector<std::string> &headings,
                                     const std::vector<std::vector<std::string>> &rows) {
    std::vector<std::size_t> widths(headings.size(), 0);
    std::vector<std::vector<std::string>> all{headings};
    all.insert(all.end(), rows.begin(), rows.end());
    for (const auto &row : all) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::vector<std::string> lines;
    for (const auto &row : all) {
        std::string line;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            line += row[i];
            line.append(i + 1 < widths.size() ? widths[i] - row[i].size() + 2 : 0, ' ');
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

} // namespace config_copy
