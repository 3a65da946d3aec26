// Saves the running configurations of the fabric's members, all at the same time.
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
// words, in the order of the members. If the descriptor `stop` becomes readable (-1: never), the
// saves are given up: the members' rows are destroyed, which takes two seconds at most, and each
// outcome not known by then is "given up". A thread that fails or does not end in time gives
// "internal error". A thread that does not end is left behind and ends with the process, which
// should therefore be dedicated to the save. Throws std::system_error and std::bad_alloc.
std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members,
                                             std::chrono::seconds limit, int stop);
std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members,
                                             std::chrono::seconds limit, int stop, MemberSave save);

} // namespace ulmo
