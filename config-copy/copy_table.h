// The tables of CONFIG-COPY-MIB by number, so that no MIB file is needed.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/types.h>

#include <vector>

namespace config_copy {

using Oid = std::vector<oid>;

// Columns of ccCopyTable.
enum Column : oid {
    column_protocol = 2,
    column_source = 3,
    column_destination = 4,
    column_file_name = 6,
    column_user_name = 7,
    column_password = 8,
    column_state = 10,
    column_time_started = 11,
    column_time_completed = 12,
    column_fail_cause = 13,
    column_row_status = 14,
    column_address_type = 15,
    column_address = 16,
};

// Columns of ccCopyErrorTable.
enum ErrorColumn : oid { error_address_type = 2, error_address = 3, error_switch = 4, error_text = 5 };

enum class Protocol { tftp = 1, ftp = 2, scp = 4, sftp = 5 };
enum class FileType { network = 1, startup = 3, running = 4, fabric_startup = 6, all_startup = 7 };
enum CopyState : long { state_waiting = 1, state_running = 2, state_successful = 3, state_failed = 4 };
enum FailCause : long {
    cause_general = 1,
    cause_bad_file_name,
    cause_timeout,
    cause_no_space,
    cause_bad_config,
    cause_unsupported_protocol,
    cause_not_applied,
    cause_manager_refused,
    cause_manager_failed,
};
enum RowStatus : long { row_active = 1, row_not_ready = 3, row_create_and_wait = 5, row_destroy = 6 };
enum AddressType : long { address_ipv4 = 1, address_ipv6 = 2 };

inline constexpr oid largest_index = 0x7FFFFFFF;
inline constexpr std::size_t longest_file_name = 128; // octets, as of the columns
inline constexpr std::size_t longest_user_name = 40;  // the column takes 41, and a name of 41 empties the password
inline constexpr std::size_t longest_password = 41;

inline Oid copy_column(oid column) {
    return {1, 3, 6, 1, 4, 1, 41927, 9, 96, 1, 1, 1, 1, column};
}

inline Oid copy_cell(oid column, oid index) {
    Oid cell = copy_column(column);
    cell.push_back(index);
    return cell;
}

inline Oid error_column(oid column) {
    return {1, 3, 6, 1, 4, 1, 41927, 9, 96, 1, 1, 2, 1, column};
}

inline Oid error_cell(oid column, oid index, oid error) {
    Oid cell = error_column(column);
    cell.insert(cell.end(), {index, error});
    return cell;
}

} // namespace config_copy
