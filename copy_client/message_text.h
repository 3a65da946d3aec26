// SNMP messages as text, for troubleshooting. Passwords are not shown.
#pragma once

#include "copy_client/copy_table.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <string>

namespace copy_client {

// Without its value.
inline Oid name_of(const netsnmp_variable_list &variable) {
    return {variable.name, variable.name + variable.name_length};
}

// Such as "ccCopyState.7"; of an object outside the copy table, its numbers.
std::string describe_name(const Oid &name);

// Such as "SET ccCopyEntryRowStatus.7 = 6".
std::string describe_request(const netsnmp_pdu &pdu);

// Such as "answer: ccCopyState.7 = 2" or "refused: genErr …, binding 1".
std::string describe_answer(const netsnmp_pdu &pdu);

} // namespace copy_client
