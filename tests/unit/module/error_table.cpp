// ccCopyErrorTable: its store and its read handler.
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/fake_memory.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

constexpr oid type_column = 2;
constexpr oid address_column = 3;
constexpr oid wwn_column = 4;
constexpr oid text_column = 5;

ccCopyErrorEntry error_of(int32_t copy, int32_t number) {
    ccCopyErrorEntry error{};
    error.ccCopyIndex = copy;
    error.ccCopyErrorIndex = number;
    return error;
}

ccCopyEntry request_of(int32_t copy) {
    ccCopyEntry request{};
    request.ccCopyIndex = copy;
    return request;
}

class ErrorTable : public ModuleTest {
  protected:
    void create() {
        ASSERT_EQ(keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1),
                  KEYEDSET_CREATED);
    }

    void add(const ccCopyErrorEntry &error) {
        if (keyedset_size(&ccCopyErrorTable) == 0) {
            create();
        }
        const ccCopyEntry request = request_of(error.ccCopyIndex);
        ASSERT_EQ(addCcCopyErrorEntry(&request, &error), 0U);
    }

    void add_three() {
        add(error_of(7, 1));
        add(error_of(3, 2));
        add(error_of(3, 1));
    }

    // "copy.error" of the row that a GETNEXT returns, or "none".
    std::string next(std::initializer_list<oid> rest) {
        Oid name = error_column(type_column);
        name.insert(name.end(), rest);
        return row_of(get_next(error_column(type_column), name), name);
    }

    std::string exact(std::initializer_list<oid> rest) {
        Oid name = error_column(type_column);
        name.insert(name.end(), rest);
        return row_of(get(error_column(type_column), name), name);
    }

    static std::string row_of(const std::optional<Answer> &answer, const Oid &) {
        if (!answer) {
            return "none";
        }
        EXPECT_EQ(answer->write_method, nullptr);
        const Oid column = error_column(type_column);
        EXPECT_EQ(answer->name.size(), column.size() + 2);
        EXPECT_EQ(Oid(answer->name.begin(), answer->name.begin() + CC_COLUMN_OID_LENGTH), column);
        return std::to_string(answer->name[CC_COLUMN_OID_LENGTH]) + "." +
               std::to_string(answer->name[CC_COLUMN_OID_LENGTH + 1]);
    }

    std::string value(oid column) {
        Oid name = error_column(column);
        name.insert(name.end(), {3, 1});
        const std::optional<Answer> answer = get(error_column(column), name);
        return answer ? answer->octets : "none";
    }
};

std::string word(int32_t number) {
    return std::string(reinterpret_cast<const char *>(&number), sizeof number);
}

TEST_F(ErrorTable, ComparisonIsByBothIndexes) {
    const ccCopyErrorEntry row = error_of(3, 5);
    EXPECT_EQ(ccCopyErrorEntry_comp_func(&row, &row), 0);
    for (const auto &[copy, number] :
         {std::pair{4, 1}, std::pair{3, 6}, std::pair{2147483647, -1}}) {
        const ccCopyErrorEntry later = error_of(copy, number);
        EXPECT_EQ(ccCopyErrorEntry_comp_func(&row, &later), 1);
        EXPECT_EQ(ccCopyErrorEntry_comp_func(&later, &row), -1);
    }
    for (const auto &[copy, number] :
         {std::pair{2, 9}, std::pair{3, 4}, std::pair{-2147483647, 1}}) {
        const ccCopyErrorEntry earlier = error_of(copy, number);
        EXPECT_EQ(ccCopyErrorEntry_comp_func(&row, &earlier), -1);
        EXPECT_EQ(ccCopyErrorEntry_comp_func(&earlier, &row), 1);
    }
    EXPECT_EQ(ccCopyErrorEntry_comp_func(nullptr, &row), -1);
    EXPECT_EQ(ccCopyErrorEntry_comp_func(&row, nullptr), -1);
    EXPECT_EQ(ccCopyErrorEntry_comp_func(nullptr, nullptr), -1);
}

