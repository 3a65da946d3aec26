// The life of a row with an agent that loses, delays or refuses requests. Whatever is lost, the
// copy runs once, its outcome is known, and no row is left.
#include "copy_client/copy_row.h"
#include "base/unique_fd.h"
#include "copy_client/user.h"
#include "tests/unit/copy_client/scripted_agent.h"

#include <sys/timerfd.h>

#include <algorithm>
#include <functional>
#include <ostream>
#include <thread>

using namespace copy_client;
using namespace copy_client_test;
using namespace std::chrono_literals;

namespace {

constexpr Milliseconds answer_time = 60ms;

class Manager {
  public:
    explicit Manager(long version = SNMP_VERSION_2c, const char *user = agent_user,
                     const char *auth = agent_auth, const char *priv = agent_priv)
        : user_{user, "SHA-256", auth, "AES", priv} {
        set_up_library("copy_client_tests");
        ::snmp_sess_init(&settings_);
        settings_.version = version;
        settings_.retries = 5;
        settings_.timeout = std::chrono::microseconds(answer_time).count();
        settings_.community = community_.data();
        settings_.community_len = std::size(community_) - 1;
        if (version == SNMP_VERSION_3) {
            set_user(settings_, user_);
        }
    }

    netsnmp_session &settings() { return settings_; }
    Session session_with(const ScriptedAgent &agent, int stop = -1) const {
        return {settings_, {"the agent", agent.address()}, stop};
    }

