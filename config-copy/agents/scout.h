// Which of many agents are there: found out on one thread, however many are silent.
#pragma once

#include "base/unique_fd.h"
#include "config-copy/agents/agent.h"
#include "config-copy/failure.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace config_copy {

// Each agent with an address of UDP is sent a request that every agent answers: by SNMPv3 the one
// that asks for its engine ID, otherwise a read with the user's community. It is repeated as the
// agent's settings say. The names of agents are looked up side by side, and so are connections
// over TCP made; what can't be asked this way counts as found.
class Scout {
  public:
    struct Handlers {
        // How many more agents may be found now. When that becomes more, call wake().
        std::function<std::size_t()> room;
        std::function<void(std::size_t agent, const std::string &address)> found;
        std::function<void(std::size_t agent, const Failure &reason)> missing;
    };

    // An agent that is silent for `limit` is missing, even if it would be asked for longer.
    Scout(const std::vector<Agent> &agents, std::chrono::seconds limit, bool is_verbose);
    Scout(const Scout &) = delete;
    Scout &operator=(const Scout &) = delete;
    ~Scout();

    // Returns when each agent is found or missing. Throws Interrupted.
    void run(const Handlers &handlers);

    // May be called by any thread.
    void wake();

  private:
    using Clock = std::chrono::steady_clock;

    // How often agents with these settings are asked.
    struct Manner {
        std::chrono::milliseconds timeout;
        int attempts;
    };
    struct Asked {
        std::string address; // as from reachable_address()
        int attempts = 0;    // so far
        Clock::time_point began;
    };
    // What a thread has found out about an agent.
    struct Resolved {
        std::size_t agent;
        std::string address;
        std::optional<Failure> failure;
    };

    void resolve();
    void take(const Resolved &resolved, const Handlers &handlers);
    void ask(std::size_t agent, const Handlers &handlers);
    void ask_again(std::size_t agent, const Handlers &handlers);
    void end(std::size_t agent);
    void receive(int socket, const Handlers &handlers);
    const Manner *manner_of(std::size_t agent);
    [[nodiscard]] std::string request_to(std::size_t agent) const;
    [[nodiscard]] bool send_to(const Asked &asked, const std::string &request) const;
    void say(std::size_t agent, const char *what) const;

    const std::vector<Agent> &agents_;
    std::chrono::seconds limit_;
    bool is_verbose_;
    std::uint32_t first_id_; // of requests; each agent's is this plus its number
    ulmo::UniqueFd ipv4_;
    ulmo::UniqueFd ipv6_;
    ulmo::UniqueFd wake_;
    std::map<const netsnmp_session *, std::optional<Manner>> manners_;
    std::deque<std::size_t> to_ask_;
    std::map<std::size_t, Asked> asked_;
    std::multimap<Clock::time_point, std::size_t> timers_;
    std::size_t left_;

    std::mutex mutex_; // of what follows
    std::deque<std::size_t> to_resolve_;
    std::deque<Resolved> resolved_;
    bool is_over_ = false;
    std::vector<std::thread> resolvers_;
};

// Parts of the implementation.

// The request-id or msgID of an answer; empty if it is not one of SNMP.
std::optional<std::uint32_t> id_of_answer(std::string_view datagram);

// The SNMPv3 message that asks an agent for its engine ID (RFC 3414, section 4).
std::string discovery_request(std::uint32_t id);

// A GET of the copy table by SNMPv1 (version 0) or SNMPv2c (1).
std::string read_request(long version, std::string_view community, std::uint32_t id);

} // namespace config_copy
