// Saving the running configuration of another switch of the fabric: one row of its ccCopyTable,
// over SNMPv3 with authentication and privacy.
#pragma once

#include "copy_client/trouble.h"
#include "platform/host/system_manager/fabric_members.h"

#include <chrono>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr std::string_view save_given_up = "given up";

// Saves the member's running configuration as its startup configuration and returns the outcome in
// words: "saved", or why not. Takes no longer than `limit`. Once the descriptor `stop` (-1: never)
// is readable, the save is given up, within a second. Whatever the outcome, no row stays at the
// member as long as it answers, and a copy that runs in such a row ends with it. Threads may save
// members side by side, in a process that has called copy_client::set_up_library().
std::string save_member(const FabricMember &member, std::chrono::seconds limit, int stop);

// --- what answers mean ---

// In words, why no save of the member came about within `limit`.
std::string words_of_trouble(const copy_client::Trouble &trouble, std::chrono::seconds limit);

// In words, why the member refused to start the save with this error status (RFC 3416).
std::string words_of_refused_start(long status);

// In words, how a row that reads ccCopyState failed(4) failed. `last_save` is what the member
// itself says of its last save; its first line counts.
std::string words_of_failure(long fail_cause, std::string_view last_save);

} // namespace ulmo
