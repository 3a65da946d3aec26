// Room: which switches are one fabric, and how its last save went on each.
// Used by: system_manager, agent.
// May use: base, history, platform.
//
// The outcome of the last fabric-wide action on each switch, which the system manager writes for
// the agent. It is the file `fabric-status` in the run directory, because the outcome may be that
// the state directory's disk is full. It has one line for each switch: `WWN local|remote ADDRESS|-
// TEXT`.
#pragma once

#include "platform/host/fabric/wwn.h"
#include "platform/inet_address.h"

#include <string>
#include <vector>

namespace ulmo {

struct FabricSwitchStatus {
    Wwn wwn{};
    bool is_local = false;
    inet_address address{}; // INET_ADDRESS_UNKNOWN if it is not known
    std::string text;       // the outcome in words
};

// The switches in the order of the file; empty if there is no file. A line is skipped if it is
// malformed, has the all-zero WWN, or repeats the WWN of an earlier line. Throws std::system_error
// if the file exists but can't be read.
std::vector<FabricSwitchStatus> read_fabric_status();

// Replaces the file atomically. Each text is written as one line. Throws std::system_error; the old
// file is then unchanged.
void write_fabric_status(const std::vector<FabricSwitchStatus> &switches);

} // namespace ulmo
