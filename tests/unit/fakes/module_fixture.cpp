#include "module_fixture.h"

#include <climits>
#include <fcntl.h>
#include <regex>
#include <unistd.h>

#include "fake_agent.h"
#include "fake_time.h"

namespace {

constexpr oid copy_entry[] = {CC_ROOT_OID, 1, 1, 1, 1};
constexpr oid error_entry[] = {CC_ROOT_OID, 1, 1, 2, 1};
// The size of the agent's buffer for the OID.
constexpr std::size_t oid_room = MAX_OID_LEN;

Oid with(Oid name, oid last) {
    name.push_back(last);
    return name;
}

// The variable of a column as the agent passes it to a read handler, with the column's complete
// OID.
std::optional<struct variable> variable_of(const Oid &column) {
    for (const struct variable7 &registered : config_copy_mib_variables) {
        Oid name(config_copy_mib_variables_oid, config_copy_mib_variables_oid + CC_ROOT_OID_LENGTH);
        name.insert(name.end(), registered.name, registered.name + registered.namelen);
        if (name == column) {
            struct variable found {};
            found.magic = registered.magic;
            found.type = static_cast<char>(registered.type);
            found.acl = registered.acl;
            found.findVar = registered.findVar;
            found.namelen = static_cast<u_char>(name.size());
            std::ranges::copy(name, found.name);
            return found;
        }
    }
    return std::nullopt;
}

struct Lookup {
    Oid name;
    unsigned char *value;
    std::size_t length;
    WriteMethod *write_method;
};

Lookup look_up(const Oid &column, const Oid &name, int exact) {
    std::optional<struct variable> found = variable_of(column);
    if (!found) {
        ADD_FAILURE() << "no such variable";
        return {};
    }
    oid buffer[oid_room] = {};
    std::ranges::copy(name, buffer);
    std::size_t name_length = name.size();
    Lookup result{};
    result.value =
        found->findVar(&*found, buffer, &name_length, exact, &result.length, &result.write_method);
    result.name.assign(buffer, buffer + name_length);
    return result;
}

std::optional<Answer> answer(const Oid &column, const Oid &name, int exact) {
    const Lookup found = look_up(column, name, exact);
    if (found.value == nullptr) {
        return std::nullopt;
    }
    return Answer{found.name,
                  std::string(reinterpret_cast<const char *>(found.value), found.length),
                  found.write_method};
}

Value value_of(unsigned char type, const void *octets, std::size_t length, std::size_t given) {
    const std::size_t size = type == ASN_INTEGER ? std::max(length, sizeof(int32_t)) : length;
    std::shared_ptr<unsigned char[]> block(new unsigned char[size]());
    memcpy(block.get(), octets, std::min(size, given));
    return {type, length, block};
}

constexpr const char *phase_names[] = {"RESERVE1", "RESERVE2", "ACTION", "COMMIT", "FREE", "UNDO"};

} // namespace

Oid copy_column(oid column) {
    return with(Oid(std::begin(copy_entry), std::end(copy_entry)), column);
}

Oid copy_instance(oid column, oid index) {
    return with(copy_column(column), index);
}

Oid error_column(oid column) {
    return with(Oid(std::begin(error_entry), std::end(error_entry)), column);
}

void add_row(int32_t index, int32_t row_status) {
    ccCopyEntry *row = createCcCopyEntry();
    ASSERT_NE(row, nullptr);
    row->ccCopyIndex = index;
    row->ccCopyEntryRowStatus = row_status;
    ASSERT_EQ(addCcCopyEntry(row), 0U);
}

ccCopyEntry stored_row(int32_t index) {
    ccCopyEntry row{};
    row.ccCopyIndex = index;
    EXPECT_EQ(getCcCopyEntry(&row), 0U) << "row " << index;
    return row;
}

bool row_exists(int32_t index) {
    ccCopyEntry row{};
    row.ccCopyIndex = index;
    return getCcCopyEntry(&row) == 0;
}

void store_row(const ccCopyEntry &row) {
    ASSERT_EQ(setCcCopyEntry(&row, 0), 0U);
}

std::vector<int32_t> stored_indexes() {
    std::vector<int32_t> indexes;
    ccCopyEntry row{};
    while (getnextCcCopyEntry(&row) == 0) {
        if (row.ccCopyIndex == 0) {
            ADD_FAILURE() << "a row of index 0: the walk does not end";
            break;
        }
        indexes.push_back(row.ccCopyIndex);
    }
    return indexes;
}

Value integer(long value) {
    return value_of(ASN_INTEGER, &value, sizeof value, sizeof value);
}

Value integer_of_length(long value, std::size_t length) {
    if (length == sizeof value) {
        return integer(value);
    }
    const auto word = static_cast<int32_t>(value);
    return value_of(ASN_INTEGER, &word, length, sizeof word);
}

Value octet_string(std::string_view octets) {
    return value_of(ASN_OCTET_STR, octets.data(), octets.size(), octets.size());
}

Value ip_address(std::string_view octets) {
    return value_of(ASN_IPADDRESS, octets.data(), octets.size(), octets.size());
}

