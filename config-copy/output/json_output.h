// JSON for programs, one object per line. config-copy(1) describes the schema.
#pragma once

#include "config-copy/output/output.h"

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace config_copy {

std::unique_ptr<Output> json_output(const Style &style);

// Parts of the implementation.

// The text with U+FFFD for octets that are not UTF-8.
std::string utf8_of(const std::string &text);

// The name of a status without blanks, as in not_reachable.
std::string key_of(ExitStatus status);

// The outcome on one line. Octets that are not UTF-8 become U+FFFD.
std::string json_of(const Outcome &outcome);
// What of it is kept: only what is known, and the text only if the copy was not done.
std::string json_record(const Outcome &outcome, std::time_t now);
std::string json_difference(const Outcome &outcome);
std::string json_summary(const std::vector<Outcome> &outcomes, bool is_diff = false);

} // namespace config_copy
