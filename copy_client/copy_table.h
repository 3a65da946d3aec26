// Object identifiers of CONFIG-COPY-MIB's tables, so that no MIB file is needed.
#pragma once

#include "platform/copy_table.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/types.h>

#include <vector>

namespace copy_client {

using Oid = std::vector<oid>;

inline constexpr oid largest_index = CC_INDEX_MAX;

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

} // namespace copy_client
