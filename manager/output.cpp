#include "manager/output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <iostream>
#include <sstream>

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

constexpr std::array<Ending, 6> endings{Ending::done, Ending::failed, Ending::usage, Ending::refused, Ending::unreachable, Ending::busy};

std::size_t count_of(const std::vector<Outcome> &outcomes, Ending ending) {
    return static_cast<std::size_t>(
        std::count_if(outcomes.begin(), outcomes.end(), [&](const Outcome &outcome) { return outcome.ending == ending; }));
}

} // namespace

Output::Output(bool is_quiet, bool is_json)
    : is_quiet_(is_quiet), is_json_(is_json), is_terminal_(::isatty(STDOUT_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1) {}

void Output::progress(std::string_view agent, std::string_view state, std::chrono::seconds elapsed) {
    if (is_quiet_ || is_json_) {
        return;
    }
    if (is_terminal_) {
        std::cout << '\r' << agent << ": " << state << ", " << elapsed.count() << " s\033[K" << std::flush;
        has_live_line_ = true;
    } else if (state != last_state_) {
        std::cout << agent << ": " << state << std::endl;
    }
    last_state_ = state;
}

void Output::end_live_line() {
    if (has_live_line_) {
        std::cout << "\r\033[K" << std::flush;
        has_live_line_ = false;
    }
}

void Output::outcome(const Outcome &outcome) {
    const std::lock_guard lock(mutex_);
    end_live_line();
    if (is_json_) {
        std::cout << json_of(outcome) << std::endl;
        return;
    }
    if (outcome.ending == Ending::done) {
        line(outcome.text);
        return;
    }
    std::cerr << "config-copy: " << outcome.text << std::endl;
    if (!outcome.switches.empty()) {
        for (const std::string &text : table_lines(switch_headings, switch_rows(outcome.switches))) {
            std::cerr << text << '\n';
        }
        std::cerr << std::flush;
    }
}

void Output::summary(const std::vector<Outcome> &outcomes) {
    const std::lock_guard lock(mutex_);
    if (!is_json_) {
        line(summary_of(outcomes));
        return;
    }
    std::cout << "{\"agents\": " << outcomes.size();
    for (const Ending ending : endings) {
        std::cout << ", " << json_string(name_of(ending)) << ": " << count_of(outcomes, ending);
    }
    std::cout << '}' << std::endl;
}

void Output::table(const std::vector<Heading> &headings, const std::vector<std::vector<std::string>> &rows,
                   std::string_view when_empty) const {
    if (is_json_) {
        for (const auto &row : rows) {
            for (std::size_t i = 0; i < headings.size(); ++i) {
                const std::string value = headings[i].cells == Heading::numbers ? row[i] : json_string(row[i]);
                std::cout << (i == 0 ? "{" : ", ") << json_string(in_lower_case(headings[i].text)) << ": "
                          << (row[i] == absent ? "null" : value);
            }
            std::cout << "}\n";
        }
    } else if (rows.empty()) {
        line(when_empty);
    } else {
        std::vector<std::string> texts;
        texts.reserve(headings.size());
        for (const Heading &heading : headings) {
            texts.push_back(heading.text);
        }
        for (const std::string &text : table_lines(texts, rows)) {
            std::cout << text << '\n';
        }
    }
    std::cout << std::flush;
}

void Output::line(std::string_view text) const {
    if (!is_quiet_ && !is_json_) {
        std::cout << text << std::endl;
    }
}

void Output::removed(std::string_view agent, unsigned long index, std::string_view text) const {
    if (is_json_) {
        std::cout << "{\"agent\": " << json_string(agent) << ", \"index\": " << index << ", \"removed\": true}" << std::endl;
    }
    line(text);
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
    std::ostringstream text;
    const auto or_null = [](const std::string &value) { return value.empty() ? "null" : json_string(value); };
    text << "{\"agent\": " << json_string(outcome.agent) << ", \"ending\": " << json_string(name_of(outcome.ending))
         << ", \"status\": " << static_cast<int>(outcome.ending) << ", \"state\": " << or_null(outcome.state)
         << ", \"cause\": " << or_null(outcome.cause) << ", \"seconds\": " << (outcome.seconds ? seconds_text(*outcome.seconds) : "null")
         << ", \"text\": " << json_string(outcome.text) << ", \"switches\": [";
    for (std::size_t i = 0; i < outcome.switches.size(); ++i) {
        const auto &[address, wwn, reported] = outcome.switches[i];
        text << (i == 0 ? "" : ", ") << "{\"address\": " << or_null(address) << ", \"switch\": " << json_string(wwn)
             << ", \"reported\": " << json_string(reported) << '}';
    }
    text << "]}";
    return text.str();
}

std::string summary_of(const std::vector<Outcome> &outcomes) {
    std::string text = std::to_string(outcomes.size()) + (outcomes.size() == 1 ? " agent" : " agents");
    for (const Ending ending : endings) {
        if (const std::size_t count = count_of(outcomes, ending); count > 0 || ending == Ending::done) {
            text += (ending == Ending::done ? ": " : ", ") + std::to_string(count) + ' ' + std::string(name_of(ending));
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
