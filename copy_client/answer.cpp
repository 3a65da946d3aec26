#include "copy_client/answer.h"

#include "copy_client/message_text.h"

#include <algorithm>
#include <array>

namespace copy_client {
namespace {

struct Text {
    Oid column;
    std::size_t longest; // octets
};

// The columns that hold octets, with the sizes of CONFIG-COPY-MIB. The others hold numbers.
const std::array<Text, 8> &texts() {
    constexpr std::size_t longest_address = 255; // InetAddress of RFC 4001
    static const std::array<Text, 8> columns{
        {{copy_column(CC_COLUMN_SERVER_ADDRESS), 4},
         {copy_column(CC_COLUMN_FILE_NAME), CC_FILE_NAME_MAX},
         {copy_column(CC_COLUMN_USER_NAME), CC_CREDENTIAL_SIZE},
         {copy_column(CC_COLUMN_USER_PASSWORD), CC_CREDENTIAL_SIZE},
         {copy_column(CC_COLUMN_SERVER_ADDRESS_REV1), longest_address},
         {error_column(CC_ERROR_COLUMN_DEVICE_ADDR), longest_address},
         {error_column(CC_ERROR_COLUMN_SWITCH_WWN), 8},
         {error_column(CC_ERROR_COLUMN_TEXT), 256}}};
    return columns;
}

bool is_below(const Oid &name, const Oid &prefix) {
    return name.size() > prefix.size() && std::equal(prefix.begin(), prefix.end(), name.begin());
}

bool has_right_type(const Oid &name, const Value &value) {
    if (std::holds_alternative<std::monostate>(value) || !is_below(name, {CC_ROOT_OID})) {
        return true;
    }
    const auto text = std::find_if(texts().begin(), texts().end(), [&](const Text &column) {
        return is_below(name, column.column);
    });
    const auto *octets = std::get_if<std::string>(&value);
    return text == texts().end() ? octets == nullptr
                                 : octets != nullptr && octets->size() <= text->longest;
}

Trouble wrong_answer(const Oid &name) {
    return Trouble(TroubleKind::wrong_answer, 0, describe_name(name));
}

Value value_of(const netsnmp_variable_list &variable, const Oid &name) {
    Value value;
    switch (variable.type) {
    case ASN_INTEGER:
        value = *variable.val.integer;
        break;
    case ASN_TIMETICKS:
    case ASN_GAUGE:
    case ASN_COUNTER:
        value = std::int64_t{static_cast<std::uint32_t>(*variable.val.integer)};
        break;
    case ASN_OCTET_STR:
    case ASN_IPADDRESS:
        value = std::string(reinterpret_cast<const char *>(variable.val.string), variable.val_len);
        break;
    case SNMP_NOSUCHOBJECT:
    case SNMP_NOSUCHINSTANCE:
        break;
    default:
        throw wrong_answer(name);
    }
    if (!has_right_type(name, value)) {
        throw wrong_answer(name);
    }
    return value;
}

} // namespace

std::vector<Value> values_of(const netsnmp_pdu &answer, const std::vector<Oid> &names) {
    std::vector<Value> values;
    const netsnmp_variable_list *variable = answer.variables;
    for (const Oid &name : names) {
        if (variable == nullptr || name_of(*variable) != name) {
            throw wrong_answer(name);
        }
        values.push_back(value_of(*variable, name));
        variable = variable->next_variable;
    }
    return values;
}

std::optional<Binding> instance_of(const netsnmp_pdu &answer, const Oid &column, const Oid &name) {
    const netsnmp_variable_list *variable = answer.variables;
    if (variable == nullptr) {
        throw wrong_answer(name);
    }
    if (variable->type == SNMP_ENDOFMIBVIEW) {
        return std::nullopt;
    }
    Oid found = name_of(*variable);
    // Not <=, which with g++ 12 compares too few octets on a big-endian machine.
    if (::snmp_oid_compare(found.data(), found.size(), name.data(), name.size()) <= 0) {
        throw Trouble(TroubleKind::names_not_rising, 0, describe_name(column));
    }
    if (!is_below(found, column)) {
        return std::nullopt;
    }
    if (found.size() != column.size() + 1) {
        throw wrong_answer(name);
    }
    Value value = value_of(*variable, found);
    return Binding{std::move(found), std::move(value)};
}

} // namespace copy_client
