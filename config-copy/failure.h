// How a run of config-copy can end.
#pragma once

#include <stdexcept>
#include <string>

namespace config_copy {

// The command's exit statuses.
enum class Ending { done = 0, failed = 1, usage = 2, refused = 3, unreachable = 4, busy = 5 };

// Thrown where a run ends before its time. The text is for the user: what is wrong, and what to do
// about it, in one line.
class Failure : public std::runtime_error {
  public:
    Failure(Ending ending, const std::string &text) : std::runtime_error(text), ending_(ending) {}
    [[nodiscard]] Ending ending() const { return ending_; }

  private:
    Ending ending_;
};

inline Failure bad_usage(const std::string &text) {
    return {Ending::usage, text};
}

} // namespace config_copy
