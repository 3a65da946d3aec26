#include "config-copy/output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <iostream>

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

std::string in_lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// How many octets the character takes that the text begins with, one of several octets; 0 when it is not well formed (RFC 3629, section 4).
std::size_t utf8_length(std::string_view text) {
    const auto octet = [&](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const unsigned first = octet(0);
    const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    const unsigned least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80; // no longer form than needed
    const unsigned most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;  // no surrogates, nothing beyond U+10FFFF
    for (std::size_t at = 1; at < length; ++at) {
        if (octet(at) < (at == 1 ? least : 0x80) || octet(at) > (at == 1 ? most : 0xBF)) {
            return 0;
        }
    }
    return length;
}

// The name of an ending without blanks.
std::string key_of(Ending ending) {
    std::string key(name_of(ending));
    std::replace(key.begin(), key.end(), ' ', '_');
    return key;
}

std::string json_or_null(const std::string &text) {
    return text.empty() ? "null" : json_string(text);
}

constexpr std::array<Ending, 6> endings{Ending::done, Ending::failed, Ending::usage, Ending::refused, Ending::unreachable, Ending::busy};

std::size_t count_of(const std::vector<Outcome> &outcomes, Ending ending) {
    return static_cast<std::size_t>(
        std::count_if(outcomes.begin(), outcomes.end(), [&](const Outcome &outcome) { return outcome.ending == ending; }));
}

} // namespace

void Output::put(std::string_view text) {
    if (error_ != 0) {
        return;
    }
    std::cout << text << std::flush;
    if (!std::cout && errno != EPIPE) {
        error_ = errno;
    }
}

namespace {

// Success goes to standard output, all else to standard error.
class TextOutput : public Output {
  public:
    TextOutput(bool is_quiet, bool has_live_line) : is_quiet_(is_quiet), has_live_line_(has_live_line) {}

    // A terminal's line is written anew; otherwise only a change is told.
    void progress(std::string_view agent, std::string_view state, std::chrono::seconds elapsed) override {
        if (is_quiet_) {
            return;
        }
        const std::string line = std::string(agent) + ": " + std::string(state);
        if (has_live_line_) {
            put('\r' + line + ", " + std::to_string(elapsed.count()) + " s\033[K");
            is_live_ = true;
        } else if (state != last_state_) {
            put(line + '\n');
        }
        last_state_ = state;
    }

    void outcome(const Outcome &outcome) override {
        const std::lock_guard lock(mutex_);
        end_live_line();
        if (outcome.ending == Ending::done) {
            line(outcome.text);
            return;
        }
        std::string text = "config-copy: " + outcome.text + '\n';
        if (!outcome.switches.empty()) {
            text += lines(switch_headings, switch_rows(outcome.switches));
        }
        std::cerr << text << std::flush;
    }

    void summary(const std::vector<Outcome> &outcomes) override { line(summary_of(outcomes)); }

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

    void removed(const std::string &, unsigned long, const std::string &text) override { line(text); }

    void failure(const Failure &failure, const std::string &) override {
        end_live_line();
        std::cerr << "config-copy: " + std::string(failure.what()) + '\n' << std::flush;
    }

  private:
    void line(const std::string &text) {
        if (!is_quiet_) {
            put(text + '\n');
        }
    }

    static std::string lines(const std::vector<std::string> &headings, const std::vector<std::vector<std::string>> &rows) {
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

    bool is_quiet_;
    bool has_live_line_;
    bool is_live_ = false;
    std::string last_state_;
};

// All to standard output.
class JsonOutput : public Output {
  public:
    void progress(std::string_view, std::string_view, std::chrono::seconds) override {}

    void outcome(const Outcome &outcome) override {
        const std::lock_guard lock(mutex_);
        put(json_of(outcome) + '\n');
    }

    void summary(const std::vector<Outcome> &outcomes) override { put(json_summary(outcomes) + '\n'); }

    void table(const Table &table) override {
        for (const auto &row : table.rows) {
            Members members{{"type", json_string(table.type)}, {"agent", json_string(table.agent)}};
            for (std::size_t i = 0; i < table.headings.size(); ++i) {
                const bool is_number = table.headings[i].cells == Heading::numbers;
                members.emplace_back(in_lower_case(table.headings[i].text), row[i] == absent ? "null"
                                                                            : is_number      ? row[i]
                                                                                             : json_string(row[i]));
            }
            put(json_object(members) + '\n');
        }
    }