  private:
    User user_;
    std::array<u_char, 7> community_{'p', 'u', 'b', 'l', 'i', 'c', 0};
    netsnmp_session settings_{};
};

const std::vector<std::pair<oid, Value>> save_columns{
    {CC_COLUMN_SOURCE_FILE_TYPE, COPY_FILE_RUNNING}, {CC_COLUMN_DEST_FILE_TYPE, COPY_FILE_STARTUP}};

// Takes a row through its whole life. Destroys it whatever is thrown, as callers must.
CopyState live(Session &session, CopyRow &row) {
    const auto clean_up = [&] {
        session.begin_to_clean_up(answer_time);
        row.destroy();
    };
    try {
        row.make(save_columns);
        EXPECT_EQ(row.activate(), SNMP_ERR_NOERROR);
        const CopyState end = row.await_end([] {});
        clean_up();
        return end;
    } catch (...) {
        clean_up();
        throw;
    }
}

TroubleKind trouble_of(const std::function<void()> &call) {
    try {
        call();
    } catch (const Trouble &trouble) {
        return trouble.kind;
    }
    ADD_FAILURE() << "no trouble";
    return {};
}

TEST(CopyRow, LivesWithNothingLost) {
    const ScriptedAgent agent({});
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    EXPECT_EQ(live(session, row).state, COPY_STATE_SUCCESSFUL);
    EXPECT_FALSE(row.is_left());
    // Find an index, create, activate, two reads, destroy.
    EXPECT_EQ(agent.seen().requests, 6);
    EXPECT_EQ(agent.seen().made, 1);
    EXPECT_EQ(agent.seen().copies, 1);
    EXPECT_EQ(agent.seen().rows, 0);
}

enum class Loss { request, answer, late };
struct Case {
    Loss loss;
    int number;
    long version;
};
std::ostream &operator<<(std::ostream &out, const Case &one) {
    const char *what = one.loss == Loss::request  ? "request "
                       : one.loss == Loss::answer ? "answer "
                                                  : "late request ";
    return out << what << one.number << (one.version == SNMP_VERSION_3 ? ", SNMPv3" : ", SNMPv2c");
}

class OneIsLost : public testing::TestWithParam<Case> {};

TEST_P(OneIsLost, TheCopyRunsOnceAndNoRowStays) {
    const Case &one = GetParam();
    Script script;
    (one.loss == Loss::request  ? script.loses_request
     : one.loss == Loss::answer ? script.loses_answer
                                : script.delays_request) = one.number;
    const ScriptedAgent agent(script);
    Session session = Manager(one.version).session_with(agent);
    CopyRow row(session);
    EXPECT_EQ(live(session, row).state, COPY_STATE_SUCCESSFUL);
    EXPECT_FALSE(row.is_left());
    EXPECT_EQ(agent.seen().copies, 1);
    EXPECT_EQ(agent.seen().rows, 0);
    EXPECT_EQ(agent.seen().removed, agent.seen().made);
    EXPECT_EQ(agent.seen().lost, 1);
}

std::vector<Case> cases() {
    constexpr int requests_of_a_life = 6;
    std::vector<Case> all;
    for (const Loss loss : {Loss::request, Loss::answer, Loss::late}) {
        for (int number = 1; number <= requests_of_a_life; ++number) {
            for (const long version : {SNMP_VERSION_2c, SNMP_VERSION_3}) {
                all.push_back({loss, number, version});
            }
        }
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(EachOfALife, OneIsLost, testing::ValuesIn(cases()));

TEST(CopyRow, AFailureIsToldWithItsCause) {
    Script script;
    script.end = COPY_STATE_FAILED;
    script.cause = COPY_FAIL_NO_SPACE;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    const CopyState end = live(session, row);
    EXPECT_EQ(end.state, COPY_STATE_FAILED);
    EXPECT_EQ(end.cause, COPY_FAIL_NO_SPACE);
}

TEST(CopyRow, ARefusedMakingTellsTheColumn) {
    Script script;
    script.making_status = SNMP_ERR_WRONGVALUE;
    script.making_index = 3;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    try {
        row.make(save_columns);
        FAIL() << "made";
    } catch (const Trouble &trouble) {
        EXPECT_EQ(trouble.kind, TroubleKind::making_refused);
        EXPECT_EQ(trouble.number, SNMP_ERR_WRONGVALUE);
        EXPECT_EQ(trouble.column, CC_COLUMN_DEST_FILE_TYPE);
    }
}

TEST(CopyRow, AnIndexThatIsTakenMeanwhileIsLeftAlone) {
    Script script;
    script.making_status = SNMP_ERR_INCONSISTENTVALUE;
    script.making_index = 1;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    EXPECT_EQ(trouble_of([&] { row.make(save_columns); }), TroubleKind::making_lost);
    const int asked = agent.seen().requests;
    EXPECT_FALSE(row.is_left());
    row.destroy();
    EXPECT_EQ(agent.seen().requests, asked) << "another manager's row was destroyed";
}

TEST(CopyRow, ARefusedActivationIsAnAnswer) {
    Script script;
    script.activation_status = SNMP_ERR_GENERR;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    row.make(save_columns);
    EXPECT_EQ(row.activate(), SNMP_ERR_GENERR);
    row.destroy();
    EXPECT_EQ(agent.seen().rows, 0);
    EXPECT_EQ(agent.seen().copies, 0);
}

TEST(CopyRow, ARowThatIsGoneIsTold) {
    Script script;
    script.forgets_rows = true;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    EXPECT_EQ(trouble_of([&] { live(session, row); }), TroubleKind::row_gone);
    EXPECT_FALSE(row.is_left());
}

TEST(CopyRow, AnAgentThatFallsSilentLeavesTheRow) {
    Script script;
    script.falls_silent = 3;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    EXPECT_EQ(trouble_of([&] { live(session, row); }), TroubleKind::silent_now);
    EXPECT_TRUE(row.is_left());
}

// On a bad link, more requests get lost than a removal is tried at least.
TEST(CopyRow, ARemovalIsTriedAsOftenAsTheSessionSays) {
    Script script;
    script.falls_silent = 6; // the removal
    script.silent_for = 5;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    CopyRow row(session);
    EXPECT_EQ(live(session, row).state, COPY_STATE_SUCCESSFUL);
    EXPECT_FALSE(row.is_left());
    EXPECT_EQ(agent.seen().rows, 0);
    EXPECT_EQ(agent.seen().lost, 5);
}

TEST(CopyRow, NothingIsAskedBehindTheDeadline) {
    Script script;
    script.reads_until_end = -1;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    const auto began = Clock::now();
    session.set_deadline(began + 300ms);
    CopyRow row(session);
    row.make(save_columns);
    EXPECT_EQ(row.activate(), SNMP_ERR_NOERROR);
    EXPECT_EQ(trouble_of([&] { row.await_end([] {}); }), TroubleKind::out_of_time);
    EXPECT_GE(Clock::now() - began, 300ms);
    const int asked = agent.seen().requests;
    row.destroy();
    EXPECT_EQ(agent.seen().requests, asked);
    session.set_deadline(Clock::now() + 1s);
    row.destroy();
    EXPECT_EQ(agent.seen().rows, 0);
}

TEST(CopyRow, WithADeadlineSilenceIsWaitedOut) {
    Script script;
    script.falls_silent = 1;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    const auto began = Clock::now();
    session.set_deadline(began + 12 * answer_time);
    CopyRow row(session);
    EXPECT_EQ(trouble_of([&] { row.make(save_columns); }), TroubleKind::silent);
    EXPECT_GE(Clock::now() - began, 12 * answer_time);
    EXPECT_FALSE(row.is_left());
}

// --- an agent that lies ---

TroubleKind trouble_of_life(Lie lie) {
    Script script;
    script.lie = lie;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    session.set_deadline(Clock::now() + 10s, false);
    CopyRow row(session);
    return trouble_of([&] { live(session, row); });
}

TEST(LyingAgent, IsToldApartFromALostRow) {
    for (const Lie lie : {Lie::text_for_number, Lie::null, Lie::other_name, Lie::no_name}) {
        EXPECT_EQ(trouble_of_life(lie), TroubleKind::wrong_answer) << static_cast<int>(lie);
    }
}

TEST(LyingAgent, EveryIndexIsTaken) {
    EXPECT_EQ(trouble_of_life(Lie::every_index), TroubleKind::no_free_index);
}

TEST(LyingAgent, AStateOutsideTheMibIsAWrongAnswer) {
    Script script;
    script.lie = Lie::unknown_state;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    session.set_deadline(Clock::now() + 10s, false);
    CopyRow row(session);
    row.make(save_columns);
    try {
        row.read();
        FAIL() << "read";
    } catch (const Trouble &trouble) {
        EXPECT_EQ(trouble.kind, TroubleKind::wrong_answer);
        EXPECT_EQ(trouble.detail, "ccCopyState." + std::to_string(row.index()));
    }
}

TEST(LyingAgent, AnswersToOtherRequestsAreSilence) {
    EXPECT_EQ(trouble_of_life(Lie::other_request), TroubleKind::silent);
}

// The flood never ends. The request's time limit holds although there is always something to read.
TEST(LyingAgent, AFloodDoesNotHoldTheManager) {
    const auto began = Clock::now();
    const TroubleKind kind = trouble_of_life(Lie::flood);
    EXPECT_TRUE(kind == TroubleKind::silent || kind == TroubleKind::too_many_octets)
        << static_cast<int>(kind);
    EXPECT_LT(Clock::now() - began, 5s);
}

struct Walk {
    Lie lie;
    TroubleKind trouble;
};
class WalkOfALiar : public testing::TestWithParam<Walk> {};

TEST_P(WalkOfALiar, Ends) {
    Script script;
    script.lie = GetParam().lie;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    session.set_deadline(Clock::now() + 60s, false);
    EXPECT_EQ(trouble_of([&] { session.instances(copy_column(CC_COLUMN_STATE), 1000); }),
              GetParam().trouble);
}

INSTANTIATE_TEST_SUITE_P(EachLie, WalkOfALiar,
                         testing::Values(Walk{Lie::same_name, TroubleKind::names_not_rising},
                                         Walk{Lie::falling_name, TroubleKind::names_not_rising},
                                         Walk{Lie::endless_table, TroubleKind::endless_table},
                                         Walk{Lie::long_name, TroubleKind::wrong_answer},
                                         Walk{Lie::text_for_number, TroubleKind::wrong_answer},
                                         Walk{Lie::null, TroubleKind::wrong_answer},
                                         Walk{Lie::no_name, TroubleKind::wrong_answer},
                                         Walk{Lie::other_request, TroubleKind::silent}));

TEST(LyingAgent, ColumnsOfTextHoldTextsOfTheirSize) {
    for (const Lie lie : {Lie::number_for_text, Lie::long_text}) {
        Script script;
        script.lie = lie;
        const ScriptedAgent agent(script);
        Session session = Manager().session_with(agent);
        EXPECT_EQ(trouble_of([&] { session.get({error_cell(CC_ERROR_COLUMN_TEXT, 1, 1)}); }),
                  TroubleKind::wrong_answer);
    }
}

TEST(Session, AWalkEndsBehindTheLastInstance) {
    const ScriptedAgent agent({});
    Session session = Manager().session_with(agent);
    EXPECT_TRUE(session.instances(copy_column(CC_COLUMN_STATE)).empty());
    CopyRow one(session);
    one.make(save_columns);
    CopyRow two(session);
    two.make(save_columns);
    const auto found = session.instances(copy_column(CC_COLUMN_STATE));
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].name, copy_cell(CC_COLUMN_STATE, std::min(one.index(), two.index())));
    EXPECT_EQ(found[1].value, Value(static_cast<long>(COPY_STATE_WAITING)));
}

// The agent announces a message of 2 GiB and begins to send it.
TEST(LyingAgent, AnAnswerWithoutEndIsNotKept) {
    const ulmo::UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof own;
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr *>(&own), length), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr *>(&own), &length), 0);
    std::thread sender([&listener] {
        const ulmo::UniqueFd peer(::accept(listener.get(), nullptr, nullptr));
        std::string octets(1 << 16, '\0');
        octets.replace(0, 6, std::string("\x30\x84\x7f\xff\xff\xf0"));
        while (::send(peer.get(), octets.data(), octets.size(), MSG_NOSIGNAL) > 0) {
            std::fill_n(octets.begin(), 6, '\0');
        }
    });
    Manager manager;
    manager.settings().timeout = std::chrono::microseconds(5s).count();
    {
        Session session(manager.settings(),
                        {"the agent", "tcp:127.0.0.1:" + std::to_string(ntohs(own.sin_port))}, -1);
        EXPECT_EQ(trouble_of([&] { session.get({copy_cell(CC_COLUMN_STATE, 1)}); }),
                  TroubleKind::too_many_octets);
    }
    sender.join();
}