TEST_F(ErrorTable, RowsAreStoredAndReadAsCopies) {
    ccCopyErrorEntry error = error_of(3, 1);
    error.ccCopyErrorDeviceAddrType = INET_ADDRESS_IPV6;
    put_text(error.ccCopyErrorDeviceAddr, "2001:db8::7");
    error.ccCopyErrorSwitchWwn[7] = 9;
    put_text(error.ccCopyErrorText, "no space");
    add(error);
    const ccCopyErrorEntry before = error;
    error = {};

    ccCopyErrorEntry buffer = error_of(3, 1);
    EXPECT_EQ(getCcCopyErrorEntry(&buffer), 0U);
    EXPECT_EQ(memcmp(&buffer, &before, sizeof buffer), 0);
    EXPECT_LOGGED(EVTRACE_DEBUG, "getCcCopyErrorEntry : found entry in ccCopyErrorTable\n");
    put_text(buffer.ccCopyErrorText, "changed");
    buffer = error_of(0, 0);
    EXPECT_EQ(getnextCcCopyErrorEntry(&buffer), 0U);
    EXPECT_EQ(memcmp(&buffer, &before, sizeof buffer), 0);
    EXPECT_LOGGED(EVTRACE_DEBUG, "getnextCcCopyErrorEntry :found entry in ccCopyErrorTable\n");
}

TEST_F(ErrorTable, LookupsInAnEmptyStore) {
    ccCopyErrorEntry buffer = error_of(3, 1);
    EXPECT_EQ(getCcCopyErrorEntry(&buffer), CCERR_NOT_FOUND);
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_DEBUG, "getCcCopyErrorEntry : ccCopyErrorTable empty\n"}}));
    fake_evtrace.clear();
    EXPECT_EQ(getnextCcCopyErrorEntry(&buffer), CCERR_NOT_FOUND);
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_DEBUG, "getnextCcCopyErrorEntry : ccCopyTable empty\n"}}));
}

TEST_F(ErrorTable, LookupsThatFindNothing) {
    add_three();
    ccCopyErrorEntry buffer = error_of(3, 3);
    EXPECT_EQ(getCcCopyErrorEntry(&buffer), CCERR_NOT_FOUND);
    buffer = error_of(7, 1);
    EXPECT_EQ(getnextCcCopyErrorEntry(&buffer), CCERR_NOT_FOUND);
    EXPECT_EQ(buffer.ccCopyIndex, 7);
}

TEST_F(ErrorTable, InsertionWithoutMemory) {
    create();
    const ccCopyEntry request = request_of(3);
    const ccCopyErrorEntry error = error_of(3, 1);
    fake_memory.failing_size = sizeof(ccCopyErrorEntry);
    EXPECT_EQ(addCcCopyErrorEntry(&request, &error), 5U);
    fake_memory.failing_size = 0;
    EXPECT_LOGGED(EVTRACE_ERROR, "addCcCopyErrorEntry : Mallocing for ccCopyErrorEntryFailed\n");
    EXPECT_EQ(keyedset_size(&ccCopyErrorTable), 0U);
}

TEST_F(ErrorTable, FirstArgumentOfTheInsertionDoesNotCount) {
    create();
    const ccCopyErrorEntry error = error_of(3, 1);
    EXPECT_EQ(addCcCopyErrorEntry(nullptr, &error), 0U);
    EXPECT_EQ(keyedset_size(&ccCopyErrorTable), 1U);
}

TEST_F(ErrorTable, SecondRowOfAKeyIsRefused) {
    ccCopyErrorEntry error = error_of(3, 1);
    add(error);
    error.ccCopyErrorDeviceAddrType = 2;
    const ccCopyEntry request = request_of(3);
    EXPECT_EQ(addCcCopyErrorEntry(&request, &error), CCERR_FAILED);
    EXPECT_LOGGED(EVTRACE_ERROR, "addCcCopyErrorEntry : failed to add to index object\n");
    EXPECT_EQ(keyedset_size(&ccCopyErrorTable), 1U);
    EXPECT_EQ(value(type_column), word(0));
}

