#include "config-copy/copies/requests.h"

#include "config-copy/copies/copy_run.h"

namespace config_copy {
namespace {

std::vector<oid> indexes(Session &session) {
    std::vector<oid> found;
    for (const auto &[name, value] : session.instances(copy_column(CC_COLUMN_ENTRY_ROW_STATUS))) {
        found.push_back(name.back());
    }
    return found;
}

std::string type_name(std::int64_t type) {
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

} // namespace

void list_requests(Session &session, Output &output) {
    std::vector<std::vector<std::string>> rows;
    const std::vector<oid> found = indexes(session);
    if (found.empty()) {
        check_table(session);
    }
    for (const oid index : found) {
        const std::vector<Value> values = session.get(
            {copy_cell(CC_COLUMN_SOURCE_FILE_TYPE, index),
             copy_cell(CC_COLUMN_DEST_FILE_TYPE, index), copy_cell(CC_COLUMN_PROTOCOL, index),
             copy_cell(CC_COLUMN_SERVER_ADDRESS_REV1, index), copy_cell(CC_COLUMN_FILE_NAME, index),
             copy_cell(CC_COLUMN_USER_NAME, index), copy_cell(CC_COLUMN_STATE, index),
             copy_cell(CC_COLUMN_FAIL_CAUSE, index), copy_cell(CC_COLUMN_TIME_STARTED, index),
             copy_cell(CC_COLUMN_TIME_COMPLETED, index)});
        const auto state = number(values[6]);
        if (!state) {
            continue; // removed meanwhile
        }
        const auto file_type = [&](const Value &type) {
            if (type != Value(static_cast<std::int64_t>(FileType::network))) {
                return type_name(number(type).value_or(0));
            }
            const auto protocol = static_cast<Protocol>(number(values[2]).value_or(0));
            return url_text(protocol, octets(values[5]), address_text(octets(values[3])),
                            octets(values[4]));
        };
        const auto seconds = seconds_between(values[8], values[9]);
        rows.push_back({std::to_string(index), file_type(values[0]), file_type(values[1]),
                        state_name(*state),
                        state == COPY_STATE_FAILED ? cause_name(number(values[7]).value_or(0))
                                                   : std::string(absent),
                        seconds ? seconds_text(*seconds) : std::string(absent)});
    }
    output.table({"request",
                  session.agent(),
                  {{"INDEX", Heading::numbers},
                   {"FROM"},
                   {"TO"},
                   {"STATE"},
                   {"CAUSE"},
                   {"SECONDS", Heading::numbers}},
                  rows,
                  "no copy requests on " + session.agent()});
}

void list_errors(Session &session, std::optional<oid> index, Output &output) {
    check_table(session);
    std::vector<std::vector<std::string>> rows;
    for (const oid request : index ? std::vector{*index} : indexes(session)) {
        for (const auto &[address, wwn, text] :
             switches_of(session, request, most_instances - rows.size())) {
            rows.push_back({std::to_string(request),
                            address.empty() ? std::string(absent) : address, wwn, text});
        }
    }
    output.table({"switch",
                  session.agent(),
                  {{"INDEX", Heading::numbers}, {"ADDRESS"}, {"SWITCH"}, {"REPORTED"}},
                  rows,
                  "no errors of fabric saves on " + session.agent()});
}

void abort_request(Session &session, oid index, Output &output) {
    const std::string name = "request " + std::to_string(index) + " of " + session.agent();
    const auto state = number(session.get({copy_cell(CC_COLUMN_STATE, index)}).front());
    if (!state) {
        check_table(session);
        throw Failure(ExitStatus::failed,
                      "there is no " + name + ": see `config-copy list " + session.agent() + '`');
    }
    const auto result =
        session.set({{copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, index), ROW_STATUS_DESTROY}});
    if (result && result->status == SNMP_ERR_GENERR) {
        throw Failure(ExitStatus::refused, name + " can't be removed: it is stuck after a refused "
                                                  "request, and expires within 7 minutes");
    }
    if (result && result->status != SNMP_ERR_NOERROR) {
        throw Failure(
            ExitStatus::refused,
            session.agent() + ": " +
                describe_refusal(result->status, CC_COLUMN_ENTRY_ROW_STATUS, session.low_level()));
    }
    if (!result && number(session.get({copy_cell(CC_COLUMN_STATE, index)}).front())) {
        throw Failure(ExitStatus::unreachable, session.agent() +
                                                   " did not answer the removal of request " +
                                                   std::to_string(index) + ": try again");
    }
    std::string text = name + " removed";
    if (state == COPY_STATE_RUNNING) {
        text += "; its copy is given up";
    }
    output.removed(session.agent(), index, text);
}

} // namespace config_copy
