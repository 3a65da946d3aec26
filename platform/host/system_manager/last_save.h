// How saving this switch's running configuration went the last time, in words for an operator. Kept
// in the run directory: the disk with the state may be full, which is then what is to be told.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr std::string_view saved_text = "saved";

// Replaces what is kept, at once and whole; a failure is logged, the save is none the worse for it.
void record_last_save(std::string_view outcome);

// saved_text, or the reason; nothing when nothing was saved since the machine booted. Throws
// std::system_error.
std::optional<std::string> last_save();

} // namespace ulmo