TEST(Session, TheDeadlineEndsEachRequest) {
    Script script;
    script.lie = Lie::endless_table;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    session.set_deadline(Clock::now() + 200ms, false);
    EXPECT_EQ(trouble_of([&] { session.instances(copy_column(CC_COLUMN_STATE)); }),
              TroubleKind::out_of_time);
}

TEST(Session, ADeadlineNeedNotWaitOutSilence) {
    Script script;
    script.falls_silent = 1;
    const ScriptedAgent agent(script);
    Session session = Manager().session_with(agent);
    const auto began = Clock::now();
    session.set_deadline(began + 60s, false);
    EXPECT_EQ(trouble_of([&] { session.get({copy_cell(CC_COLUMN_STATE, 1)}); }),
              TroubleKind::silent);
    EXPECT_LT(Clock::now() - began, 10s);
}

TEST(CopyRow, AStopEndsTheWaitAndTheRowCanStillBeTakenAway) {
    Script script;
    script.reads_until_end = -1;
    const ScriptedAgent agent(script);
    const int stop = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec once{{}, {0, 200'000'000}};
    ASSERT_EQ(::timerfd_settime(stop, 0, &once, nullptr), 0);
    Session session = Manager().session_with(agent, stop);
    CopyRow row(session);
    EXPECT_THROW(live(session, row), Stopped);
    EXPECT_FALSE(row.is_left());
    EXPECT_EQ(agent.seen().rows, 0);
    ::close(stop);
}

