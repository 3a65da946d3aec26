#include "base/wwn_text.h"

#include "base/text.h"

#include <charconv>

namespace ulmo {

std::optional<Wwn> wwn_from_text(std::string_view text) {
    Wwn wwn{};
    constexpr std::size_t step = 3; // two digits and a colon
    if (text.size() != wwn.size() * step - 1) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < wwn.size(); ++i) {
        const char *digits = text.data() + i * step;
        const auto [end, error] = std::from_chars(digits, digits + 2, wwn[i], 16);
        if (error != std::errc{} || end != digits + 2 || (i + 1 < wwn.size() && *end != ':')) {
            return std::nullopt;
        }
    }
    return wwn;
}

std::string wwn_to_text(std::string_view octets) {
    return in_hex(octets, ":");
}

std::string wwn_to_text(const Wwn &wwn) {
    return wwn_to_text({reinterpret_cast<const char *>(wwn.data()), wwn.size()});
}

} // namespace ulmo
