// Sends arbitrary packets to the receiver of bus messages. A message that it accepts, sent again,
// has the same octets.
#include "platform/host/bus/wire.h"

#include "tests/fuzz/property.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <vector>

using ulmo::Receipt;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    static const auto ends = [] {
        std::array<int, 2> made{};
        require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0,
                             made.data()) == 0);
        return made;
    }();
    if (size == 0) {
        return 0; // the end of a connection looks the same
    }
    require(::send(ends[0], octets, size, 0) == static_cast<ssize_t>(size));
    std::unique_ptr<msgbus_message> message;
    const Receipt receipt = ulmo::receive_packet(ends[1], message);
    require(receipt == (message ? Receipt::message : Receipt::malformed));
    if (message) {
        require(message->length <= MSGBUS_PAYLOAD_MAX);
        require(ulmo::send_packet(ends[0], message->opcode, message->token, message->words.data(),
                                  message->length) == 0);
        std::vector<std::uint8_t> again(size + 1);
        require(::recv(ends[1], again.data(), again.size(), 0) == static_cast<ssize_t>(size));
        require(std::equal(octets, octets + size, again.begin()));
    }
    require(ulmo::receive_packet(ends[1], message) == Receipt::none);
    return 0;
}
