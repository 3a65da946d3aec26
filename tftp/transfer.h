// The two transfers of TFTP in octet mode, with option negotiation and its fallbacks. File access
// is up to the caller.
#pragma once

#include "tftp/channel.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace ulmo::tftp {

// Fills `block` from the offset on and returns the number of octets available for it. May throw
// TransferError.
using Source = std::function<std::size_t(std::uint64_t offset, std::span<std::uint8_t> block)>;

// Receives the next octets of the file. May throw TransferError.
using Sink = std::function<void(Octets)>;

// Writes `size` octets of the source to the server under that name. A shorter source fails with
// EIO. Throws TransferError; the server has then been told, unless it ended the transfer itself or
// can't be reached.
void write_file(const Endpoint &server, const std::string &name, std::uint64_t size,
                const Source &source);

// Reads the file of that name from the server. Fails with EPROTO if its size differs from the one
// that the server announced, and with EFBIG if it is larger than `server` permits. Throws as
// write_file().
void read_file(const Endpoint &server, const std::string &name, const Sink &sink);

// The other side of these: answers to a client's request, in octet mode, whose transfer id
// is the port in `client`. What the client asks for is agreed on, up to the bounds in `client`.
// They throw as write_file() and read_file() do.
//
// A client may end without our learning that it has the whole file: if its port is closed after the
// last block was sent, the file counts as sent.
void answer_read(const Endpoint &client, const Request &request, std::uint64_t size,
                 const Source &source);

// A file that the client announces as larger than `client` permits is refused at once. Calls
// `complete` when the sink has the whole file, and then still answers the client, whose last
// acknowledgment may have been lost, until it has been silent for the timeout. Failures after that
// call are none of the transfer, and are not thrown.
void answer_write(const Endpoint &client, const Request &request, const Sink &sink,
                  const std::function<void()> &complete);

// The options that are requested from this server.
Options options_for(const Endpoint &server, Opcode opcode, std::uint64_t transfer_size);

} // namespace ulmo::tftp
