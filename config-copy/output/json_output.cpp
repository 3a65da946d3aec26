// JSON for programs, one object per line.
#include "config-copy/output/json_output.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <iterator>
#include <optional>

namespace config_copy {
namespace {

using Json = nlohmann::ordered_json; // keys in the order of the manual page

std::string line_of(const Json &object) {
    // The text may come from anywhere and need not be UTF-8.
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// null if the text is empty.
Json text_or_null(const std::string &text) {
    return text.empty() ? Json() : Json(text);
}
template <typename Value> Json value_or_null(const std::optional<Value> &value) {
    return value ? Json(*value) : Json();
}

Json seconds(double value) {
    return std::round(value * 100) / 100; // the resolution of the agent's clock
}

std::string in_lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A table's cell, whose text was written for people.
Json cell(const std::string &text, bool is_number) {
    double number = 0;
    if (text == absent) {
        return {};
    }
    if (!is_number ||
        std::from_chars(text.data(), text.data() + text.size(), number).ec != std::errc{}) {
        return text;
    }
    return number == std::floor(number) && text.find('.') == std::string::npos
               ? Json(static_cast<std::uint64_t>(number))
               : seconds(number);
}

// Everything goes to standard output.
class JsonOutput : public Output {
  public:
    explicit JsonOutput(bool is_diff) : is_diff_(is_diff) {}

    void progress(std::string_view, const Step &) override {}

    void outcome(const Outcome &outcome) override {
        const std::lock_guard lock(mutex_);
        put((is_diff_ ? json_difference(outcome) : json_of(outcome)) + '\n');
    }

    void retrying(std::size_t, std::chrono::seconds) override {}

    void summary(const std::vector<Outcome> &outcomes) override {
        put(json_summary(outcomes, is_diff_) + '\n');
    }

    void table(const Table &table) override {
        for (const auto &row : table.rows) {
            Json object{{"type", table.type}, {"agent", table.agent}};
            for (std::size_t i = 0; i < table.headings.size(); ++i) {
                object[in_lower_case(table.headings[i].text)] =
                    cell(row[i], table.headings[i].cells == Heading::numbers);
            }
            put(line_of(object) + '\n');
        }
    }

    void removed(const std::string &agent, unsigned long index, const std::string &text) override {
        put(line_of({{"type", "removal"},
                     {"agent", agent},
                     {"index", index},
                     {"removed", true},
                     {"text", text}}) +
            '\n');
    }

    void failure(const Failure &failure, const std::string &agent) override {
        put(line_of({{"type", "error"},
                     {"agent", text_or_null(agent)},
                     {"ending", key_of(failure.status())},
                     {"status", exit_number(failure.status(), is_diff_)},
                     {"text", failure.what()}}) +
            '\n');
    }

  private:
    bool is_diff_;
};

} // namespace

std::unique_ptr<Output> json_output(const Style &style) {
    return std::make_unique<JsonOutput>(style.is_diff);
}

std::string utf8_of(const std::string &text) {
    return Json::parse(line_of(text)).get<std::string>();
}

std::string key_of(ExitStatus status) {
    std::string key(name_of(status));
    std::replace(key.begin(), key.end(), ' ', '_');
    return key;
}

std::string json_of(const Outcome &outcome) {
    Json switches = Json::array();
    for (const auto &[address, wwn, reported] : outcome.switches) {
        switches.push_back(
            {{"address", text_or_null(address)}, {"switch", wwn}, {"reported", reported}});
    }
    return line_of({{"type", "copy"},
                    {"agent", outcome.agent},
                    {"group", text_or_null(outcome.group)},
                    {"ending", key_of(outcome.status)},
                    {"status", static_cast<int>(outcome.status)},
                    {"dry_run", outcome.is_dry_run},
                    {"attempts", outcome.attempts},
                    {"from", text_or_null(outcome.from)},
                    {"to", text_or_null(outcome.to)},
                    {"server", text_or_null(outcome.server)},
                    {"file", text_or_null(outcome.file)},
                    {"user", text_or_null(outcome.user)},
                    {"snmp_user", text_or_null(outcome.snmp_user)},
                    {"index", value_or_null(outcome.index)},
                    {"start_time", text_or_null(outcome.start_time)},
                    {"state", text_or_null(outcome.state)},
                    {"cause", text_or_null(outcome.cause)},
                    {"reason", text_or_null(outcome.reason)},
                    {"seconds", outcome.seconds ? seconds(*outcome.seconds) : Json()},
                    {"bytes", value_or_null(outcome.bytes)},
                    {"sha256", text_or_null(outcome.sha256)},
                    {"unchanged", value_or_null(outcome.is_unchanged)},
                    {"saved", value_or_null(outcome.is_saved)},
                    {"diff", outcome.difference ? Json(outcome.difference->text) : Json()},
                    {"text", outcome.text},
                    {"switches", switches}});
}

std::string json_record(const Outcome &outcome, std::time_t now) {
    Json object{{"time", utc_text(now)},
                {"agent", outcome.agent},
                {"group", text_or_null(outcome.group)},
                {"ending", key_of(outcome.status)},
                {"attempts", outcome.attempts},
                {"from", text_or_null(outcome.from)},
                {"to", text_or_null(outcome.to)},
                {"cause", text_or_null(outcome.cause)},
                {"reason", text_or_null(outcome.reason)},
                {"seconds", outcome.seconds ? seconds(*outcome.seconds) : Json()},
                {"bytes", value_or_null(outcome.bytes)},
                {"unchanged", value_or_null(outcome.is_unchanged)},
                {"text", outcome.status == ExitStatus::done ? Json() : Json(outcome.text)}};
    for (auto member = object.begin(); member != object.end();) {
        member = member->is_null() ? object.erase(member) : std::next(member);
    }
    return line_of(object);
}

std::string json_difference(const Outcome &outcome) {
    const auto &found = outcome.difference;
    return line_of({{"type", "difference"},
                    {"agent", outcome.agent},
                    {"group", text_or_null(outcome.group)},
                    {"ending", key_of(outcome.status)},
                    {"status", exit_number(outcome.status, true)},
                    {"from", outcome.from},
                    {"to", outcome.to},
                    {"different", found ? Json(found->any()) : Json()},
                    {"added", found ? Json(found->added) : Json()},
                    {"removed", found ? Json(found->removed) : Json()},
                    {"diff", found ? Json(found->text) : Json()},
                    {"text", outcome.text}});
}

std::string json_summary(const std::vector<Outcome> &outcomes, bool is_diff) {
    Json object{{"type", "summary"}, {"agents", outcomes.size()}};
    for (const ExitStatus status : all_statuses) {
        if (status != ExitStatus::different || is_diff) {
            object[key_of(status)] = count_of(outcomes, status);
        }
    }
    return line_of(object);
}

} // namespace config_copy
