// The file of --metrics: the outcomes of a run in the text format of Prometheus, for the textfile
// collector of its node exporter.
#pragma once

#include "config-copy/output/outcome.h"

#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

// Replaces the file in one step, with mode 0644. It has the agents of this run; the time of the
// last success is that of the former file for one that failed. Throws a Failure.
void write_metrics(const std::string &file, const std::string &profile,
                   const std::vector<Outcome> &outcomes, std::time_t now);

// Parts of the implementation.

// The times by labels, both as in the file: {agent="core1"}.
using Successes = std::map<std::string, std::string, std::less<>>;
Successes successes_in(std::string_view text);

std::string metrics_text(const std::string &profile, const std::vector<Outcome> &outcomes,
                         std::time_t now, const Successes &former);

} // namespace config_copy
