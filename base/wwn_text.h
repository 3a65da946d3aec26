// World-wide names of switches: eight octets, written xx:xx:xx:xx:xx:xx:xx:xx.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

using Wwn = std::array<std::uint8_t, 8>;

// Empty unless the text is a world-wide name. Digits may be upper or lower case.
std::optional<Wwn> wwn_from_text(std::string_view text);
std::string wwn_to_text(const Wwn &wwn);
// The same for octets received from elsewhere, however many there are.
std::string wwn_to_text(std::string_view octets);

} // namespace ulmo
