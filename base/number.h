// Reading numbers from text.
#pragma once

#include <charconv>
#include <concepts>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>

namespace ulmo {

// The value of a text that consists only of a decimal number from `least` to `most`. Empty for any
// other text; blanks and '+' are not accepted.
template <std::integral Number>
std::optional<Number> parsed_number(std::string_view text,
                                    Number least = std::numeric_limits<Number>::min(),
                                    Number most = std::numeric_limits<Number>::max()) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool is_whole = error == std::errc{} && end == text.data() + text.size();
    return is_whole && number >= least && number <= most ? std::optional(number) : std::nullopt;
}

} // namespace ulmo
