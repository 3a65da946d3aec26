#include "tftp/packet.h"

#include "base/number.h"
#include "base/text.h"

#include <strings.h>

#include <limits>

namespace ulmo::tftp {
namespace {

constexpr std::string_view block_size_option = "blksize";
constexpr std::string_view timeout_option = "timeout";
constexpr std::string_view transfer_size_option = "tsize";
constexpr std::string_view window_size_option = "windowsize";

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

std::optional<OptionAcknowledgment> decode_options(std::string_view rest) {
    OptionAcknowledgment answer;
    while (!rest.empty()) {
        const auto name = take_text(rest);
        const auto value = name ? take_text(rest) : std::nullopt;
        if (!value) {
            return std::nullopt;
        }
        answer.options.emplace_back(*name, *value);
    }
    return answer;
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

bool is_option(std::string_view name, std::string_view option) {
    return name.size() == option.size() &&
           ::strncasecmp(name.data(), option.data(), option.size()) == 0;
}

} // namespace

std::optional<Packet> decode(Octets datagram) {
    constexpr std::size_t opcode_octets = 2;
    if (datagram.size() < opcode_octets) {
        return std::nullopt;
    }
    const auto opcode = static_cast<Opcode>(number_at(datagram, 0));
    const std::string_view texts(reinterpret_cast<const char *>(datagram.data()), datagram.size());
    if (opcode == Opcode::option_acknowledgment) {
        return decode_options(texts.substr(opcode_octets));
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

std::optional<std::vector<std::uint8_t>> encode_request(Opcode opcode, std::string_view file_name,
                                                        const Options &options) {
    std::vector<std::uint8_t> packet;
    append(packet, static_cast<std::uint16_t>(opcode));
    append(packet, file_name);
    append(packet, "octet");
    append_option(packet, block_size_option, options.block_size);
    append_option(packet, timeout_option, options.timeout);
    append_option(packet, transfer_size_option, options.transfer_size);
    append_option(packet, window_size_option, options.window_size);
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
        if (is_option(name, block_size_option)) {
            good = take_value(value, asked.block_size, smallest_block_size,
                              asked.block_size.value_or(0), agreed.block_size);
        } else if (is_option(name, timeout_option)) {
            const std::uint8_t seconds = asked.timeout.value_or(0);
            good = take_value(value, asked.timeout, seconds, seconds, agreed.timeout);
        } else if (is_option(name, transfer_size_option)) {
            good = take_value(value, asked.transfer_size, reading ? 0 : announced,
                              reading ? any_size : announced, agreed.transfer_size);
        } else if (is_option(name, window_size_option)) {
            good = take_value(value, asked.window_size, std::uint16_t{1},
                              asked.window_size.value_or(0), agreed.window_size);
        }
        if (!good) {
            return std::nullopt;
        }
    }
    return agreed;
}

} // namespace ulmo::tftp
