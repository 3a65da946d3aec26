// The conditions that a request must meet before it is started.
#include "tests/unit/fakes/fake_utilities.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

constexpr uint32_t only_running_to_fabric = 0x4049004A;
constexpr uint32_t only_running_to_all = 0x4049005B;
constexpr uint32_t both_network = 0x4049004B;
constexpr uint32_t network_to_startup = 0x4049004C;
constexpr uint32_t same_type = 0x4049004D;

struct Outcome {
    int32_t valid;
    int32_t error;
    std::vector<uint32_t> recorded;
    std::vector<std::string> traced; // after the usual prefix
};

class Validation : public Traced<ModuleTest> {
  protected:
    ccCopyEntry row = complete();

    // A request from the network to the running configuration with every field set.
    static ccCopyEntry complete() {
        ccCopyEntry request{};
        request.ccCopyIndex = 5;
        request.ccCopyProtocol = COPY_PROTO_SFTP;
        request.ccCopySourceFileType = COPY_FILE_NETWORK;
        request.ccCopyDestFileType = COPY_FILE_RUNNING;
        put_text(request.ccCopyFileName, "switch.cfg");
        put_text(request.ccCopyUserName, "operator");
        put_text(request.ccCopyUserPassword, "secret");
        put_text(request.ccCopyServerAddressRev1, "10.0.0.1");
        request.ccCopyEntryRowStatus = ROW_STATUS_CREATE_AND_GO;
        request.ccCopyFailCause = COPY_FAIL_GENERAL;
        return request;
    }

    void types(int32_t source, int32_t dest) {
        row.ccCopySourceFileType = source;
        row.ccCopyDestFileType = dest;
    }

    Outcome validate(int32_t requested = ROW_STATUS_ACTIVE) {
        Outcome outcome{};
        outcome.error = 77; // set on entry
        outcome.valid = validate_entry(&row, &outcome.error, requested);
        for (const auto &[code, facility] : fake_utilities.errors.take()) {
            EXPECT_EQ(facility, 584U);
            outcome.recorded.push_back(code);
        }
        const std::string prefix = "validate_entry(#):validate_entry";
        for (const std::string &text : file->take()) {
            EXPECT_EQ(text.substr(0, prefix.size()), prefix);
            outcome.traced.push_back(text.substr(std::min(prefix.size(), text.size())));
        }
        return outcome;
    }

    void expect_valid() {
        const Outcome outcome = validate();
        EXPECT_EQ(outcome.valid, 1);
        EXPECT_EQ(outcome.error, 0);
        EXPECT_TRUE(outcome.recorded.empty());
        EXPECT_TRUE(outcome.traced.empty());
        EXPECT_EQ(row.ccCopyFailCause, COPY_FAIL_GENERAL);
        EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_CREATE_AND_GO);
    }

    // The row violates exactly one of the rules for network copies. An activation is refused; a
    // createAndGo becomes notReady.
    void expect_incomplete(const std::string &text, int32_t fail_cause = COPY_FAIL_GENERAL) {
        row.ccCopyEntryRowStatus = ROW_STATUS_CREATE_AND_GO;
        const ccCopyEntry before = row;
        const Outcome activated = validate(ROW_STATUS_ACTIVE);
        EXPECT_EQ(activated.valid, 0);
        EXPECT_EQ(activated.error, SNMP_ERR_INCONSISTENTVALUE);
        EXPECT_TRUE(activated.recorded.empty());
        EXPECT_EQ(activated.traced, std::vector<std::string>{text});
        EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_CREATE_AND_GO);
        EXPECT_EQ(row.ccCopyFailCause, fail_cause);

        row = before;
        const Outcome created = validate(ROW_STATUS_CREATE_AND_GO);
        EXPECT_EQ(created.valid, 0);
        EXPECT_EQ(created.error, SNMP_ERR_NOERROR);
        EXPECT_EQ(created.traced, std::vector<std::string>{text});
        EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
        EXPECT_EQ(row.ccCopyFailCause, fail_cause);
    }
};

const std::string fabric_text = " : only running to fabric_startupconfig allowed";
const std::string all_text = " : only running to all_startupconfig allowed";
const std::string kex_text = " : KEX file type is not supported ";
const std::string both_network_text =
    " : Both source (=1) and destination (=1) cannot be network protocol  ";
const std::string to_startup_text =
    " :source cannot be networkfile and destination cannot be startup file  ";

std::string same_text(int32_t type) {
    const std::string number = std::to_string(type);
    return " : Both source (=" + number + ") and destination (=" + number + ") cannot be same  ";
}

