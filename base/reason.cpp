#include "base/reason.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace ulmo {

std::string reason_of(const std::exception &error) {
    const auto *failure = dynamic_cast<const std::system_error *>(&error);
    if (failure != nullptr && failure->code() == std::errc::no_space_on_device) {
        return "no space on device";
    }
    std::string reason = error.what();
    std::replace_if(
        reason.begin(), reason.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
    return reason;
}

} // namespace ulmo
