#include "platform/host/system_manager/last_save.h"

#include "base/folders.h"
#include "base/state_file.h"
#include "platform/host/history/log.h"

namespace ulmo {
namespace {

std::filesystem::path record() {
    return run_dir() / "last-save";
}

} // namespace

void record_last_save(std::string_view outcome) {
    log_failure("the outcome of the save can't be kept",
                [outcome] { replace_state_file(record(), outcome); });
}

std::optional<std::string> last_save() {
    constexpr std::size_t longest = 4096;
    return read_state_file(record(), longest);
}

} // namespace ulmo
