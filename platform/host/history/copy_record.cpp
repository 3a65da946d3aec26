#include "platform/host/history/copy_record.h"

#include "base/folders.h"
#include "base/state_file.h"
#include "platform/host/history/log.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace ulmo {
namespace {

// More than the longest possible content, so that what was written can always be read again.
constexpr std::size_t file_limit = copies_kept * 4096;

std::filesystem::path kept_file() {
    return run_dir() / "last-copies";
}

bool is_alphanumeric(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_one_of(unsigned char c, std::string_view set) {
    return set.find(static_cast<char>(c)) != std::string_view::npos;
}

// The prefix and two hexadecimal digits.
std::string escaped(std::string_view announced, unsigned char c, std::string_view digits) {
    return std::string(announced) + digits[c >> 4U] + digits[c & 0xFU];
}

std::string value_text(std::string_view value) {
    const bool is_plain =
        !value.empty() && std::all_of(value.begin(), value.end(), [](unsigned char c) {
            return is_alphanumeric(c) || is_one_of(c, "-._~:/@%[]+,");
        });
    if (is_plain) {
        return std::string(value);
    }
    std::string text = "\"";
    for (const char each : value) {
        const auto c = static_cast<unsigned char>(each);
        if (c == '"' || c == '\\') {
            text += '\\';
            text += each;
        } else if (c >= ' ' && c <= '~') {
            text += each;
        } else {
            text += escaped("\\x", c, "0123456789abcdef");
        }
    }
    return text + '"';
}

std::string word(std::string_view key, std::string_view value) {
    return ' ' + std::string(key) + '=' + value_text(value);
}

std::string word_if_any(std::string_view key, std::string_view value) {
    return value.empty() ? "" : word(key, value);
}

std::string seconds_text(std::chrono::milliseconds duration) {
    std::array<char, 32> text{};
    const double seconds = std::chrono::duration<double>(duration).count();
    const int length = std::snprintf(text.data(), text.size(), "%.2f", seconds);
    return {text.data(), static_cast<std::size_t>(length)};
}

std::string_view name_of(CopyEnd::Outcome outcome) {
    switch (outcome) {
    case CopyEnd::Outcome::successful:
        return "successful";
    case CopyEnd::Outcome::failed:
        return "failed";
    case CopyEnd::Outcome::unknown:
        break;
    }
    return "unknown";
}

// Percent-encoding, RFC 3986, 2.3; the characters of `also` are not encoded either.
std::string percent_encoded(std::string_view text, std::string_view also) {
    std::string encoded;
    for (const char each : text) {
        const auto c = static_cast<unsigned char>(each);
        if (is_alphanumeric(c) || is_one_of(c, "-._~") || is_one_of(c, also)) {
            encoded += each;
        } else {
            encoded += escaped("%", c, "0123456789ABCDEF");
        }
    }
    return encoded;
}

} // namespace

std::string url_of(std::string_view protocol, std::string_view user, std::string_view address,
                   std::string_view file) {
    const bool is_ipv6 = address.find(':') != std::string_view::npos;
    std::string url = std::string(protocol) + "://";
    if (!user.empty()) {
        url += percent_encoded(user, "") + '@';
    }
    url += is_ipv6 ? '[' + std::string(address) + ']' : std::string(address);
    return url + '/' + percent_encoded(file, "/");
}

std::string time_text(std::time_t when) {
    std::array<char, sizeof "2026-01-01T00:00:00Z"> text{};
    std::tm utc{};
    ::gmtime_r(&when, &utc);
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

std::string line_of(const WayBackRecord &record) {
    CopyEnd end;
    end.outcome = record.failure.empty() ? CopyEnd::Outcome::successful : CopyEnd::Outcome::failed;
    end.reason = record.failure.empty() ? record.why : record.why + ": " + record.failure;
    return time_text(record.began) + word("from", "former") + word("to", "running") + ' ' +
           line_of(end);
}

std::string line_of(const CopyRequest &request) {
    return time_text(request.began) + word("request", std::to_string(request.index)) +
           word("started", std::to_string(request.started)) + word("user", request.user) +
           word("requester", request.requester) + word("from", request.from) +
           word("to", request.to);
}

std::string line_of(const CopyEnd &end) {
    std::string line = "outcome=" + std::string(name_of(end.outcome)) +
                       word_if_any("cause", end.cause) + word_if_any("reason", end.reason);
    if (end.octets) {
        line += word("bytes", std::to_string(*end.octets));
    }
    line += word_if_any("sha256", end.sha256);
    if (end.duration) {
        line += word("seconds", seconds_text(*end.duration));
    }
    return line;
}

void keep_copy_line(std::string_view line) {
    // The agent waits for nobody: the system manager, which keeps a line, too, holds this only
    // while it writes.
    constexpr std::chrono::milliseconds patience{100};
    const FileLock lock(run_dir() / "last-copies.lock", FileLock::Mode::exclusive, patience);
    std::string lines = std::string(line) + '\n' + kept_copy_lines();
    std::size_t end = 0;
    for (std::size_t count = 0; count < copies_kept && end < lines.size(); ++count) {
        end = lines.find('\n', end) + 1;
    }
    lines.resize(end);
    replace_volatile_file(kept_file(), lines);
}

void tell_line(const std::string &line) noexcept {
    // Only the priority is set: the name in that log is the one that the process has set.
    ::syslog(LOG_AUTHPRIV | LOG_NOTICE, "config-copy: %s", line.c_str());
    log_failure("the line of a copy can't be kept", [&] { keep_copy_line(line); });
}

std::string kept_copy_lines() {
    std::string lines = read_state_file(kept_file(), file_limit).value_or("");
    if (!lines.empty() && lines.back() != '\n') {
        lines += '\n';
    }
    return lines;
}

} // namespace ulmo
