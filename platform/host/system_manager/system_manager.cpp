// What a worker asks of the system manager without a message: its directory, and the storing of a
// startup configuration through the device backend.
#include "platform/system_manager.h"

#include "base/folders.h"
#include "base/reason.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/device.h"
#include "platform/host/history/copy_report.h"
#include "platform/host/history/log.h"
#include "platform/host/system_manager/status.h"

#include <exception>
#include <set>
#include <string>

const char *warden_cli_dir_get(int32_t /*handle*/, int32_t /*which*/) {
    // Returned texts remain valid, even if the environment names another directory later.
    static std::set<std::string> returned;
    const char *path = "/dev/null"; // no file can exist below it
    ulmo::log_failure("warden_cli_dir_get",
                      [&] { path = returned.insert(ulmo::state_dir().string()).first->c_str(); });
    return path;
}

uint32_t warden_cli_write_ascii_cfg(int32_t /*handle*/, const char *path) {
    try {
        ulmo::make_device()->store_startup(ulmo::read_configuration_file(path));
        return 0;
    } catch (const ulmo::ConfigurationError &error) {
        ulmo::log_error("%s: %s: %s", __func__, path, error.what());
        ulmo::report_reason(error.what());
        return error.kind() == ulmo::ConfigurationError::Kind::bad_line ? ulmo::warden_err_bad_line
                                                                        : ulmo::warden_err_bad_file;
    } catch (const std::exception &error) {
        ulmo::log_error("%s: %s: %s", __func__, path, error.what());
        ulmo::report_reason(ulmo::reason_of(error));
        return ulmo::warden_err_store;
    }
}
