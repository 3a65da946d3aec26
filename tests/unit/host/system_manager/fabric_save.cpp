#include "platform/host/system_manager/fabric_save.h"
#include "base/timespec.h"
#include "base/unique_fd.h"
#include "platform/host/system_manager/member_save.h"
#include "tests/unit/copy_client/scripted_agent.h"
#include "tests/unit/test_clock.h"

#include <gtest/gtest.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <poll.h>
#include <sys/timerfd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;

std::vector<ulmo::FabricMember> members_named(const Texts &users) {
    std::vector<ulmo::FabricMember> members;
    for (const std::string &user : users) {
        ulmo::FabricMember member;
        member.wwn = {0x20, 0, 0, 0, 0, 0, 1, static_cast<std::uint8_t>(members.size())};
        member.address = {INET_ADDRESS_IPV4,
                          {192, 0, 2, static_cast<std::uint8_t>(members.size())}};
        member.user = user;
        members.push_back(member);
    }
    return members;
}

void pause(std::chrono::milliseconds time) {
    const timespec span = ulmo::timespec_of(time);
    ::nanosleep(&span, nullptr);
}

constexpr int expected_to_meet = 50;
std::atomic<int> arrived;
std::atomic<int> hanging;
std::atomic<bool> may_hang;

bool is_readable(int descriptor) {
    pollfd polled{descriptor, POLLIN, 0};
    return ::poll(&polled, 1, 0) > 0;
}

// Replaces the save of one member: does what the user's name says.
std::string act(const ulmo::FabricMember &member, std::chrono::seconds limit, int stop) {
    const std::string &what = member.user;
    if (what == "slow") {
        pause(300ms);
    } else if (what == "meet") {
        for (++arrived; arrived < expected_to_meet;) {
            pause(1ms);
        }
    } else if (what == "limit") {
        return std::to_string(limit.count());
    } else if (what == "throw") {
        throw std::runtime_error("a test's");
    } else if (what == "obey") {
        while (!is_readable(stop)) {
            pause(1ms);
        }
        pause(100ms);
        return "obeyed";
    } else if (what == "hang") {
        for (++hanging; may_hang;) {
            pause(1ms);
        }
        --hanging;
    }
    return what;
}

// A descriptor that becomes readable after some time.
ulmo::UniqueFd readable_after(std::chrono::milliseconds time) {
    ulmo::UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const itimerspec once{{}, ulmo::timespec_of(time)};
    EXPECT_EQ(::timerfd_settime(timer.get(), 0, &once, nullptr), 0);
    return timer;
}

class FabricSave : public testing::Test {
  protected:
    // Returns the outcomes; `took` is the time that it took.
    Texts save(const Texts &what, int stop = -1, std::chrono::seconds limit = 5s) {
        const auto members = members_named(what);
        const auto begin = Clock::now();
        const auto outcomes = ulmo::save_members(members, limit, stop, act);
        took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
        EXPECT_EQ(outcomes.size(), members.size());
        Texts texts;
        for (std::size_t i = 0; i < outcomes.size(); ++i) {
            EXPECT_EQ(outcomes[i].wwn, members[i].wwn);
            EXPECT_FALSE(outcomes[i].is_local);
            EXPECT_EQ(outcomes[i].address.type, INET_ADDRESS_IPV4);
            EXPECT_EQ(outcomes[i].address.octets[3], i);
            texts.push_back(outcomes[i].text);
        }
        return texts;
    }
    // A thread left behind ends with its test.
    void SetUp() override { may_hang = true; }
    void TearDown() override {
        may_hang = false;
        while (hanging > 0) {
            pause(1ms);
        }
    }

    std::chrono::milliseconds took{};
};

TEST_F(FabricSave, NoMembersNoOutcomes) {
    EXPECT_EQ(save({}), Texts{});
}

TEST_F(FabricSave, OutcomesComeInTheOrderOfTheMembers) {
    EXPECT_EQ(save({"slow", "saved", "limit", "no answer in 5 s"}),
              (Texts{"slow", "saved", "5", "no answer in 5 s"}));
}

TEST_F(FabricSave, FiftyMembersAreSavedSideBySide) {
    const Texts all(expected_to_meet, "meet");
    EXPECT_EQ(save(all, -1, 60s), all);
}

TEST_F(FabricSave, OneThatFailsIsAnInternalErrorOfItsMemberOnly) {
    EXPECT_EQ(save({"saved", "throw", "slow"}), (Texts{"saved", "internal error", "slow"}));
}

