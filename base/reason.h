// The reason for a failure, for an operator.
#pragma once

#include <exception>
#include <string>

namespace ulmo {

// One short line: "no space on device" for ENOSPC, otherwise the exception's text.
std::string reason_of(const std::exception &error);

} // namespace ulmo
