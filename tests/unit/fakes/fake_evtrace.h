// The debug history and the debug print, with every text recorded.
#ifndef TESTS_UNIT_FAKE_EVTRACE_H
#define TESTS_UNIT_FAKE_EVTRACE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "fakes.h"
#include "platform/evtrace.h"

struct EvtraceFake : FakeBase {
    struct Record {
        uint32_t subtype;
        std::string text;
        bool operator==(const Record &) const = default;
    };
    std::vector<Record> history;
    std::vector<std::string> printed;
    std::vector<uint32_t> asked; // subtypes that the debug print was asked about

    bool declines = false; // the history declines every record
    bool prints = false;   // the debug print is on

    // How often exactly this record is in the history.
    long count(uint32_t subtype, const std::string &text) const;
    void clear() {
        history.clear();
        printed.clear();
        asked.clear();
    }

    void reset() override;
};

std::ostream &operator<<(std::ostream &out, const EvtraceFake::Record &record);

extern EvtraceFake fake_evtrace;

// The history has this record exactly once.
#define EXPECT_LOGGED(subtype, text)                                                               \
    EXPECT_EQ(fake_evtrace.count(subtype, text), 1)                                                \
        << ::testing::PrintToString(text) << " in "                                                \
        << ::testing::PrintToString(fake_evtrace.history)
#define EXPECT_NOT_LOGGED(subtype, text)                                                           \
    EXPECT_EQ(fake_evtrace.count(subtype, text), 0)                                                \
        << ::testing::PrintToString(text) << " in "                                                \
        << ::testing::PrintToString(fake_evtrace.history)

#endif
