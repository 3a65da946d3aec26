// One line for each of the last copies and saves that managers requested from this switch: the
// requester, the source and destination, and the outcome. A line is a sequence of `key=value`
// words. A value that holds anything but letters, digits and a few punctuation characters is put in
// double quotes; within them \" and \\ stand for these characters, and \xHH for an octet that is
// not printable ASCII. A line never contains a password.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr std::size_t copies_kept = 32;

// What is known when a copy begins.
struct CopyRequest {
    std::time_t began = 0;
    std::uint32_t index = 0;
    std::uint32_t started = 0; // the value of ccCopyTimeStarted
    std::string user;
    std::string requester; // an address
    std::string from;
    std::string to;
};

// What is known when it has ended.
struct CopyEnd {
    enum class Outcome { successful, failed, unknown };
    Outcome outcome = Outcome::unknown;
    std::string cause; // name of the ccCopyFailCause value; empty unless the copy failed
    std::string reason;
    std::optional<std::uint64_t> octets;
    std::string sha256;
    std::optional<std::chrono::milliseconds> duration;
};

// A change of the running configuration that was undone, or could not be.
struct WayBackRecord {
    std::time_t began = 0;
    std::string why;     // the change was to be undone
    std::string failure; // empty if it was undone
};

std::string line_of(const WayBackRecord &record);
std::string line_of(const CopyRequest &request);
std::string line_of(const CopyEnd &end); // appended to the request's line, after a blank

// The file of a copy as a URL without its password; `address` in text form.
std::string url_of(std::string_view protocol, std::string_view user, std::string_view address,
                   std::string_view file);

// The time in UTC as the lines have it, such as 2026-01-01T00:00:00Z.
std::string time_text(std::time_t when);

// Prepends the line to those kept in the run directory and drops the oldest. Throws
// std::system_error.
void keep_copy_line(std::string_view line);

// Keeps the line and sends it to the system's log. A failure is logged and affects nothing else.
void tell_line(const std::string &line) noexcept;

// The kept lines, newest first, each with its newline; empty if there are none. Throws
// std::system_error.
std::string kept_copy_lines();

} // namespace ulmo
