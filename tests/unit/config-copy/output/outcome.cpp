// Outcomes as text and as JSON.
#include "config-copy/output/outcome.h"

#include "config-copy/copies/copy_run.h"
#include "config-copy/copy_table.h"
#include "config-copy/output/json_output.h"
#include "config-copy/output/text_output.h"
#include "tests/unit/config-copy/support.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <set>

namespace config_copy {
namespace {

Outcome ended(ExitStatus status) {
    Outcome outcome;
    outcome.status = status;
    return outcome;
}

TEST(Outcome, NamesAreThoseOfTheMib) {
    EXPECT_EQ("waiting", state_name(1));
    EXPECT_EQ("failed", state_name(4));
    EXPECT_EQ("5", state_name(5));
    EXPECT_EQ("general", cause_name(1));
    EXPECT_EQ("configNotApplied", cause_name(7));
    EXPECT_EQ("systemManagerFailed", cause_name(9));
    EXPECT_EQ("10", cause_name(10));
    EXPECT_EQ("0", cause_name(0));
}

TEST(Outcome, EachCauseHasItsWords) {
    std::set<std::string> words;
    for (long cause = COPY_FAIL_GENERAL; cause <= COPY_FAIL_WARDEN_FAILED; ++cause) {
        words.insert(describe_cause(cause, "192.0.2.1", false));
    }
    EXPECT_EQ(9U, words.size());
    EXPECT_EQ(
        "the agent does not pass on the reason: see `cmdshell -c \"show copies\"` on the switch",
        describe_cause(COPY_FAIL_GENERAL, "192.0.2.1", false));
    EXPECT_EQ("the switch gives the unknown cause 12", describe_cause(12, "", false));
    EXPECT_EQ("the file server 192.0.2.1 did not answer the switch: check its address, the route "
              "to it, and whether the server runs",
              describe_cause(COPY_FAIL_TIMEOUT, "192.0.2.1", false));
    EXPECT_EQ("not every switch of the fabric has saved: see `cmdshell -c \"show copies\"` on "
              "the switch",
              describe_cause(COPY_FAIL_WARDEN_FAILED, "", true));
}

TEST(Outcome, WhatTheSwitchSaysIsPassedOn) {
    constexpr char why[] = "login refused for backup";
    for (long cause = COPY_FAIL_GENERAL; cause <= COPY_FAIL_WARDEN_FAILED; ++cause) {
        EXPECT_TRUE(describe_cause(cause, "192.0.2.1", false, why).ends_with(why)) << cause;
    }
    EXPECT_EQ("the switch says: login refused for backup",
              describe_cause(COPY_FAIL_GENERAL, "192.0.2.1", false, why));
    EXPECT_EQ(
        "the configuration was refused while it was applied: line 14: unknown statement 'vlna'",
        describe_cause(COPY_FAIL_CONFIG_NOT_APPLIED, "192.0.2.1", false,
                       "line 14: unknown statement 'vlna'"));
}

TEST(Outcome, RefusalsTellWhatToDo) {
    const std::string view = "this user or community may not write copy requests: it needs a write "
                             "view with .1.3.6.1.4.1.41927.9.96";
    EXPECT_EQ(view, describe_refusal(SNMP_ERR_NOACCESS, CC_COLUMN_ENTRY_ROW_STATUS, ""));
    EXPECT_EQ(view, describe_refusal(SNMP_ERR_AUTHORIZATIONERROR, CC_COLUMN_ENTRY_ROW_STATUS, ""));
    EXPECT_EQ(
        "the agent has no copy table: load config_copy_mib into it (its log tells why it is not)",
        describe_refusal(SNMP_ERR_NOTWRITABLE, CC_COLUMN_ENTRY_ROW_STATUS, ""));
    EXPECT_EQ("the switch does not accept the file server's address",
              describe_refusal(SNMP_ERR_WRONGVALUE, CC_COLUMN_SERVER_ADDRESS_REV1, ""));
    EXPECT_TRUE(describe_refusal(SNMP_ERR_RESOURCEUNAVAILABLE, CC_COLUMN_USER_NAME, "")
                    .starts_with("the switch refuses the user name with "));
    const std::string level = "the agent grants this user nothing at the security level "
                              "authNoPriv: choose a higher one, such as -l authPriv "
                              "(if that is refused too, check the user's views)";
    EXPECT_EQ(level, describe_refusal(SNMP_ERR_AUTHORIZATIONERROR, CC_COLUMN_ENTRY_ROW_STATUS,
                                      "authNoPriv"));
    EXPECT_EQ(level, describe_refused_activation(SNMP_ERR_AUTHORIZATIONERROR, "authNoPriv"));
    EXPECT_EQ(view, describe_refusal(SNMP_ERR_NOACCESS, CC_COLUMN_ENTRY_ROW_STATUS, "authNoPriv"));
    EXPECT_EQ("the switch finds the request incomplete: check user and password",
              describe_refused_activation(SNMP_ERR_INCONSISTENTVALUE, ""));
}

TEST(Outcome, StatusOfSeveral) {
    const auto of_all = [](std::initializer_list<ExitStatus> statuses) {
        std::vector<Outcome> outcomes;
        for (const ExitStatus status : statuses) {
            outcomes.push_back(ended(status));
        }
        return status_of_all(outcomes);
    };
    EXPECT_EQ(ExitStatus::done, of_all({ExitStatus::done, ExitStatus::done}));
    EXPECT_EQ(ExitStatus::unreachable,
              of_all({ExitStatus::done, ExitStatus::unreachable, ExitStatus::unreachable}));
    EXPECT_EQ(ExitStatus::failed,
              of_all({ExitStatus::busy, ExitStatus::done, ExitStatus::unreachable}));
    EXPECT_EQ(ExitStatus::failed,
              of_all({ExitStatus::busy, ExitStatus::refused, ExitStatus::refused}));
    EXPECT_EQ(ExitStatus::busy, of_all({ExitStatus::busy}));
}

TEST(Outcome, Duration) {
    EXPECT_EQ(1.25, seconds_between(1000L, 1125L));
    EXPECT_EQ(0.02, seconds_between(std::int64_t{0xFFFFFFFF}, std::int64_t{1}))
        << "the agent's clock has wrapped around";
    EXPECT_EQ(std::nullopt, seconds_between(1000L, 0L)) << "not ended";
    EXPECT_EQ(std::nullopt, seconds_between(0L, 1000L));
    EXPECT_EQ(std::nullopt, seconds_between({}, {})) << "gone";
    EXPECT_EQ("1.20", seconds_text(1.2));
}

TEST(Outcome, Summary) {
    EXPECT_EQ("3 agents: 1 done, 2 not reachable",
              summary_of({ended(ExitStatus::unreachable), ended(ExitStatus::done),
                          ended(ExitStatus::unreachable)}));
    EXPECT_EQ("1 agent: 0 done, 1 busy", summary_of({ended(ExitStatus::busy)}));
}

TEST(Outcome, OctetsWithTheirRate) {
    EXPECT_EQ("123 octets", octets_text(123));
    EXPECT_EQ("1048575 octets", octets_text(1048575, 4));
    EXPECT_EQ("16777216 octets", octets_text(16777216, 0.49));
    EXPECT_EQ("16777216 octets (4.00 MiB/s)", octets_text(16777216, 4));
}

TEST(Outcome, ThoseThatMayPass) {
    EXPECT_TRUE(may_pass(ended(ExitStatus::unreachable)));
    EXPECT_TRUE(may_pass(ended(ExitStatus::busy)));
    for (const ExitStatus status : {ExitStatus::done, ExitStatus::failed, ExitStatus::usage,
                                    ExitStatus::refused, ExitStatus::different}) {
        EXPECT_FALSE(may_pass(ended(status))) << name_of(status);
    }
    Outcome failed = ended(ExitStatus::failed);
    failed.cause = "timeout";
    EXPECT_TRUE(may_pass(failed));
    failed.cause = "badConfig";
    EXPECT_FALSE(may_pass(failed));
}

TEST(Outcome, ARestoreThatMayBeInForceIsNotTriedAgain) {
    Outcome restore = ended(ExitStatus::unreachable);
    restore.to = "running";
    EXPECT_TRUE(may_pass(restore)); // it has not begun
    restore.start_time = "2026-11-22T01:30:00Z";
    EXPECT_FALSE(may_pass(restore));
    restore.status = ExitStatus::busy; // the save after it
    EXPECT_FALSE(may_pass(restore));
    restore.status = ExitStatus::failed; // as the switch says, so nothing was applied
    restore.cause = "timeout";
    EXPECT_TRUE(may_pass(restore));
    Outcome backup = restore;
    backup.to = "tftp://192.0.2.1/a";
    backup.status = ExitStatus::unreachable;
    backup.cause = "";
    EXPECT_TRUE(may_pass(backup));
}

TEST(Outcome, TheLineTellsTheAttempt) {
    Outcome outcome;
    outcome.text = "sw: copied";
    set_attempts(outcome, 1);
    EXPECT_EQ("sw: copied", outcome.text);
    set_attempts(outcome, 3);
    EXPECT_EQ("sw: copied (attempt 3)", outcome.text);
    EXPECT_EQ(3, outcome.attempts);
}

TEST(Outcome, SummaryOfADryRun) {
    Outcome ready = ended(ExitStatus::done);
    ready.is_dry_run = true;
    EXPECT_EQ("2 agents: 1 ready, 1 busy", summary_of({ready, ended(ExitStatus::busy)}));
}

TEST(Outcome, Json) {
    Outcome outcome;
    outcome.agent = "a\"b";
    outcome.text = "a\\\n";
    EXPECT_EQ(
        R"({"type":"copy","agent":"a\"b","group":null,"ending":"done","status":0,"dry_run":false,)"
        R"("attempts":1,)"
        R"("from":null,"to":null,"server":null,)"
        R"("file":null,"user":null,"snmp_user":null,"index":null,"start_time":null,)"
        R"("state":null,"cause":null,"reason":null,)"
        R"("seconds":null,"bytes":null,"sha256":null,"unchanged":null,"saved":null,)"
        R"("diff":null,"text":"a\\\n","switches":[]})",
        json_of(outcome));
    outcome.status = ExitStatus::unreachable;
    outcome.text = "";
    outcome.is_dry_run = true;
    outcome.attempts = 2;
    outcome.from = "running";
    outcome.to = "sftp://joe@h/x-a.cfg";
    outcome.server = "192.0.2.1";
    outcome.file = "x-a.cfg";
    outcome.user = "joe";
    outcome.snmp_user = "operator";
    outcome.index = 7;
    outcome.start_time = "2026-11-21T09:30:00Z";
    outcome.state = "failed";
    outcome.cause = "timeout";
    outcome.reason = "no way";
    outcome.seconds = 1.25;
    outcome.bytes = 0x100000000;
    outcome.sha256 = "00ff";
    outcome.is_unchanged = true;
    outcome.is_saved = false;
    outcome.difference = Difference{"-a\n", 0, 1};
    outcome.switches = {{"", "20:00", "saved"}, {"192.0.2.1", "20:01", "no"}};
    EXPECT_EQ(
        R"({"type":"copy","agent":"a\"b","group":null,"ending":"not_reachable","status":4,"dry_run":true,)"
        R"("attempts":2,)"
        R"("from":"running",)"
        R"("to":"sftp://joe@h/x-a.cfg","server":"192.0.2.1","file":"x-a.cfg","user":"joe",)"
        R"("snmp_user":"operator","index":7,)"
        R"("start_time":"2026-11-21T09:30:00Z","state":"failed","cause":"timeout",)"
        R"("reason":"no way","seconds":1.25,)"
        R"("bytes":4294967296,"sha256":"00ff","unchanged":true,"saved":false,"diff":"-a\n",)"
        R"("text":"","switches":)"
        R"([{"address":null,"switch":"20:00","reported":"saved"},{"address":"192.0.2.1",)"
        R"("switch":"20:01","reported":"no"}]})",
        json_of(outcome));
}

