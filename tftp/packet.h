// The packets of TFTP (RFC 1350) and of its options (RFC 2347, 2348, 2349, 7440): encoding and
// bounds-checked decoding, nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ulmo::tftp {

using Octets = std::span<const std::uint8_t>;

enum class Opcode : std::uint16_t {
    read_request = 1,
    write_request = 2,
    data = 3,
    acknowledgment = 4,
    error = 5,
    option_acknowledgment = 6
};

// The codes that we send (RFC 1350, appendix; 8: RFC 2347).
enum class ErrorCode : std::uint16_t {
    undefined = 0,
    file_not_found = 1,
    access_violation = 2,
    disk_full = 3,
    illegal_operation = 4,
    unknown_transfer_id = 5,
    options_refused = 8
};

inline constexpr std::size_t header_octets = 4;
// A request including its options fits in 512 octets (RFC 2347).
inline constexpr std::size_t largest_request = 512;
inline constexpr std::uint16_t default_block_size = 512;          // RFC 1350
inline constexpr std::uint16_t smallest_block_size = 8;           // RFC 2348
inline constexpr std::uint16_t largest_block_size = 65464;        // RFC 2348
inline constexpr std::size_t largest_packet = std::size_t{65535}; // of UDP

// Options, requested or agreed on. An absent one is not requested, or stays as in RFC 1350.
struct Options {
    std::optional<std::uint16_t> block_size{};    // octets, 8..65464
    std::optional<std::uint8_t> timeout{};        // seconds, 1..255
    std::optional<std::uint64_t> transfer_size{}; // octets; 0 in a read request asks for the size
    std::optional<std::uint16_t> window_size{};   // blocks, 1..65535

    [[nodiscard]] bool empty() const {
        return !block_size && !timeout && !transfer_size && !window_size;
    }
    bool operator==(const Options &) const = default;
};

struct Data {
    std::uint16_t block;
    Octets payload;
};

struct Acknowledgment {
    std::uint16_t block;
};

struct Error {
    std::uint16_t code;
    std::string text; // one line of at most 256 octets
};

using OptionTexts = std::vector<std::pair<std::string_view, std::string_view>>; // name and value

struct OptionAcknowledgment {
    OptionTexts options; // as sent
};

// A packet from a server. The views point into the decoded octets.
using Packet = std::variant<Data, Acknowledgment, Error, OptionAcknowledgment>;

// Decodes the octets of one datagram; empty if they are not a packet that a server may send.
std::optional<Packet> decode(Octets datagram);

// A client's request. The views point into the decoded octets.
struct Request {
    Opcode opcode{}; // read_request or write_request
    std::string_view file_name;
    std::string_view mode; // as sent; "octet" in any case is the one that we serve
    OptionTexts options;   // as sent, up to the first that is malformed
};

// Decodes the octets of one datagram; empty if they are not a request.
std::optional<Request> decode_request(Octets datagram);

// Whether the request is for the mode that leaves each octet as it is.
bool is_octet_mode(const Request &request);

// A request in octet mode; empty if it exceeds 512 octets. The file name must not contain NUL.
std::optional<std::vector<std::uint8_t>> encode_request(Opcode opcode, std::string_view file_name,
                                                        const Options &options);

std::vector<std::uint8_t> encode_acknowledgment(std::uint16_t block);
std::vector<std::uint8_t> encode_option_acknowledgment(const Options &agreed);
std::vector<std::uint8_t> encode_error(ErrorCode code, std::string_view text);

// Writes the header of a DATA packet into the first octets of `packet`.
void put_data_header(std::span<std::uint8_t> packet, std::uint16_t block);

// The options in force after the server's answer. Empty if the answer has an option that was not
// requested, an option twice, or a value that RFC 2348, 2349 or 7440 does not allow as an answer to
// the requested one.
std::optional<Options> agree(Opcode request, const Options &asked,
                             const OptionAcknowledgment &answer);

// The options that a client asks for, as far as RFC 2348, 2349 and 7440 allow them: others are left
// out, and so are repeated ones. A block size beyond those RFCs is the largest one, as it may be
// answered by a smaller one.
Options asked_options(const Request &request);

} // namespace ulmo::tftp
