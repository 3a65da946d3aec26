// World-wide names of switches: eight octets, in text xx:xx:xx:xx:xx:xx:xx:xx.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

using Wwn = std::array<std::uint8_t, 8>;

// Nothing when the text is no world-wide name. Upper and lower case digits do.
std::optional<Wwn> wwn_from_text(std::string_view text);
std::string wwn_to_text(const Wwn &wwn);
// Of as many octets as somebody else sent for one.
std::string wwn_to_text(std::string_view octets);

} // namespace ulmo
