#include "platform/host/system_manager/agent_line.h"

#include "base/posix.h"
#include "platform/host/history/log.h"
#include "platform/msgbus.h"
#include "platform/system_manager.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace ulmo {
namespace {

constexpr std::int32_t one_way = 1;
constexpr std::chrono::seconds patience{10};

} // namespace

AgentLine::AgentLine() {
    const msgbus_address address{{1, 0, 0, MSGBUS_SAP_WARDEN, 0, 0}};
    endpoint_ = check(msgbus_bind(one_way, -1, &address, "system manager"), "message bus");
}

AgentLine::~AgentLine() {
    msgbus_unbind(endpoint_, 0);
}

void AgentLine::begun() {
    send(MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, "");
}

void AgentLine::ended(std::uint32_t status) {
    const std::uint32_t word = htonl(status);
    std::string payload(sizeof word, '\0');
    std::memcpy(payload.data(), &word, sizeof word);
    send(MSGBUS_OPC_WARDEN_CFG_ACTION_END, std::move(payload));
}

void AgentLine::send(std::uint32_t opcode, std::string payload) {
    waiting_.push_back({opcode, std::move(payload), std::chrono::steady_clock::now() + patience});
    flush();
}

void AgentLine::flush() {
    while (!waiting_.empty()) {
        const Message &next = waiting_.front();
        if (msgbus_send(endpoint_, MSGBUS_NODE_LOCAL, MSGBUS_SAP_AGENT, next.opcode,
                        next.payload.data(), static_cast<std::uint32_t>(next.payload.size()),
                        nullptr, 0, 0) != 0) {
            const int error = errno;
            if (error == EAGAIN && std::chrono::steady_clock::now() < next.deadline) {
                return;
            }
            if (error == ENOENT || error == ECONNREFUSED) {
                log_debug("no agent runs that message %u could be sent to", next.opcode);
            } else {
                log_error("message %u to the agent is lost: %s", next.opcode, std::strerror(error));
            }
        }
        waiting_.pop_front();
    }
}

} // namespace ulmo
