// The two transfers of TFTP in octet mode, with option negotiation and its fallbacks. They know
// nothing of files.
#pragma once

#include "tftp/channel.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace ulmo::tftp {

// Fills `block` from the offset on and returns how many octets it had for it. May throw
// TransferError.
using Source = std::function<std::size_t(std::uint64_t offset, std::span<std::uint8_t> block)>;

// Takes the next octets of the file. May throw TransferError.
using Sink = std::function<void(Octets)>;

// Writes `size` octets of the source to the server under the name. A source that has fewer fails
// with EIO. Throws TransferError; unless the server itself ended the transfer or is gone, it was
// told.
void write_file(const Endpoint &server, const std::string &name, std::uint64_t size,
                const Source &source);

// Reads the file of that name from the server. An amount other than the server announced fails with
// EPROTO. Throws as above.
void read_file(const Endpoint &server, const std::string &name, const Sink &sink);

// The options that a request to this server asks for.
Options options_for(const Endpoint &server, std::uint64_t transfer_size);

} // namespace ulmo::tftp