// The result for every pair of file types, with all other fields set.
TEST_F(Validation, EveryPairOfFileTypes) {
    for (int32_t source = 0; source <= 8; ++source) {
        for (int32_t dest = 0; dest <= 8; ++dest) {
            SCOPED_TRACE(std::to_string(source) + " to " + std::to_string(dest));
            Outcome expected{1, 0, {}, {}};
            const auto broken = [&](const std::string &text, int32_t error, uint32_t code) {
                expected.valid = 0;
                expected.error = error;
                expected.traced.push_back(text);
                if (code != 0) {
                    expected.recorded.push_back(code);
                }
            };
            if (dest == 6 && source != 4) {
                broken(fabric_text, 5, only_running_to_fabric);
            }
            if (dest == 7 && source != 4) {
                broken(all_text, 5, only_running_to_all);
            }
            if (source == 2 || source == 5 || dest == 2 || dest == 5) {
                broken(kex_text, 10, 0);
            }
            if (source == 1 && dest == 1) {
                broken(both_network_text, 5, both_network);
            }
            if (source == 1 && dest == 3) {
                broken(to_startup_text, 5, network_to_startup);
            }
            if (source == dest) {
                broken(same_text(source), 5, same_type);
            }
            row = complete();
            types(source, dest);
            const Outcome outcome = validate();
            EXPECT_EQ(outcome.valid, expected.valid);
            EXPECT_EQ(outcome.error, expected.error);
            EXPECT_EQ(outcome.recorded, expected.recorded);
            EXPECT_EQ(outcome.traced, expected.traced);
            EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_CREATE_AND_GO);
            EXPECT_EQ(row.ccCopyFailCause, COPY_FAIL_GENERAL);
        }
    }
}

TEST_F(Validation, RunningToFabricStartupNeedsNoNetworkField) {
    row = ccCopyEntry{};
    row.ccCopyEntryRowStatus = ROW_STATUS_CREATE_AND_GO;
    row.ccCopyFailCause = COPY_FAIL_GENERAL;
    types(COPY_FILE_RUNNING, COPY_FILE_FABRIC_STARTUP);
    expect_valid();
}

TEST_F(Validation, StartupToFabricStartup) {
    types(COPY_FILE_STARTUP, COPY_FILE_FABRIC_STARTUP);
    const Outcome outcome = validate();
    EXPECT_EQ(outcome.valid, 0);
    EXPECT_EQ(outcome.error, SNMP_ERR_GENERR);
    EXPECT_EQ(outcome.recorded, std::vector{only_running_to_fabric});
}

TEST_F(Validation, NetworkToNetworkRecordsTwoReasons) {
    types(COPY_FILE_NETWORK, COPY_FILE_NETWORK);
    const Outcome outcome = validate();
    EXPECT_EQ(outcome.valid, 0);
    EXPECT_EQ(outcome.error, SNMP_ERR_GENERR);
    EXPECT_EQ(outcome.recorded, (std::vector{both_network, same_type}));
}

TEST_F(Validation, KexAndType5ShareTheMessage) {
    for (const int32_t type : {COPY_FILE_KEX, COPY_FILE_TYPE5}) {
        types(type, COPY_FILE_RUNNING);
        const Outcome outcome = validate();
        EXPECT_EQ(outcome.error, SNMP_ERR_WRONGVALUE);
        EXPECT_EQ(outcome.traced, std::vector{kex_text});
    }
}

