// Room: the kind of switch this is, and its VRFs.
// Used by: programs.
// May use: base, platform.
//
// VRFs of a Linux host. A VRF is the network namespace of that name (/run/netns, ip-netns(8)) or
// else the VRF device of that name (ip-link(8), type vrf); "management" without either is the
// routing table that everything uses.
#pragma once

#include <optional>
#include <string>

namespace ulmo {

// The name behind a number of vrfdir_get_context_id(), or nothing. A VRF that is gone keeps its
// number, and the number its name.
std::optional<std::string> vrf_name(int id);

// Puts the calling thread into the VRF: what it opens from now on, and what it starts, lives there.
// Nothing is left to do for a VRF device (see vrf_device()) and for an ordinary "management".
// Returns false when there is no such VRF or it can't be entered, with the reason in *why.
bool enter_vrf(const std::string &name, std::string *why);

// The device to which sockets have to be bound (SO_BINDTODEVICE, socket(7)) to work in this VRF;
// nothing when no binding is needed. Asked before enter_vrf().
std::optional<std::string> vrf_device(const std::string &name);

} // namespace ulmo