TEST_F(FabricSave, OneThatDoesNotEndIsLeftBehind) {
    EXPECT_EQ(save({"hang", "saved"}, -1, 1s), (Texts{"internal error", "saved"}));
    EXPECT_GE(took, 1000ms);
    EXPECT_EQ(hanging, 1);
}

TEST_F(FabricSave, StopEndsTheWorkAndKeepsWhatIsKnown) {
    const host_test::TestClock clock;
    const ulmo::UniqueFd stop = readable_after(300ms);
    EXPECT_EQ(save({"saved", "obey", "throw", "obey"}, stop.get(), 60s),
              (Texts{"saved", "obeyed", "internal error", "obeyed"}));
    EXPECT_EQ(clock.passed(), 0s) << "it ends when the last of them ends, not at the time limit";
}

TEST_F(FabricSave, StopWaitsTwoSecondsAtMost) {
    const ulmo::UniqueFd stop = readable_after(1ms);
    EXPECT_EQ(save({"hang", "obey"}, stop.get(), 60s), (Texts{"given up", "obeyed"}));
    EXPECT_GE(took, 1900ms);
}

// --- one member, over SNMPv3 ---

using copy_client_test::agent_auth;
using copy_client_test::agent_priv;
using copy_client_test::agent_user;
using copy_client_test::Script;
using copy_client_test::ScriptedAgent;

ulmo::FabricMember member_at(const ScriptedAgent &agent) {
    ulmo::FabricMember member;
    member.wwn = {0x20, 0, 0, 0, 0, 0, 1, 1};
    member.address = {INET_ADDRESS_IPV4, {127, 0, 0, 1}};
    member.port = agent.port();
    member.user = agent_user;
    member.auth_protocol = "SHA-256";
    member.auth_passphrase = agent_auth;
    member.priv_protocol = "AES";
    member.priv_passphrase = agent_priv;
    return member;
}

// Saves this member only, through the function that an action uses.
std::string save_of(const ulmo::FabricMember &member, std::chrono::seconds limit = 5s,
                    int stop = -1) {
    return ulmo::save_members({member}, limit, stop).front().text;
}

TEST(MemberSave, IsOneCopyOfWhichNothingStays) {
    const ScriptedAgent agent({});
    EXPECT_EQ(save_of(member_at(agent)), "saved");
    EXPECT_EQ(agent.seen().copies, 1);
    EXPECT_EQ(agent.seen().rows, 0);
    EXPECT_EQ(agent.seen().requests, 6) << "find an index, create, activate, two reads, destroy";
}

TEST(MemberSave, SeveralMembersKnowTheSameUser) {
    const ScriptedAgent first({});
    const ScriptedAgent second({});
    for (const auto &outcome : ulmo::save_members({member_at(first), member_at(second)}, 5s, -1)) {
        EXPECT_EQ(outcome.text, "saved");
    }
}

TEST(MemberSave, AFailureIsToldInTheMembersOwnWords) {
    Script script;
    script.end = COPY_STATE_FAILED;
    script.cause = COPY_FAIL_WARDEN_FAILED;
    script.last_save = "no space on device\n";
    const ScriptedAgent agent(script);
    EXPECT_EQ(save_of(member_at(agent)), "no space on device");
}

TEST(MemberSave, ABusyMemberIsTold) {
    Script script;
    script.activation_status = SNMP_ERR_GENERR;
    const ScriptedAgent agent(script);
    EXPECT_EQ(save_of(member_at(agent)), "another copy is in progress");
    EXPECT_EQ(agent.seen().rows, 0);
}

TEST(MemberSave, WrongCredentialsAreTold) {
    const auto outcome_with = [](const char *user, const char *auth, const char *priv) {
        const ScriptedAgent agent({});
        ulmo::FabricMember member = member_at(agent);
        member.user = user;
        member.auth_passphrase = auth;
        member.priv_passphrase = priv;
        return save_of(member, 2s);
    };
    EXPECT_EQ(outcome_with("stranger", agent_auth, agent_priv), "authentication failed");
    EXPECT_EQ(outcome_with(agent_user, "not-the-right-one", agent_priv), "authentication failed");
    EXPECT_EQ(outcome_with(agent_user, agent_auth, "not-the-right-one"), "wrong privacy key");
}

TEST(MemberSave, OneThatTakesTooLongLosesItsRow) {
    Script script;
    script.reads_until_end = -1;
    const ScriptedAgent agent(script);
    EXPECT_EQ(save_of(member_at(agent), 1s), "not saved in 1 s");
    EXPECT_EQ(agent.seen().rows, 0);
}