TEST_F(ErrorTable, DeletionByCopyRequest) {
    add_three();
    ccCopyEntry key = request_of(3);
    EXPECT_EQ(deleteCcCopyErrorEntries(&key), 0U);
    EXPECT_EQ(next({}), "7.1");
    EXPECT_EQ(next({7, 1}), "none");
    EXPECT_NE(ccCopyErrorTable.impl, nullptr);
    key = request_of(5);
    EXPECT_EQ(deleteCcCopyErrorEntries(&key), 0U);
    EXPECT_EQ(keyedset_size(&ccCopyErrorTable), 1U);
    key = request_of(7);
    EXPECT_EQ(deleteCcCopyErrorEntries(&key), 0U);
    EXPECT_EQ(ccCopyErrorTable.impl, nullptr);
    EXPECT_EQ(fake_keyedset.destroys, std::vector<const keyedset *>{&ccCopyErrorTable});
}

TEST_F(ErrorTable, DeletionWithNothingToDelete) {
    EXPECT_EQ(deleteCcCopyErrorEntries(nullptr), 0U);
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_DEBUG, "deleteCcCopyErrorEntries : entry provided is NULL\n"}}));
    fake_evtrace.clear();
    const ccCopyEntry key = request_of(42);
    EXPECT_EQ(deleteCcCopyErrorEntries(&key), 0U);
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_DEBUG,
                   "deleteCcCopyErrorEntries : ccCopyErrorTable empty forcopy index: 42\n"}}));
}

TEST_F(ErrorTable, FirstErrorOfTheNextCopyIsTheStoresFirst) {
    add_row(5);
    add_row(8);
    ccCopyErrorEntry buffer{};
    EXPECT_EQ(getFirstErrorEntryForNextCopyEntry(&buffer), CCERR_NOT_FOUND);
    EXPECT_LOGGED(
        EVTRACE_DEBUG,
        "getFirstErrorEntryForNextCopyEntry : ccCopyErrorTable empty forccCopyIndex: 5\n ");
    EXPECT_LOGGED(
        EVTRACE_DEBUG,
        "getFirstErrorEntryForNextCopyEntry : ccCopyErrorTable empty forccCopyIndex: 8\n ");

    add_three();
    buffer = error_of(5, 0);
    fake_evtrace.clear();
    EXPECT_EQ(getFirstErrorEntryForNextCopyEntry(&buffer), 0U);
    EXPECT_EQ(buffer.ccCopyIndex, 3);
    EXPECT_EQ(buffer.ccCopyErrorIndex, 1);
    EXPECT_LOGGED(EVTRACE_DEBUG, "getFirstErrorEntryForNextCopyEntry : found copyIndex: 8\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "getFirstErrorEntryForNextCopyEntry : found entry\n");

    buffer = error_of(8, 0);
    EXPECT_EQ(getFirstErrorEntryForNextCopyEntry(&buffer), CCERR_NOT_FOUND);
}

TEST_F(ErrorTable, NextRow) {
    EXPECT_EQ(next({}), "none");
    add_three();
    EXPECT_EQ(next({}), "3.1");
    EXPECT_EQ(next({3}), "3.1");
    EXPECT_EQ(next({3, 0}), "3.1");
    EXPECT_EQ(next({3, 1}), "3.2");
    EXPECT_EQ(next({3, 1, 9}), "3.2");
    EXPECT_EQ(next({3, 2}), "7.1");
    EXPECT_EQ(next({4}), "7.1");
    EXPECT_EQ(next({7, 1}), "none");
}

TEST_F(ErrorTable, NextRowFromBeforeTheColumn) {
    add_three();
    const Oid column = error_column(type_column);
    EXPECT_EQ(row_of(get_next(column, {1, 3, 6}), column), "3.1");
    Oid before = error_column(1);
    before.insert(before.end(), {7, 1});
    EXPECT_EQ(row_of(get_next(column, before), column), "3.1");
}

TEST_F(ErrorTable, NoRowFollowsALargeSubIdentifier) {
    add_three();
    add(error_of(2147483647, 1));
    for (const oid large : {2147483648UL, 4294967295UL}) {
        EXPECT_EQ(next({large}), "none");
        EXPECT_EQ(next({large, 1}), "none");
        EXPECT_EQ(next({2147483647, large}), "none");
        // The next request's rows still follow a large second index.
        EXPECT_EQ(next({3, large}), "7.1");
    }
}

TEST_F(ErrorTable, ExactRow) {
    add_three();
    EXPECT_EQ(exact({3, 1}), "3.1");
    EXPECT_EQ(exact({7, 1}), "7.1");
    EXPECT_EQ(exact({3}), "none");
    EXPECT_EQ(exact({3, 3}), "none");
    EXPECT_EQ(exact({}), "none");
}

TEST_F(ErrorTable, ExactToleratesElevenSubIdentifiers) {
    add_three();
    EXPECT_EQ(exact({3, 1, 7}), "3.1");
    EXPECT_EQ(exact({3, 1, 7, 7, 7, 7, 7, 7, 7, 7, 7}), "3.1");
    EXPECT_EQ(exact({3, 1, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7}), "none");
}

TEST_F(ErrorTable, EveryColumn) {
    ccCopyErrorEntry error = error_of(3, 1);
    error.ccCopyErrorDeviceAddrType = INET_ADDRESS_IPV4;
    put_text(error.ccCopyErrorDeviceAddr, "10.1.2.3");
    const uint8_t wwn[CC_WWN_SIZE] = {0x20, 0, 0, 0x0d, 0xec, 0x80, 0xff, 1};
    std::ranges::copy(wwn, error.ccCopyErrorSwitchWwn);
    put_text(error.ccCopyErrorText, std::string(256, 't'));
    add(error);
    EXPECT_EQ(value(type_column), word(INET_ADDRESS_IPV4));
    EXPECT_EQ(value(wwn_column), std::string(reinterpret_cast<const char *>(wwn), sizeof wwn));
    EXPECT_EQ(value(text_column), std::string(256, 't'));
    fake_evtrace.clear();
    EXPECT_EQ(value(address_column), "\x0a\x01\x02\x03");
    EXPECT_LOGGED(EVTRACE_DEBUG, "get_ccCopyErrorTable \n");
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  by_byte_order("get_ccCopyErrorTable: GET FUNCTION: returning device ip addr: "
                                "10.1.2.3 (0x0302010a), device ip addr type: 1\n",
                                "get_ccCopyErrorTable: GET FUNCTION: returning device ip addr: "
                                "10.1.2.3 (0x0a010203), device ip addr type: 1\n"));
}

