// Saves the running configuration of another switch of the fabric through one row of its
// ccCopyTable, over SNMPv3 with authentication and privacy.
#pragma once

#include "copy_client/trouble.h"
#include "platform/host/system_manager/fabric_members.h"

#include <chrono>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr std::string_view save_given_up = "given up";

// Saves the member's running configuration as its startup configuration and returns the outcome in
// words: "saved", or the reason of the failure. Takes at most `limit`. Once the descriptor `stop`
// (-1: never) is readable, the save is given up within a second. Whatever the outcome, no row
// remains at the member if it answers, and a copy that runs in such a row ends with it. Several
// threads may save members at the same time, in a process that has called
// copy_client::set_up_library().
std::string save_member(const FabricMember &member, std::chrono::seconds limit, int stop);

// Describes why a save of the member did not take place within `limit`.
std::string describe_trouble(const copy_client::Trouble &trouble, std::chrono::seconds limit);

// Describes why the member refused to start the save, from its error status (RFC 3416).
std::string describe_refused_start(long status);

// Describes the failure of a row with ccCopyState failed(4). `last_save` is the member's own text
// about its last save; only its first line counts.
std::string describe_failure(std::int64_t fail_cause, std::string_view last_save);

} // namespace ulmo
