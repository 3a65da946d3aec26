// Saving the running configuration of another switch of the fabric: one row of its ccCopyTable, over SNMPv3 with authentication and
// privacy.
#pragma once

#include "platform/host/system_manager/fabric_members.h"

#include <chrono>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr std::string_view save_given_up = "given up";

// Saves the member's running configuration as its startup configuration and returns the outcome in words: "saved", or why not. Takes no
// longer than `limit`. `is_stopped` is asked again and again; once it says yes, the save is given up, within two seconds. Whatever the
// outcome, no row stays at the member as long as it answers, and a copy that runs in such a row ends with it. Sets Net-SNMP up for the
// whole process, so call it in a process of its own.
std::string save_member(const FabricMember &member, std::chrono::seconds limit, bool (*is_stopped)());

// --- what answers mean ---

enum class SaveStep { create, activate, other };

// In words, why the member answered a request with this error status (RFC 3416).
std::string words_of_error_status(SaveStep step, long status);

// In words, what this error of the Net-SNMP library (SNMPERR_…) says for good about the member; empty when another attempt may do better.
std::string words_of_library_error(int error);

// In words, how a row that reads ccCopyState failed(4) failed. `last_save` is what the member itself says of its last save; its first line
// counts.
std::string words_of_failure(long fail_cause, std::string_view last_save);

} // namespace ulmo
