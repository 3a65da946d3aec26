#include "config-copy/output/outcome.h"

#include "config-copy/copy_table.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <array>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace config_copy {
namespace {

std::string numbered(std::int64_t number) {
    return std::to_string(number);
}

std::string name_of_column(unsigned long column) {
    switch (column) {
    case CC_COLUMN_PROTOCOL:
        return "the protocol";
    case CC_COLUMN_SOURCE_FILE_TYPE:
    case CC_COLUMN_DEST_FILE_TYPE:
        return "the file types";
    case CC_COLUMN_FILE_NAME:
        return "the file name";
    case CC_COLUMN_USER_NAME:
        return "the user name";
    case CC_COLUMN_USER_PASSWORD:
        return "the password";
    case CC_COLUMN_SERVER_ADDRESS_TYPE:
    case CC_COLUMN_SERVER_ADDRESS_REV1:
        return "the file server's address";
    default:
        return "the request";
    }
}

} // namespace

std::string_view name_of(ExitStatus status) {
    constexpr std::array<std::string_view, 7> names{
        "done", "failed", "usage", "refused", "not reachable", "busy", "different"};
    return names.at(static_cast<std::size_t>(status));
}

std::string utc_text(std::time_t time) {
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

std::string seconds_text(double seconds) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << seconds;
    return text.str();
}

std::string octets_text(std::uint64_t octets, std::optional<double> seconds) {
    // The agent's clock counts hundredths, and small files take the time of a log-in.
    constexpr double least_seconds = 0.5;
    constexpr double mebioctet = 1024 * 1024;
    std::string text = std::to_string(octets) + " octets";
    if (seconds && *seconds >= least_seconds && static_cast<double>(octets) >= mebioctet) {
        text += " (" + seconds_text(static_cast<double>(octets) / mebioctet / *seconds) + " MiB/s)";
    }
    return text;
}

ExitStatus status_of_all(const std::vector<Outcome> &outcomes) {
    ExitStatus all = ExitStatus::done;
    for (const Outcome &outcome : outcomes) {
        if (outcome.status == ExitStatus::done || outcome.status == all ||
            (outcome.status == ExitStatus::different && all != ExitStatus::done)) {
            continue;
        }
        all = all == ExitStatus::done || all == ExitStatus::different ? outcome.status
                                                                      : ExitStatus::failed;
        if (all == ExitStatus::failed) {
            break;
        }
    }
    return all;
}

bool may_pass(const Outcome &outcome) {
    // The configuration may be in force: to restore it again would cut the manager off again, and
    // give the way back more time.
    if (outcome.to == ulmo::file_type_names.at(COPY_FILE_RUNNING) && !outcome.start_time.empty() &&
        outcome.cause.empty()) {
        return false;
    }
    return outcome.status == ExitStatus::unreachable || outcome.status == ExitStatus::busy ||
           (outcome.status == ExitStatus::failed && outcome.cause == cause_name(COPY_FAIL_TIMEOUT));
}

void set_attempts(Outcome &outcome, int attempts) {
    outcome.attempts = attempts;
    if (attempts > 1) {
        outcome.text += " (attempt " + std::to_string(attempts) + ')';
    }
}

std::string state_name(std::int64_t state) {
    constexpr std::array<std::string_view, 5> names{"", "waiting", "running", "successful",
                                                    "failed"};
    return state > 0 && state < static_cast<std::int64_t>(names.size())
               ? std::string(names.at(static_cast<std::size_t>(state)))
               : numbered(state);
}

