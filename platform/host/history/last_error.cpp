#include "platform/host/history/last_error.h"

#include "base/status_text.h"
#include "platform/host/history/log.h"
#include "platform/utilities.h"

#include <algorithm>
#include <array>

namespace ulmo {
namespace {

std::array<LastError, last_errors_kept> error_ring;
std::size_t error_count = 0; // of all that were ever recorded

} // namespace

std::vector<LastError> last_errors() {
    std::vector<LastError> errors;
    for (std::size_t i = error_count - std::min(error_count, last_errors_kept); i < error_count; ++i) {
        errors.push_back(error_ring[i % last_errors_kept]);
    }
    return errors;
}

std::optional<std::uint32_t> last_error_code() {
    return error_count == 0 ? std::nullopt : std::optional<std::uint32_t>(error_ring[(error_count - 1) % last_errors_kept].code);
}

} // namespace ulmo

void log_set_error(uint32_t code, uint32_t facility) {
    ulmo::error_ring[ulmo::error_count++ % ulmo::last_errors_kept] = {code, facility, std::time(nullptr)};
    ulmo::StatusBuffer buffer;
    ulmo::log_error("request refused: %s, facility %u", ulmo::text_with_code(code, buffer), facility);
}
