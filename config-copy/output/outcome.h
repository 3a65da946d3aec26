// The outcome of a copy, and its description for the user.
#pragma once

#include "base/copy_names.h"
#include "config-copy/failure.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

// The report of one switch of a fabric.
struct SwitchOutcome {
    std::string address; // as text; empty if unknown
    std::string wwn;     // such as 20:00:00:00:00:00:00:01
    std::string text;
};

// What differs between two texts, by diff(1).
struct Difference {
    std::string text; // unified; empty if they are the same
    std::size_t added = 0;
    std::size_t removed = 0;

    [[nodiscard]] bool any() const { return !text.empty(); }
};

// Unknown values are empty.
struct Outcome {
    std::string agent;
    std::string group; // of the agent in the hosts file
    ExitStatus status = ExitStatus::done;
    std::string text; // one line: what happened, and what to do about it
    bool is_dry_run = false;
    int attempts = 1; // how often the copy was tried
    std::string from; // as from endpoint_text()
    std::string to;
    std::string server;                 // the file server's address
    std::string file;                   // the file's name on the server
    std::string user;                   // the account on the server
    std::string snmp_user;              // of SNMPv3
    std::optional<unsigned long> index; // the last request that was created
    // utc_text() by this machine's clock; empty if the copy never ran
    std::string start_time;
    std::int64_t started = 0;      // the same by ccCopyTimeStarted, in hundredths of a second
    std::string state;             // ccCopyState at the end, as text; empty if the copy never ran
    std::string cause;             // ccCopyFailCause as text; empty unless the copy failed
    std::string reason;            // the switch's own words about the failure
    std::optional<double> seconds; // duration of the copy by the agent's clock
    std::optional<std::uint64_t> bytes; // transferred
    std::string sha256;                 // of the transferred octets, in hexadecimal
    // Whether a file of this machine had that content before; empty for any other copy.
    std::optional<bool> is_unchanged;
    // Whether a restored configuration was saved to startup; empty if that was not asked for, or is
    // not known because the agent was silent after the save.
    std::optional<bool> is_saved;
    // Of what was compared, by the command diff or in a dry run.
    std::optional<Difference> difference;
    std::vector<SwitchOutcome> switches;

    void fail(const Failure &failure) {
        status = failure.status();
        text = failure.what();
    }
};

// As in 2026-11-21T09:30:00Z.
std::string utc_text(std::time_t time);

// With two decimals.
std::string seconds_text(double seconds);

// "16777216 octets"; with the rate, as in "16777216 octets (4.10 MiB/s)", if it took long enough to
// tell.
std::string octets_text(std::uint64_t octets, std::optional<double> seconds = std::nullopt);

// As in the summary: "done", "failed", "usage", "refused", "not reachable", "busy", "different".
std::string_view name_of(ExitStatus status);

// The status for several copies: done if all are; if the others all ended alike, their status;
// otherwise failed. A difference counts only if nothing worse has happened.
ExitStatus status_of_all(const std::vector<Outcome> &outcomes);

// Whether the same copy may succeed a little later: the agent was not reachable or busy, or did not
// get an answer of the file server in time.
bool may_pass(const Outcome &outcome);

// Notes that this is the outcome of the n-th attempt.
void set_attempts(Outcome &outcome, int attempts);

// The name in the MIB, or the number if it has none.
std::string state_name(std::int64_t state);
using ulmo::cause_name;

// Why the copy failed, and what to do about it. `server` names the file server and is empty for a
// copy without one; `reason` is the switch's own report, or empty.
std::string describe_cause(std::int64_t cause, std::string_view server, bool is_fabric,
                           std::string_view reason = {});

// Why the agent refuses to create the request with this error status about this column (0: none),
// and what to do about it. `low_level` is that of Session::low_level().
std::string describe_refusal(long status, unsigned long column, std::string_view low_level);

// The same for the activation.
std::string describe_refused_activation(long status, std::string_view low_level);

// The most likely meaning of an authorizationError at a security level below authPriv.
std::string describe_low_level(std::string_view low_level);

// What to do if the agent refuses a read.
inline constexpr char read_view_needed[] =
    "the user needs a read view with .1.3.6.1.4.1.41927.9.96";

} // namespace config_copy
