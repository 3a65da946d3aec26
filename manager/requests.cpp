#include "manager/requests.h"

#include "manager/copy_run.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace config_copy {
namespace {

long number(const Value &value) {
    const long *found = std::get_if<long>(&value);
    return found == nullptr ? 0 : *found;
}

std::string octets(const Value &value) {
    const auto *found = std::get_if<std::string>(&value);
    return found == nullptr ? "" : *found;
}

std::vector<oid> indexes(Session &session) {
    std::vector<oid> found;
    const Oid column = copy_column(column_row_status);
    Oid at = column;
    while (const auto next = session.next(at)) {
        at = next->name;
        if (at.size() != column.size() + 1 || !std::equal(column.begin(), column.end(), at.begin())) {
            break;
        }
        found.push_back(at.back());
    }
    return found;
}

std::string type_name(long type) {
    switch (static_cast<FileType>(type)) {
    case FileType::network:
    case FileType::startup:
    case FileType::running:
    case FileType::fabric_startup:
    case FileType::all_startup:
        return std::string(name_of(static_cast<FileType>(type)));
    default:
        return std::to_string(type);
    }
}

std::string seconds_between(long started, long completed) {
    if (started == 0 || completed == 0) {
        return std::string(absent);
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << static_cast<double>(static_cast<std::uint32_t>(completed - started)) / 100;
    return text.str();
}

// An empty table looks like none.
void check_table(Session &session) {
    if (!session.has_object(copy_cell(column_row_status, largest_index))) {
        throw Failure(Ending::refused, session.agent() +
                                           " has no copy table that this user may read: does it load config_copy_mib, and does the "
                                           "user's read view hold .1.3.6.1.4.1.41927.9.96?");
    }
}

} // namespace

void list_requests(Session &session, const Output &output) {
    std::vector<std::vector<std::string>> rows;
    const std::vector<oid> found = indexes(session);
    if (found.empty()) {
        check_table(session);
    }
    for (const oid index : found) {
        const std::vector<Value> values =
            session.get({copy_cell(column_source, index), copy_cell(column_destination, index), copy_cell(column_protocol, index),
                         copy_cell(column_address, index), copy_cell(column_file_name, index), copy_cell(column_user_name, index),
                         copy_cell(column_state, index), copy_cell(column_fail_cause, index), copy_cell(column_time_started, index),
                         copy_cell(column_time_completed, index)});
        if (number(values[6]) == 0) {
            continue; // gone since
        }
        const auto side = [&](long type) {
            if (type != static_cast<long>(FileType::network)) {
                return type_name(type);
            }
            const std::string address = octets(values[3]);
            const std::string server = address.empty() ? "?" : address_text(address);
            const std::string user = octets(values[5]);
            return std::string(name_of(static_cast<Protocol>(number(values[2])))) + "://" + (user.empty() ? "" : user + '@') +
                   (address.size() == 16 ? '[' + server + ']' : server) + '/' + octets(values[4]);
        };
        const long state = number(values[6]);
        rows.push_back({std::to_string(index), printable(side(number(values[0]))), printable(side(number(values[1]))), state_name(state),
                        state == state_failed ? cause_name(number(values[7])) : std::string(absent),
                        seconds_between(number(values[8]), number(values[9]))});
    }
    output.table({"INDEX", "FROM", "TO", "STATE", "CAUSE", "SECONDS"}, rows, "no copy requests on " + session.agent());
}

void list_errors(Session &session, std::optional<oid> index, const Output &output) {
    check_table(session);
    std::vector<std::vector<std::string>> rows;
    for (const oid request : index ? std::vector{*index} : indexes(session)) {
        for (const auto &[address, wwn, text] : switches_of(session, request)) {
            rows.push_back({std::to_string(request), address.empty() ? std::string(absent) : address, wwn, text});
        }
    }
    output.table({"INDEX", "ADDRESS", "SWITCH", "REPORTED"}, rows, "no errors of fabric saves on " + session.agent());
}

void abort_request(Session &session, oid index, const Output &output) {
    const std::string name = "request " + std::to_string(index) + " of " + session.agent();
    const auto state = session.get({copy_cell(column_state, index)}).front();
    if (number(state) == 0) {
        check_table(session);
        throw Failure(Ending::failed, "there is no " + name + ": see `config-copy list " + session.agent() + '`');
    }
    const auto result = session.set({{copy_cell(column_row_status, index), row_destroy}});
    if (result && result->status == SNMP_ERR_GENERR) {
        throw Failure(Ending::refused,
                      name + " can't be removed: it is stuck after a refused request, and goes by itself within 7 minutes");
    }
    if (result && result->status != SNMP_ERR_NOERROR) {
        throw Failure(Ending::refused, session.agent() + ": " + words_of_refusal(result->status, column_row_status));
    }
    if (!result && number(session.get({copy_cell(column_state, index)}).front()) != 0) {
        throw Failure(Ending::unreachable,
                      session.agent() + " did not answer the removal of request " + std::to_string(index) + ": try again");
    }
    output.removed(session.agent(), index, name + " removed" + (number(state) == state_running ? ", while its copy was running" : ""));
}

} // namespace config_copy
