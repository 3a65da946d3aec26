// What came of a copy, and how it is said in words.
#pragma once

#include "base/copy_names.h"
#include "config-copy/copy_table.h"
#include "config-copy/failure.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

// What one switch of a fabric reported.
struct SwitchOutcome {
    std::string address; // in words; empty when it is not known
    std::string wwn;     // as in 20:00:00:00:00:00:00:01
    std::string text;
};

// What is not known is empty.
struct Outcome {
    std::string agent;
    Ending ending = Ending::done;
    std::string text; // one line: what happened and what to do about it
    bool is_dry_run = false;
    std::string from; // as of side_text()
    std::string to;
    std::string server;                 // the file server's address
    std::string file;                   // its name on the server
    std::string user;                   // the account on the server
    std::string snmp_user;              // of SNMPv3
    std::optional<unsigned long> index; // of the last request that was made
    std::string start_time; // UTC by this machine's clock, as in 2026-11-21T09:30:00Z; empty when
                            // it never ran
    std::string state;      // ccCopyState as the copy ended, in words; empty when it never ran
    std::string cause;      // ccCopyFailCause in words; empty unless the copy failed
    std::string reason;     // what the switch says of the failure in its own words
    std::optional<double> seconds;      // how long the copy took, by the agent's clock
    std::optional<std::uint64_t> bytes; // what travelled
    std::string sha256;                 // of what travelled, in hexadecimal
    std::vector<SwitchOutcome> switches;

    void fail(const Failure &failure) {
        ending = failure.ending();
        text = failure.what();
    }
};

// What still happens on the switch after the request of such a copy was removed while it ran; empty
// for a save, which is given up.
std::string words_of_what_goes_on(FileType from, FileType to);

// With two decimals.
std::string seconds_text(double seconds);

// As in the summary: "done", "failed", "usage", "refused", "not reachable", "busy".
std::string_view name_of(Ending ending);

// The exit status of several copies: 0 when all are done, the one of those that are not when they
// ended alike, and 1 otherwise.
Ending ending_of_all(const std::vector<Outcome> &outcomes);

// Names of the MIB, the number itself when it has none.
std::string state_name(long state);
using ulmo::cause_name;

// Why the copy failed and what to do about it. `server` is the file server in words, empty for a
// copy without one; `reason` what the switch says, empty when it says nothing.
std::string words_of_cause(long cause, std::string_view server, bool is_fabric,
                           std::string_view reason = {});

// Why the agent refuses the setting-up of a request with this error status about this column (0:
// about none), and what to do about it. `low_level` as of Session::low_level().
std::string words_of_refusal(long status, unsigned long column, std::string_view low_level);

// The same of the activation.
std::string words_of_refused_activation(long status, std::string_view low_level);

// What an authorizationError most probably means at a security level below authPriv.
std::string words_of_low_level(std::string_view low_level);

// What to do when the agent refuses a read.
inline constexpr char read_view_needed[] =
    "the user needs a read view with .1.3.6.1.4.1.41927.9.96";

} // namespace config_copy
