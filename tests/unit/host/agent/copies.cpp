#include "platform/host/agent/copies.h"

#include "platform/host/bus/wire.h"
#include "platform/host/system_manager/last_save.h"
#include "platform/host/system_manager/status.h"
#include "platform/system_manager.h"

#include "tests/unit/host/agent/current_request.h"
#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <map>
#include <regex>
#include <string>

namespace {

constexpr std::array<oid, 3> root{1, 3, 77};
constexpr oid password_column = 8;
constexpr oid state_column = 10;
constexpr oid cause_column = 13;
constexpr oid status_column = 14;

// The values of the rows, in the form in which a module's read method returns them.
std::map<oid, std::map<oid, std::string>> rows;
std::vector<oid> columns_read;

unsigned char *read_row(variable *vp, oid *name, size_t *length, int exact, size_t *var_len,
                        WriteMethod **) {
    EXPECT_EQ(exact, 1);
    EXPECT_EQ(*length, vp->namelen + 1U);
    EXPECT_TRUE(std::equal(root.begin(), root.end(), vp->name));
    const oid column = vp->name[vp->namelen - 1];
    columns_read.push_back(column);
    const auto row = rows.find(name[vp->namelen]);
    if (row == rows.end() || !row->second.contains(column)) {
        return nullptr;
    }
    std::string &value = row->second[column];
    *var_len = value.size();
    return reinterpret_cast<unsigned char *>(value.data());
}

std::string word(uint32_t value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

struct Variable {
    u_char magic;
    u_char type;
    u_short acl;
    FindVarMethod *find;
    u_char name_length;
    oid name[7];
};
static_assert(sizeof(Variable) == sizeof(variable7));

class HostCopies : public testing::Test {
  protected:
    void SetUp() override {
        rows.clear();
        columns_read.clear();
        std::vector<Variable> variables;
        for (oid column = 2; column <= 16; ++column) {
            variables.push_back(
                {static_cast<u_char>(column), ASN_INTEGER, 0, read_row, 5, {1, 1, 1, 1, column}});
        }
        // another table's
        variables.push_back({99, ASN_INTEGER, 0, read_row, 5, {1, 1, 2, 1, state_column}});
        watch_.learn(reinterpret_cast<const variable *>(variables.data()), sizeof(Variable),
                     variables.size(), root.data(), root.size());

        request_.version = SNMP_VERSION_3;
        request_.securityName = user_.data();
        request_.securityNameLen = user_.size();
        session_.pdu = &request_;
        host_test::current_session = &session_;
    }
    void TearDown() override {
        host_test::current_session = nullptr;
        snmp_free_varbind(request_.variables);
    }

    // A binding of the request.
    void binding(oid column, oid row, long value) {
        std::vector<oid> name(root.begin(), root.end());
        name.insert(name.end(), {1, 1, 1, 1, column, row});
        snmp_varlist_add_variable(&request_.variables, name.data(), name.size(), ASN_INTEGER,
                                  &value, sizeof value);
    }

    static std::map<oid, std::string> upload() {
        return {{2, word(5)},
                {3, word(4)},
                {4, word(1)},
                {6, "dir/a b.cfg"},
                {7, "backup"},
                {8, "secret"},
                {10, word(2)},
                {11, word(4711)},
                {13, word(1)},
                {14, word(1)},
                {16, "\xC0" + std::string("\0\2\x14", 3)}};
    }
    static std::map<oid, std::string> save(uint32_t to) {
        auto row = upload();
        row[4] = word(to);
        return row;
    }

    // The only kept line, with placeholders for its times.
    static std::string line() {
        std::string text = ulmo::kept_copy_lines();
        text = std::regex_replace(text, std::regex("(^|\n)[0-9T:-]+Z"), "$1WHEN");
        return std::regex_replace(text, std::regex("seconds=[0-9.]+"), "seconds=S");
    }
    static constexpr char begin_of_upload[] =
        "WHEN request=9 started=4711 user=operator requester=\"\" from=running "
        "to=sftp://backup@192.0.2.20/dir/a%20b.cfg ";
    static constexpr char begin_of_save[] =
        "WHEN request=9 started=4711 user=operator requester=\"\" from=running to=startup ";

    // An activated copy with a worker.
    std::filesystem::path start_upload() {
        rows[9] = upload();
        binding(status_column, 9, 1);
        auto copy = watch_.begin();
        if (!copy) {
            ADD_FAILURE() << "the copy was not noticed";
            return {};
        }
        std::filesystem::path report = copy->report;
        watch_.follow(worker, std::move(copy));
        return report;
    }
    void start_save(uint32_t to) {
        rows[9] = save(to);
        binding(status_column, 9, 4);
        watch_.sent(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION);
    }
    void answer(uint32_t status, const std::string &text = "") {
        const uint32_t on_wire = htonl(status);
        const std::string payload = word(on_wire) + text;
        msgbus_message message(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, 1, payload.data(),
                               static_cast<uint32_t>(payload.size()));
        watch_.answered(&message);
    }

    static constexpr pid_t worker = 4242;
    Scratch scratch_;
    std::string user_ = "operator";
    netsnmp_pdu request_{};
    netsnmp_agent_session session_{};
    ulmo::CopyWatch watch_;
};

TEST_F(HostCopies, SuccessIsToldWithWhatWasMoved) {
    const auto report = start_upload();
    EXPECT_EQ(Scratch::status_of(report).st_mode & 07777U, 0600U);
    const std::string digest(64, 'a');
    std::ofstream(report, std::ios::app) << "moved 92\nsha256 " << digest << "\nreason left over\n";
    watch_.reported(worker, 0);
    EXPECT_EQ(line(),
              begin_of_upload + ("outcome=successful bytes=92 sha256=" + digest) + " seconds=S\n");
    EXPECT_FALSE(std::filesystem::exists(report));
}

TEST_F(HostCopies, FailureIsToldWithItsReason) {
    std::ofstream(start_upload(), std::ios::app) << "reason login refused for backup\n";
    watch_.reported(worker, 1);
    EXPECT_EQ(
        line(),
        begin_of_upload +
            std::string(
                "outcome=failed cause=general reason=\"login refused for backup\" seconds=S\n"));
}

TEST_F(HostCopies, CauseHasTheNameOfTheMib) {
    start_upload();
    watch_.reported(worker, 7);
    EXPECT_EQ(line(),
              begin_of_upload + std::string("outcome=failed cause=configNotApplied seconds=S\n"));
}

TEST_F(HostCopies, DeadWorkerIsToldWithItsSignal) {
    std::ofstream(start_upload(), std::ios::app) << "moved 12\n";
    watch_.died(worker, "by signal 9");
    EXPECT_EQ(line(),
              begin_of_upload + std::string("outcome=failed cause=general reason=\"the copy "
                                            "process ended by signal 9\" bytes=12 seconds=S\n"));
}

TEST_F(HostCopies, ReasonOfADeadWorkerComesFirst) {
    std::ofstream(start_upload(), std::ios::app) << "reason settings are bad\n";
    watch_.died(worker, "with exit status 1");
    const std::string reason = "settings are bad (the copy process ended with exit status 1)";
    EXPECT_EQ(line(), begin_of_upload + ("outcome=failed cause=general reason=\"" + reason) +
                          "\" seconds=S\n");
}

TEST_F(HostCopies, CopyThatTheAgentEndedIsTold) {
    std::ofstream(start_upload(), std::ios::app) << "moved 12\n";
    watch_.ended(worker, 3, "not finished in time");
    EXPECT_EQ(line(), begin_of_upload + std::string("outcome=failed cause=timeout reason=\"not "
                                                    "finished in time\" bytes=12 seconds=S\n"));
}

TEST_F(HostCopies, CopyWhoseRowIsGoneOrNoLongerRunsIsFound) {
    start_upload();
    EXPECT_TRUE(watch_.without_row().empty());
    const auto all = rows;
    rows.clear();
    EXPECT_EQ(watch_.without_row(), std::vector<pid_t>{worker});
    rows = all;
    for (auto &[index, row] : rows) {
        row[state_column] = word(1); // of a new request under the same index
    }
    EXPECT_EQ(watch_.without_row(), std::vector<pid_t>{worker});
    watch_.ended(worker, 1, "removed");
    EXPECT_TRUE(watch_.without_row().empty());
}

TEST_F(HostCopies, CopyIsToldOfOnce) {
    start_upload();
    watch_.reported(worker, 0);
    watch_.died(worker, "by signal 9");
    watch_.reported(worker, 1);
    EXPECT_EQ(line(), begin_of_upload + std::string("outcome=successful seconds=S\n"));
}

TEST_F(HostCopies, RequestThatWasRemovedIsTold) {
    start_upload();
    rows.clear();
    watch_.reported(worker, 0);
    EXPECT_EQ(line(), begin_of_upload + std::string("outcome=successful reason=\"the request was "
                                                    "removed before the end\" seconds=S\n"));
}

TEST_F(HostCopies, CopyWithoutAProcessIsTold) {
    rows[9] = upload();
    binding(status_column, 9, 1);
    const auto copy = watch_.begin();
    ASSERT_TRUE(copy);
    watch_.not_forked(*copy, EAGAIN);
    EXPECT_EQ(
        line(),
        begin_of_upload +
            std::string(
                "outcome=failed cause=general reason=\"the copy process could not be started: "
                "Resource temporarily unavailable\" seconds=S\n"));
}

TEST_F(HostCopies, NothingAsksForThePassword) {
    start_upload();
    watch_.reported(worker, 1);
    EXPECT_EQ(std::count(columns_read.begin(), columns_read.end(), password_column), 0);
    EXPECT_EQ(line().find("secret"), std::string::npos);
}

// If a request names several rows, the copy is the one that runs.
TEST_F(HostCopies, TheRowThatRunsIsMeant) {
    rows[5] = upload();
    rows[5][state_column] = word(4);
    binding(status_column, 5, 1);
    binding(state_column, 8, 1);
    start_upload();
    watch_.reported(worker, 0);
    EXPECT_TRUE(line().starts_with(begin_of_upload)) << line();
}

TEST_F(HostCopies, WithoutARequestThereIsNoCopy) {
    rows[9] = upload();
    binding(status_column, 9, 6);
    EXPECT_FALSE(watch_.begin());
    host_test::current_session = nullptr;
    EXPECT_FALSE(watch_.begin());
}

TEST_F(HostCopies, CommunityIsNotTold) {
    rows[9] = upload();
    std::string community = "s3cret";
    request_.version = SNMP_VERSION_2c;
    request_.community = reinterpret_cast<u_char *>(community.data());
    request_.community_len = community.size();
    binding(status_column, 9, 1);
    watch_.follow(worker, watch_.begin());
    watch_.reported(worker, 0);
    EXPECT_NE(line().find(" user=\"\" "), std::string::npos) << line();
    EXPECT_EQ(line().find(community), std::string::npos);
}

TEST_F(HostCopies, CopyThatOutlivesItsAgentIsTold) {
    const auto report = start_upload();
    std::ofstream(report, std::ios::app) << "moved 5\n";
    watch_.close_unfinished(); // closes only the copies of earlier agents
    EXPECT_EQ(line(), "");
    ulmo::CopyWatch next;
    next.close_unfinished();
    EXPECT_EQ(line(),
              begin_of_upload +
                  std::string(
                      "outcome=unknown reason=\"the agent ended before the copy did\" bytes=5\n"));
    EXPECT_FALSE(std::filesystem::exists(report));
}

TEST_F(HostCopies, SaveIsToldAtItsEnd) {
    start_save(3);
    answer(WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(line(), "");
    watch_.action_ended(0); // another save's end: the row still runs
    EXPECT_EQ(line(), "");
    rows[9][state_column] = word(3);
    watch_.action_ended(0);
    EXPECT_EQ(line(), begin_of_save + std::string("outcome=successful seconds=S\n"));
}

TEST_F(HostCopies, FailedSaveIsToldWithTheReasonThatWasKept) {
    start_save(3);
    answer(WARDEN_CFG_ACTION_INITIATED);
    rows[9][state_column] = word(4);
    rows[9][cause_column] = word(9);
    ulmo::record_last_save("no space on device");
    watch_.action_ended(ulmo::warden_err_store);
    EXPECT_EQ(line(), begin_of_save + std::string("outcome=failed cause=systemManagerFailed "
                                                  "reason=\"no space on device\" seconds=S\n"));
}

TEST_F(HostCopies, FabricSaveNamesTheSwitches) {
    Scratch::write(scratch_.run("fabric-status"),
                   "20:00:00:00:00:00:00:01 local - saved\n"
                   "20:00:00:00:00:00:00:02 remote 192.0.2.11 does not answer\n");
    start_save(6);
    answer(WARDEN_CFG_ACTION_INITIATED);
    rows[9][state_column] = word(4);
    rows[9][cause_column] = word(9);
    watch_.action_ended(ulmo::warden_err_fabric);
    EXPECT_NE(line().find("to=fabric-startup outcome=failed cause=systemManagerFailed "
                          "reason=\"20:00:00:00:00:00:00:02: does not answer\""),
              std::string::npos)
        << line();
}

TEST_F(HostCopies, RefusedSaveIsTold) {
    start_save(3);
    answer(ulmo::warden_err_busy);
    EXPECT_EQ(
        line(),
        begin_of_save +
            std::string("outcome=failed cause=systemManagerRefused "
                        "reason=\"another configuration action is in progress\" seconds=S\n"));
}

TEST_F(HostCopies, SaveThatNobodyEndsIsToldWithTheReason) {
    start_save(3);
    watch_.save_lost("the system manager is not running");
    EXPECT_EQ(line(), "") << "the row still runs";
    rows[9][state_column] = word(4);
    rows[9][cause_column] = word(9);
    watch_.action_ended(1);
    EXPECT_EQ(line(), begin_of_save +
                          std::string("outcome=failed cause=systemManagerFailed "
                                      "reason=\"the system manager is not running\" seconds=S\n"));
}

TEST_F(HostCopies, SaveThatNobodyEndsAndWhoseRequestIsRemovedIsTold) {
    start_save(3);
    watch_.save_lost("the system manager is not running");
    binding(status_column, 9, 6);
    watch_.sent(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT);
    EXPECT_EQ(line(), begin_of_save +
                          std::string("outcome=failed reason=\"the system manager is not running\" "
                                      "seconds=S\n"));
}

TEST_F(HostCopies, SaveWhoseRequestIsRemovedIsTold) {
    start_save(3);
    answer(WARDEN_CFG_ACTION_INITIATED);
    watch_.sent(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT); // of another request
    EXPECT_EQ(line(), "");
    binding(status_column, 9, 6);
    watch_.sent(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT);
    EXPECT_EQ(
        line(),
        begin_of_save +
            std::string(
                "outcome=unknown reason=\"the request was removed before the end\" seconds=S\n"));
}

} // namespace
