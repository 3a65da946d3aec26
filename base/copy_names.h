// Words for values of the copy table, for both ends of a copy.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ulmo {

// By value; empty if the value has no word.
inline constexpr std::array<std::string_view, 6> protocol_names{"",    "tftp", "ftp",
                                                                "rcp", "scp",  "sftp"};
inline constexpr std::array<std::string_view, 8> file_type_names{
    "", "", "", "startup", "running", "", "fabric-startup", "all-startup"};
// As in CONFIG-COPY-MIB.
inline constexpr std::array<std::string_view, 10> cause_names{"",
                                                              "general",
                                                              "badFileName",
                                                              "timeout",
                                                              "noSpace",
                                                              "badConfig",
                                                              "unsupportedProtocol",
                                                              "configNotApplied",
                                                              "systemManagerRefused",
                                                              "systemManagerFailed"};

// The word for a value, or its number if it has none.
template <std::size_t count>
std::string name_or_number(const std::array<std::string_view, count> &names, std::int64_t value) {
    const bool is_known = value > 0 && value < static_cast<std::int64_t>(count) &&
                          !names.at(static_cast<std::size_t>(value)).empty();
    return is_known ? std::string(names.at(static_cast<std::size_t>(value)))
                    : std::to_string(value);
}

inline std::string cause_name(std::int64_t cause) {
    return name_or_number(cause_names, cause);
}

} // namespace ulmo
