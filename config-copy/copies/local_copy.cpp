#include "config-copy/copies/local_copy.h"

#include "config-copy/agents/agent_address.h"
#include "config-copy/failure.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

namespace config_copy {
namespace {

// The transfer's end is reported before the switch can report its own.
constexpr std::chrono::seconds longest_delay_of_report(2);

constexpr std::string_view refused_address = "127.0.0.1"; // by the agent, for every server

constexpr in_port_t any_port = 69; // nothing is sent

socklen_t fill(sockaddr_storage &storage, const ServerAddress &address) {
    if (address.type == INET_ADDRESS_IPV6) {
        sockaddr_in6 ipv6{};
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(any_port);
        std::memcpy(&ipv6.sin6_addr, address.octets.data(), sizeof ipv6.sin6_addr);
        std::memcpy(&storage, &ipv6, sizeof ipv6);
        return sizeof ipv6;
    }
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(any_port);
    std::memcpy(&ipv4.sin_addr, address.octets.data(), sizeof ipv4.sin_addr);
    std::memcpy(&storage, &ipv4, sizeof ipv4);
    return sizeof ipv4;
}

} // namespace

ServerAddress peer_address(const std::string &agent_address) {
    std::string text = agent_address;
    for (const char *transport : {"dtlsudp:", "dtlsudp6:", "tlstcp:", "tlstcp6:"}) {
        if (text.starts_with(transport)) {
            text.erase(0, std::strlen(transport));
            break;
        }
    }
    const AgentAddress parts = parse_agent(text);
    if (const auto address = parsed_address(parts.host); parts.is_understood && address) {
        return *address;
    }
    throw bad_usage("a file of this machine can only be copied from or to an agent with an IP "
                    "address, and " +
                    agent_address + " has none: write a URL of a file server");
}

ServerAddress own_address_towards(const ServerAddress &peer) {
    sockaddr_storage storage{};
    const socklen_t peer_length = fill(storage, peer);
    socklen_t own_length = sizeof storage;
    const ulmo::UniqueFd probe(::socket(storage.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!probe ||
        ::connect(probe.get(), reinterpret_cast<sockaddr *>(&storage), peer_length) != 0 ||
        ::getsockname(probe.get(), reinterpret_cast<sockaddr *>(&storage), &own_length) != 0) {
        throw Failure(ExitStatus::unreachable,
                      "no route to " + address_text(peer.octets) + ": " + std::strerror(errno));
    }
    return address_of(storage);
}

LocalCopy::LocalCopy(const CopyJob &job, const PathValues &values, const std::string &agent_address)
    : is_download_(job.to.is_local()) {
    const ServerAddress peer = peer_address(agent_address);
    server_ = job.local_address ? *job.local_address : own_address_towards(peer);
    if (server_.type != peer.type) {
        throw bad_usage("--local-address is an address of " +
                        std::string(server_.type == INET_ADDRESS_IPV4 ? "IPv4" : "IPv6") +
                        ", and the agent is reached by the other version: write both alike");
    }
    if (address_text(server_.octets) == refused_address) {
        throw bad_usage("a switch does not copy files of 127.0.0.1: name the agent by another of "
                        "its addresses");
    }
    if (job.into) {
        file_ = job.into->get();
    } else if (job.to.is_local()) {
        target_.emplace(local_path(job.to, values));
        file_ = target_->descriptor();
    } else if (job.content) {
        file_ = job.content->get();
    } else {
        content_ = snapshot(local_path(job.from, values), job.is_replacement);
        file_ = content_.get();
    }
    transfer_.emplace(
        *job.transfers, file_,
        is_download_ ? LocalTransfer::Direction::takes : LocalTransfer::Direction::sends, peer);
}

std::optional<std::uint64_t> LocalCopy::octets_arrived() const {
    struct stat status {};
    if (!is_download_ || ::fstat(file_, &status) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(status.st_size);
}

void LocalCopy::finish(Outcome &outcome) {
    const auto moved = transfer_->octets_moved(longest_delay_of_report);
    if (!moved || (outcome.bytes && *outcome.bytes != *moved)) {
        const std::string reason = trouble();
        throw Failure(ExitStatus::failed,
                      outcome.agent + ": the switch reports success, but this machine has not " +
                          (is_download_ ? "received" : "sent") + " the whole file" +
                          (reason.empty() ? "" : ": " + reason));
    }
    outcome.bytes = moved;
    if (target_) {
        outcome.is_unchanged = !target_->commit();
    }
}

std::string LocalCopy::trouble() {
    return transfer_->trouble();
}

} // namespace config_copy
