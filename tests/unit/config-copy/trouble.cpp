// Each fault of a broken agent has a text that says what happened and what to do.
#include "config-copy/agent_session.h"

#include <gtest/gtest.h>

namespace {

using namespace config_copy;

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

} // namespace
