// Registration with the agent, load and unload.
#include <regex>

#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_agent_extension.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

struct Column {
    const char *name;
    Oid suffix;
    unsigned char magic;
    unsigned char type;
    bool writable;
    FindVarMethod *read;
    WriteMethod *write;
};

const std::vector<Column> columns = {
    {"ccCopyProtocol", {1, 1, 1, 1, 2}, 4, ASN_INTEGER, true, get_ccCopyTable, set_ccCopyProtocol},
    {"ccCopySourceFileType",
     {1, 1, 1, 1, 3},
     5,
     ASN_INTEGER,
     true,
     get_ccCopyTable,
     set_ccCopySourceFileType},
    {"ccCopyDestFileType",
     {1, 1, 1, 1, 4},
     6,
     ASN_INTEGER,
     true,
     get_ccCopyTable,
     set_ccCopyDestFileType},
    {"ccCopyServerAddress",
     {1, 1, 1, 1, 5},
     7,
     ASN_IPADDRESS,
     true,
     get_ccCopyTable,
     set_ccCopyServerAddress},
    {"ccCopyFileName",
     {1, 1, 1, 1, 6},
     8,
     ASN_OCTET_STR,
     true,
     get_ccCopyTable,
     set_ccCopyFileName},
    {"ccCopyUserName",
     {1, 1, 1, 1, 7},
     9,
     ASN_OCTET_STR,
     true,
     get_ccCopyTable,
     set_ccCopyUserName},
    {"ccCopyUserPassword",
     {1, 1, 1, 1, 8},
     10,
     ASN_OCTET_STR,
     true,
     get_ccCopyTable,
     set_ccCopyUserPassword},
    {"ccCopyNotificationOnCompletion",
     {1, 1, 1, 1, 9},
     11,
     ASN_INTEGER,
     true,
     get_ccCopyTable,
     set_ccCopyNotificationOnCompletion},
    {"ccCopyState", {1, 1, 1, 1, 10}, 12, ASN_INTEGER, false, get_ccCopyTable, nullptr},
    {"ccCopyTimeStarted", {1, 1, 1, 1, 11}, 13, ASN_TIMETICKS, false, get_ccCopyTable, nullptr},
    {"ccCopyTimeCompleted", {1, 1, 1, 1, 12}, 14, ASN_TIMETICKS, false, get_ccCopyTable, nullptr},
    {"ccCopyFailCause", {1, 1, 1, 1, 13}, 15, ASN_INTEGER, false, get_ccCopyTable, nullptr},
    {"ccCopyEntryRowStatus",
     {1, 1, 1, 1, 14},
     16,
     ASN_INTEGER,
     true,
     get_ccCopyTable,
     set_ccCopyEntryRowStatus},
    {"ccCopyServerAddressType",
     {1, 1, 1, 1, 15},
     17,
     ASN_INTEGER,
     true,
     get_ccCopyTable,
     set_ccCopyServerAddressType},
    {"ccCopyServerAddressRev1",
     {1, 1, 1, 1, 16},
     18,
     ASN_OCTET_STR,
     true,
     get_ccCopyTable,
     set_ccCopyServerAddressRev1},
    {"ccCopyErrorDeviceAddrType",
     {1, 1, 2, 1, 2},
     25,
     ASN_INTEGER,
     false,
     get_ccCopyErrorTable,
     nullptr},
    {"ccCopyErrorDeviceAddr",
     {1, 1, 2, 1, 3},
     26,
     ASN_OCTET_STR,
     false,
     get_ccCopyErrorTable,
     nullptr},
    {"ccCopyErrorSwitchWwn",
     {1, 1, 2, 1, 4},
     27,
     ASN_OCTET_STR,
     false,
     get_ccCopyErrorTable,
     nullptr},
    {"ccCopyErrorText", {1, 1, 2, 1, 5}, 28, ASN_OCTET_STR, false, get_ccCopyErrorTable, nullptr},
};

const Oid root = {1, 3, 6, 1, 4, 1, 41927, 9, 96};

Oid whole(const Oid &suffix) {
    Oid name = root;
    name.insert(name.end(), suffix.begin(), suffix.end());
    return name;
}

std::vector<Oid> every_variable() {
    std::vector<Oid> all;
    for (const Column &column : columns) {
        all.push_back(whole(column.suffix));
    }
    return all;
}