TEST_F(Validation, LastBrokenRuleDecides) {
    types(COPY_FILE_NETWORK, COPY_FILE_KEX);
    put_text(row.ccCopyFileName, "");
    put_text(row.ccCopyServerAddressRev1, "");
    row.ccCopyProtocol = COPY_PROTO_RCP;
    const ccCopyEntry before = row;
    const std::vector<std::string> texts = {
        kex_text,
        " : The CopyProtocol (=3) should set if either source (=1)  or destination (=2) is "
        "network ",
        " : The CopyServerAddressRev1 should be set if either source (=1)  or destination (=2) is "
        "network ",
        " :The Username and password must be set if  CopyProtocol ( = 3)  is either SFTP or RCP",
        " : The CopyFileName must be set if  CopySourceFileType (=1) or CopyDestFileType (=2) is "
        "NETWORK FILE",
    };
    Outcome outcome = validate(ROW_STATUS_ACTIVE);
    EXPECT_EQ(outcome.error, SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(outcome.traced, texts);
    // A createAndGo keeps the error about the file types.
    row = before;
    outcome = validate(ROW_STATUS_CREATE_AND_GO);
    EXPECT_EQ(outcome.valid, 0);
    EXPECT_EQ(outcome.error, SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(outcome.traced, texts);
    EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
}

TEST_F(Validation, Protocols) {
    for (const int32_t protocol :
         {COPY_PROTO_TFTP, COPY_PROTO_FTP, COPY_PROTO_SCP, COPY_PROTO_SFTP}) {
        row = complete();
        row.ccCopyProtocol = protocol;
        expect_valid();
    }
    for (const int32_t protocol : {-1, 0, 3, 6}) {
        SCOPED_TRACE(protocol);
        row = complete();
        row.ccCopyProtocol = protocol;
        expect_incomplete(" : The CopyProtocol (=" + std::to_string(protocol) +
                              ") should set if either source (=1)  or destination (=4) is network ",
                          COPY_FAIL_UNSUPPORTED_PROTOCOL);
    }
}

TEST_F(Validation, ServerAddress) {
    put_text(row.ccCopyServerAddressRev1, "");
    types(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    expect_incomplete(" : The CopyServerAddressRev1 should be set if either source (=4)  or "
                      "destination (=1) is network ");
}

TEST_F(Validation, SftpNeedsUserPasswordAndFileName) {
    const std::string text =
        " :The Username and password must be set if  CopyProtocol ( = 5)  is either SFTP or RCP";
    put_text(row.ccCopyUserName, "");
    expect_incomplete(text);
    row = complete();
    put_text(row.ccCopyUserPassword, "");
    expect_incomplete(text);
    row = complete();
    put_text(row.ccCopyUserName, "anonymous");
    put_text(row.ccCopyUserPassword, "");
    expect_incomplete(text);
    row = complete();
    put_text(row.ccCopyFileName, "");
    EXPECT_EQ(validate().traced, (std::vector<std::string>{
                                     text, " : The CopyFileName must be set if  CopySourceFileType "
                                           "(=1) or CopyDestFileType (=4) is NETWORK FILE"}));
}

TEST_F(Validation, FtpNeedsAUserWithPasswordUnlessAnonymous) {
    const std::string text =
        " :The Username and password must be set if  CopyProtocol ( = 2)  is FTP";
    row.ccCopyProtocol = COPY_PROTO_FTP;
    expect_valid();
    put_text(row.ccCopyUserName, "");
    expect_incomplete(text);
    put_text(row.ccCopyUserPassword, "");
    expect_incomplete(text);
    for (const char *user : {"operator", "anonymou", "xanonymous"}) {
        put_text(row.ccCopyUserName, user);
        expect_incomplete(text);
    }
    for (const char *user : {"anonymous", "ANONYMOUS", "Anonymous", "anonymousX"}) {
        SCOPED_TRACE(user);
        put_text(row.ccCopyUserName, user);
        row.ccCopyEntryRowStatus = ROW_STATUS_CREATE_AND_GO;
        expect_valid();
    }
}

TEST_F(Validation, TftpAndScpNeedNoCredentials) {
    for (const int32_t protocol : {COPY_PROTO_TFTP, COPY_PROTO_SCP}) {
        row = complete();
        row.ccCopyProtocol = protocol;
        put_text(row.ccCopyUserName, "");
        put_text(row.ccCopyUserPassword, "");
        expect_valid();
    }
}

TEST_F(Validation, FileName) {
    row.ccCopyProtocol = COPY_PROTO_TFTP;
    put_text(row.ccCopyFileName, "");
    expect_incomplete(" : The CopyFileName must be set if  CopySourceFileType (=1) or "
                      "CopyDestFileType (=4) is NETWORK FILE");
}

TEST_F(Validation, CreateAndGoWithoutFileName) {
    types(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    row.ccCopyProtocol = COPY_PROTO_TFTP;
    put_text(row.ccCopyFileName, "");
    const Outcome outcome = validate(ROW_STATUS_CREATE_AND_GO);
    EXPECT_EQ(outcome.valid, 0);
    EXPECT_EQ(outcome.error, 0);
    EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
}

TEST_F(Validation, RcpWithAllCredentials) {
    types(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    row.ccCopyProtocol = COPY_PROTO_RCP;
    const Outcome outcome = validate(ROW_STATUS_ACTIVE);
    EXPECT_EQ(outcome.valid, 0);
    EXPECT_EQ(outcome.error, SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(row.ccCopyFailCause, COPY_FAIL_UNSUPPORTED_PROTOCOL);
}

TEST_F(Validation, WithoutTraceTheRulesStillHold) {
    is_snmp_debug_enabled = 0;
    types(COPY_FILE_NETWORK, COPY_FILE_STARTUP);
    const Outcome outcome = validate();
    EXPECT_EQ(outcome.valid, 0);
    EXPECT_EQ(outcome.error, SNMP_ERR_GENERR);
    EXPECT_TRUE(outcome.traced.empty());
}

} // namespace
