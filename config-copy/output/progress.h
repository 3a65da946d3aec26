// How far a copy is.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

namespace config_copy {

struct Step {
    std::string_view state;
    std::chrono::seconds elapsed;             // in that state
    std::optional<std::uint64_t> octets = {}; // that have arrived at this machine
};

// Called repeatedly during the copy.
using Progress = std::function<void(const Step &step)>;

} // namespace config_copy