Value with_type(Value value, unsigned char type) {
    value.type = type;
    return value;
}

int call_phase(WriteMethod *method, int phase, const Value &value, oid column, oid index,
               unsigned char *state) {
    Oid name = copy_instance(column, index);
    return method(phase, value.octets.get(), value.type, value.length, state, name.data(),
                  name.size());
}

Oid Varbind::name() const {
    Oid name = copy_column(column);
    name.insert(name.end(), between.begin(), between.end());
    name.push_back(index);
    return name;
}

int Request::run(int phase) {
    if (phase == SNMP_MSG_INTERNAL_SET_RESERVE1) {
        const Lookup found = look_up(copy_column(varbind_.column), varbind_.name(), 1);
        write_method_ = found.write_method;
        state_ = found.value;
    }
    if (!writable()) {
        return SNMP_ERR_NOTWRITABLE;
    }
    Oid name = varbind_.name();
    const Value &value = varbind_.value;
    return write_method_(phase, value.octets.get(), value.type, value.length, state_, name.data(),
                         name.size());
}

SetResult set(const std::vector<Varbind> &varbinds) {
    std::vector<std::vector<Request>> groups;
    for (const Varbind &varbind : varbinds) {
        auto group = std::ranges::find_if(groups, [&](const auto &one) {
            return one.front().varbind().column == varbind.column;
        });
        if (group == groups.end()) {
            group = groups.insert(groups.end(), std::vector<Request>{});
        }
        group->emplace_back(varbind);
    }

    SetResult result{SNMP_ERR_NOERROR, -1, {}};
    const auto run = [&](int phase) {
        int first = SNMP_ERR_NOERROR;
        for (std::vector<Request> &group : groups) {
            for (Request &request : group) {
                const int status = request.run(phase);
                if (request.writable()) {
                    result.history.push_back(std::string(phase_names[phase]) + " " +
                                             std::to_string(request.varbind().column) + "." +
                                             std::to_string(request.varbind().index));
                }
                first = first == SNMP_ERR_NOERROR ? status : first;
            }
        }
        return first;
    };
    for (const int phase : {SNMP_MSG_INTERNAL_SET_RESERVE1, SNMP_MSG_INTERNAL_SET_RESERVE2,
                            SNMP_MSG_INTERNAL_SET_ACTION}) {
        result.status = run(phase);
        if (result.status != SNMP_ERR_NOERROR) {
            result.failed_phase = phase;
            run(phase == SNMP_MSG_INTERNAL_SET_ACTION ? SNMP_MSG_INTERNAL_SET_UNDO
                                                      : SNMP_MSG_INTERNAL_SET_FREE);
            return result;
        }
    }
    run(SNMP_MSG_INTERNAL_SET_COMMIT);
    return result;
}

std::optional<Answer> get(const Oid &column, const Oid &name) {
    return answer(column, name, 1);
}

std::optional<Answer> get_next(const Oid &column, const Oid &name) {
    return answer(column, name, 0);
}

void LoadedModuleTest::SetUp() {
    ModuleTest::SetUp();
    ASSERT_EQ(init_config_copy_mib(), 0);
}

void LoadedModuleTest::TearDown() {
    deinit_config_copy_mib();
    ModuleTest::TearDown();
}

TraceFile::TraceFile() : fd_(-1) {
    is_snmp_debug_enabled = 1;
    FILE *stream = trace_file_get();
    if (stream == nullptr) {
        ADD_FAILURE() << "no trace file";
        return;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fileno(stream));
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd_, 0);
    lseek(fd_, 0, SEEK_END);
    // The name is no longer needed, and no file must be left in the folder.
    char name[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), name, sizeof name - 1);
    if (length > 0) {
        name[length] = '\0';
        unlink(name);
    }
}

TraceFile::~TraceFile() {
    is_snmp_debug_enabled = 0;
    close(fd_);
}

std::string TraceFile::take_raw() {
    std::string text;
    char block[4096];
    for (ssize_t got = read(fd_, block, sizeof block); got > 0;
         got = read(fd_, block, sizeof block)) {
        text.append(block, static_cast<std::size_t>(got));
    }
    return text;
}

std::vector<std::string> TraceFile::take() {
    const auto now = static_cast<time_t>(fake_time.seconds);
    char local[32];
    const std::string stamp = "[" + std::string(ctime_r(&now, local), 24) + "] ";
    const std::string raw = take_raw();
    std::vector<std::string> texts;
    for (std::size_t at = 0; at < raw.size();) {
        EXPECT_EQ(raw.compare(at, stamp.size(), stamp), 0)
            << "no stamp at " << raw.substr(at, stamp.size());
        const std::size_t begin = at + stamp.size();
        const std::size_t next = raw.find(stamp, begin);
        at = next == std::string::npos ? raw.size() : next;
        EXPECT_EQ(raw[at - 1], '\n');
        texts.push_back(std::regex_replace(raw.substr(begin, at - 1 - begin),
                                           std::regex("^([A-Za-z_0-9]+)\\([0-9]+\\):"), "$1(#):"));
    }
    return texts;
}
