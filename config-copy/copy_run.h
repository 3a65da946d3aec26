// One copy on one agent, from the setting-up of a request to its removal.
#pragma once

#include "config-copy/copy_side.h"
#include "config-copy/outcome.h"
#include "config-copy/server_address.h"
#include "copy_client/session.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace config_copy {

struct CopyOrder {
    CopySide from;
    CopySide to;
    ServerAddress server; // of the side that is a file
    std::string password;
    std::string date;                   // for {date}
    std::chrono::seconds wait_turn{0};  // how long to wait while another copy is in progress
    std::chrono::seconds time_limit{0}; // how long the copy may take
    bool is_dry_run = false;            // ask, and set nothing
    bool is_verbose = false;            // as of Session
    std::string snmp_user;              // of SNMPv3
    [[nodiscard]] bool has_file() const {
        return from.type == FileType::network || to.type == FileType::network;
    }
    [[nodiscard]] const FileUrl &file() const {
        return from.type == FileType::network ? from.url : to.url;
    }
};

// Called again and again while the copy goes on: what it is doing, and for how long.
using Progress = std::function<void(std::string_view state, std::chrono::seconds elapsed)>;

// What is known of a copy on the agent before it begins.
Outcome planned(const CopyOrder &order, const std::string &agent);

// Does the copy, after which the session is of no more use. No request of ours stays on the switch,
// whatever happens, as long as the agent answers. A dry run asks what a request could meet. Throws
// Interrupted only.
Outcome copy(Session &session, const CopyOrder &order, const Progress &progress);

// The same with a session of its own.
Outcome copy(const netsnmp_session &defaults, const std::string &agent, const CopyOrder &order,
             const Progress &progress);

// How long a copy took, of ccCopyTimeStarted and ccCopyTimeCompleted; nothing when it has not
// ended.
std::optional<double> seconds_between(const Value &started, const Value &completed);

// The rows of ccCopyErrorTable of one request.
std::vector<SwitchOutcome> switches_of(Session &session, oid index);

// Throws a Failure of refused when the agent has no copy table that we may read. Agents of SNMPv1
// do not tell.
void check_table(Session &session);

// A side as parse_side() takes it, with the templates filled in; never with a password.
std::string side_text(const CopySide &side, const PathValues &values);

} // namespace config_copy
