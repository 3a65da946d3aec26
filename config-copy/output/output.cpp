#include "config-copy/output/output.h"

#include "config-copy/output/json_output.h"
#include "config-copy/output/text_output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>

namespace config_copy {

void Output::put(std::string_view text) {
    if (error_ != 0) {
        return;
    }
    std::cout << text << std::flush;
    if (!std::cout && errno != EPIPE) {
        error_ = errno;
    }
}

std::unique_ptr<Output> make_output(const Style &style) {
    if (style.is_json) {
        return json_output(style);
    }
    const bool is_terminal = ::isatty(STDOUT_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
    // Verbose output would run into the live line.
    return text_output(style, is_terminal && !style.is_verbose);
}

std::size_t count_of(const std::vector<Outcome> &outcomes, ExitStatus status) {
    return static_cast<std::size_t>(
        std::count_if(outcomes.begin(), outcomes.end(),
                      [&](const Outcome &outcome) { return outcome.status == status; }));
}

} // namespace config_copy
