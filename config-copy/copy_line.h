// What the switch itself says of a copy: the line that its platform keeps of each, where the user
// may read the agent's nsExtendOutLine."last-copy" (NET-SNMP-EXTEND-MIB). cmdshell(1) has its
// words.
#pragma once

#include "config-copy/copy_table.h"
#include "copy_client/session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace config_copy {

struct CopyLine {
    std::string reason; // why it failed, fit for a terminal; empty when the switch does not say
    std::optional<std::uint64_t> bytes;
    std::string sha256;
};

// The line, when it is the one of this request: of this index, begun when ccCopyTimeStarted says.
std::optional<CopyLine> parsed_copy_line(std::string_view line, oid index, long started);

// The switch's line of a copy that has ended; nothing where there is none or it may not be read.
// The agent's lines may be a second old: then it is asked again.
std::optional<CopyLine> line_of_copy(Session &session, oid index, long started);

} // namespace config_copy
