// A stand-in for thousands of agents: answers SNMPv2c requests to any address of this machine
// except those of 10.128.0.0/9, which are silent, and has one row of the copy table at each. A copy
// takes the time of the argument; one to a TFTP server at the agent's own address then writes a
// small file there: what the file of that address in FOLDER holds, or else the address. After
// SIGTERM it prints how many requests it has answered.
//
// usage: bench_fleet_agent SECONDS [FOLDER]
#include "base/posix.h"
#include "base/unique_fd.h"
#include "config-copy/agents/ber.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using namespace config_copy;
using Clock = std::chrono::steady_clock;

constexpr in_port_t snmp_port = 1161; // the lab has an agent at the usual one
constexpr in_port_t tftp_port = 69;
constexpr int room = 8 * 1024 * 1024;

constexpr char response_tag = static_cast<char>(0xA2);
constexpr char set_tag = static_cast<char>(0xA3);
constexpr char time_ticks_tag = 0x43;
constexpr char no_such_instance_tag = static_cast<char>(0x81);
constexpr auto answer_limit = std::chrono::seconds(1); // of a TFTP server

struct Row {
    std::uint32_t index = 0;
    std::int64_t state = COPY_STATE_WAITING;
    std::string server; // 4 octets
    std::string file;
    bool is_backup = false;
    Clock::time_point started;
    Clock::time_point completed;
};

// A file on its way to a server.
struct Transfer {
    ulmo::UniqueFd socket;
    in_addr_t agent = 0;
    std::uint32_t index = 0; // of the row
    Clock::time_point began;
};

