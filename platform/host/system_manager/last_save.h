// The outcome of the last save of this switch's running configuration, in words for an operator. It
// is kept in the run directory, because the outcome may be that the state directory's disk is full.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr std::string_view saved_text = "saved";

// Replaces the kept outcome atomically; a failure is logged and does not affect the save.
void record_last_save(std::string_view outcome);

// saved_text, or the reason of the failure; nothing if nothing was saved since the machine booted.
// Throws std::system_error.
std::optional<std::string> last_save();

} // namespace ulmo
