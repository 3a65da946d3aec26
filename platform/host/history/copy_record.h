// The last copies and saves that managers have asked this switch for, one line each: who asked,
// what was to be copied, and what came of it. A line is made of `key=value` words. A value that
// holds anything but letters, digits and a few signs stands in double quotes, where \" and \\ stand
// for the characters and \xHH for an octet that is no printable ASCII. No password is ever part of
// it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

inline constexpr std::size_t copies_kept = 32;

// What is known when a copy begins.
struct CopyRequest {
    std::time_t began = 0;
    std::uint32_t index = 0;
    std::uint32_t started = 0; // as ccCopyTimeStarted reads
    std::string user;
    std::string requester; // an address
    std::string from;
    std::string to;
};

// And when it has ended.
struct CopyEnd {
    enum class Outcome { successful, failed, unknown };
    Outcome outcome = Outcome::unknown;
    std::string cause; // name of ccCopyFailCause; empty unless it failed
    std::string reason;
    std::optional<std::uint64_t> octets;
    std::string sha256;
    std::optional<std::chrono::milliseconds> duration;
};

std::string line_of(const CopyRequest &request);
std::string line_of(const CopyEnd &end); // goes on behind the request's, after a blank

// The file of a copy as a URL without its password; `address` in text form.
std::string url_of(std::string_view protocol, std::string_view user, std::string_view address,
                   std::string_view file);

// Puts the line in front of those that are kept, in the run directory, and drops the oldest. Throws
// std::system_error.
void keep_copy_line(std::string_view line);

// The newest first, each with its end of line; nothing when there are none. Throws as above.
std::string kept_copy_lines();

} // namespace ulmo
