// What the service's tests and the program's tests have in common: both ends of the orders, files
// in memory, and clients with and without a script.
#pragma once

#include "base/unique_fd.h"
#include "receiver/orders.h"
#include "tftp/session.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <utility>

namespace receiver_test {

using receiver::Order;
using receiver::Report;
using ulmo::UniqueFd;

inline std::pair<UniqueFd, UniqueFd> order_sockets() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

inline UniqueFd file_in_memory(const std::string &content) {
    UniqueFd file(::memfd_create("file", MFD_CLOEXEC));
    EXPECT_EQ(::write(file.get(), content.data(), content.size()),
              static_cast<ssize_t>(content.size()));
    return file;
}

inline std::string content_of(const UniqueFd &file) {
    std::string content(static_cast<std::size_t>(::lseek(file.get(), 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(file.get(), content.data(), content.size(), 0),
              static_cast<ssize_t>(content.size()));
    return content;
}

inline std::string random_octets(std::size_t octets) {
    std::mt19937 random(static_cast<unsigned>(octets));
    std::string content(octets, '\0');
    for (char &octet : content) {
        octet = static_cast<char>(random());
    }
    return content;
}

inline sockaddr_storage address_of(const std::string &text, int port = 0) {
    sockaddr_storage address{};
    auto &ipv4 = reinterpret_cast<sockaddr_in &>(address);
    auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(address);
    if (::inet_pton(AF_INET, text.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
    } else if (::inet_pton(AF_INET6, text.c_str(), &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
    }
    ipv4.sin_port = htons(static_cast<std::uint16_t>(port)); // at the same place for both
    return address;
}

inline socklen_t octets_of(const sockaddr_storage &address) {
    return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

inline std::string number(unsigned value) {
    return {static_cast<char>(value >> 8U), static_cast<char>(value & 0xffU)};
}
inline std::string request(unsigned opcode, const std::string &name,
                           const std::string &rest = std::string("octet\0", 6)) {
    return number(opcode) + name + '\0' + rest;
}
inline std::string data(unsigned block, const std::string &payload) {
    return number(3) + number(block) + payload;
}
inline std::string ack(unsigned block) {
    return number(4) + number(block);
}

// A client that sends what a test says.
class Client {
  public:
    explicit Client(const std::string &address = "127.0.0.1") {
        const sockaddr_storage local = address_of(address);
        socket_ = UniqueFd(::socket(local.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(
            ::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&local), octets_of(local)), 0);
    }
    void send_to(const sockaddr_storage &target, const std::string &packet) const {
        ::sendto(socket_.get(), packet.data(), packet.size(), 0,
                 reinterpret_cast<const sockaddr *>(&target), octets_of(target));
    }
    // To where the last packet came from.
    void answer(const std::string &packet) const { send_to(source_, packet); }
    // The next packet; empty if none comes within that time.
    std::string receive(int milliseconds = 3000) {
        pollfd readable{socket_.get(), POLLIN, 0};
        std::array<char, 65536> buffer;
        socklen_t octets = sizeof source_;
        if (::poll(&readable, 1, milliseconds) <= 0) {
            return {};
        }
        const ssize_t received = ::recvfrom(socket_.get(), buffer.data(), buffer.size(), 0,
                                            reinterpret_cast<sockaddr *>(&source_), &octets);
        return {buffer.data(), static_cast<std::size_t>(received > 0 ? received : 0)};
    }
    [[nodiscard]] int source_port() const {
        return ntohs(reinterpret_cast<const sockaddr_in &>(source_).sin_port);
    }

  private:
    UniqueFd socket_;
    sockaddr_storage source_{};
};

// The error that a packet is; 99 for any other packet.
inline unsigned error_of(const std::string &packet) {
    return packet.size() >= 4 && packet.substr(0, 2) == number(5)
               ? static_cast<unsigned char>(packet[3])
               : 99U;
}

// A folder, our own client, and config-copy's end of the orders.
class WithOrders : public testing::Test {
  protected:
    WithOrders() {
        std::string folder = (std::filesystem::temp_directory_path() / "receiver-XXXXXX").string();
        EXPECT_NE(::mkdtemp(folder.data()), nullptr);
        directory = folder;
        std::tie(orders, service_end) = order_sockets();
        session.set_timeout(5);
    }
    ~WithOrders() override { std::filesystem::remove_all(directory); }

    // Orders a file and returns the order's id.
    std::uint32_t serve(const std::string &name, Order::Direction direction, const UniqueFd &file,
                        const std::string &peer = "127.0.0.1", std::uint64_t most = 1'000'000) {
        Order order;
        order.id = ++last_id;
        order.direction = direction;
        order.peer = receiver::peer_of(address_of(peer));
        order.most = most;
        receiver::put_text(order.name, name);
        EXPECT_TRUE(receiver::send(orders.get(), order, file.get()));
        return order.id;
    }
    std::uint32_t sends(const std::string &name, const UniqueFd &file,
                        const std::string &peer = "127.0.0.1") {
        return serve(name, Order::Direction::sends, file, peer);
    }
    std::uint32_t takes(const std::string &name, const UniqueFd &file,
                        const std::string &peer = "127.0.0.1", std::uint64_t most = 1'000'000) {
        return serve(name, Order::Direction::takes, file, peer, most);
    }
    void withdraw(std::uint32_t id) const {
        Order order;
        order.kind = Order::Kind::withdraw;
        order.id = id;
        EXPECT_TRUE(receiver::send(orders.get(), order));
    }
    // The next report; of the kind `failed` with a text of its own if none comes.
    [[nodiscard]] Report report(int milliseconds = 5000) const {
        pollfd readable{orders.get(), POLLIN, 0};
        Report none{Report::Kind::failed, 0, 0, 0, {}, 0};
        receiver::put_text(none.text, "no report");
        return ::poll(&readable, 1, milliseconds) == 1
                   ? receiver::receive_report(orders.get()).value_or(none)
                   : none;
    }
    [[nodiscard]] bool is_silent() const {
        pollfd readable{orders.get(), POLLIN, 0};
        return ::poll(&readable, 1, 50) == 0;
    }
    void expect_complete(std::uint32_t id, std::size_t octets) const {
        const Report ended = report();
        EXPECT_EQ(ended.kind, Report::Kind::ended);
        EXPECT_EQ(ended.id, id);
        EXPECT_EQ(ended.octets, octets);
        EXPECT_EQ(ended.error, 0);
        EXPECT_STREQ(ended.text.data(), "");
    }
    void expect_failed(std::uint32_t id, int error, const std::string &text) const {
        const Report ended = report();
        EXPECT_EQ(ended.kind, Report::Kind::ended);
        EXPECT_EQ(ended.id, id);
        EXPECT_EQ(ended.error, error);
        EXPECT_EQ(std::string(ended.text.data()), text);
    }
    [[nodiscard]] std::string path(const std::string &name) const {
        return (directory / name).string();
    }
    [[nodiscard]] std::string read(const std::string &name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    [[nodiscard]] std::string write(const std::string &name, const std::string &content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

    std::filesystem::path directory;
    UniqueFd orders;
    UniqueFd service_end;
    ulmo::tftp::Session session;
    std::uint32_t last_id = 0;
};

} // namespace receiver_test
