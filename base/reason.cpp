#include "base/reason.h"

#include "base/text.h"

#include <system_error>

namespace ulmo {

std::string reason_of(const std::exception &error) {
    const auto *failure = dynamic_cast<const std::system_error *>(&error);
    if (failure != nullptr && failure->code() == std::errc::no_space_on_device) {
        return "no space on device";
    }
    return one_line(error.what());
}

} // namespace ulmo
