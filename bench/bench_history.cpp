// The cost of the debug history for a request: a GET of either table and a SET of a whole row, with
// the history at `errors` and at `all`.
#include "bench_support.h"

#include "config_copy_mib.h"
#include "platform/evtrace.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

// The row that is read and the row that is written.
constexpr int32_t read_index = 1;
constexpr int32_t written_index = 2;

void choose_history(const std::string &word) {
    std::ofstream(std::getenv("ULMO_CONF")) << "history = " << word << "\n";
    const auto takes = [](uint32_t subtype) {
        return evtrace_hist_event_subtype_check(0, subtype) == 0;
    };
    while (takes(EVTRACE_DEBUG) != (word == "all")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// A registered column, as the agent calls its handlers.
class Column {
  public:
    explicit Column(uint8_t magic) {
        const auto *entry =
            std::find_if(std::begin(config_copy_mib_variables), std::end(config_copy_mib_variables),
                         [&](const variable7 &each) { return each.magic == magic; });
        variable_.magic = entry->magic;
        variable_.type = static_cast<decltype(variable_.type)>(entry->type);
        variable_.acl = entry->acl;
        variable_.findVar = entry->findVar;
        oid *end = std::copy_n(config_copy_mib_variables_oid, CC_ROOT_OID_LENGTH, variable_.name);
        end = std::copy_n(entry->name, entry->namelen, end);
        variable_.namelen = static_cast<decltype(variable_.namelen)>(end - variable_.name);
        std::copy_n(variable_.name, variable_.namelen, name_.begin());
    }

    unsigned char *look_up(std::initializer_list<oid> index) {
        std::copy(index.begin(), index.end(), name_.begin() + variable_.namelen);
        length_ = variable_.namelen + index.size();
        size_t value_length = 0;
        return variable_.findVar(&variable_, name_.data(), &length_, 1, &value_length, &write_);
    }

    int write(int phase, u_char type, const void *value, size_t length, unsigned char *state) {
        // The method takes the value from the agent and does not change it.
        auto *octets = static_cast<u_char *>(const_cast<void *>(value)); // NOLINT
        return write_(phase, octets, type, length, state, name_.data(), length_);
    }

  private:
    variable variable_ = {};
    std::array<oid, MAX_OID_LEN> name_ = {};
    size_t length_ = 0;
    WriteMethod *write_ = nullptr;
};

void get(benchmark::State &state, const char *history, uint8_t magic,
         std::initializer_list<oid> index) {
    choose_history(history);
    Column column(magic);
    for (auto _ : state) {
        if (column.look_up(index) == nullptr) {
            state.SkipWithError("no value");
            break;
        }
    }
}

struct Written {
    uint8_t magic;
    long number;
    std::string_view text = {};
};

constexpr std::array whole_row{
    Written{CC_MAGIC_ENTRY_ROW_STATUS, ROW_STATUS_CREATE_AND_WAIT},
    Written{CC_MAGIC_PROTOCOL, 1},
    Written{CC_MAGIC_SOURCE_FILE_TYPE, 3},
    Written{CC_MAGIC_DEST_FILE_TYPE, 1},
    Written{CC_MAGIC_SERVER_ADDRESS_TYPE, INET_ADDRESS_IPV4},
    Written{CC_MAGIC_SERVER_ADDRESS_REV1, 0, "\xc0\0\2\1"},
    Written{CC_MAGIC_FILE_NAME, 0, "/backup/switch-1.cfg"},
    Written{CC_MAGIC_USER_NAME, 0, "operator"},
    Written{CC_MAGIC_USER_PASSWORD, 0, "a password"},
    Written{CC_MAGIC_NOTIFICATION_ON_COMPLETION, 1},
};

void set(benchmark::State &state, const char *history) {
    choose_history(history);
    std::vector<Column> columns;
    columns.reserve(whole_row.size());
    for (const Written &each : whole_row) {
        columns.emplace_back(each.magic);
    }
    std::array<unsigned char *, whole_row.size()> states = {};
    ccCopyEntry key = {};
    key.ccCopyIndex = written_index;
    for (auto _ : state) {
        for (size_t i = 0; i < columns.size(); ++i) {
            states[i] = columns[i].look_up({written_index});
        }
        for (const int phase : {SNMP_MSG_INTERNAL_SET_RESERVE1, SNMP_MSG_INTERNAL_SET_RESERVE2,
                                SNMP_MSG_INTERNAL_SET_ACTION, SNMP_MSG_INTERNAL_SET_COMMIT}) {
            for (size_t i = 0; i < columns.size(); ++i) {
                const Written &value = whole_row[i];
                const bool is_text = !value.text.empty();
                const int status = columns[i].write(
                    phase, is_text ? ASN_OCTET_STR : ASN_INTEGER,
                    is_text ? static_cast<const void *>(value.text.data()) : &value.number,
                    is_text ? value.text.size() : sizeof value.number, states[i]);
                if (status != SNMP_ERR_NOERROR) {
                    const std::string text = "phase " + std::to_string(phase) +
                                             ", column of magic " + std::to_string(value.magic) +
                                             ": " + std::to_string(status);
                    state.SkipWithError(text.c_str());
                    return;
                }
            }
        }
        if (deleteCcCopyEntry(&key) != 0) {
            state.SkipWithError("no row was made");
            return;
        }
    }
}

void fill() {
    bench::fill_rows(read_index);
    if (keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1) !=
        KEYEDSET_CREATED) {
        throw std::runtime_error("the error table can't be created");
    }
    ccCopyEntry request = {};
    request.ccCopyIndex = read_index;
    ccCopyErrorEntry error = {};
    error.ccCopyIndex = read_index;
    error.ccCopyErrorIndex = 1;
    std::snprintf(error.ccCopyErrorText, sizeof error.ccCopyErrorText, "not saved");
    if (addCcCopyErrorEntry(&request, &error) != 0) {
        throw std::runtime_error("an error row can't be added");
    }
}

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, [] {
        fill();
        for (const char *history : {"errors", "all"}) {
            const std::string name = std::string("/history:") + history;
            benchmark::RegisterBenchmark(("GET_ccCopyState" + name).c_str(), [=](auto &state) {
                get(state, history, CC_MAGIC_STATE, {read_index});
            });
            benchmark::RegisterBenchmark(("GET_ccCopyErrorText" + name).c_str(), [=](auto &state) {
                get(state, history, CC_MAGIC_ERROR_TEXT, {read_index, 1});
            });
            benchmark::RegisterBenchmark(("SET_of_a_row" + name).c_str(),
                                         [=](auto &state) { set(state, history); });
        }
    });
}
