#include "platform/host/system_manager/save_request.h"

#include "base/posix.h"
#include "platform/host/bus/wire.h"
#include "platform/system_manager.h"
#include "platform/utilities.h"

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace ulmo {
namespace {

// The system manager sends both the answer and, later, the end on the requester's connection.
std::unique_ptr<msgbus_message> next_message(int connection, std::uint32_t opcode) {
    for (;;) {
        pollfd readable{connection, POLLIN, 0};
        ::poll(&readable, 1, -1);
        std::unique_ptr<msgbus_message> message;
        switch (receive_packet(connection, message)) {
        case Receipt::message:
            if (message->opcode == opcode && message->length >= sizeof(std::uint32_t)) {
                return message;
            }
            break;
        case Receipt::closed:
            throw std::runtime_error("the system manager ended before the save did");
        case Receipt::none:
        case Receipt::malformed:
            break;
        }
    }
}

std::string reason_in(const msgbus_message &message, std::uint32_t status) {
    std::string octets(message.length, '\0');
    std::memcpy(octets.data(), message.words.data(), octets.size());
    octets.erase(0, sizeof status);
    return octets.empty() ? syserr2str(status) : octets;
}

} // namespace

bool request_save(const std::string &user) {
    int error = 0;
    constexpr std::chrono::milliseconds moment{250}; // one that restarts is back by then
    const UniqueFd connection =
        connect_to(MSGBUS_SAP_WARDEN, error, std::chrono::steady_clock::now() + moment);
    if (error == ENOENT || error == ECONNREFUSED) {
        return false;
    }
    if (error != 0) {
        throw_error(error, "system manager");
    }
    warden_cfg_action request{};
    request.word0 = htonl(WARDEN_CFG_ACTION_WORD0);
    request.word1 = htonl(WARDEN_CFG_ACTION_WORD1);
    request.byte10 = 1;
    user.copy(request.user, sizeof request.user - 1);
    std::to_string(::getpid()).copy(request.session, sizeof request.session - 1);
    constexpr std::uint32_t token = 1; // the only request on its connection
    if (const int failure = send_packet(connection.get(), MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION,
                                        token, &request, sizeof request);
        failure != 0) {
        throw_error(failure, "system manager");
    }
    const auto answer = next_message(connection.get(), MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION);
    if (const std::uint32_t status = ntohl(answer->words[0]);
        status != WARDEN_CFG_ACTION_INITIATED && status != WARDEN_CFG_ACTION_DONE) {
        throw std::runtime_error(reason_in(*answer, status));
    } else if (status == WARDEN_CFG_ACTION_DONE) {
        return true;
    }
    const auto end = next_message(connection.get(), MSGBUS_OPC_WARDEN_CFG_ACTION_END);
    if (const std::uint32_t status = ntohl(end->words[0]); status != 0) {
        throw std::runtime_error(reason_in(*end, status));
    }
    return true;
}

} // namespace ulmo
