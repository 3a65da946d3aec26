// What the system manager tells the agent: a configuration action has begun, and how it has ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

namespace ulmo {

class AgentLine {
  public:
    AgentLine(); // throws std::system_error
    ~AgentLine();
    AgentLine(const AgentLine &) = delete;
    AgentLine &operator=(const AgentLine &) = delete;

    void begun();
    void ended(std::uint32_t status); // 0: well

    // Sends what could not be sent yet, in order: an agent that is busy takes no more messages for
    // a while. Without an agent, or when it has been busy for too long, the message is dropped and
    // logged.
    void flush();
    [[nodiscard]] bool has_waiting() const { return !waiting_.empty(); }

  private:
    struct Message {
        std::uint32_t opcode;
        std::string payload;
        std::chrono::steady_clock::time_point deadline;
    };

    void send(std::uint32_t opcode, std::string payload);

    std::int32_t endpoint_;
    std::deque<Message> waiting_;
};

} // namespace ulmo