TEST(MemberSave, OneThatFallsSilentIsTold) {
    Script script;
    script.falls_silent = 4;
    const ScriptedAgent agent(script);
    EXPECT_EQ(save_of(member_at(agent), 2s), "no answer in 2 s");
}

TEST(MemberSave, AStopTakesTheRowAway) {
    Script script;
    script.reads_until_end = -1;
    const ScriptedAgent agent(script);
    const ulmo::UniqueFd stop = readable_after(300ms);
    const auto began = Clock::now();
    EXPECT_EQ(save_of(member_at(agent), 60s, stop.get()), "given up");
    EXPECT_LT(Clock::now() - began, 30s);
    EXPECT_EQ(agent.seen().copies, 1);
    EXPECT_EQ(agent.seen().rows, 0);
}

// --- what answers mean ---

using copy_client::Trouble;
using copy_client::TroubleKind;

TEST(MemberSave, ErrorStatusInWords) {
    for (const TroubleKind kind : {TroubleKind::read_refused, TroubleKind::making_refused}) {
        const auto words = [&](long status) {
            return ulmo::describe_trouble(Trouble(kind, status), 5s);
        };
        EXPECT_EQ(words(SNMP_ERR_NOACCESS), "not permitted");
        EXPECT_EQ(words(SNMP_ERR_AUTHORIZATIONERROR), "not permitted");
        EXPECT_EQ(words(SNMP_ERR_NOTWRITABLE), "no copy table there");
        EXPECT_EQ(words(SNMP_ERR_NOCREATION), "no copy table there");
        EXPECT_EQ(words(SNMP_ERR_RESOURCEUNAVAILABLE), "refused with error status 13");
        EXPECT_EQ(words(SNMP_ERR_GENERR), "refused with error status 5");
    }
    EXPECT_EQ(ulmo::describe_refused_start(SNMP_ERR_GENERR), "another copy is in progress");
    EXPECT_EQ(ulmo::describe_refused_start(SNMP_ERR_INCONSISTENTVALUE),
              "another copy is in progress");
    EXPECT_EQ(ulmo::describe_refused_start(SNMP_ERR_NOACCESS), "not permitted");
}

TEST(MemberSave, TroubleInWords) {
    const auto words = [](TroubleKind kind) { return ulmo::describe_trouble(Trouble(kind), 5s); };
    EXPECT_EQ(words(TroubleKind::unknown_user), "authentication failed");
    EXPECT_EQ(words(TroubleKind::names_not_rising), "its agent answers wrongly");
    EXPECT_EQ(words(TroubleKind::wrong_authentication), "authentication failed");
    EXPECT_EQ(words(TroubleKind::wrong_privacy), "wrong privacy key");
    EXPECT_EQ(words(TroubleKind::level_without_keys), "its user has no privacy key");
    EXPECT_EQ(words(TroubleKind::silent), "no answer in 5 s");
    EXPECT_EQ(words(TroubleKind::silent_to_user), "no answer in 5 s");
    EXPECT_EQ(words(TroubleKind::silent_now), "no answer in 5 s");
    EXPECT_EQ(words(TroubleKind::out_of_time), "not saved in 5 s");
    EXPECT_EQ(words(TroubleKind::row_gone), "its copy request is gone");
    EXPECT_EQ(words(TroubleKind::unsettled_time), "its engine id is not its own");
}

TEST(MemberSave, FailureInWords) {
    EXPECT_EQ(ulmo::describe_failure(8, "no space on device"), "refused by its system manager");
    EXPECT_EQ(ulmo::describe_failure(1, "no space on device"), "failed with cause 1");
    EXPECT_EQ(ulmo::describe_failure(9, "no space on device"), "no space on device");
    EXPECT_EQ(ulmo::describe_failure(9, "  no space on device \r\nmore\n"), "no space on device");
    EXPECT_EQ(ulmo::describe_failure(9, "no\tspace\x1b[2J"), "no space?[2J")
        << "nothing that a terminal would execute";
    EXPECT_EQ(ulmo::describe_failure(9, std::string(500, 'x')), std::string(80, 'x'));
    for (const char *nothing :
         {"", "saved", "saved\n", " \n", "\nno space",
          "cmdshell: show last-save: nothing has been saved since the switch started\n"}) {
        EXPECT_EQ(ulmo::describe_failure(9, nothing), "its system manager could not save")
            << nothing;
    }
}

} // namespace
