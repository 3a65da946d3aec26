#include "bench_support.h"

#include "config_copy_mib.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>

namespace bench {

void fill_rows(int32_t count) {
    for (int32_t index = 1; index <= count; ++index) {
        ccCopyEntry *row = createCcCopyEntry();
        if (row == nullptr) {
            throw std::runtime_error("no memory for a row");
        }
        row->ccCopyIndex = index;
        row->ccCopyState = COPY_STATE_SUCCESSFUL;
        row->ccCopyEntryRowStatus = ROW_STATUS_ACTIVE;
        row->ccCopyTimeStarted = row->ccCopyTimeCompleted = {row->create_time, 0};
        row->ccCopyServerAddressType = INET_ADDRESS_IPV4;
        std::snprintf(row->ccCopyServerAddressRev1, sizeof row->ccCopyServerAddressRev1,
                      "192.0.2.1");
        std::snprintf(row->ccCopyFileName, sizeof row->ccCopyFileName, "/backup/switch-%d.cfg",
                      index);
        std::snprintf(row->ccCopyUserName, sizeof row->ccCopyUserName, "operator");
        if (addCcCopyEntry(row) != 0) {
            ccCopyEntry_free(row);
            throw std::runtime_error("row " + std::to_string(index) + " can't be added");
        }
    }
}

void delete_rows(int32_t count) {
    ccCopyEntry key = {};
    for (key.ccCopyIndex = 1; key.ccCopyIndex <= count; ++key.ccCopyIndex) {
        deleteCcCopyEntry(&key);
    }
}

std::vector<int32_t> scattered_indexes(int32_t count) {
    std::mt19937 generator(1);
    std::uniform_int_distribution<int32_t> any(1, count);
    std::vector<int32_t> indexes(65536);
    for (int32_t &index : indexes) {
        index = any(generator);
    }
    return indexes;
}

int run(int argc, char **argv, const std::function<void()> &prepare) {
    std::string folder = (std::filesystem::temp_directory_path() / "ccm-bench-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror(folder.c_str());
        return EXIT_FAILURE;
    }
    setenv("ULMO_STATE_DIR", folder.c_str(), 1);
    setenv("ULMO_RUN_DIR", folder.c_str(), 1);
    setenv("ULMO_CONF", (folder + "/platform.conf").c_str(), 1);
    // As in the agent, which calls its alarms from its own loop.
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);

    int status = EXIT_FAILURE;
    try {
        benchmark::Initialize(&argc, argv);
        prepare();
        if (!benchmark::ReportUnrecognizedArguments(argc, argv) &&
            benchmark::RunSpecifiedBenchmarks() != 0) {
            status = EXIT_SUCCESS;
        }
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    std::filesystem::remove_all(folder);
    return status;
}

} // namespace bench
