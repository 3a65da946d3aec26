// Each fault of a broken agent has a text that says what happened and what to do.
#include "config-copy/agents/agent_session.h"
#include "config-copy/agents/name_lookup.h"
#include "config-copy/copies/copy_run.h"
#include "config-copy/copies/requests.h"
#include "config-copy/output/output.h"
#include "tests/unit/copy_client/scripted_agent.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>

namespace {

using namespace config_copy;
using namespace copy_client_test;
using namespace std::chrono_literals;

std::string told(TroubleKind kind, long number = 0, const std::string &detail = {}) {
    const Failure failure = failure_of(Trouble(kind, number, detail), "switch1");
    EXPECT_EQ(failure.status(), ExitStatus::unreachable) << failure.what();
    return failure.what();
}

TEST(ManagerTrouble, ABrokenAgentHasItsWords) {
    EXPECT_EQ(told(TroubleKind::out_of_time),
              "switch1 answers, but not all was asked in the time limit: raise it with "
              "--time-limit, or see with --verbose what the agent answers");
    EXPECT_EQ(told(TroubleKind::wrong_answer, 0, "ccCopyState.7"),
              "switch1 is broken: it answers a question for ccCopyState.7 with another object, or "
              "with a value that this object can't have; see the answer with --verbose, and check "
              "which agent runs there");
    EXPECT_EQ(told(TroubleKind::names_not_rising, 0, "ccCopyState"),
              "switch1 is broken: a walk of ccCopyState comes back to where it was and would never "
              "end; restart or update the agent");
    EXPECT_EQ(told(TroubleKind::endless_table, 100'000, "ccCopyState"),
              "switch1 has more than 100000 instances of ccCopyState, so it is broken or flooded "
              "with requests; copy requests expire within 7 minutes, otherwise restart or "
              "update the agent");
    EXPECT_EQ(told(TroubleKind::too_many_octets, 1 << 20),
              "switch1 is broken: it sent more than 1048576 octets in answer to one request; check "
              "the address, and which agent runs there");
    EXPECT_EQ(told(TroubleKind::no_free_index, 32),
              "switch1 is broken: it has a copy request at each of 32 numbers that were chosen at "
              "random, so none can be made; restart or update the agent");
}

// An agent that answers for ever is left when the time is over, whatever is asked of it.
class TimeLimit : public testing::Test {
  protected:
    TimeLimit() {
        set_up_library("manager_tests");
        ::snmp_sess_init(&settings_);
        settings_.version = SNMP_VERSION_2c;
        settings_.retries = 1;
        settings_.timeout = 500'000;
        settings_.community = community_.data();
        settings_.community_len = std::size(community_) - 1;
    }

    Agent known(const std::string &address) {
        return {address, "", {&settings_, [](const netsnmp_session *) {}}, ""};
    }

    std::array<u_char, 7> community_{'p', 'u', 'b', 'l', 'i', 'c', 0};
    netsnmp_session settings_{};
    Script script_;
};

TEST_F(TimeLimit, EndsACopyThatRunsForEver) {
    script_.reads_until_end = -1;
    const ScriptedAgent agent(script_);
    CopyJob job;
    job.from.type = FileType::running;
    job.to.type = FileType::startup;
    job.time_limit = 1s;
    const Outcome outcome = copy(known(agent.address()), job, [](const auto &) {});
    EXPECT_EQ(outcome.status, ExitStatus::failed);
    EXPECT_EQ(outcome.text, agent.address() + ": not finished in 1 s, so the save was given up: "
                                              "does the system manager run? (--time-limit gives "
                                              "more time)");
    EXPECT_EQ(agent.seen().rows, 0);
}

TEST_F(TimeLimit, EndsAList) {
    script_.lie = Lie::endless_table;
    const ScriptedAgent agent(script_);
    Session session = session_with(settings_, agent.address(), false, 1s);
    const auto output = make_output({});
    try {
        list_requests(session, *output);
        FAIL() << "listed";
    } catch (const Trouble &trouble) {
        EXPECT_EQ(trouble.kind, TroubleKind::out_of_time);
    }
}

TEST_F(TimeLimit, EndsALookUp) {
    const Resolver slow = [](const char *, const char *, const addrinfo *, addrinfo **) {
        std::this_thread::sleep_for(3s);
        return EAI_FAIL;
    };
    const auto began = Clock::now();
    try {
        look_up("agent", "name.invalid", nullptr, {}, 1s, slow);
        FAIL() << "found";
    } catch (const Failure &failure) {
        EXPECT_EQ(failure.status(), ExitStatus::unreachable);
        EXPECT_STREQ(failure.what(),
                     "the agent \"name.invalid\" can't be found in 1 s: no name server answers; "
                     "try again later, or write its address");
    }
    EXPECT_LT(Clock::now() - began, 2500ms);
}

} // namespace
