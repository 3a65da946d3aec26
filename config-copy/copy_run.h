// One copy on one agent, from creating the request to removing it.
#pragma once

#include "config-copy/endpoint.h"
#include "config-copy/outcome.h"
#include "config-copy/server_address.h"
#include "copy_client/session.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace config_copy {

struct CopyJob {
    Endpoint from;
    Endpoint to;
    ServerAddress server; // of the endpoint that is a file
    std::string password;
    std::string date;                   // for {date}
    std::chrono::seconds wait_turn{0};  // how long to wait while another copy is in progress
    std::chrono::seconds time_limit{0}; // how long the copy may take
    bool is_dry_run = false;            // only query, set nothing
    bool is_verbose = false;            // as for session_with()
    std::string snmp_user;              // of SNMPv3
    [[nodiscard]] bool has_file() const {
        return from.type == FileType::network || to.type == FileType::network;
    }
    [[nodiscard]] const FileUrl &file() const {
        return from.type == FileType::network ? from.url : to.url;
    }
};

// Called repeatedly during the copy with its state and the time it has spent there.
using Progress = std::function<void(std::string_view state, std::chrono::seconds elapsed)>;

// What is known about a copy on the agent before it begins.
Outcome planned(const CopyJob &job, const std::string &agent);

// Does the copy; the session can't be used afterwards. Leaves no request of ours on the switch,
// whatever happens, as long as the agent answers. A dry run only queries for conflicts. Throws only
// Interrupted and InterruptedWithRequests.
Outcome copy(Session &session, const CopyJob &job, const Progress &progress);

// The same with a session of its own.
Outcome copy(const netsnmp_session &defaults, const std::string &agent, const CopyJob &job,
             const Progress &progress);

// The duration of a copy by ccCopyTimeStarted and ccCopyTimeCompleted; empty if it has not ended.
std::optional<double> seconds_between(const Value &started, const Value &completed);

// The rows of ccCopyErrorTable of one request.
std::vector<SwitchOutcome> switches_of(Session &session, oid index,
                                       std::size_t most = most_instances);

// Throws a Failure of refused if the agent has no copy table that the user may read. SNMPv1 agents
// do not tell.
void check_table(Session &session);

// An endpoint in the form that parse_endpoint() reads, with the templates filled in and without a
// password.
std::string endpoint_text(const Endpoint &endpoint, const PathValues &values);

} // namespace config_copy
