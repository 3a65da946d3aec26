// The tables of CONFIG-COPY-MIB by number, so that no MIB file is needed.
#pragma once

#include "platform/copy_table.h"
#include "platform/inet_address.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/types.h>

#include <vector>

namespace config_copy {

using Oid = std::vector<oid>;

enum class Protocol { tftp = COPY_PROTO_TFTP, ftp = COPY_PROTO_FTP, scp = COPY_PROTO_SCP, sftp = COPY_PROTO_SFTP };
enum class FileType {
    network = COPY_FILE_NETWORK,
    startup = COPY_FILE_STARTUP,
    running = COPY_FILE_RUNNING,
    fabric_startup = COPY_FILE_FABRIC_STARTUP,
    all_startup = COPY_FILE_ALL_STARTUP,
};

inline constexpr oid largest_index = CC_INDEX_MAX;
inline constexpr std::size_t longest_file_name = 128; // octets, as of the columns
inline constexpr std::size_t longest_user_name = 40;  // the column takes 41, and a name of 41 empties the password
inline constexpr std::size_t longest_password = 41;

inline Oid copy_column(oid column) {
    return {CC_COPY_COLUMN_OID(column)};
}

inline Oid copy_cell(oid column, oid index) {
    Oid cell = copy_column(column);
    cell.push_back(index);
    return cell;
}

inline Oid error_column(oid column) {
    return {CC_ERROR_COLUMN_OID(column)};
}

inline Oid error_cell(oid column, oid index, oid error) {
    Oid cell = error_column(column);
    cell.insert(cell.end(), {index, error});
    return cell;
}

} // namespace config_copy