class Agents {
  public:
    Agents(Clock::duration takes, std::string folder)
        : takes_(takes), folder_(std::move(folder)),
          socket_(ulmo::check(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))) {
        const int on = 1;
        ::setsockopt(socket_.get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        // Beyond the kernel's limit, as the superuser may.
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(snmp_port);
        ulmo::check(::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any),
                    "bind");
    }

    // Until the signal. Returns the number of requests.
    std::uint64_t run(const volatile std::sig_atomic_t &is_over) {
        while (is_over == 0) {
            std::vector<pollfd> waited{{socket_.get(), POLLIN, 0}};
            for (const Transfer &transfer : transfers_) {
                waited.push_back({transfer.socket.get(), POLLIN, 0});
            }
            ::poll(waited.data(), waited.size(), milliseconds_to_next_end());
            end_copies();
            for (std::size_t i = waited.size() - 1; i > 0; --i) {
                if (waited[i].revents != 0 ||
                    Clock::now() - transfers_[i - 1].began > answer_limit) {
                    go_on(i - 1);
                }
            }
            while (answer_one()) {
            }
        }
        return answered_;
    }

  private:
    [[nodiscard]] int milliseconds_to_next_end() const {
        if (ends_.empty()) {
            return transfers_.empty() ? -1 : 100;
        }
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(ends_.begin()->first - Clock::now());
        return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }

    void end_copies() {
        while (!ends_.empty() && ends_.begin()->first <= Clock::now()) {
            const auto [agent, index] = ends_.extract(ends_.begin()).mapped();
            const auto row = rows_.find(agent);
            if (row == rows_.end() || row->second.index != index ||
                row->second.state != COPY_STATE_RUNNING) {
                continue;
            }
            // The server of a file of config-copy's machine, which has all these addresses.
            const bool is_local =
                row->second.server ==
                std::string_view(reinterpret_cast<const char *>(&agent), sizeof agent);
            if (row->second.is_backup && is_local) {
                send_file(agent, row->second);
            } else {
                end(row->second, COPY_STATE_SUCCESSFUL);
            }
        }
    }

    static void end(Row &row, std::int64_t state) {
        row.state = state;
        row.completed = Clock::now();
    }

    // RFC 1350: a request, an acknowledgment, one block, an acknowledgment.
    void send_file(in_addr_t agent, const Row &row) {
        Transfer transfer{
            ulmo::UniqueFd(ulmo::check(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))), agent,
            row.index, Clock::now()};
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = agent;
        ulmo::check(
            ::bind(transfer.socket.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own));
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(tftp_port);
        std::memcpy(&server.sin_addr, row.server.data(), row.server.size());
        const std::string request =
            std::string("\0\2", 2) + row.file + '\0' + "octet" + std::string(1, '\0');
        ::sendto(transfer.socket.get(), request.data(), request.size(), 0,
                 reinterpret_cast<const sockaddr *>(&server), sizeof server);
        transfers_.push_back(std::move(transfer));
    }

    // Less than a block.
    [[nodiscard]] std::string configuration(in_addr_t agent) const {
        const std::string address = ::inet_ntoa({agent});
        std::ifstream file(folder_ + '/' + address);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        return file ? text : "hostname " + address + '\n';
    }

    // Takes the server's acknowledgment of that transfer, or its silence.
    void go_on(std::size_t at) {
        Transfer &transfer = transfers_[at];
        std::array<char, 64> packet{};
        sockaddr_in server{};
        socklen_t length = sizeof server;
        const ssize_t octets =
            ::recvfrom(transfer.socket.get(), packet.data(), packet.size(), MSG_DONTWAIT,
                       reinterpret_cast<sockaddr *>(&server), &length);
        const bool is_acknowledgment = octets == 4 && packet[1] == 4;
        if (is_acknowledgment && packet[3] == 0) {
            const std::string block = std::string("\0\3\0\1", 4) + configuration(transfer.agent);
            ::sendto(transfer.socket.get(), block.data(), block.size(), 0,
                     reinterpret_cast<const sockaddr *>(&server), length);
            return;
        }
        if (const auto row = rows_.find(transfer.agent);
            row != rows_.end() && row->second.index == transfer.index) {
            end(row->second, is_acknowledgment ? COPY_STATE_SUCCESSFUL : COPY_STATE_FAILED);
        }
        transfers_.erase(transfers_.begin() + static_cast<std::ptrdiff_t>(at));
    }

    bool answer_one() {
        std::array<char, 2048> packet{};
        std::array<char, 256> control{};
        sockaddr_in manager{};
        iovec part{packet.data(), packet.size()};
        msghdr message{};
        message.msg_name = &manager;
        message.msg_namelen = sizeof manager;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t octets = ::recvmsg(socket_.get(), &message, MSG_DONTWAIT);
        if (octets < 0) {
            return false;
        }
        // It holds the address that was asked, and the answer goes out from there.
        in_pktinfo info{};
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        std::memcpy(&info, CMSG_DATA(header), sizeof info);
        const auto *address = reinterpret_cast<const unsigned char *>(&info.ipi_addr);
        if (address[0] == 10 && address[1] >= 128) {
            return true;
        }
        const auto answer =
            answer_to({packet.data(), static_cast<std::size_t>(octets)}, info.ipi_addr.s_addr);
        if (answer) {
            ++answered_;
            info.ipi_ifindex = 0;
            info.ipi_spec_dst = info.ipi_addr;
            std::memcpy(CMSG_DATA(header), &info, sizeof info);
            part = {const_cast<char *>(answer->data()), answer->size()};
            message.msg_controllen = CMSG_SPACE(sizeof info);
            ::sendmsg(socket_.get(), &message, 0);
        }
        return true;
    }

    std::optional<std::string> answer_to(std::string_view datagram, in_addr_t agent) {
        const auto message = ber::take(datagram);
        std::string_view rest = message ? message->second : std::string_view();
        const auto version = ber::take_number(rest);
        const auto community = ber::take(rest);
        const auto pdu = ber::take(rest);
        if (!version || !community || !pdu) {
            return std::nullopt;
        }
        std::string_view fields = pdu->second;
        const auto id = ber::take_number(fields);
        ber::take_number(fields);
        ber::take_number(fields);
        const auto listed = ber::take(fields);
        if (!id || !listed) {
            return std::nullopt;
        }
        std::string answers;
        std::string_view bindings = listed->second;
        while (const auto binding = ber::take(bindings)) {
            std::string_view pair = binding->second;
            const auto name = ber::take(pair);
            const auto value = ber::take(pair);
            if (!name || !value) {
                return std::nullopt;
            }
            const std::string encoded =
                pdu->first == set_tag ? set(agent, name->second, *value) : get(agent, name->second);
            answers += ber::element(ber::sequence_tag,
                                    ber::element(name->first, std::string(name->second)) + encoded);
        }
        return ber::element(
            ber::sequence_tag,
            ber::integer(*version) +
                ber::element(community->first, std::string(community->second)) +
                ber::element(response_tag, ber::integer(*id) + ber::integer(0) + ber::integer(0) +
                                               ber::element(ber::sequence_tag, answers)));
    }

    // The column and the index of a cell of the copy table.
    static std::optional<std::pair<oid, std::uint32_t>> cell_of(std::string_view name) {
        static const std::string entry = [] {
            const std::string column = ber::name(copy_column(1));
            return column.substr(2, column.size() - 3); // without tag, length and the column
        }();
        if (!name.starts_with(entry) || name.size() < entry.size() + 2) {
            return std::nullopt;
        }
        const auto column = static_cast<oid>(name[entry.size()]);
        std::uint32_t index = 0;
        for (const char octet : name.substr(entry.size() + 1)) {
            index = index << 7U | (static_cast<unsigned char>(octet) & 0x7FU);
        }
        return std::pair(column, index);
    }

    std::string get(in_addr_t agent, std::string_view name) const {
        const auto cell = cell_of(name);
        const auto found = rows_.find(agent);
        if (!cell || found == rows_.end() || found->second.index != cell->second) {
            return ber::element(no_such_instance_tag, "");
        }
        const Row &row = found->second;
        switch (cell->first) {
        case CC_COLUMN_STATE:
            return ber::integer(static_cast<std::uint32_t>(row.state));
        case CC_COLUMN_TIME_STARTED:
            return ticks(row.started);
        case CC_COLUMN_TIME_COMPLETED:
            return ticks(row.completed);
        default:
            return ber::integer(1);
        }
    }

    // TimeTicks since this program began.
    [[nodiscard]] std::string ticks(Clock::time_point time) const {
        using Ticks = std::chrono::duration<std::uint32_t, std::centi>;
        const std::uint32_t count =
            time == Clock::time_point() ? 0 : std::chrono::floor<Ticks>(time - began_).count() + 1;
        std::string number = ber::integer(count);
        number[0] = time_ticks_tag;
        return number;
    }

    std::string set(in_addr_t agent, std::string_view name,
                    const std::pair<char, std::string_view> &value) {
        if (const auto cell = cell_of(name)) {
            std::string encoded = ber::element(value.first, std::string(value.second));
            std::string_view rest = encoded;
            const auto number = ber::take_number(rest);
            Row &row = rows_[agent];
            row.index = cell->second;
            switch (cell->first) {
            case CC_COLUMN_ENTRY_ROW_STATUS:
                change(agent, row, static_cast<int>(number.value_or(0)));
                break;
            case CC_COLUMN_DEST_FILE_TYPE:
                row.is_backup = number == COPY_FILE_NETWORK;
                break;
            case CC_COLUMN_SERVER_ADDRESS_REV1:
                row.server = value.second;
                break;
            case CC_COLUMN_FILE_NAME:
                row.file = value.second;
                break;
            default:
                break;
            }
        }
        return ber::element(value.first, std::string(value.second));
    }

    void change(in_addr_t agent, Row &row, int status) {
        if (status == ROW_STATUS_ACTIVE) {
            row.state = COPY_STATE_RUNNING;
            row.started = Clock::now();
            ends_.emplace(row.started + takes_, std::pair(agent, row.index));
        } else if (status == ROW_STATUS_DESTROY) {
            rows_.erase(agent);
        }
    }

    Clock::duration takes_;
    std::string folder_; // of configurations
    ulmo::UniqueFd socket_;
    Clock::time_point began_ = Clock::now();
    std::unordered_map<in_addr_t, Row> rows_;
    // Of copies: the agents and the indices of the rows.
    std::multimap<Clock::time_point, std::pair<in_addr_t, std::uint32_t>> ends_;
    std::vector<Transfer> transfers_;
    std::uint64_t answered_ = 0;
};

volatile std::sig_atomic_t is_over = 0;

} // namespace

int main(int count, char **words) {
    if (count != 2 && count != 3) {
        std::cerr << "usage: bench_fleet_agent SECONDS [FOLDER]\n";
        return 2;
    }
    const std::chrono::duration<double> takes(std::strtod(words[1], nullptr));
    struct sigaction action {};
    action.sa_handler = [](int) { is_over = 1; };
    ::sigaction(SIGTERM, &action, nullptr);
    Agents agents(std::chrono::duration_cast<Clock::duration>(takes), count == 3 ? words[2] : "");
    std::cout << agents.run(is_over) << '\n';
}
