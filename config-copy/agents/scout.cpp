#include "config-copy/agents/scout.h"

#include "base/posix.h"
#include "config-copy/agents/agent_address.h"
#include "config-copy/agents/agent_session.h"
#include "config-copy/agents/ber.h"
#include "config-copy/agents/server_address.h"
#include "config-copy/interrupt.h"
#include "copy_client/session.h"

#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <system_error>
#include <utility>

namespace config_copy {
namespace {

using namespace std::chrono_literals;

// Answers that may wait in a socket's buffer of the kernel's usual size, with room to spare.
constexpr std::size_t most_asked = 2048;
constexpr std::size_t requests_in_a_row = 64; // before answers are taken again
constexpr std::size_t most_resolvers = 64;

std::string get_of(std::uint32_t id, const std::string &bindings) {
    return ber::element(ber::get_tag, ber::integer(id) + ber::integer(0) + ber::integer(0) +
                                          ber::element(ber::sequence_tag, bindings));
}

ulmo::UniqueFd socket_of(int family) {
    // A machine may have only one of the families.
    return ulmo::UniqueFd(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool is_over_udp(const std::string &address) {
    return address.starts_with("udp:") || address.starts_with("udp6:");
}

// Whether the address is known without a name server and a connection.
bool is_at_hand(const std::string &agent) {
    const AgentAddress parts = parse_agent(agent);
    return !parts.is_understood ||
           (!parts.transport.starts_with("tcp") && parsed_address(parts.host).has_value());
}

} // namespace

std::optional<std::uint32_t> id_of_answer(std::string_view datagram) {
    const auto message = ber::take(datagram);
    if (!message || message->first != ber::sequence_tag) {
        return std::nullopt;
    }
    std::string_view rest = message->second;
    const auto version = ber::take_number(rest);
    const auto next = ber::take(rest); // of SNMPv3 the header, otherwise the community
    if (!version || !next) {
        return std::nullopt;
    }
    if (*version == SNMP_VERSION_3) {
        std::string_view header = next->second;
        return ber::take_number(header);
    }
    const auto pdu = ber::take(rest);
    if (!pdu) {
        return std::nullopt;
    }
    std::string_view fields = pdu->second;
    return ber::take_number(fields);
}

std::string discovery_request(std::uint32_t id) {
    constexpr std::uint32_t largest_message = 65507;
    const std::string none = ber::element(ber::octets_tag, "");
    const std::string reportable = ber::element(ber::octets_tag, "\4"); // without a user
    const std::string header = ber::integer(id) + ber::integer(largest_message) + reportable +
                               ber::integer(static_cast<std::uint32_t>(SNMP_SEC_MODEL_USM));
    const std::string security = none + ber::integer(0) + ber::integer(0) + none + none + none;
    return ber::element(
        ber::sequence_tag,
        ber::integer(static_cast<std::uint32_t>(SNMP_VERSION_3)) +
            ber::element(ber::sequence_tag, header) +
            ber::element(ber::octets_tag, ber::element(ber::sequence_tag, security)) +
            ber::element(ber::sequence_tag, none + none + get_of(id, "")));
}

std::string read_request(long version, std::string_view community, std::uint32_t id) {
    const std::string name = ber::name(copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, largest_index));
    const std::string binding =
        ber::element(ber::sequence_tag, name + ber::element(ber::null_tag, ""));
    return ber::element(ber::sequence_tag,
                        ber::integer(static_cast<std::uint32_t>(version)) +
                            ber::element(ber::octets_tag, std::string(community)) +
                            get_of(id, binding));
}

Scout::Scout(const std::vector<Agent> &agents, std::chrono::seconds limit, bool is_verbose)
    : agents_(agents), limit_(limit), is_verbose_(is_verbose), ipv4_(socket_of(AF_INET)),
      ipv6_(socket_of(AF_INET6)),
      wake_(ulmo::check(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      left_(agents.size()) {
    // Positive numbers of 32 bits, as request-id and msgID are.
    ulmo::check(::getrandom(&first_id_, sizeof first_id_, 0), "getrandom");
    first_id_ &= 0x3FFFFFFFU;
    for (std::size_t agent = 0; agent < agents_.size(); ++agent) {
        (is_at_hand(agents_[agent].name) ? to_ask_ : to_resolve_).push_back(agent);
    }
    const std::size_t resolvers = std::min(to_resolve_.size(), most_resolvers);
    for (std::size_t i = 0; i < resolvers; ++i) {
        try {
            resolvers_.emplace_back([this] { resolve(); });
        } catch (const std::system_error &) { // of those that run each does more
            if (resolvers_.empty()) {
                throw;
            }
            break;
        }
    }
}

Scout::~Scout() {
    {
        const std::lock_guard lock(mutex_);
        is_over_ = true;
    }
    for (std::thread &resolver : resolvers_) {
        resolver.join();
    }
}

void Scout::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

// A thread that looks up names and connects over TCP.
void Scout::resolve() {
    for (;;) {
        Resolved resolved{};
        {
            const std::lock_guard lock(mutex_);
            if (is_over_ || to_resolve_.empty()) {
                return;
            }
            resolved.agent = to_resolve_.front();
            to_resolve_.pop_front();
        }
        try {
            resolved.address = reachable_address(agents_[resolved.agent].name, limit_);
        } catch (const Failure &failure) {
            resolved.failure = failure;
        } catch (const Interrupted &) {
            return;
        } catch (const std::exception &error) {
            resolved.failure =
                Failure(ExitStatus::failed, agents_[resolved.agent].name + ": " + error.what());
        }
        {
            const std::lock_guard lock(mutex_);
            resolved_.push_back(std::move(resolved));
        }
        wake();
    }
}

void Scout::run(const Handlers &handlers) {
    while (left_ > 0) {
        if (interrupting_signal() != 0) {
            throw Interrupted{};
        }
        std::deque<Resolved> resolved;
        {
            const std::lock_guard lock(mutex_);
            resolved.swap(resolved_);
        }
        for (const Resolved &one : resolved) {
            take(one, handlers);
        }
        std::size_t room = std::min(requests_in_a_row, handlers.room());
        for (; room > 0 && !to_ask_.empty() && asked_.size() < most_asked; --room) {
            const std::size_t agent = to_ask_.front();
            to_ask_.pop_front();
            ask(agent, handlers);
        }
        const auto now = Clock::now();
        while (!timers_.empty() && timers_.begin()->first <= now) {
            const std::size_t agent = timers_.extract(timers_.begin()).mapped();
            ask_again(agent, handlers);
        }
        const bool may_send_more = room == 0 && handlers.room() > 0;
        const auto until = timers_.empty() ? now + 1h : timers_.begin()->first;
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        std::array<pollfd, 4> waited{{{ipv4_.get(), POLLIN, 0},
                                      {ipv6_.get(), POLLIN, 0},
                                      {wake_.get(), POLLIN, 0},
                                      {interrupt_descriptor(), POLLIN, 0}}};
        ::poll(waited.data(), waited.size(),
               may_send_more || left_ == 0 ? 0 : static_cast<int>(std::max(wait, 0ms).count()));
        std::uint64_t count = 0;
        [[maybe_unused]] const auto taken = ::read(wake_.get(), &count, sizeof count);
        receive(ipv4_.get(), handlers);
        receive(ipv6_.get(), handlers);
    }
}

void Scout::take(const Resolved &resolved, const Handlers &handlers) {
    if (!resolved.failure && is_over_udp(resolved.address)) {
        asked_[resolved.agent].address = resolved.address;
        to_ask_.push_front(resolved.agent);
        return;
    }
    end(resolved.agent);
    if (resolved.failure) {
        handlers.missing(resolved.agent, *resolved.failure);
    } else {
        handlers.found(resolved.agent, resolved.address);
    }
}

// Makes the first request due.
void Scout::ask(std::size_t agent, const Handlers &handlers) {
    Asked &asked = asked_[agent];
    asked.began = Clock::now();
    try {
        if (asked.address.empty()) {
            asked.address = reachable_address(agents_[agent].name, limit_);
        }
        timers_.emplace(asked.began, agent);
    } catch (const Failure &failure) {
        end(agent);
        handlers.missing(agent, failure);
    }
}

// Sends a request, unless the agent has been asked often enough.
void Scout::ask_again(std::size_t agent, const Handlers &handlers) {
    const auto found = asked_.find(agent);
    if (found == asked_.end()) { // it has answered
        return;
    }
    Asked &asked = found->second;
    const Manner *manner = is_over_udp(asked.address) ? manner_of(agent) : nullptr;
    if (manner == nullptr) {
        const std::string address = asked.address;
        end(agent);
        handlers.found(agent, address);
        return;
    }
    const auto now = Clock::now();
    if (asked.attempts == manner->attempts || now >= asked.began + limit_) {
        const auto waited =
            std::min<std::chrono::milliseconds>(manner->timeout * manner->attempts, limit_);
        end(agent);
        say(agent, "no answer");
        handlers.missing(
            agent, failure_of(silence_of(*agents_[agent].settings, waited), agents_[agent].name));
        return;
    }
    const bool is_sent = send_to(asked, request_to(agent));
    ++asked.attempts;
    say(agent, is_sent ? "asked whether it is there" : "not asked: the network refuses it");
    timers_.emplace(std::min<Clock::time_point>(now + manner->timeout, asked.began + limit_),
                    agent);
}

void Scout::end(std::size_t agent) {
    asked_.erase(agent);
    --left_;
}

// Takes the answers that have come.
void Scout::receive(int socket, const Handlers &handlers) {
    std::array<char, 2048> buffer{};
    for (;;) {
        const ssize_t octets = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (octets < 0) {
            return;
        }
        const auto id = id_of_answer({buffer.data(), static_cast<std::size_t>(octets)});
        const auto found = id ? asked_.find(*id - first_id_) : asked_.end();
        // An agent knows the ids of the others, too, even of those that have not been asked yet.
        if (found != asked_.end() && found->second.attempts > 0) {
            const std::size_t agent = found->first;
            const std::string address = found->second.address;
            end(agent);
            say(agent, "it is there");
            handlers.found(agent, address);
        }
    }
}

// Empty if the settings make no session: then who tries to copy says why.
const Scout::Manner *Scout::manner_of(std::size_t agent) {
    const netsnmp_session &settings = *agents_[agent].settings;
    const auto [known, is_new] = manners_.try_emplace(&settings);
    if (is_new) {
        try {
            const Session session(settings, {agents_[agent].name, "udp:127.0.0.1:161"}, -1);
            known->second = Manner{session.timeout(), session.attempts()};
        } catch (const Trouble &) {
        }
    }
    return known->second ? &*known->second : nullptr;
}

std::string Scout::request_to(std::size_t agent) const {
    const netsnmp_session &settings = *agents_[agent].settings;
    const auto id = static_cast<std::uint32_t>(first_id_ + agent);
    return settings.version == SNMP_VERSION_3
               ? discovery_request(id)
               : read_request(
                     settings.version,
                     {reinterpret_cast<const char *>(settings.community), settings.community_len},
                     id);
}

// Returns false if the network refuses the message.
bool Scout::send_to(const Asked &asked, const std::string &request) const {
    const AgentAddress parts = parse_agent(asked.address);
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *list = nullptr;
    if (::getaddrinfo(parts.host.c_str(), parts.port.c_str(), &hints, &list) != 0) {
        return false;
    }
    const ssize_t sent =
        ::sendto((list->ai_family == AF_INET6 ? ipv6_ : ipv4_).get(), request.data(),
                 request.size(), 0, list->ai_addr, list->ai_addrlen);
    ::freeaddrinfo(list);
    return sent >= 0;
}

void Scout::say(std::size_t agent, const char *what) const {
    if (is_verbose_) { // one write: other sessions print at the same time
        std::cerr << "config-copy: " + agents_[agent].name + ": " + what + '\n' << std::flush;
    }
}

} // namespace config_copy
