// A clock that moves only when a test moves it.
#ifndef TESTS_UNIT_FAKE_TIME_H
#define TESTS_UNIT_FAKE_TIME_H

#include <cstdint>

#include "fakes.h"

struct TimeFake : FakeBase {
    static constexpr int64_t start = 1700000000;

    int64_t seconds = start; // since the epoch
    int32_t microseconds = 250000;

    void reset() override;
};

extern TimeFake fake_time;

#endif
