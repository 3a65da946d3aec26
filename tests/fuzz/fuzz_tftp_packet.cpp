// Feeds arbitrary datagrams to the decoders of TFTP packets and requests, and to the checks of
// answered and of asked options.
#include "base/text.h"
#include "tftp/packet.h"

#include "tests/fuzz/property.h"

using namespace ulmo::tftp;

namespace {

const Options asked{.block_size = 1468, .timeout = 4, .transfer_size = 1000, .window_size = 64};

void check(const Options &agreed, bool reading) {
    require(!agreed.block_size ||
            (*agreed.block_size >= smallest_block_size && *agreed.block_size <= *asked.block_size));
    require(!agreed.timeout || agreed.timeout == asked.timeout);
    require(!agreed.transfer_size || reading || agreed.transfer_size == asked.transfer_size);
    require(!agreed.window_size ||
            (*agreed.window_size >= 1 && *agreed.window_size <= *asked.window_size));
}

// What a request asks for is answered so that a client takes the answer.
void check_request(Octets datagram) {
    const auto request = decode_request(datagram);
    if (!request) {
        return;
    }
    require(request->file_name.find('\0') == std::string_view::npos);
    const auto *begin = reinterpret_cast<const char *>(datagram.data());
    require(request->file_name.data() >= begin &&
            request->mode.data() + request->mode.size() < begin + datagram.size());
    const Options wished = asked_options(*request);
    const auto packet = encode_option_acknowledgment(wished);
    const auto answer = decode(packet);
    require(answer &&
            agree(request->opcode, wished, std::get<OptionAcknowledgment>(*answer)) == wished);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    check_request({octets, size});
    const auto packet = decode({octets, size});
    if (!packet) {
        return 0;
    }
    if (const auto *data = std::get_if<Data>(&*packet)) {
        require(data->payload.size() == size - header_octets);
    } else if (const auto *error = std::get_if<Error>(&*packet)) {
        require(ulmo::one_line(error->text) == error->text);
    } else if (const auto *answer = std::get_if<OptionAcknowledgment>(&*packet)) {
        for (const Opcode request : {Opcode::read_request, Opcode::write_request}) {
            if (const auto agreed = agree(request, asked, *answer)) {
                check(*agreed, request == Opcode::read_request);
            }
            require(answer->options.empty() || !agree(request, {}, *answer));
        }
    }
    return 0;
}
