// The encoding of SNMP messages (BER of X.690, as RFC 3417 limits it), for messages that are not
// part of a session.
#pragma once

#include "config-copy/copy_table.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace config_copy::ber {

// RFC 1157, RFC 3416.
inline constexpr char integer_tag = 0x02;
inline constexpr char octets_tag = 0x04;
inline constexpr char null_tag = 0x05;
inline constexpr char oid_tag = 0x06;
inline constexpr char sequence_tag = 0x30;
inline constexpr char get_tag = static_cast<char>(0xA0);

// At most 65535 octets of content, which is more than a datagram holds.
std::string element(char tag, const std::string &content);
std::string integer(std::uint32_t number);
std::string name(const Oid &name);

// Takes a tag, a length and that many octets off the front; empty if they are not there.
std::optional<std::pair<char, std::string_view>> take(std::string_view &rest);
// The same of an integer of at most 32 bits.
std::optional<std::uint32_t> take_number(std::string_view &rest);

} // namespace config_copy::ber
