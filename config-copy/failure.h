// The ways in which a run of config-copy can end.
#pragma once

#include <stdexcept>
#include <string>

namespace config_copy {

// The command's exit statuses. With the command diff, 1 means a difference, as with diff(1), and
// failed and different change places.
enum class ExitStatus {
    done = 0,
    failed = 1,
    usage = 2,
    refused = 3,
    unreachable = 4,
    busy = 5,
    different = 6, // only of the command diff
};

constexpr int exit_number(ExitStatus status, bool is_diff) {
    if (is_diff && (status == ExitStatus::failed || status == ExitStatus::different)) {
        return static_cast<int>(status == ExitStatus::failed ? ExitStatus::different
                                                             : ExitStatus::failed);
    }
    return static_cast<int>(status);
}

// Thrown to end a run early. The text tells the user in one line what is wrong and what to do about
// it.
class Failure : public std::runtime_error {
  public:
    Failure(ExitStatus status, const std::string &text)
        : std::runtime_error(text), status_(status) {}
    [[nodiscard]] ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

inline Failure bad_usage(const std::string &text) {
    return {ExitStatus::usage, text};
}

} // namespace config_copy
