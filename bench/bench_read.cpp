// The cost of one call of a read handler, for each registered column, as a GET and as a GETNEXT.
#include "bench_support.h"

#include "config_copy_mib.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

constexpr int32_t ROWS = 1000;
constexpr int32_t ERRORS = 1000; // of one copy request

struct Column {
    const char *name;
    uint8_t magic;
};

constexpr std::array COLUMNS{
    Column{"ccCopyProtocol", CC_MAGIC_PROTOCOL},
    Column{"ccCopySourceFileType", CC_MAGIC_SOURCE_FILE_TYPE},
    Column{"ccCopyDestFileType", CC_MAGIC_DEST_FILE_TYPE},
    Column{"ccCopyServerAddress", CC_MAGIC_SERVER_ADDRESS},
    Column{"ccCopyFileName", CC_MAGIC_FILE_NAME},
    Column{"ccCopyUserName", CC_MAGIC_USER_NAME},
    Column{"ccCopyUserPassword", CC_MAGIC_USER_PASSWORD},
    Column{"ccCopyNotificationOnCompletion", CC_MAGIC_NOTIFICATION_ON_COMPLETION},
    Column{"ccCopyState", CC_MAGIC_STATE},
    Column{"ccCopyTimeStarted", CC_MAGIC_TIME_STARTED},
    Column{"ccCopyTimeCompleted", CC_MAGIC_TIME_COMPLETED},
    Column{"ccCopyFailCause", CC_MAGIC_FAIL_CAUSE},
    Column{"ccCopyEntryRowStatus", CC_MAGIC_ENTRY_ROW_STATUS},
    Column{"ccCopyServerAddressType", CC_MAGIC_SERVER_ADDRESS_TYPE},
    Column{"ccCopyServerAddressRev1", CC_MAGIC_SERVER_ADDRESS_REV1},
    Column{"ccCopyErrorDeviceAddrType", CC_MAGIC_ERROR_DEVICE_ADDR_TYPE},
    Column{"ccCopyErrorDeviceAddr", CC_MAGIC_ERROR_DEVICE_ADDR},
    Column{"ccCopyErrorSwitchWwn", CC_MAGIC_ERROR_SWITCH_WWN},
    Column{"ccCopyErrorText", CC_MAGIC_ERROR_TEXT},
};
static_assert(COLUMNS.size() == CC_VARIABLE_COUNT);

// The variable as the agent passes it to a read handler: with the whole OID of the column instead
// of the suffix.
variable as_registered(const variable7 &entry) {
    variable whole = {};
    whole.magic = entry.magic;
    whole.type = static_cast<decltype(whole.type)>(entry.type);
    whole.acl = entry.acl;
    whole.findVar = entry.findVar;
    oid *end = std::copy_n(config_copy_mib_variables_oid, CC_ROOT_OID_LENGTH, whole.name);
    end = std::copy_n(entry.name, entry.namelen, end);
    whole.namelen = static_cast<decltype(whole.namelen)>(end - whole.name);
    return whole;
}

void read_column(benchmark::State &state, const variable7 &entry, int exact) {
    variable column = as_registered(entry);
    const bool errors = column.magic >= CC_MAGIC_ERROR_DEVICE_ADDR_TYPE;
    const std::vector<int32_t> indexes = bench::scattered_indexes(errors ? ERRORS : ROWS);
    oid name[MAX_OID_LEN];
    std::copy_n(column.name, column.namelen, name);
    oid *const index = name + column.namelen;
    size_t at = 0;
    for (auto _ : state) {
        const auto wanted = static_cast<oid>(indexes[at++ % indexes.size()]);
        size_t length = column.namelen;
        if (errors) {
            name[length++] = 1;
        }
        name[length++] = exact != 0 ? wanted : wanted - 1; // a GETNEXT has the preceding OID
        size_t value_length = 0;
        WriteMethod *write_method = nullptr;
        if (column.findVar(&column, name, &length, exact, &value_length, &write_method) ==
                nullptr ||
            index[errors ? 1 : 0] != wanted) {
            state.SkipWithError("no value, or another row's");
            break;
        }
        benchmark::DoNotOptimize(value_length);
    }
}

void fill_errors() {
    if (keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1) !=
        KEYEDSET_CREATED) {
        throw std::runtime_error("the error table can't be created");
    }
    ccCopyEntry request = {};
    request.ccCopyIndex = 1;
    ccCopyErrorEntry error = {};
    error.ccCopyIndex = request.ccCopyIndex;
    error.ccCopyErrorDeviceAddrType = INET_ADDRESS_IPV4;
    std::snprintf(error.ccCopyErrorDeviceAddr, sizeof error.ccCopyErrorDeviceAddr, "192.0.2.7");
    std::snprintf(error.ccCopyErrorText, sizeof error.ccCopyErrorText,
                  "the startup configuration could not be written");
    for (error.ccCopyErrorIndex = 1; error.ccCopyErrorIndex <= ERRORS; ++error.ccCopyErrorIndex) {
        if (addCcCopyErrorEntry(&request, &error) != 0) {
            throw std::runtime_error("an error row can't be added");
        }
    }
}

void register_columns() {
    for (const variable7 &entry : config_copy_mib_variables) {
        const auto *column = std::find_if(COLUMNS.begin(), COLUMNS.end(), [&](const Column &each) {
            return each.magic == entry.magic;
        });
        if (column == COLUMNS.end()) {
            throw std::runtime_error("a registered column has no name here");
        }
        for (const int exact : {1, 0}) {
            const std::string name = std::string(column->name) + (exact != 0 ? "/get" : "/getnext");
            benchmark::RegisterBenchmark(name.c_str(), [&entry, exact](benchmark::State &state) {
                read_column(state, entry, exact);
            });
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, [] {
        bench::fill_rows(ROWS);
        fill_errors();
        register_columns();
    });
}
