#include "base/wwn_text.h"

#include <charconv>
#include <cstdio>

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

std::string wwn_to_text(const Wwn &wwn) {
    char text[24];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", wwn[0], wwn[1], wwn[2], wwn[3], wwn[4], wwn[5], wwn[6],
                  wwn[7]);
    return text;
}

} // namespace ulmo
