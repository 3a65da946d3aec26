// Values of the copy table by their names in CONFIG-COPY-MIB, for both ends of a copy.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace ulmo {

// The name of a ccCopyFailCause value, or its number when it has no name.
inline std::string cause_name(long cause) {
    constexpr std::array<std::string_view, 10> names{"",
                                                     "general",
                                                     "badFileName",
                                                     "timeout",
                                                     "noSpace",
                                                     "badConfig",
                                                     "unsupportedProtocol",
                                                     "configNotApplied",
                                                     "systemManagerRefused",
                                                     "systemManagerFailed"};
    return cause > 0 && cause < static_cast<long>(names.size())
               ? std::string(names.at(static_cast<std::size_t>(cause)))
               : std::to_string(cause);
}

} // namespace ulmo
