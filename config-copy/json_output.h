// JSON for programs, one object a line. config-copy(1) has the schema.
#pragma once

#include "config-copy/output.h"

namespace config_copy {

std::unique_ptr<Output> json_output();

// --- parts ---

// On one line. What is no UTF-8 in a text becomes U+FFFD.
std::string json_of(const Outcome &outcome);
std::string json_summary(const std::vector<Outcome> &outcomes);

} // namespace config_copy