TEST_F(ErrorTable, Ipv6Device) {
    ccCopyErrorEntry error = error_of(3, 1);
    error.ccCopyErrorDeviceAddrType = INET_ADDRESS_IPV6;
    put_text(error.ccCopyErrorDeviceAddr, "2001:db8::7");
    add(error);
    EXPECT_EQ(value(address_column), "\x20\x01\x0d\xb8" + std::string(11, '\0') + "\x07");
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  by_byte_order("get_ccCopyErrorTable: GET FUNCTION: returning device ip addr: "
                                "2001:db8::7 (0xb80d0120), device ip addr type: 2\n",
                                "get_ccCopyErrorTable: GET FUNCTION: returning device ip addr: "
                                "2001:db8::7 (0x20010db8), device ip addr type: 2\n"));
}

TEST_F(ErrorTable, UnknownDeviceAddressHasNoValue) {
    ccCopyErrorEntry error = error_of(3, 1);
    put_text(error.ccCopyErrorText, "text");
    add(error);
    EXPECT_EQ(value(type_column), word(0));
    EXPECT_EQ(value(address_column), "none");
    EXPECT_EQ(value(wwn_column), std::string(8, '\0'));
    EXPECT_EQ(value(text_column), "text");
}

TEST_F(ErrorTable, UnknownMagicHasNoValue) {
    add_three();
    for (const u_char magic : std::vector<u_char>{4, 24, 29}) {
        struct variable variable {};
        variable.magic = magic;
        Oid name = error_column(type_column);
        std::ranges::copy(name, variable.name);
        variable.namelen = static_cast<u_char>(name.size());
        name.insert(name.end(), {3, 1});
        size_t length = name.size();
        name.resize(MAX_OID_LEN);
        size_t value_length = 77;
        WriteMethod *method = nullptr;
        EXPECT_EQ(get_ccCopyErrorTable(&variable, name.data(), &length, 1, &value_length, &method),
                  nullptr);
        EXPECT_EQ(value_length, 77U);
        EXPECT_EQ(fake_agent.details.take(), std::vector<std::string>{""});
    }
}

} // namespace
