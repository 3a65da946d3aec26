// The system manager's library. In the journal: "startup directory 100 2" and "write startup 100
// PATH".
#ifndef TESTS_UNIT_FAKE_SYSTEM_MANAGER_H
#define TESTS_UNIT_FAKE_SYSTEM_MANAGER_H

#include <cstdint>
#include <optional>
#include <string>

#include "fakes.h"

struct SystemManagerFake : FakeBase {
    std::string directory = "/startup";
    uint32_t write_result = 0;
    // content of the file that last became the startup configuration
    std::optional<std::string> written;

    void reset() override;
};

extern SystemManagerFake fake_system_manager;

#endif