TEST(Outcome, JsonOfASummary) {
    EXPECT_EQ(R"({"type":"summary","agents":2,"done":1,"failed":0,"usage":0,"refused":0,)"
              R"("not_reachable":1,"busy":0})",
              json_summary({ended(ExitStatus::unreachable), ended(ExitStatus::done)}));
}

TEST(Output, AGroupIsShownAndInJson) {
    Outcome outcome = ended(ExitStatus::done);
    outcome.group = "core";
    outcome.text = "a: copied";
    EXPECT_NE(std::string::npos, json_of(outcome).find(R"("group":"core")"));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto output = text_output(Style{}, false);
    output->outcome(outcome);
    outcome.status = ExitStatus::failed;
    outcome.text = "b: not copied";
    output->outcome(outcome);
    EXPECT_EQ("[core] a: copied\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("config-copy: [core] b: not copied\n", testing::internal::GetCapturedStderr());
}

TEST(Outcome, Table) {
    EXPECT_EQ((std::vector<std::string>{"INDEX  B", "1      x y", "123    z"}),
              table_lines({"INDEX", "B"}, {{"1", "x y"}, {"123", "z"}}));
}

// The form of this text in the JSON object.
std::string in_json(const std::string &text) {
    Outcome outcome;
    outcome.agent = text;
    const std::string line = json_of(outcome);
    const std::size_t begin = line.find(R"("agent":)") + std::string_view(R"("agent":)").size();
    return line.substr(begin, line.find(R"(,"group")") - begin);
}

TEST(Output, JsonTextsAreUtf8) {
    EXPECT_EQ(R"("\"\\\n)"
              "\x7f\"",
              in_json("\"\\\n\x7f"));
    for (const char *whole : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                              "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ('"' + std::string(whole) + "a\"", in_json(std::string(whole) + 'a'));
    }
    const std::string no_character = "\xef\xbf\xbd"; // U+FFFD
    for (const char *broken : {"\x80", "\xc1", "\xc3", "\xff", "\xf5", "\xe2\x82"}) {
        EXPECT_EQ('"' + no_character + "a\"", in_json(std::string(broken) + 'a'));
    }
}

} // namespace
} // namespace config_copy
