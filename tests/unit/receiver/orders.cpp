// Orders and reports over a socket, well-formed and otherwise.
#include "receiver/orders.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

using namespace receiver;
using ulmo::UniqueFd;

namespace {

class ReceiverOrders : public testing::Test {
  protected:
    ReceiverOrders() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
        ours = UniqueFd(ends[0]);
        theirs = UniqueFd(ends[1]);
    }
    void send_octets(const std::vector<std::uint8_t> &octets) const {
        ASSERT_EQ(::send(ours.get(), octets.data(), octets.size(), 0),
                  static_cast<ssize_t>(octets.size()));
    }
    // The errno value that receiving throws; 0 if it throws nothing.
    template <typename Receive> int problem(Receive receive) const {
        try {
            receive(theirs.get());
            return 0;
        } catch (const std::system_error &error) {
            return error.code().value();
        }
    }

    UniqueFd ours;
    UniqueFd theirs;
};

Order some_order() {
    Order order;
    order.kind = Order::Kind::serve;
    order.id = 7;
    order.direction = Order::Direction::takes;
    order.peer = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
    order.most = 1ULL << 40U;
    put_text(order.name, "gpc7ajvcqs2vp4bvxjo7ybpbgoq6ehr3");
    return order;
}

template <typename Message> std::vector<std::uint8_t> octets_of(const Message &message) {
    std::vector<std::uint8_t> octets(sizeof message);
    std::memcpy(octets.data(), &message, sizeof message);
    return octets;
}

} // namespace

TEST_F(ReceiverOrders, ArriveAsSentWithTheirFile) {
    const UniqueFd file(::memfd_create("file", MFD_CLOEXEC));
    ASSERT_EQ(::write(file.get(), "five!", 5), 5);
    ASSERT_TRUE(send(ours.get(), some_order(), file.get()));
    auto received = receive_order(theirs.get());
    ASSERT_TRUE(received);
    EXPECT_EQ(octets_of(received->order), octets_of(some_order()));
    ASSERT_TRUE(received->file);
    EXPECT_NE(::fcntl(received->file.get(), F_GETFD) & FD_CLOEXEC, 0);
    std::array<char, 6> content{};
    EXPECT_EQ(::pread(received->file.get(), content.data(), 5, 0), 5);
    EXPECT_STREQ(content.data(), "five!");

    Order withdrawn;
    withdrawn.kind = Order::Kind::withdraw;
    withdrawn.id = 7;
    ASSERT_TRUE(send(ours.get(), withdrawn));
    received = receive_order(theirs.get());
    ASSERT_TRUE(received);
    EXPECT_EQ(octets_of(received->order), octets_of(withdrawn));
    EXPECT_FALSE(received->file);
}

TEST_F(ReceiverOrders, ReportsArriveAsSent) {
    Report report{Report::Kind::ended, 7, 1234, ENOSPC, {}, 0};
    put_text(report.text, "no space on device");
    ASSERT_TRUE(send(theirs.get(), report));
    const auto received = receive_report(ours.get());
    ASSERT_TRUE(received);
    EXPECT_EQ(octets_of(*received), octets_of(report));
}

TEST_F(ReceiverOrders, TextsEndWithNul) {
    Order order = some_order();
    put_text(order.name, std::string(100, 'n'));
    EXPECT_EQ(std::strlen(order.name.data()), 63U);
    std::string text(64, 'n');
    text.replace(61, 3, "\u20ac"); // no room for the last of its octets
    put_text(order.name, text);
    EXPECT_EQ(std::string(order.name.data()), std::string(61, 'n'));
    text.replace(60, 4, "\u20ac");
    put_text(order.name, text);
    EXPECT_EQ(std::string(order.name.data()), text);
    order.name.fill('x'); // as only another program would do
    ASSERT_TRUE(send(ours.get(), order));
    EXPECT_EQ(std::string(receive_order(theirs.get())->order.name.data()), std::string(63, 'x'));
    Report report;
    report.text.fill('y');
    ASSERT_TRUE(send(theirs.get(), report));
    EXPECT_EQ(std::string(receive_report(ours.get())->text.data()), std::string(255, 'y'));
}

TEST_F(ReceiverOrders, ClosedSocketIsNoFailure) {
    ours.reset();
    EXPECT_FALSE(receive_order(theirs.get()));
    EXPECT_FALSE(send(theirs.get(), Report{}));
    EXPECT_FALSE(send_now(theirs.get(), Report{}));
}