// --- the session ---

// A separate agent for each, because the library remembers a user at an engine.
TroubleKind trouble_with(const char *user, const char *auth, const char *priv) {
    const ScriptedAgent agent({});
    Session session = Manager(SNMP_VERSION_3, user, auth, priv).session_with(agent);
    const TroubleKind kind = trouble_of([&] { session.get({copy_cell(CC_COLUMN_STATE, 1)}); });
    return kind;
}

TEST(Session, WrongCredentialsAreToldApart) {
    EXPECT_EQ(trouble_with("stranger", agent_auth, agent_priv), TroubleKind::unknown_user);
    EXPECT_EQ(trouble_with(agent_user, "not-the-right-one", agent_priv),
              TroubleKind::wrong_authentication);
    EXPECT_EQ(trouble_with(agent_user, agent_auth, "not-the-right-one"),
              TroubleKind::wrong_privacy);
}

TEST(Session, NobodyThereIsSilence) {
    std::string address;
    {
        const ScriptedAgent gone({});
        address = gone.address();
    }
    Manager manager;
    Session session(manager.settings(), {"nobody", address}, -1);
    EXPECT_EQ(trouble_of([&] { session.get({copy_cell(CC_COLUMN_STATE, 1)}); }),
              TroubleKind::silent);
}

