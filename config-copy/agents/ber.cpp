#include "config-copy/agents/ber.h"

namespace config_copy::ber {

std::string element(char tag, const std::string &content) {
    std::string encoded(1, tag);
    if (content.size() < 0x80) {
        encoded += static_cast<char>(content.size());
    } else { // up to 65535 octets, which is all that a datagram holds
        encoded += static_cast<char>(0x82);
        encoded += static_cast<char>(content.size() >> 8U);
        encoded += static_cast<char>(content.size() & 0xFFU);
    }
    return encoded + content;
}

std::string integer(std::uint32_t number) {
    std::string octets;
    do {
        octets.insert(octets.begin(), static_cast<char>(number & 0xFFU));
        number >>= 8U;
    } while (number != 0);
    if ((octets[0] & 0x80) != 0) {
        octets.insert(octets.begin(), '\0');
    }
    return element(integer_tag, octets);
}

std::string name(const Oid &name) {
    std::string octets(1, static_cast<char>(name[0] * 40 + name[1]));
    for (std::size_t i = 2; i < name.size(); ++i) {
        std::string number(1, static_cast<char>(name[i] & 0x7FU));
        for (oid rest = name[i] >> 7U; rest != 0; rest >>= 7U) {
            number.insert(number.begin(), static_cast<char>(0x80U | (rest & 0x7FU)));
        }
        octets += number;
    }
    return element(oid_tag, octets);
}

std::optional<std::pair<char, std::string_view>> take(std::string_view &rest) {
    if (rest.size() < 2) {
        return std::nullopt;
    }
    const char tag = rest[0];
    std::size_t length = static_cast<unsigned char>(rest[1]);
    rest.remove_prefix(2);
    if ((length & 0x80U) != 0) {
        const std::size_t octets = length & 0x7FU;
        if (octets > 2 || octets > rest.size()) {
            return std::nullopt;
        }
        length = 0;
        for (std::size_t i = 0; i < octets; ++i) {
            length = length << 8U | static_cast<unsigned char>(rest[i]);
        }
        rest.remove_prefix(octets);
    }
    if (length > rest.size()) {
        return std::nullopt;
    }
    const std::string_view content = rest.substr(0, length);
    rest.remove_prefix(length);
    return std::pair(tag, content);
}

std::optional<std::uint32_t> take_number(std::string_view &rest) {
    const auto taken = take(rest);
    if (!taken || taken->first != integer_tag || taken->second.empty() ||
        taken->second.size() > sizeof(std::uint32_t)) {
        return std::nullopt;
    }
    std::uint32_t number = 0;
    for (const char octet : taken->second) {
        number = number << 8U | static_cast<unsigned char>(octet);
    }
    return number;
}

} // namespace config_copy::ber
