#include "base/text.h"

#include <algorithm>
#include <cstdint>

namespace ulmo {

std::size_t printable_length(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return lead >= ' ' && lead <= '~' ? 1 : 0;
    }
    const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : lead >= 0xE0 && lead <= 0xEF ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    if (length == 0 || text.size() < length) {
        return 0;
    }
    std::uint32_t code = lead & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        const auto octet = static_cast<unsigned char>(text[i]);
        if ((octet & 0xC0U) != 0x80U) {
            return 0;
        }
        code = (code << 6) | (octet & 0x3FU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    const bool control = code < 0xA0;
    return overlong || surrogate || control || code > 0x10FFFF ? 0 : length;
}

std::string one_line(std::string_view text, std::size_t longest) {
    constexpr std::string_view blanks = "\t\r\n";
    std::string line;
    while (!text.empty()) {
        const std::size_t printable = printable_length(text);
        const std::size_t length = std::max<std::size_t>(printable, 1);
        if (line.size() + length > longest) {
            break;
        }
        if (printable > 0) {
            line.append(text, 0, printable);
        } else {
            line += blanks.find(text[0]) != std::string_view::npos ? ' ' : '?';
        }
        text.remove_prefix(length);
    }
    return line;
}

std::string in_hex(std::string_view octets, std::string_view between) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const char c : octets) {
        const auto octet = static_cast<unsigned char>(c);
        text.append(text.empty() ? std::string_view() : between);
        text += {digits[octet >> 4U], digits[octet & 0xFU]};
    }
    return text;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const auto first = text.find_first_not_of(blanks);
    return first == std::string_view::npos
               ? std::string_view{}
               : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace ulmo