std::string describe_cause(std::int64_t cause, std::string_view server, bool is_fabric,
                           std::string_view reason) {
    const std::string the_server =
        server.empty() ? "the file server" : "the file server " + std::string(server);
    // The switch's own report, if there is one, replaces the hint where to look.
    const auto because = [reason](const char *what, const char *where) {
        return std::string(what) + ": " + (reason.empty() ? where : std::string(reason));
    };
    const std::string also = reason.empty() ? "" : "; the switch says: " + std::string(reason);
    switch (cause) {
    case COPY_FAIL_GENERAL:
        if (!reason.empty()) {
            return "the switch says: " + std::string(reason);
        }
        return "the agent does not pass on the reason: see `cmdshell -c \"show copies\"` on the "
               "switch";
    case COPY_FAIL_BAD_FILE_NAME:
        return the_server +
               " has no such file or refuses access to it: check the file's name, and the "
               "permissions on the server" +
               also;
    case COPY_FAIL_TIMEOUT:
        return the_server +
               " did not answer the switch: check its address, the route to it, and whether the "
               "server runs" +
               also;
    case COPY_FAIL_NO_SPACE:
        return "no space is left on the switch or on " + the_server +
               ": check the disks, and the quota on the server" + also;
    case COPY_FAIL_BAD_CONFIG:
        return "the file is not a configuration, or is too large for one: check its contents and "
               "its "
               "size, and shorten a file name of more than 100 octets" +
               also;
    case COPY_FAIL_UNSUPPORTED_PROTOCOL:
        return "the switch does not offer the protocol: use another one" + also;
    case COPY_FAIL_CONFIG_NOT_APPLIED:
        return because("the configuration was refused while it was applied",
                       "see /tmp/configcopy.txt on the switch for the line");
    case COPY_FAIL_WARDEN_REFUSED:
        return because("the system manager did not begin to save",
                       "another save may be in progress, so try again, or see its log");
    case COPY_FAIL_WARDEN_FAILED:
        return is_fabric ? because("not every switch of the fabric has saved",
                                   "see `cmdshell -c \"show copies\"` on the switch")
                         : because("the system manager could not save",
                                   "see `cmdshell -c \"show copies\"` on the switch");
    default:
        return "the switch gives the unknown cause " + numbered(cause) + also;
    }
}

std::string describe_low_level(std::string_view low_level) {
    return "the agent grants this user nothing at the security level " + std::string(low_level) +
           ": choose a higher one, such as -l authPriv (if that is refused too, check the user's "
           "views)";
}

std::string describe_refusal(long status, unsigned long column, std::string_view low_level) {
    if (status == SNMP_ERR_AUTHORIZATIONERROR && !low_level.empty()) {
        return describe_low_level(low_level);
    }
    switch (status) {
    case SNMP_ERR_NOACCESS:
    case SNMP_ERR_AUTHORIZATIONERROR:
    case SNMP_ERR_READONLY:
        return "this user or community may not write copy requests: it needs a write view with "
               ".1.3.6.1.4.1.41927.9.96";
    case SNMP_ERR_NOTWRITABLE:
    case SNMP_ERR_NOCREATION:
        return "the agent has no copy table: load config_copy_mib into it (its log tells why it is "
               "not)";
    case SNMP_ERR_NOSUCHNAME:
        return "the agent has no copy table, or this user or community may not write it: load "
               "config_copy_mib, and check the write view";
    case SNMP_ERR_WRONGVALUE:
    case SNMP_ERR_WRONGLENGTH:
    case SNMP_ERR_WRONGTYPE:
    case SNMP_ERR_BADVALUE:
        return "the switch does not accept " + name_of_column(column);
    default:
        return std::string("the switch refuses ") + name_of_column(column) + " with " +
               ::snmp_errstring(static_cast<int>(status));
    }
}

std::string describe_refused_activation(long status, std::string_view low_level) {
    switch (status) {
    case SNMP_ERR_INCONSISTENTVALUE:
        return "the switch finds the request incomplete: check user and password";
    case SNMP_ERR_WRONGVALUE:
        return "the switch does not accept this source and destination, or not this file server";
    default:
        return describe_refusal(status, CC_COLUMN_ENTRY_ROW_STATUS, low_level);
    }
}

} // namespace config_copy