    void removed(const std::string &agent, unsigned long index, const std::string &text) override {
        put(json_object({{"type", json_string("removal")},
                         {"agent", json_string(agent)},
                         {"index", std::to_string(index)},
                         {"removed", "true"},
                         {"text", json_string(text)}}) +
            '\n');
    }

    void failure(const Failure &failure, const std::string &agent) override {
        put(json_object({{"type", json_string("error")},
                         {"agent", json_or_null(agent)},
                         {"ending", json_string(key_of(failure.ending()))},
                         {"status", std::to_string(static_cast<int>(failure.ending()))},
                         {"text", json_string(failure.what())}}) +
            '\n');
    }
};

} // namespace

std::unique_ptr<Output> make_output(bool is_quiet, bool is_json, bool is_verbose) {
    if (is_json) {
        return std::make_unique<JsonOutput>();
    }
    const bool is_terminal = ::isatty(STDOUT_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
    return std::make_unique<TextOutput>(is_quiet, is_terminal && !is_verbose); // whose lines would run into the live one
}

std::string json_object(const Members &members) {
    std::string text;
    for (const auto &[key, value] : members) {
        text += (text.empty() ? "{" : ", ") + json_string(key) + ": " + value;
    }
    return text + '}';
}

std::string json_string(std::string_view text) {
    std::string result = "\"";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (static_cast<unsigned char>(c) >= 0x80) {
            const std::size_t length = utf8_length(text.substr(i));
            result += length == 0 ? "\\ufffd" : text.substr(i, length);
            i += length == 0 ? 0 : length - 1;
        } else if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (static_cast<unsigned char>(c) < ' ') {
            std::array<char, 8> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\u%04x", static_cast<unsigned>(c));
            result += escaped.data();
        } else {
            result += c;
        }
    }
    return result + '"';
}

std::string json_of(const Outcome &outcome) {
    const auto number_or_null = [](const auto &number) { return number ? std::to_string(*number) : "null"; };
    std::string switches;
    for (const auto &[address, wwn, reported] : outcome.switches) {
        switches += (switches.empty() ? "" : ", ") +
                    json_object({{"address", json_or_null(address)}, {"switch", json_string(wwn)}, {"reported", json_string(reported)}});
    }
    return json_object({{"type", json_string("copy")},
                        {"agent", json_string(outcome.agent)},
                        {"ending", json_string(key_of(outcome.ending))},
                        {"status", std::to_string(static_cast<int>(outcome.ending))},
                        {"dry_run", outcome.is_dry_run ? "true" : "false"},
                        {"from", json_or_null(outcome.from)},
                        {"to", json_or_null(outcome.to)},
                        {"server", json_or_null(outcome.server)},
                        {"file", json_or_null(outcome.file)},
                        {"user", json_or_null(outcome.user)},
                        {"snmp_user", json_or_null(outcome.snmp_user)},
                        {"index", number_or_null(outcome.index)},
                        {"start_time", json_or_null(outcome.start_time)},
                        {"state", json_or_null(outcome.state)},
                        {"cause", json_or_null(outcome.cause)},
                        {"reason", json_or_null(outcome.reason)},
                        {"seconds", outcome.seconds ? seconds_text(*outcome.seconds) : "null"},
                        {"bytes", number_or_null(outcome.bytes)},
                        {"sha256", json_or_null(outcome.sha256)},
                        {"text", json_string(outcome.text)},
                        {"switches", '[' + switches + ']'}});
}

std::string json_summary(const std::vector<Outcome> &outcomes) {
    Members members{{"type", json_string("summary")}, {"agents", std::to_string(outcomes.size())}};
    for (const Ending ending : endings) {
        members.emplace_back(key_of(ending), std::to_string(count_of(outcomes, ending)));
    }
    return json_object(members);
}

std::string summary_of(const std::vector<Outcome> &outcomes) {
    const bool is_dry_run = !outcomes.empty() && outcomes.front().is_dry_run;
    std::string text = std::to_string(outcomes.size()) + (outcomes.size() == 1 ? " agent" : " agents");
    for (const Ending ending : endings) {
        const bool is_done = ending == Ending::done;
        if (const std::size_t count = count_of(outcomes, ending); count > 0 || is_done) {
            text += (is_done ? ": " : ", ") + std::to_string(count) + ' ' + std::string(is_done && is_dry_run ? "ready" : name_of(ending));
        }
    }
    return text;
}

std::vector<std::string> table_lines(const std::vector<std::string> &headings, const std::vector<std::vector<std::string>> &rows) {
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
