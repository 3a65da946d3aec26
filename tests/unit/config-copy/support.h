// Shared by the tests of the manager's command.
#pragma once

#include "config-copy/failure.h"

#include <gtest/gtest.h>

#include <string>

namespace config_copy {

// The text of the Failure of usage that the call throws.
template <typename Call> std::string usage_failure(Call call) {
    try {
        call();
    } catch (const Failure &failure) {
        EXPECT_EQ(ExitStatus::usage, failure.status());
        return failure.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

} // namespace config_copy
