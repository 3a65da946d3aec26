#include "platform/host/system_manager/last_save.h"

#include "base/folders.h"
#include "base/state_file.h"
#include "platform/host/history/log.h"

#include <exception>

namespace ulmo {
namespace {

std::filesystem::path record() {
    return run_dir() / "last-save";
}

} // namespace

void record_last_save(std::string_view outcome) {
    try {
        replace_state_file(record(), outcome);
    } catch (const std::exception &error) {
        log_error("the outcome of the save can't be kept: %s", error.what());
    }
}

std::optional<std::string> last_save() {
    constexpr std::size_t longest = 4096;
    return read_state_file(record(), longest);
}

} // namespace ulmo
