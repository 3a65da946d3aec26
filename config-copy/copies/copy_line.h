// The switch's own record of a copy: a line that its platform keeps, read through the agent's
// nsExtendOutLine."last-copy" (NET-SNMP-EXTEND-MIB) if the user may read that. cmdshell(1)
// describes its fields.
#pragma once

#include "config-copy/copy_table.h"
#include "copy_client/session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace config_copy {

struct CopyLine {
    std::string reason; // why it failed, safe for a terminal; empty if the switch does not say
    std::optional<std::uint64_t> bytes;
    std::string sha256;
    bool is_undone = false; // a later line says that the configuration before it came back
};

// Parses the line if it is about this request: the same index, begun at ccCopyTimeStarted.
std::optional<CopyLine> parsed_copy_line(std::string_view line, oid index, std::int64_t started);

// Whether the line is about a way back: a change that was not saved within confirm_limit.
bool is_way_back(std::string_view line);

// The switch's line about a finished copy; empty if there is none or the user may not read it. The
// agent's lines may be a second old, so it asks again then.
std::optional<CopyLine> line_of_copy(Session &session, oid index, std::int64_t started);

} // namespace config_copy
