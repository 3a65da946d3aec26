// Room: which switches are one fabric, and how its last save went on each.
// Used by: system_manager, agent.
// May use: base, history, platform.
//
// How the last fabric-wide action went on each switch, as the system manager leaves it for the
// agent: the file `fabric-status` of the run directory (the disk with the state may be full, which
// is then what is to be told), one switch a line: `WWN local|remote ADDRESS|- TEXT`.
#pragma once

#include "platform/host/fabric/wwn.h"
#include "platform/inet_address.h"

#include <string>
#include <vector>

namespace ulmo {

struct FabricSwitchStatus {
    Wwn wwn{};
    bool is_local = false;
    inet_address address{}; // type INET_ADDRESS_UNKNOWN: not known
    std::string text;       // the outcome in words
};

// The switches in the order of the file; none when there is no file. A line that is no such line,
// that has the all-zero name or a name that an earlier line has is left out. Throws
// std::system_error when the file is there and can't be read.
std::vector<FabricSwitchStatus> read_fabric_status();

// Replaces the file at once and whole: a reader has the old one or the new one. A text becomes one
// line. Throws std::system_error; the old file is then as it was.
void write_fabric_status(const std::vector<FabricSwitchStatus> &switches);

} // namespace ulmo
