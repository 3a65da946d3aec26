// Differences between two configurations.
#include "config-copy/copies/difference.h"
#include "config-copy/output/json_output.h"
#include "config-copy/output/text_output.h"

#include <gtest/gtest.h>

namespace config_copy {
namespace {

TEST(Differences, OfTheSameTextAreEmpty) {
    EXPECT_FALSE(difference("vlan 1\n", "vlan 1\n", "a", "b").any());
}

TEST(Differences, AreUnifiedAndCounted) {
    const Difference found = difference("a\nb\nc\n", "a\nB\nc\nd\n-- e\n", "running", "x y.cfg");
    EXPECT_EQ("--- running\n+++ x y.cfg\n@@ -1,3 +1,5 @@\n a\n-b\n+B\n c\n+d\n+-- e\n", found.text);
    EXPECT_EQ(3U, found.added);
    EXPECT_EQ(1U, found.removed);
}

TEST(Differences, OfOctetsThatAreNoText) {
    const Difference found = difference(std::string("\0\xFF\n", 3), "x\n", "-a", "--b");
    EXPECT_EQ(1U, found.added);
    EXPECT_EQ(1U, found.removed);
    EXPECT_EQ(0U, found.text.find("--- -a\n+++ --b\n"));
}

TEST(Differences, MayBeLargerThanBothTexts) {
    std::string from;
    std::string to;
    for (int i = 0; i < 2000; ++i) {
        from += "\n\n\n\n\n\n\na\n";
        to += "\n\n\n\n\n\n\nb\n";
    }
    const Difference found = difference(from, to, std::string(3000, 'f'), std::string(3000, 't'));
    EXPECT_EQ(2000U, found.added);
    EXPECT_LT(2 * (from.size() + to.size()), found.text.size());
}

Outcome compared(const char *agent, ExitStatus status) {
    Outcome outcome;
    outcome.agent = agent;
    outcome.status = status;
    outcome.from = "running";
    outcome.to = "a.cfg";
    if (status == ExitStatus::done || status == ExitStatus::different) {
        outcome.difference = status == ExitStatus::done ? Difference{} : Difference{"-a\n", 0, 1};
    }
    return outcome;
}

TEST(Differences, InSummaries) {
    const std::vector<Outcome> outcomes{
        compared("a", ExitStatus::done), compared("b", ExitStatus::different),
        compared("c", ExitStatus::different), compared("d", ExitStatus::unreachable)};
    EXPECT_EQ("4 agents: 1 same, 2 different, 1 not reachable", summary_of(outcomes, true));
    EXPECT_EQ("2 agents: 1 same, 1 with unusable input",
              summary_of({outcomes[0], compared("e", ExitStatus::usage)}, true));
    EXPECT_EQ(R"({"type":"summary","agents":4,"done":1,"different":2,"failed":0,"usage":0,)"
              R"("refused":0,"not_reachable":1,"busy":0})",
              json_summary(outcomes, true));
    EXPECT_EQ(R"({"type":"difference","agent":"b","group":null,"ending":"different","status":1,)"
              R"("from":"running","to":"a.cfg","different":true,"added":0,"removed":1,)"
              R"("diff":"-a\n","text":""})",
              json_difference(outcomes[1]));
    EXPECT_NE(std::string::npos,
              json_difference(outcomes[3]).find(R"("different":null,"added":null)"));
}

TEST(Differences, CountOnlyIfNothingWorseHasHappened) {
    const auto all = [](const std::vector<ExitStatus> &statuses) {
        std::vector<Outcome> outcomes;
        outcomes.reserve(statuses.size());
        for (const ExitStatus status : statuses) {
            outcomes.push_back(compared("a", status));
        }
        return exit_number(status_of_all(outcomes), true);
    };
    using enum ExitStatus;
    EXPECT_EQ(0, all({done, done}));
    EXPECT_EQ(1, all({done, different, done}));
    EXPECT_EQ(4, all({different, unreachable, different}));
    EXPECT_EQ(6, all({failed, different}));
    EXPECT_EQ(6, all({unreachable, different, refused}));
}

TEST(Differences, InColours) {
    EXPECT_EQ("\033[1m--- a\033[0m\n\033[31m-b\033[0m\n\033[32m+c\033[0m\n d\n",
              coloured("--- a\n-b\n+c\n d\n"));
}

} // namespace
} // namespace config_copy
