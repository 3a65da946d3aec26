// Applies a configuration file through the device backend, and leaves the shell's output in a file.
#include "platform/cli_shell.h"

#include "base/c_boundary.h"
#include "base/posix.h"
#include "base/reason.h"
#include "base/unique_fd.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/device.h"
#include "platform/host/history/copy_report.h"
#include "platform/host/history/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

namespace {

// Writes the shell's output into the output file. Any user of the machine can guess its name, so a
// file that somebody else could have placed there is not opened, and nothing is truncated before
// that is checked.
void write_output(const std::string &path, const std::string &text) {
    constexpr mode_t owner_only = 0600;
    constexpr int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const ulmo::UniqueFd file(
        ulmo::check(::open(path.c_str(), flags, owner_only), "cannot open", path));
    struct stat status {};
    ulmo::check(::fstat(file.get(), &status), path);
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || status.st_nlink != 1) {
        throw std::runtime_error(path + " is not a regular file of our own with one name");
    }
    ulmo::check(::fchmod(file.get(), owner_only), path);
    ulmo::check(::ftruncate(file.get(), 0), path);
    ulmo::write_whole(file.get(), text, path);
}

// The output only helps to find the reason; the configuration is applied even if it can't be
// written.
void report(const std::string &output, const std::string &text) {
    if (output.empty()) {
        return;
    }
    ulmo::log_failure("cmdshell_execute_cfg_file2: no output", [&] { write_output(output, text); });
}

uint32_t execute(const std::string &file, const std::string &output) {
    uint32_t result = 0;
    std::string text;
    try {
        const auto device = ulmo::make_device();
        device->apply(device->read(file));
        text = file + ": applied";
    } catch (const ulmo::ConfigurationError &error) {
        result = error.kind() == ulmo::ConfigurationError::Kind::bad_line ? CMDSHELL_ERR_BAD_LINE
                                                                          : CMDSHELL_ERR_BAD_FILE;
        text = file + ": " + error.what();
        ulmo::report_reason(error.what());
    } catch (const std::exception &error) {
        result = CMDSHELL_ERR_APPLY;
        text = file + ": " + error.what();
        ulmo::report_reason(ulmo::reason_of(error));
    }
    if (result != 0) {
        ulmo::log_error("cmdshell_execute_cfg_file2: %s (0x%08x)", text.c_str(), result);
    }
    // Last, because the configuration file may have the same name as the output file.
    report(output, text + "\n");
    return result;
}

} // namespace

uint32_t cmdshell_execute_cfg_file2(const struct cmdshell_exec_params *params) {
    return ulmo::result_or<uint32_t>(CMDSHELL_ERR_APPLY, [params] {
        return execute(
            std::string(params->file, ::strnlen(params->file, sizeof(params->file))),
            std::string(params->output, ::strnlen(params->output, sizeof(params->output))));
    });
}

int cmdshell_notify_cfg_update(int32_t /*handle*/, int /*second*/, int kind, int /*fourth*/) {
    switch (kind) {
    case CMDSHELL_CFG_STARTUP_TO_RUNNING:
        ulmo::log_debug("configuration update: startup configuration copied to running");
        return 0;
    case CMDSHELL_CFG_RUNNING_COPIED:
        ulmo::log_debug("configuration update: running configuration copied");
        return 0;
    default:
        ulmo::log_error("configuration update: unknown kind %d", kind);
        return -1;
    }
}