// What the other side has not read is lost with it.
TEST_F(ReceiverOrders, SocketClosedBeforeAllWasRead) {
    ASSERT_TRUE(send(theirs.get(), Report{}));
    ours.reset();
    EXPECT_FALSE(receive_order(theirs.get()));
}

TEST_F(ReceiverOrders, MessageOfAnotherSizeIsRefused) {
    auto octets = octets_of(some_order());
    octets.push_back(0);
    send_octets(octets);
    EXPECT_EQ(problem(receive_order), EPROTO);
    octets.resize(octets.size() - 2);
    send_octets(octets);
    EXPECT_EQ(problem(receive_order), EPROTO);
    send_octets({1});
    EXPECT_EQ(problem(receive_report), EPROTO);
    send_octets(octets_of(some_order())); // the socket goes on to work
    EXPECT_TRUE(receive_order(theirs.get()));
}

TEST_F(ReceiverOrders, UnknownKindIsRefused) {
    Order order = some_order();
    order.kind = static_cast<Order::Kind>(2);
    send_octets(octets_of(order));
    EXPECT_EQ(problem(receive_order), EPROTO);
    order = some_order();
    order.direction = static_cast<Order::Direction>(0xffffffff);
    send_octets(octets_of(order));
    EXPECT_EQ(problem(receive_order), EPROTO);
    Report report;
    report.kind = static_cast<Report::Kind>(4);
    send_octets(octets_of(report));
    EXPECT_EQ(problem(receive_report), EPROTO);
}

// A message that is refused, or has too many of them, leaves no descriptor open.
TEST_F(ReceiverOrders, LeaveNoDescriptorOpen) {
    const UniqueFd spare(::dup(theirs.get()));
    const int lowest = spare.get() + 1;
    for (const std::size_t files : {1U, 2U, 8U}) {
        Order order = some_order();
        order.kind = static_cast<Order::Kind>(9);
        iovec part{&order, sizeof order};
        alignas(cmsghdr) std::array<std::uint8_t, 128> control{};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = CMSG_SPACE(files * sizeof(int));
        cmsghdr *rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(files * sizeof(int));
        const std::vector<int> descriptors(files, ours.get());
        std::memcpy(CMSG_DATA(rights), descriptors.data(), files * sizeof(int));
        ASSERT_EQ(::sendmsg(ours.get(), &header, 0), static_cast<ssize_t>(sizeof order));
        EXPECT_EQ(problem(receive_order), EPROTO);
    }
    const UniqueFd next(::dup(theirs.get()));
    EXPECT_EQ(next.get(), lowest);
}

TEST_F(ReceiverOrders, SignalsInterruptNothing) {
    struct sigaction none {};
    none.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR1, &none, &before), 0); // without SA_RESTART
    std::thread other([this, waiting = ::pthread_self()] {
        const timespec moment{0, 20'000'000};
        for (int count = 0; count < 5; ++count) {
            ::pthread_kill(waiting, SIGUSR1);
            ::nanosleep(&moment, nullptr);
        }
        send(theirs.get(), Report{Report::Kind::ended, 5, 0, 0, {}, 0});
    });
    const auto report = receive_report(ours.get());
    other.join();
    ASSERT_EQ(::sigaction(SIGUSR1, &before, nullptr), 0);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->id, 5U);
}

TEST_F(ReceiverOrders, FullSocketStopsOnlyThatWhichWaits) {
    int sent = 0;
    while (send_now(theirs.get(), Report{}) && sent < 100'000) {
        ++sent;
    }
    EXPECT_GT(sent, 10);
    EXPECT_LT(sent, 100'000);
    std::thread waits([this] { send(theirs.get(), Report{Report::Kind::ended, 9, 0, 0, {}, 0}); });
    for (; sent > 0; --sent) {
        EXPECT_EQ(receive_report(ours.get())->id, 0U);
    }
    EXPECT_EQ(receive_report(ours.get())->id, 9U);
    waits.join();
}

TEST_F(ReceiverOrders, PeersOfBothFamilies) {
    sockaddr_storage address{};
    auto &ipv4 = reinterpret_cast<sockaddr_in &>(address);
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(69);
    ASSERT_EQ(::inet_pton(AF_INET, "192.0.2.3", &ipv4.sin_addr), 1);
    EXPECT_EQ(peer_of(address), (Peer{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 3}));
    address = {};
    auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(address);
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(69);
    ipv6.sin6_scope_id = 3;
    ASSERT_EQ(::inet_pton(AF_INET6, "fe80::102:3", &ipv6.sin6_addr), 1);
    EXPECT_EQ(peer_of(address), (Peer{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0, 3}));
}
