// The last error and the texts of status codes.
#ifndef TESTS_UNIT_FAKE_UTILITIES_H
#define TESTS_UNIT_FAKE_UTILITIES_H

#include <cstdint>
#include <string>
#include <utility>

#include "fakes.h"

struct UtilitiesFake : FakeBase {
    Calls<std::pair<uint32_t, uint32_t>> errors; // log_set_error(): code and facility
    std::string text;                            // last text of the text functions

    void reset() override;
    void verify() override;
};

extern UtilitiesFake fake_utilities;

#endif
