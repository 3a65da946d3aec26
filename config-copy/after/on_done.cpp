#include "config-copy/after/on_done.h"

#include "base/program_run.h"
#include "config-copy/interrupt.h"
#include "config-copy/output/json_output.h"

#include <system_error>

namespace config_copy {

std::vector<std::string> environment_of(const Outcome &outcome) {
    const auto yes_or_no = [](const std::optional<bool> &value) {
        return value ? *value ? "yes" : "no" : "";
    };
    return {"CONFIG_COPY_AGENT=" + outcome.agent,
            "CONFIG_COPY_GROUP=" + outcome.group,
            "CONFIG_COPY_ENDING=" + key_of(outcome.status),
            "CONFIG_COPY_STATUS=" + std::to_string(static_cast<int>(outcome.status)),
            "CONFIG_COPY_CAUSE=" + outcome.cause,
            "CONFIG_COPY_REASON=" + outcome.reason,
            "CONFIG_COPY_TEXT=" + outcome.text,
            "CONFIG_COPY_FROM=" + outcome.from,
            "CONFIG_COPY_TO=" + outcome.to,
            "CONFIG_COPY_SECONDS=" + (outcome.seconds ? seconds_text(*outcome.seconds) : ""),
            "CONFIG_COPY_BYTES=" + (outcome.bytes ? std::to_string(*outcome.bytes) : ""),
            "CONFIG_COPY_SHA256=" + outcome.sha256,
            std::string("CONFIG_COPY_UNCHANGED=") + yes_or_no(outcome.is_unchanged),
            "CONFIG_COPY_ATTEMPTS=" + std::to_string(outcome.attempts)};
}

void run_on_done(const std::string &program, const Outcome &outcome,
                 std::chrono::milliseconds time_limit) {
    constexpr std::size_t output_limit = std::size_t{1024} * 1024; // nobody reads it
    if (interrupting_signal() != 0) {
        throw Interrupted{};
    }
    const ulmo::ProgramCall call{{program}, "", time_limit, output_limit, environment_of(outcome)};
    std::string reason;
    try {
        const ulmo::ProgramEnd end = ulmo::run_program(call);
        if (end.is_success()) {
            return;
        }
        reason = ulmo::failure_of(call, end);
    } catch (const std::system_error &error) {
        reason = error.code().message();
    }
    throw Failure(ExitStatus::failed,
                  "--on-done: " + program + " failed for " + outcome.agent + ": " + reason);
}

} // namespace config_copy
