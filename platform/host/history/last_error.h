// The reasons of refused requests that log_set_error() keeps, for who asks in the same process and thread.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <vector>

namespace ulmo {

struct LastError {
    std::uint32_t code;
    std::uint32_t facility;
    std::time_t time;
};

inline constexpr std::size_t last_errors_kept = 16;

// The last last_errors_kept reasons, oldest first.
std::vector<LastError> last_errors();

// The last code, or nothing when none was recorded yet.
std::optional<std::uint32_t> last_error_code();

} // namespace ulmo
