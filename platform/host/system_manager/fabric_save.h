// Saving the running configurations of the fabric's members, all at once.
#pragma once

#include "platform/host/fabric/status.h"
#include "platform/host/system_manager/fabric_members.h"

#include <chrono>
#include <string>
#include <vector>

namespace ulmo {

// Saves one member; the contract of save_member().
using MemberSave = std::string (*)(const FabricMember &member, std::chrono::seconds limit,
                                   int stop);

// Saves every member in a thread of its own, each within `limit`, and returns the outcomes in
// words, in the order of the members. When the descriptor `stop` becomes readable (-1: never), the
// work is given up: the members' rows are taken away, at most two seconds long, and the outcomes
// not known by then are "given up". A thread that fails itself or does not end in time gives
// "internal error". One that does not end is left behind, and ends with the process: that is to be
// one of the save's own. Throws std::system_error and std::bad_alloc.
std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members,
                                             std::chrono::seconds limit, int stop);
std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members,
                                             std::chrono::seconds limit, int stop, MemberSave save);

} // namespace ulmo
