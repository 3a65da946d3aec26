// Why something failed, for an operator.
#pragma once

#include <exception>
#include <string>

namespace ulmo {

// Short and on one line: "no space on device", or what the error says.
std::string reason_of(const std::exception &error);

} // namespace ulmo