int another_write_method(int, u_char *, u_char, size_t, u_char *, oid *, size_t) {
    return 0;
}

const std::vector<AgentFake::Callback> starttime_callback = {
    {0, 9, &cc_handle_starttime_change, nullptr}};

using Frame = ModuleTest;
using LoadedFrame = LoadedModuleTest;

TEST_F(Frame, VariableTable) {
    EXPECT_EQ(
        Oid(std::begin(config_copy_mib_variables_oid), std::end(config_copy_mib_variables_oid)),
        root);
    ASSERT_EQ(std::size(config_copy_mib_variables), 19U);
    ASSERT_EQ(columns.size(), 19U);
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const struct variable7 &variable = config_copy_mib_variables[i];
        SCOPED_TRACE(columns[i].name);
        EXPECT_EQ(variable.magic, columns[i].magic);
        EXPECT_EQ(variable.type, columns[i].type);
        EXPECT_EQ(variable.acl, columns[i].writable ? NETSNMP_OLDAPI_RWRITE : NETSNMP_OLDAPI_RONLY);
        EXPECT_EQ(variable.findVar, columns[i].read);
        EXPECT_EQ(Oid(variable.name, variable.name + variable.namelen), columns[i].suffix);
    }
}

TEST_F(Frame, WriteMethodsByMagic) {
    for (int magic = 0; magic <= 255; ++magic) {
        SCOPED_TRACE(magic);
        WriteMethod *expected = &another_write_method;
        for (const Column &column : columns) {
            if (column.magic == magic && column.write != nullptr) {
                expected = column.write;
            }
        }
        WriteMethod *method = &another_write_method;
        set_ccCopyTable_setmethods(static_cast<uint8_t>(magic), &method);
        EXPECT_EQ(method, expected);
    }
}

TEST_F(Frame, ScalarHandlerNeverAnswers) {
    struct variable scalar {};
    scalar.magic = 4;
    const Oid name = {1, 3, 6, 1, 4, 1, 41927, 9, 96, 7};
    std::ranges::copy(name, scalar.name);
    scalar.namelen = static_cast<u_char>(name.size());

    oid asked[MAX_OID_LEN] = {};
    std::ranges::copy(name, asked);
    asked[name.size()] = 0;
    size_t length = name.size() + 1;
    size_t value_length = 0;
    WriteMethod *method = nullptr;
    EXPECT_EQ(get_config_copy_mib(&scalar, asked, &length, 1, &value_length, &method), nullptr);
    EXPECT_EQ(fake_agent.details.take(), std::vector<std::string>{""});

    asked[name.size()] = 1; // no such instance: the header does not match
    EXPECT_EQ(get_config_copy_mib(&scalar, asked, &length, 1, &value_length, &method), nullptr);
    EXPECT_TRUE(fake_agent.details.take().empty());
}

TEST_F(LoadedFrame, LoadRegistersTheVariablesAndTheCallback) {
    ASSERT_EQ(fake_agent.registrations.size(), 1U);
    const AgentFake::Registration &registration = fake_agent.registrations[0];
    EXPECT_EQ(registration.name, "config_copy_mib");
    EXPECT_EQ(registration.variables, config_copy_mib_variables);
    EXPECT_EQ(registration.variable_size, sizeof(struct variable7));
    EXPECT_EQ(registration.count, 19U);
    EXPECT_EQ(registration.root, root);
    EXPECT_EQ(fake_agent.variables, every_variable());
    EXPECT_EQ(fake_agent.callbacks, starttime_callback);
    EXPECT_TRUE(fake_agent.alarms.empty());
    EXPECT_EQ(ccCopyTable.impl, nullptr);
    EXPECT_EQ(ccCopyErrorTable.impl, nullptr);
}

TEST_F(LoadedFrame, LoadMakesTheUndoListAndTheThirdContainer) {
    EXPECT_NE(ccCopyUndoList.impl, nullptr);
    ASSERT_EQ(fake_keyedset.creates.size(), 2U);
    EXPECT_EQ(fake_keyedset.creates[0].set, &ccCopyUndoList);
    EXPECT_NE(fake_keyedset.creates[1].set, &ccCopyUndoList);
    EXPECT_NE(fake_keyedset.creates[1].set, &ccCopyTable);
    EXPECT_NE(fake_keyedset.creates[1].set, &ccCopyErrorTable);
    for (const KeyedsetFake::Create &create : fake_keyedset.creates) {
        EXPECT_EQ(create.first, 0);
        EXPECT_EQ(create.second, 1);
        EXPECT_EQ(create.compare, &ccCopyEntry_comp_func);
        EXPECT_EQ(create.fourth, 1);
    }
}

