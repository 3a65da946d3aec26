#include "copy_client/message_text.h"

#include "base/text.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace copy_client {
namespace {

struct Named {
    oid column;
    std::string_view name;
};

constexpr std::array<Named, 13> copy_columns{
    {{CC_COLUMN_PROTOCOL, "ccCopyProtocol"},
     {CC_COLUMN_SOURCE_FILE_TYPE, "ccCopySourceFileType"},
     {CC_COLUMN_DEST_FILE_TYPE, "ccCopyDestFileType"},
     {CC_COLUMN_FILE_NAME, "ccCopyFileName"},
     {CC_COLUMN_USER_NAME, "ccCopyUserName"},
     {CC_COLUMN_USER_PASSWORD, "ccCopyUserPassword"},
     {CC_COLUMN_STATE, "ccCopyState"},
     {CC_COLUMN_TIME_STARTED, "ccCopyTimeStarted"},
     {CC_COLUMN_TIME_COMPLETED, "ccCopyTimeCompleted"},
     {CC_COLUMN_FAIL_CAUSE, "ccCopyFailCause"},
     {CC_COLUMN_ENTRY_ROW_STATUS, "ccCopyEntryRowStatus"},
     {CC_COLUMN_SERVER_ADDRESS_TYPE, "ccCopyServerAddressType"},
     {CC_COLUMN_SERVER_ADDRESS_REV1, "ccCopyServerAddressRev1"}}};

bool begins_with(const Oid &name, const Oid &prefix) {
    return name.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), name.begin());
}

std::string value_of(const netsnmp_variable_list &variable) {
    if (begins_with(name_of(variable), copy_column(CC_COLUMN_USER_PASSWORD))) {
        return "(not shown)";
    }
    switch (variable.type) {
    case ASN_INTEGER:
    case ASN_TIMETICKS:
    case ASN_GAUGE:
    case ASN_COUNTER:
        return std::to_string(*variable.val.integer);
    case ASN_OCTET_STR: {
        const std::string_view octets(reinterpret_cast<const char *>(variable.val.string),
                                      variable.val_len);
        if (ulmo::one_line(octets) == octets) {
            return '"' + std::string(octets) + '"';
        }
        return "0x" + ulmo::in_hex(octets);
    }
    case SNMP_NOSUCHOBJECT:
        return "no such object";
    case SNMP_NOSUCHINSTANCE:
        return "no such instance";
    case SNMP_ENDOFMIBVIEW:
        return "the end";
    default:
        return "a value of type " + std::to_string(variable.type);
    }
}

std::string bindings(const netsnmp_pdu &pdu, bool has_values) {
    std::string text;
    for (const netsnmp_variable_list *variable = pdu.variables; variable != nullptr;
         variable = variable->next_variable) {
        text += (text.empty() ? "" : ", ") + describe_name(name_of(*variable)) +
                (has_values ? " = " + value_of(*variable) : "");
    }
    return text.empty() ? "no object" : text;
}

} // namespace

std::string describe_name(const Oid &name) {
    std::string text;
    std::size_t at = 0;
    for (const auto &[column, column_name] : copy_columns) {
        if (const Oid prefix = copy_column(column); begins_with(name, prefix)) {
            text = column_name;
            at = prefix.size();
        }
    }
    for (; at < name.size(); ++at) {
        text += '.' + std::to_string(name[at]);
    }
    return text;
}

std::string describe_request(const netsnmp_pdu &pdu) {
    const bool is_set = pdu.command == SNMP_MSG_SET;
    return (is_set                            ? "SET "
            : pdu.command == SNMP_MSG_GETNEXT ? "GETNEXT "
                                              : "GET ") +
           bindings(pdu, is_set);
}

std::string describe_answer(const netsnmp_pdu &pdu) {
    if (pdu.errstat != SNMP_ERR_NOERROR) {
        return std::string("refused: ") + ::snmp_errstring(static_cast<int>(pdu.errstat)) +
               (pdu.errindex > 0 ? ", binding " + std::to_string(pdu.errindex) : "");
    }
    return "answer: " + bindings(pdu, true);
}

} // namespace copy_client