TEST(Session, ANameWithoutAnAddressOpensNoSession) {
    Manager manager;
    EXPECT_EQ(trouble_of([&] {
                  Session(manager.settings(), {"nobody", "udp:no.such.name.invalid:161"}, -1);
              }),
              TroubleKind::no_address);
}

TEST(UserKey, IsMadeOnceForAllAgents) {
    const User user{"user", "SHA-256", "a-passphrase-of-this-test", "AES",
                    "another-one-of-this-test"};
    netsnmp_session settings{};
    const auto time_of = [&] {
        const auto began = Clock::now();
        set_user(settings, user);
        return Clock::now() - began;
    };
    const auto first = time_of();
    const std::vector<u_char> key(settings.securityAuthKey,
                                  settings.securityAuthKey + settings.securityAuthKeyLen);
    EXPECT_LT(time_of() * 10, first);
    std::vector<u_char> expected(USM_AUTH_KU_LEN);
    std::size_t length = expected.size();
    ASSERT_EQ(::generate_Ku(settings.securityAuthProto,
                            static_cast<u_int>(settings.securityAuthProtoLen),
                            reinterpret_cast<const u_char *>(user.auth_passphrase.data()),
                            user.auth_passphrase.size(), expected.data(), &length),
              SNMPERR_SUCCESS);
    expected.resize(length);
    EXPECT_EQ(key, expected);
    EXPECT_NE(std::vector<u_char>(settings.securityPrivKey,
                                  settings.securityPrivKey + settings.securityPrivKeyLen),
              key);
}

TEST(UserKey, ThoseOfSnmpConfAreMadeOnceForAllSessions) {
    const Manager library_is_ready;
    ::netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PASSPHRASE,
                            "a-passphrase-of-snmp.conf");
    netsnmp_session settings{};
    ::snmp_sess_init(&settings);
    settings.version = SNMP_VERSION_3;
    settings.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    std::string user = agent_user;
    settings.securityName = user.data();
    settings.securityNameLen = user.size();
    const auto time_to_open = [&] {
        const auto began = Clock::now();
        const Session session(settings, {"nobody", "udp:127.0.0.1:9"}, -1);
        return Clock::now() - began;
    };
    const auto before = time_to_open();
    keep_keys_of_settings(settings);
    EXPECT_GT(settings.securityAuthKeyLen, 0U);
    EXPECT_GT(settings.securityPrivKeyLen, 0U);
    EXPECT_LT(time_to_open() * 5, before);
    ::netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PASSPHRASE, nullptr);
}

TEST(UserKey, AShortPassphraseMakesNone) {
    netsnmp_session settings{};
    EXPECT_THROW(set_user(settings, {"user", "SHA-256", "short", "AES", "long-enough"}),
                 std::runtime_error);
}

} // namespace