const std::vector<uint32_t> opcodes = {1391, 1361, 10273};

TEST_F(LoadedFrame, LoadSubscribesToTheMessages) {
    EXPECT_EQ(fake_agent_extension.registered, opcodes);
    for (const uint32_t opcode : opcodes) {
        EXPECT_EQ(fake_agent_extension.handlers[opcode], &handle_notifications) << opcode;
    }
    EXPECT_TRUE(fake_agent_extension.unregistered.empty());
}

TEST_F(Frame, ResultOfTheLoadIsThatOfTheLastSubscription) {
    fake_agent_extension.register_results = {{1391, 5}, {1361, 6}};
    EXPECT_EQ(init_config_copy_mib(), 0);
    deinit_config_copy_mib();
    fake_agent_extension.register_results = {{10273, 7}};
    EXPECT_EQ(init_config_copy_mib(), 7);
    deinit_config_copy_mib();
}

TEST_F(LoadedFrame, IndexColumnsAreNotRegistered) {
    EXPECT_FALSE(fake_agent.serves(copy_instance(1, 5)));
    EXPECT_TRUE(fake_agent.serves(copy_instance(2, 5)));
    EXPECT_TRUE(fake_agent.serves(copy_instance(16, 5)));
    EXPECT_FALSE(fake_agent.serves(copy_instance(17, 5)));
    EXPECT_FALSE(fake_agent.serves(error_column(1)));
    EXPECT_TRUE(fake_agent.serves(error_column(5)));
    EXPECT_FALSE(fake_agent.serves(error_column(6)));
}

TEST_F(LoadedFrame, SetOfTheStateFindsNoWriteMethod) {
    add_row(5);
    const SetResult result = set({{CC_COLUMN_STATE, 5, integer(COPY_STATE_RUNNING)}});
    EXPECT_EQ(result.status, SNMP_ERR_NOTWRITABLE);
    EXPECT_TRUE(result.history.empty());
    EXPECT_EQ(stored_row(5).ccCopyState, COPY_STATE_WAITING);
}

TEST_F(Frame, FailedRegistrationIsOnlyADebugMessage) {
    fake_agent.register_result = MIB_REGISTRATION_FAILED;
    EXPECT_EQ(init_config_copy_mib(), 0);
    EXPECT_EQ(fake_agent.callbacks, starttime_callback);
    EXPECT_NE(ccCopyUndoList.impl, nullptr);
    deinit_config_copy_mib();
    EXPECT_TRUE(fake_agent.debug.take().empty());

    fake_agent.debugging = true;
    EXPECT_EQ(init_config_copy_mib(), 0);
    const auto debug = fake_agent.debug.take();
    ASSERT_EQ(debug.size(), 4U);
    // Each message comes in two parts: the token, which determines the prefix, and the text.
    for (const std::size_t i : {0U, 1U}) {
        EXPECT_EQ(debug[i].first, "trace");
        EXPECT_EQ(std::regex_replace(debug[i].second, std::regex(", [0-9]+:"), ", #:"),
                  "init_config_copy_mib(): "
                  "infra/system_manager/lib/libmib/configcopymib/config_copy_mib, #:\n");
    }
    EXPECT_EQ(debug[2], (std::pair<std::string, std::string>{
                            "register_mib", "config_copy_mib registration failed\n"}));
    EXPECT_EQ(debug[3], debug[2]);
    deinit_config_copy_mib();
}

class FailedContainer : public ModuleTest,
                        public ::testing::WithParamInterface<std::vector<int>> {};

TEST_P(FailedContainer, WithdrawsTheRegistration) {
    fake_keyedset.create_results.assign(GetParam().begin(), GetParam().end());
    init_config_copy_mib();
    ASSERT_FALSE(fake_agent.unregistrations.empty());
    EXPECT_EQ(fake_agent.unregistrations[0], root);
    EXPECT_TRUE(fake_agent.variables.empty());
    EXPECT_EQ(fake_agent.lookup_cache_size, AgentFake::lookup_cache_default);
    EXPECT_EQ(fake_agent.callbacks, starttime_callback);
    EXPECT_TRUE(fake_agent_extension.registered.empty());
    deinit_config_copy_mib();
}

