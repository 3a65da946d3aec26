#include "config-copy/copies/copy_line.h"

#include "base/number.h"
#include "base/text.h"
#include "config-copy/output/outcome.h"

#include <algorithm>
#include <charconv>
#include <map>

namespace config_copy {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t longest_line = 4096; // the switch keeps no longer ones

// Reads a value up to its closing quote, with `rest` starting after the opening one; `rest` then
// starts after the closing one. Empty if there is no closing quote.
std::optional<std::string> take_quoted(std::string_view &rest) {
    constexpr std::size_t octet_length = 3; // xHH
    constexpr int hexadecimal = 16;
    std::string value;
    while (!rest.empty() && rest.front() != '"') {
        if (rest.front() != '\\') {
            value += rest.front();
            rest.remove_prefix(1);
            continue;
        }
        rest.remove_prefix(1);
        unsigned char octet = 0;
        const bool is_octet =
            rest.size() >= octet_length && rest.front() == 'x' &&
            std::from_chars(rest.data() + 1, rest.data() + octet_length, octet, hexadecimal).ptr ==
                rest.data() + octet_length;
        if (!is_octet && rest.empty()) {
            return std::nullopt;
        }
        value += is_octet ? static_cast<char>(octet) : rest.front();
        rest.remove_prefix(is_octet ? octet_length : 1);
    }
    if (rest.empty()) {
        return std::nullopt;
    }
    rest.remove_prefix(1);
    return value;
}

// The fields after the time, by their keys. Returns none if one of them is malformed.
std::map<std::string, std::string, std::less<>> fields_of(std::string_view line) {
    std::map<std::string, std::string, std::less<>> fields;
    line.remove_prefix(std::min(line.find(' '), line.size()));
    while (!line.empty()) {
        const std::size_t equals = line.find('=');
        if (line.front() != ' ' || equals == std::string_view::npos) {
            return {};
        }
        const std::string key(line.substr(1, equals - 1));
        line.remove_prefix(equals + 1);
        if (line.starts_with('"')) {
            line.remove_prefix(1);
            const auto value = take_quoted(line);
            if (!value) {
                return {};
            }
            fields[key] = *value;
        } else {
            fields[key] = line.substr(0, line.find(' '));
            line.remove_prefix(fields[key].size());
        }
    }
    return fields;
}

Oid last_copy_line(oid number) {
    constexpr std::string_view name = "last-copy";
    Oid line{1, 3, 6, 1, 4, 1, 8072, 1, 3, 2, 4, 1, 2, name.size()};
    line.insert(line.end(), name.begin(), name.end());
    line.push_back(number);
    return line;
}

} // namespace

std::optional<CopyLine> parsed_copy_line(std::string_view line, oid index, std::int64_t started) {
    if (line.size() > longest_line) {
        return std::nullopt;
    }
    auto fields = fields_of(line);
    if (fields["request"] != std::to_string(index) ||
        fields["started"] != std::to_string(started)) {
        return std::nullopt;
    }
    CopyLine copy;
    copy.reason = ulmo::one_line(fields["reason"]);
    copy.bytes = ulmo::parsed_number<std::uint64_t>(fields["bytes"]);
    copy.sha256 = ulmo::one_line(fields["sha256"]);
    return copy;
}

bool is_way_back(std::string_view line) {
    return line.size() <= longest_line && fields_of(line)["from"] == "former";
}

std::optional<CopyLine> line_of_copy(Session &session, oid index, std::int64_t started) {
    // The newest lines come first, and hardly another copy has ended since.
    constexpr oid lines_looked_at = 4;
    constexpr int attempts = 5;
    constexpr auto pause = 350ms;
    try {
        for (int attempt = 0; attempt < attempts; ++attempt) {
            if (attempt > 0) {
                session.pause(pause);
            }
            bool is_undone = false;
            for (oid number = 1; number <= lines_looked_at; ++number) {
                const std::string line = octets(session.get({last_copy_line(number)}).front());
                if (line.empty() && number == 1) {
                    return std::nullopt;
                }
                if (auto found = parsed_copy_line(line, index, started)) {
                    found->is_undone = is_undone;
                    return found;
                }
                is_undone = is_undone || is_way_back(line);
            }
        }
    } catch (const Trouble &) { // the outcome is known even without the line
    }
    return std::nullopt;
}

} // namespace config_copy
