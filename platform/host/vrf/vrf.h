// Room: the kind of switch this is, and its VRFs.
// Used by: programs.
// May use: base, platform.
//
// VRFs of a Linux host. A VRF is the network namespace of its name (/run/netns, ip-netns(8)), or
// else the VRF device of its name (ip-link(8), type vrf). If there is neither, "management" is the
// default routing table.
#pragma once

#include <optional>
#include <string>

namespace ulmo {

// The name of the VRF with this number from vrfdir_get_context_id(), or nothing. Number and name
// remain valid after the VRF has been removed.
std::optional<std::string> vrf_name(int id);

// Moves the calling thread into the VRF, for the sockets that it opens and the programs that it
// starts from now on. Does nothing for a VRF device (see vrf_device()) and for "management" as the
// default routing table. Returns false, with the reason in *why, if there is no such VRF or it
// can't be entered.
bool enter_vrf(const std::string &name, std::string *why);

// The device to bind sockets to (SO_BINDTODEVICE, socket(7)) in this VRF; nothing if no binding is
// needed. To be called before enter_vrf().
std::optional<std::string> vrf_device(const std::string &name);

} // namespace ulmo