INSTANTIATE_TEST_SUITE_P(Frame, FailedContainer,
                         ::testing::Values(std::vector{0, 2}, std::vector{2, 0},
                                           std::vector{1, 1}));

TEST_F(Frame, UnloadWithdrawsEveryVariable) {
    ASSERT_EQ(init_config_copy_mib(), 0);
    fake_agent.lookup_cache_size = 5;
    deinit_config_copy_mib();
    EXPECT_TRUE(fake_agent.variables.empty());
    ASSERT_FALSE(fake_agent.unregistrations.empty());
    EXPECT_NE(std::ranges::find(fake_agent.unregistrations, root),
              fake_agent.unregistrations.end());
    EXPECT_EQ(fake_agent.lookup_cache_size, 5);
    EXPECT_EQ(ccCopyUndoList.impl, nullptr);
    ASSERT_EQ(fake_keyedset.destroys.size(), 2U);
    EXPECT_EQ(fake_keyedset.destroys[0], &ccCopyUndoList);
    EXPECT_EQ(fake_keyedset.destroys[1], fake_keyedset.creates[1].set);
    EXPECT_EQ(fake_agent.callbacks, starttime_callback);
    EXPECT_EQ(fake_agent_extension.unregistered, opcodes);
    EXPECT_TRUE(fake_agent_extension.handlers.empty());
}

TEST_F(Frame, UnloadAndLoadKeepRowsAndAlarm) {
    ASSERT_EQ(init_config_copy_mib(), 0);
    add_row(3);
    add_row(5);
    ASSERT_EQ(fake_agent.alarms.size(), 1U);
    const unsigned int alarm = fake_agent.alarms[0].handle;
    for (int reload = 0; reload < 3; ++reload) {
        deinit_config_copy_mib();
        EXPECT_TRUE(fake_agent.variables.empty());
        EXPECT_EQ(init_config_copy_mib(), 0);
        EXPECT_EQ(fake_agent.variables, every_variable());
        EXPECT_EQ(fake_agent.callbacks, starttime_callback);
        EXPECT_EQ(fake_agent_extension.handlers.size(), opcodes.size());
        ASSERT_EQ(fake_agent.alarms.size(), 1U);
        EXPECT_EQ(fake_agent.alarms[0].handle, alarm);
        EXPECT_EQ(stored_indexes(), (std::vector<int32_t>{3, 5}));
    }
    deinit_config_copy_mib();
}

TEST_F(Frame, SecondLoadWithoutUnloadRegistersNothingTwice) {
    ASSERT_EQ(init_config_copy_mib(), 0);
    add_row(3);
    EXPECT_EQ(init_config_copy_mib(), 0);
    EXPECT_EQ(fake_agent.variables, every_variable());
    EXPECT_EQ(fake_agent.callbacks, starttime_callback);
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{3});
    EXPECT_NE(ccCopyUndoList.impl, nullptr);
    deinit_config_copy_mib();
    EXPECT_TRUE(fake_agent.variables.empty());
}

// An abandoned destroy leaves a copy of its row in the undo list.
void abandon_a_destroy(int32_t index) {
    add_row(index);
    const SetResult result =
        set({{CC_COLUMN_ENTRY_ROW_STATUS, static_cast<oid>(index), integer(ROW_STATUS_DESTROY)},
             {CC_COLUMN_FILE_NAME, 999, octet_string("no such row")}});
    ASSERT_EQ(result.status, SNMP_ERR_NOSUCHNAME);
    ASSERT_EQ(keyedset_size(&ccCopyUndoList), 1U);
}

TEST_F(Frame, UnloadFreesTheRowCopiesThatAreLeft) {
    ASSERT_EQ(init_config_copy_mib(), 0);
    abandon_a_destroy(3);
    deinit_config_copy_mib(); // the leak checker detects a lost copy
    EXPECT_EQ(ccCopyUndoList.impl, nullptr);
    EXPECT_EQ(init_config_copy_mib(), 0);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
    deinit_config_copy_mib();
}

} // namespace
