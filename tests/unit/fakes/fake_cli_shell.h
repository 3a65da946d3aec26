// The CLI shell. In the journal: "apply FILE to OUTPUT" and "shell notified 100 1 2 3".
#ifndef TESTS_UNIT_FAKE_CLI_SHELL_H
#define TESTS_UNIT_FAKE_CLI_SHELL_H

#include <cstdint>
#include <optional>
#include <string>

#include "fakes.h"

struct CliShellFake : FakeBase {
    uint32_t apply_result = 0;
    std::string parameters; // octets of the last parameter block
    std::optional<std::string>
        applied; // content of the file that was applied last; empty if it did not exist

    void reset() override;
};

extern CliShellFake fake_cli_shell;

#endif
