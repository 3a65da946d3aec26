#include "fake_cli_shell.h"

#include <cstring>
#include <fstream>
#include <sstream>

#include "journal.h"
#include "platform/cli_shell.h"

namespace {

std::string name_in(const char (&field)[CMDSHELL_FILE_SIZE]) {
    return {field, strnlen(field, sizeof field)};
}

} // namespace

CliShellFake fake_cli_shell;

void CliShellFake::reset() {
    apply_result = 0;
    parameters.clear();
    applied.reset();
}

extern "C" {

uint32_t cmdshell_execute_cfg_file2(const struct cmdshell_exec_params *params) {
    fake_cli_shell.parameters.assign(reinterpret_cast<const char *>(params), sizeof *params);
    const std::string name = name_in(params->file);
    journal.note("apply " + name + " to " + name_in(params->output));
    if (std::ifstream file(name); file) {
        std::ostringstream contents;
        contents << file.rdbuf();
        fake_cli_shell.applied = contents.str();
    }
    return fake_cli_shell.apply_result;
}

int cmdshell_notify_cfg_update(int32_t handle, int second, int kind, int fourth) {
    journal.note("shell notified " + std::to_string(handle) + " " + std::to_string(second) + " " +
                 std::to_string(kind) + " " + std::to_string(fourth));
    return 0;
}

} // extern "C"
