// Saving the running configurations of the fabric's members, all at once.
#pragma once

#include "platform/host/fabric/status.h"
#include "platform/host/system_manager/fabric_members.h"

#include <chrono>
#include <string>
#include <vector>

namespace ulmo {

// Saves one member; the contract of save_member().
using MemberSave = std::string (*)(const FabricMember &member, std::chrono::seconds limit, bool (*is_stopped)());

// Saves every member in a process of its own, each within `limit`, and returns the outcomes in words, in the order of the members. When the
// descriptor `stop` becomes readable (-1: never), the work is given up: the members' rows are taken away, at most two seconds long, and the
// outcomes not known by then are "given up". A process that fails itself gives "internal error". All processes have ended when the function
// returns, and they end with the calling process if that dies. The caller has one thread only and does
// not ignore SIGCHLD. Throws std::bad_alloc.
std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members, std::chrono::seconds limit, int stop);
std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members, std::chrono::seconds limit, int stop,
                                             MemberSave save);

} // namespace ulmo
