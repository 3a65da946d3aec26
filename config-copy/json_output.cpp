// JSON for programs, one object a line.
#include "config-copy/json_output.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <optional>

namespace config_copy {
namespace {

using Json = nlohmann::ordered_json; // in the order of the manual page

std::string line_of(const Json &object) {
    // texts may come from anywhere
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// null for what is absent.
Json text_or_null(const std::string &text) {
    return text.empty() ? Json() : Json(text);
}
template <typename Number> Json number_or_null(const std::optional<Number> &number) {
    return number ? Json(*number) : Json();
}

Json seconds(double value) {
    return std::round(value * 100) / 100; // what an agent's clock tells
}

// The name of an ending without blanks.
std::string key_of(Ending ending) {
    std::string key(name_of(ending));
    std::replace(key.begin(), key.end(), ' ', '_');
    return key;
}

std::string in_lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A cell of a table, which has been written for people.
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

// All to standard output.
class JsonOutput : public Output {
  public:
    void progress(std::string_view, std::string_view, std::chrono::seconds) override {}

    void outcome(const Outcome &outcome) override {
        const std::lock_guard lock(mutex_);
        put(json_of(outcome) + '\n');
    }

    void summary(const std::vector<Outcome> &outcomes) override {
        put(json_summary(outcomes) + '\n');
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
                     {"ending", key_of(failure.ending())},
                     {"status", static_cast<int>(failure.ending())},
                     {"text", failure.what()}}) +
            '\n');
    }
};

} // namespace

std::unique_ptr<Output> json_output() {
    return std::make_unique<JsonOutput>();
}

std::string json_of(const Outcome &outcome) {
    Json switches = Json::array();
    for (const auto &[address, wwn, reported] : outcome.switches) {
        switches.push_back(
            {{"address", text_or_null(address)}, {"switch", wwn}, {"reported", reported}});
    }
    return line_of({{"type", "copy"},
                    {"agent", outcome.agent},
                    {"ending", key_of(outcome.ending)},
                    {"status", static_cast<int>(outcome.ending)},
                    {"dry_run", outcome.is_dry_run},
                    {"from", text_or_null(outcome.from)},
                    {"to", text_or_null(outcome.to)},
                    {"server", text_or_null(outcome.server)},
                    {"file", text_or_null(outcome.file)},
                    {"user", text_or_null(outcome.user)},
                    {"snmp_user", text_or_null(outcome.snmp_user)},
                    {"index", number_or_null(outcome.index)},
                    {"start_time", text_or_null(outcome.start_time)},
                    {"state", text_or_null(outcome.state)},
                    {"cause", text_or_null(outcome.cause)},
                    {"reason", text_or_null(outcome.reason)},
                    {"seconds", outcome.seconds ? seconds(*outcome.seconds) : Json()},
                    {"bytes", number_or_null(outcome.bytes)},
                    {"sha256", text_or_null(outcome.sha256)},
                    {"text", outcome.text},
                    {"switches", switches}});
}

std::string json_summary(const std::vector<Outcome> &outcomes) {
    Json object{{"type", "summary"}, {"agents", outcomes.size()}};
    for (const Ending ending : all_endings) {
        object[key_of(ending)] = count_of(outcomes, ending);
    }
    return line_of(object);
}

} // namespace config_copy
