#include "tftp/packet.h"

#include "base/number.h"
#include "base/text.h"

#include <strings.h>

#include <algorithm>
#include <limits>

namespace ulmo::tftp {
namespace {

constexpr std::string_view block_size_option = "blksize";
constexpr std::string_view timeout_option = "timeout";
constexpr std::string_view transfer_size_option = "tsize";
constexpr std::string_view window_size_option = "windowsize";

constexpr std::string_view octet_mode = "octet";

constexpr std::size_t longest_text = 256;

std::uint16_t number_at(Octets octets, std::size_t at) {
    return static_cast<std::uint16_t>(octets[at] << 8U | octets[at + 1]);
}

void append(std::vector<std::uint8_t> &packet, std::uint16_t number) {
    packet.push_back(static_cast<std::uint8_t>(number >> 8U));
    packet.push_back(static_cast<std::uint8_t>(number));
}

void append(std::vector<std::uint8_t> &packet, std::string_view text) {
    packet.insert(packet.end(), text.begin(), text.end());
    packet.push_back(0);
}

template <typename Value>
void append_option(std::vector<std::uint8_t> &packet, std::string_view name,
                   const std::optional<Value> &value) {
    if (value) {
        append(packet, name);
        append(packet, std::to_string(*value));
    }
}

void append_options(std::vector<std::uint8_t> &packet, const Options &options) {
    append_option(packet, block_size_option, options.block_size);
    append_option(packet, timeout_option, options.timeout);
    append_option(packet, transfer_size_option, options.transfer_size);
    append_option(packet, window_size_option, options.window_size);
}

// Takes a NUL-terminated text off the front.
std::optional<std::string_view> take_text(std::string_view &rest) {
    const auto end = rest.find('\0');
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view text = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return text;
}

// Takes options off the front, up to the end or to the first that is malformed.
OptionTexts take_options(std::string_view &rest) {
    OptionTexts options;
    while (!rest.empty()) {
        std::string_view after = rest;
        const auto name = take_text(after);
        const auto value = name ? take_text(after) : std::nullopt;
        if (!value) {
            break;
        }
        options.emplace_back(*name, *value);
        rest = after;
    }
    return options;
}

// Takes one answered value if it is a decimal number within the bounds, was requested, and was not
// answered before.
template <typename Value>
bool take_value(std::string_view text, const std::optional<Value> &asked, Value least, Value most,
                std::optional<Value> &agreed) {
    const auto value = parsed_number(text, least, most);
    if (!asked || agreed || !value) {
        return false;
    }
    agreed = value;
    return true;
}

// Whether both are the same word; names of options and modes are case-insensitive.
bool is_word(std::string_view text, std::string_view word) {
    return text.size() == word.size() && ::strncasecmp(text.data(), word.data(), word.size()) == 0;
}

std::string_view as_text(Octets octets) {
    return {reinterpret_cast<const char *>(octets.data()), octets.size()};
}

constexpr std::size_t opcode_octets = 2;

} // namespace

std::optional<Packet> decode(Octets datagram) {
    if (datagram.size() < opcode_octets) {
        return std::nullopt;
    }
    const auto opcode = static_cast<Opcode>(number_at(datagram, 0));
    const std::string_view texts = as_text(datagram);
    if (opcode == Opcode::option_acknowledgment) {
        std::string_view rest = texts.substr(opcode_octets);
        OptionAcknowledgment answer{take_options(rest)};
        return rest.empty() ? std::optional<Packet>(std::move(answer)) : std::nullopt;
    }
    if (datagram.size() < header_octets) {
        return std::nullopt;
    }
    const std::uint16_t number = number_at(datagram, opcode_octets);
    switch (opcode) {
    case Opcode::data:
        return Data{number, datagram.subspan(header_octets)};
    case Opcode::acknowledgment:
        return Acknowledgment{number};
    case Opcode::error: {
        // Some servers omit the NUL; the text is still useful.
        const std::string_view text = texts.substr(header_octets);
        return Error{number, one_line(text.substr(0, text.find('\0')), longest_text)};
    }
    default:
        return std::nullopt;
    }
}

std::optional<Request> decode_request(Octets datagram) {
    if (datagram.size() < opcode_octets) {
        return std::nullopt;
    }
    const auto opcode = static_cast<Opcode>(number_at(datagram, 0));
    std::string_view rest = as_text(datagram).substr(opcode_octets);
    const auto name = take_text(rest);
    const auto mode = name ? take_text(rest) : std::nullopt;
    if ((opcode != Opcode::read_request && opcode != Opcode::write_request) || !mode) {
        return std::nullopt;
    }
    return Request{opcode, *name, *mode, take_options(rest)};
}

bool is_octet_mode(const Request &request) {
    return is_word(request.mode, octet_mode);
}

std::optional<std::vector<std::uint8_t>> encode_request(Opcode opcode, std::string_view file_name,
                                                        const Options &options) {
    std::vector<std::uint8_t> packet;
    append(packet, static_cast<std::uint16_t>(opcode));
    append(packet, file_name);
    append(packet, octet_mode);
    append_options(packet, options);
    if (packet.size() > largest_request) {
        return std::nullopt;
    }
    return packet;
}

std::vector<std::uint8_t> encode_acknowledgment(std::uint16_t block) {
    std::vector<std::uint8_t> packet;
    append(packet, static_cast<std::uint16_t>(Opcode::acknowledgment));
    append(packet, block);
    return packet;
}

std::vector<std::uint8_t> encode_option_acknowledgment(const Options &agreed) {
    std::vector<std::uint8_t> packet;
    append(packet, static_cast<std::uint16_t>(Opcode::option_acknowledgment));
    append_options(packet, agreed);
    return packet;
}

std::vector<std::uint8_t> encode_error(ErrorCode code, std::string_view text) {
    std::vector<std::uint8_t> packet;
    append(packet, static_cast<std::uint16_t>(Opcode::error));
    append(packet, static_cast<std::uint16_t>(code));
    append(packet, text);
    return packet;
}

void put_data_header(std::span<std::uint8_t> packet, std::uint16_t block) {
    packet[0] = 0;
    packet[1] = static_cast<std::uint8_t>(Opcode::data);
    packet[2] = static_cast<std::uint8_t>(block >> 8U);
    packet[3] = static_cast<std::uint8_t>(block);
}

std::optional<Options> agree(Opcode request, const Options &asked,
                             const OptionAcknowledgment &answer) {
    // A server may lower the block size and the window. It must echo the timeout, and the size of a
    // file that we write; for a file that we read it sets the size.
    constexpr auto any_size = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t announced = asked.transfer_size.value_or(0);
    const bool reading = request == Opcode::read_request;
    Options agreed;
    for (const auto &[name, value] : answer.options) {
        bool good = false;
        if (is_word(name, block_size_option)) {
            good = take_value(value, asked.block_size, smallest_block_size,
                              asked.block_size.value_or(0), agreed.block_size);
        } else if (is_word(name, timeout_option)) {
            const std::uint8_t seconds = asked.timeout.value_or(0);
            good = take_value(value, asked.timeout, seconds, seconds, agreed.timeout);
        } else if (is_word(name, transfer_size_option)) {
            good = take_value(value, asked.transfer_size, reading ? 0 : announced,
                              reading ? any_size : announced, agreed.transfer_size);
        } else if (is_word(name, window_size_option)) {
            good = take_value(value, asked.window_size, std::uint16_t{1},
                              asked.window_size.value_or(0), agreed.window_size);
        }
        if (!good) {
            return std::nullopt;
        }
    }
    return agreed;
}

Options asked_options(const Request &request) {
    Options asked;
    for (const auto &[name, value] : request.options) {
        if (is_word(name, block_size_option) && !asked.block_size) {
            if (const auto octets = parsed_number<std::uint64_t>(value, smallest_block_size)) {
                asked.block_size = static_cast<std::uint16_t>(
                    std::min<std::uint64_t>(*octets, largest_block_size));
            }
        } else if (is_word(name, timeout_option) && !asked.timeout) {
            asked.timeout = parsed_number<std::uint8_t>(value, 1);
        } else if (is_word(name, transfer_size_option) && !asked.transfer_size) {
            asked.transfer_size = parsed_number<std::uint64_t>(value);
        } else if (is_word(name, window_size_option) && !asked.window_size) {
            asked.window_size = parsed_number<std::uint16_t>(value, 1);
        }
    }
    return asked;
}

} // namespace ulmo::tftp
