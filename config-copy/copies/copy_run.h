// One copy on one agent, from creating the request to removing it.
#pragma once

#include "base/unique_fd.h"
#include "config-copy/agents/agent.h"
#include "config-copy/agents/server_address.h"
#include "config-copy/copies/endpoint.h"
#include "config-copy/copies/file_names.h"
#include "config-copy/copies/keep.h"
#include "config-copy/output/outcome.h"
#include "copy_client/session.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace config_copy {

class LocalTransfers;

struct CopyJob {
    Endpoint from;
    Endpoint to;
    ServerAddress server; // of the endpoint that is a file
    std::string password;
    PathValues time; // of the run, for the templates of a path
    std::shared_ptr<FileNames> file_names = std::make_shared<FileNames>();
    std::chrono::seconds wait_turn{0};  // how long to wait while another copy is in progress
    std::chrono::seconds time_limit{0}; // how long the copy may take
    bool is_dry_run = false;            // only query, set nothing
    bool is_verbose = false;            // as for session_with()

    // Only if FROM or TO is a file of this machine.
    std::shared_ptr<LocalTransfers> transfers;
    std::optional<ServerAddress> local_address; // of this machine as the switch sees it, if given
    bool is_replacement = false;                // put replace_line in front of FROM
    Keeping keeping = Keeping::no;
    std::shared_ptr<ulmo::UniqueFd> content; // of FROM, if all agents get the same

    std::shared_ptr<ulmo::UniqueFd> into; // gets what TO would get, if given

    bool is_diff = false; // compare FROM and TO instead of copying

    [[nodiscard]] bool is_local() const { return from.is_local() || to.is_local(); }
    [[nodiscard]] bool has_file() const {
        return from.type == FileType::network || to.type == FileType::network;
    }
    [[nodiscard]] const FileUrl &file() const {
        return from.type == FileType::network ? from.url : to.url;
    }
};

// The values for the agent's templates; that of {name} is empty until the switch is asked.
PathValues path_values(const CopyJob &job, const Agent &agent);

// Asks for the switch's name if a path of the job needs it and it is not known yet. Throws a
// Failure, or Trouble.
void learn_name(Session &session, const CopyJob &job, Agent &agent);

// What is known about a copy on the agent before it begins.
Outcome planned(const CopyJob &job, const Agent &agent);

// Does the copy; the session can't be used afterwards. Leaves no request of ours on the switch,
// whatever happens, as long as the agent answers. A dry run only queries for conflicts. Throws only
// Interrupted and InterruptedWithRequests.
Outcome copy(Session &session, const Agent &agent, const CopyJob &job, const Progress &progress);

// The same with a session of its own.
Outcome copy(const Agent &agent, const CopyJob &job, const Progress &progress);

// The duration of a copy by ccCopyTimeStarted and ccCopyTimeCompleted; empty if it has not ended.
std::optional<double> seconds_between(const Value &started, const Value &completed);

// The rows of ccCopyErrorTable of one request.
std::vector<SwitchOutcome> switches_of(Session &session, oid index,
                                       std::size_t most = most_instances);

// Throws a Failure of refused if the agent has no copy table that the user may read. SNMPv1 agents
// do not tell.
void check_table(Session &session);

// An endpoint in the form that parse_endpoint() reads, with the templates filled in and without a
// password. {name} stays while the switch's name is not known.
std::string endpoint_text(const Endpoint &endpoint, const PathValues &values);

} // namespace config_copy
