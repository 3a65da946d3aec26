// Which requests are served, refused or ignored, and what is reported.
#include "receiver/service.h"

#include "tests/unit/own_mounts.h"
#include "tests/unit/receiver/peers.h"
#include "tests/unit/superuser.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <list>
#include <thread>

using namespace std::chrono_literals;
using namespace receiver_test;

namespace {

class ReceiverService : public WithOrders {
  protected:
    explicit ReceiverService(std::size_t transfers = 100) {
        std::vector<receiver::RequestSocket> sockets;
        sockets.emplace_back(AF_INET, 0);
        sockets.emplace_back(AF_INET6, 0);
        port = port_of(sockets[0]);
        ipv6_port = port_of(sockets[1]);
        thread = std::thread([this, transfers, sockets = std::move(sockets)]() mutable {
            receiver::Service(service_end.get(), std::move(sockets), 3s, transfers).run();
        });
    }
    ~ReceiverService() override { end(); }

    void end() {
        orders.reset();
        if (thread.joinable()) {
            thread.join();
        }
    }
    static int port_of(const receiver::RequestSocket &socket) {
        sockaddr_storage address{};
        socklen_t octets = sizeof address;
        EXPECT_EQ(
            ::getsockname(socket.descriptor(), reinterpret_cast<sockaddr *>(&address), &octets), 0);
        return ntohs(reinterpret_cast<sockaddr_in &>(address).sin_port);
    }
    // Where requests go.
    [[nodiscard]] sockaddr_storage target(const std::string &address = "127.0.0.1") const {
        return address_of(address, port);
    }
    int get(const std::string &name) {
        EXPECT_EQ(session.connect("127.0.0.1", port), 0);
        return session.get(name, path("got"));
    }
    int put(const std::string &name, const std::string &content) {
        EXPECT_EQ(session.connect("127.0.0.1", port), 0);
        return session.put(write("local", content), name);
    }

    int port = 0;
    int ipv6_port = 0;
    std::thread thread;
};

std::size_t own_threads() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

} // namespace

TEST_F(ReceiverService, SendsAFile) {
    const std::string content = random_octets(100'000);
    const UniqueFd file = file_in_memory(content);
    const auto id = sends("name", file);
    EXPECT_EQ(get("name"), 0) << session.text(-1);
    EXPECT_TRUE(read("got") == content);
    expect_complete(id, content.size());
    EXPECT_TRUE(is_silent());
}

TEST_F(ReceiverService, TakesAFile) {
    const std::string content = random_octets(100'000);
    const UniqueFd file = file_in_memory(std::string(200'000, 'o')); // what it had before is gone
    const auto id = takes("name", file);
    EXPECT_EQ(put("name", content), 0) << session.text(-1);
    expect_complete(id, content.size());
    EXPECT_TRUE(content_of(file) == content);
}

TEST_F(ReceiverService, EmptyFiles) {
    const UniqueFd file = file_in_memory("before");
    const auto id = takes("to", file);
    EXPECT_EQ(put("to", ""), 0);
    expect_complete(id, 0);
    EXPECT_EQ(content_of(file), "");
    const auto other = sends("from", file);
    EXPECT_EQ(get("from"), 0);
    expect_complete(other, 0);
}

TEST_F(ReceiverService, SpeaksIpv6) {
    const std::string content = random_octets(5000);
    const UniqueFd file = file_in_memory("");
    const auto id = takes("name", file, "::1");
    ASSERT_EQ(session.connect("::1", ipv6_port), 0);
    EXPECT_EQ(session.put(write("local", content), "name"), 0) << session.text(-1);
    expect_complete(id, content.size());
    EXPECT_TRUE(content_of(file) == content);
}

// The client drops what comes from elsewhere.
TEST_F(ReceiverService, AnswersFromTheAddressThatWasAsked) {
    const UniqueFd file = file_in_memory("content");
    const auto id = sends("name", file);
    ASSERT_EQ(session.connect("127.9.9.9", port), 0);
    EXPECT_EQ(session.get("name", path("got")), 0) << session.text(-1);
    expect_complete(id, 7);
    EXPECT_EQ(session.get("other", path("got")), -1);
}

TEST_F(ReceiverService, ManyAtATime) {
    constexpr int many = 40;
    const std::string content = random_octets(30'000);
    std::list<UniqueFd> files;
    std::list<std::thread> clients;
    for (int count = 0; count < many; ++count) {
        files.push_back(file_in_memory(""));
        takes("name" + std::to_string(count), files.back());
        clients.emplace_back([this, count, &content] {
            ulmo::tftp::Session own;
            const std::string suffix = std::to_string(count);
            EXPECT_EQ(own.connect("127.0.0.1", port), 0);
            EXPECT_EQ(own.put(write("local" + suffix, content), "name" + suffix), 0);
        });
    }
    for (int count = 0; count < many; ++count) {
        EXPECT_EQ(report().octets, content.size());
    }
    for (std::thread &client : clients) {
        client.join();
    }
    for (const UniqueFd &file : files) {
        EXPECT_TRUE(content_of(file) == content);
    }
}

TEST_F(ReceiverService, WrongNameIsAnsweredOnlyToExpectedAddresses) {
    const UniqueFd file = file_in_memory("content");
    const auto id = sends("name", file, "127.0.0.2");
    Client expected("127.0.0.2");
    Client stranger("127.0.0.3");
    for (const char *name : {"", "nam", "name2", "NAME", "../name"}) {
        expected.send_to(target(), request(1, name));
        EXPECT_EQ(error_of(expected.receive()), 1U) << name;
        stranger.send_to(target(), request(1, name));
    }
    EXPECT_EQ(stranger.receive(200), "");
    withdraw(id);
    expected.send_to(target(), request(1, "name"));
    EXPECT_EQ(expected.receive(200), "");
    EXPECT_TRUE(is_silent());
}

TEST_F(ReceiverService, StrangerWithTheRightNameIsRefusedAndReportedOnce) {
    const UniqueFd file = file_in_memory("content");
    const auto id = sends("name", file, "127.0.0.2");
    Client stranger("127.0.0.3");
    for (int repetition = 0; repetition < 3; ++repetition) {
        stranger.send_to(target(), request(1, "name"));
        EXPECT_EQ(error_of(stranger.receive()), 2U);
    }
    const Report seen = report();
    EXPECT_EQ(seen.kind, Report::Kind::stranger);
    EXPECT_EQ(seen.id, id);
    EXPECT_STREQ(seen.text.data(), "127.0.0.3");
    EXPECT_TRUE(is_silent());
    // and its owner gets it all the same
    Client owner("127.0.0.2");
    owner.send_to(target(), request(1, "name"));
    EXPECT_EQ(owner.receive(), data(1, "content"));
    owner.answer(ack(1));
    expect_complete(id, 7);
}

TEST_F(ReceiverService, NameIsForOneCompleteTransfer) {
    const UniqueFd file = file_in_memory("");
    const auto id = takes("name", file);
    EXPECT_EQ(put("name", "first"), 0);
    expect_complete(id, 5);
    EXPECT_EQ(put("name", "second"), -1) << session.text(-1);
    EXPECT_EQ(content_of(file), "first");
    EXPECT_TRUE(is_silent());
}

TEST_F(ReceiverService, FailedTransferMayBeRepeated) {
    const UniqueFd file = file_in_memory("");
    const auto id = takes("name", file);
    Client client;
    client.send_to(target(), request(2, "name"));
    EXPECT_EQ(client.receive(), ack(0));
    client.answer(data(1, std::string(512, 'x')));
    EXPECT_EQ(client.receive(), ack(1));
    client.answer(number(5) + number(0) + "lost my memory" + '\0');
    expect_failed(id, EPROTO, "the switch reports error 0, lost my memory");
    EXPECT_EQ(put("name", "short"), 0) << session.text(-1);
    expect_complete(id, 5);
    EXPECT_EQ(content_of(file), "short");
}

// As a client does that lost the answer.
TEST_F(ReceiverService, RepeatedRequestStartsNothingTwice) {
    const UniqueFd file = file_in_memory("content");
    const auto id = sends("name", file);
    Client client;
    client.send_to(target(), request(1, "name"));
    EXPECT_EQ(client.receive(), data(1, "content"));
    const int transfer = client.source_port();
    for (int repetition = 0; repetition < 3; ++repetition) {
        client.send_to(target(), request(1, "name"));
    }
    EXPECT_EQ(client.receive(), data(1, "content")); // after a while
    EXPECT_EQ(client.source_port(), transfer);
    client.answer(ack(1));
    expect_complete(id, 7);
    client.send_to(target(), request(1, "name"));
    EXPECT_EQ(client.receive(200), "");
}

// As a client does whose first attempt has ended without a word to us.
TEST_F(ReceiverService, RequestFromANewPortReplacesTheRunningTransfer) {
    const UniqueFd file = file_in_memory("");
    const auto id = takes("name", file);
    Client first;
    first.send_to(target(), request(2, "name"));
    EXPECT_EQ(first.receive(), ack(0));
    first.answer(data(1, std::string(512, 'x')));
    EXPECT_EQ(first.receive(), ack(1));
    EXPECT_EQ(put("name", "second"), 0) << session.text(-1);
    expect_failed(id, ECANCELED, "Operation canceled");
    expect_complete(id, 6);
    EXPECT_EQ(content_of(file), "second");
    EXPECT_EQ(error_of(first.receive()), 0U);
}

TEST_F(ReceiverService, WrongDirectionAndModeAreRefused) {
    const UniqueFd file = file_in_memory("content");
    sends("reads", file);
    takes("writes", file);
    Client client;
    client.send_to(target(), request(2, "reads"));
    EXPECT_EQ(error_of(client.receive()), 2U);
    client.send_to(target(), request(1, "writes"));
    EXPECT_EQ(error_of(client.receive()), 2U);
    for (const std::string mode : {"netascii", "mail", "octe"}) {
        client.send_to(target(), request(1, "reads", mode + '\0'));
        EXPECT_EQ(error_of(client.receive()), 4U);
    }
    EXPECT_TRUE(is_silent());
    EXPECT_EQ(content_of(file), "content");
}

TEST_F(ReceiverService, WithdrawalEndsTheTransferWithinASecond) {
    for (const auto direction : {Order::Direction::sends, Order::Direction::takes}) {
        const UniqueFd file = file_in_memory("content");
        const auto id = serve("name", direction, file);
        Client client;
        client.send_to(target(), request(direction == Order::Direction::sends ? 1 : 2, "name"));
        EXPECT_NE(client.receive(), "");
        const auto since = std::chrono::steady_clock::now();
        withdraw(id);
        expect_failed(id, ECANCELED, "Operation canceled");
        EXPECT_LT(std::chrono::steady_clock::now() - since, 1s);
        EXPECT_EQ(error_of(client.receive()), 0U);
    }
}

TEST_F(ReceiverService, EndsWithinASecondOfItsOrders) {
    const UniqueFd file = file_in_memory("content");
    sends("name", file);
    Client client;
    client.send_to(target(), request(1, "name"));
    EXPECT_EQ(client.receive(), data(1, "content"));
    const auto since = std::chrono::steady_clock::now();
    end();
    EXPECT_LT(std::chrono::steady_clock::now() - since, 1s);
}

TEST_F(ReceiverService, SwitchThatSendsTooMuch) {
    const UniqueFd file = file_in_memory("");
    auto id = takes("announced", file, "127.0.0.1", 1000);
    EXPECT_EQ(put("announced", std::string(1001, 'x')), -3);
    expect_failed(id, EFBIG, "the switch sent more than 1000 octets");
    id = takes("endless", file, "127.0.0.1", 1000);
    Client client;
    client.send_to(target(), request(2, "endless"));
    for (unsigned block = 1; block <= 2; ++block) {
        EXPECT_EQ(client.receive(), ack(block - 1));
        client.answer(data(block, std::string(512, 'x')));
    }
    EXPECT_EQ(error_of(client.receive()), 3U);
    expect_failed(id, EFBIG, "the switch sent more than 1000 octets");
    EXPECT_EQ(content_of(file).size(), 512U);
    id = takes("exact", file, "127.0.0.1", 1000);
    EXPECT_EQ(put("exact", std::string(1000, 'x')), 0);
    expect_complete(id, 1000);
}

TEST_F(ReceiverService, FullDisk) {
    REQUIRE_SUPERUSER("mounts a disk");
    UniqueFd file;
    std::thread([this, &file] { // its mounts end with it, but not the open file
        ASSERT_TRUE(get_own_mounts());
        ASSERT_EQ(::mount("none", directory.c_str(), "tmpfs", 0, "size=8k"), 0);
        file = UniqueFd(::open(path("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    })
        .join();
    ASSERT_TRUE(file);
    const auto id = takes("name", file);
    EXPECT_EQ(put("name", std::string(20'000, 'x')), -3) << session.text(-3);
    expect_failed(id, ENOSPC, "no space on device");
}

TEST_F(ReceiverService, SilentSwitchIsGivenUp) {
    const UniqueFd file = file_in_memory("");
    const auto id = takes("name", file);
    Client client;
    client.send_to(target(), request(2, "name"));
    expect_failed(id, ETIMEDOUT, "Connection timed out");
}

TEST_F(ReceiverService, FilesThatAreNone) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd reading(ends[0]);
    const UniqueFd writing(ends[1]);
    const UniqueFd folder(::open("/", O_RDONLY | O_CLOEXEC));
    const UniqueFd device(::open("/dev/zero", O_RDWR | O_CLOEXEC));
    for (const UniqueFd *file :
         std::array<const UniqueFd *, 4>{&reading, &folder, &device, &orders}) {
        expect_failed(sends("name", *file), EINVAL, "not a regular file: Invalid argument");
    }
    expect_failed(sends("name", UniqueFd()), EINVAL,
                  "no file came with the order: Invalid argument");
}

TEST_F(ReceiverService, FileThatCantBeWritten) {
    const std::string name = write("file", "content");
    const UniqueFd file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    const auto id = takes("name", file);
    EXPECT_NE(put("name", "x"), 0);
    const Report ended = report();
    EXPECT_EQ(ended.id, id);
    EXPECT_NE(ended.error, 0);
    EXPECT_EQ(std::string(ended.text.data()).find("cannot write the file: "), 0U);
    EXPECT_EQ(read("file"), "content");
}

TEST_F(ReceiverService, FileThatShrinksWhileItIsSent) {
    const UniqueFd file = file_in_memory(std::string(2000, 'x'));
    const auto id = sends("name", file);
    Client client;
    client.send_to(target(), request(1, "name"));
    EXPECT_EQ(client.receive(), data(1, std::string(512, 'x')));
    ASSERT_EQ(::ftruncate(file.get(), 600), 0);
    client.answer(ack(1));
    EXPECT_EQ(error_of(client.receive()), 0U);
    expect_failed(id, EIO, "the file became shorter while it was sent: Input/output error");
}

TEST_F(ReceiverService, OrdersNeedAnIdAndANameOfTheirOwn) {
    const UniqueFd file = file_in_memory("content");
    const std::string text = "the order has no name, or the id or name of another one: File exists";
    const auto id = sends("name", file);
    expect_failed(sends("name", file), EEXIST, text);
    --last_id;
    --last_id;
    expect_failed(sends("other", file), EEXIST, text);
    expect_failed(sends("", file), EEXIST, text);
    EXPECT_EQ(get("name"), 0);
    expect_complete(id, 7);
    withdraw(id);
    withdraw(id);
    withdraw(77);
    const auto again = sends("name", file); // its name is free again
    EXPECT_EQ(get("name"), 0);
    expect_complete(again, 7);
}

// Half packets, packets of transfers, requests in a loop: no answer, no thread, and no memory.
TEST_F(ReceiverService, FloodFromStrangersCostsNothing) {
    const UniqueFd file = file_in_memory("content");
    const auto id = sends("name", file);
    const std::size_t threads = own_threads();
    Client stranger("127.0.0.3");
    for (int count = 0; count < 20'000; ++count) {
        switch (count % 8) {
        case 0:
            stranger.send_to(target(), request(1, "guess" + std::to_string(count)));
            break;
        case 1:
            stranger.send_to(target(), request(2, std::string(490, 'n')));
            break;
        case 2:
            stranger.send_to(target(), request(1, std::string(3000, 'n')));
            break;
        case 3:
            stranger.send_to(target(), number(1) + "name");
            break;
        case 4:
            stranger.send_to(target(), "");
            break;
        case 5:
            stranger.send_to(target(), ack(0));
            break;
        case 6:
            stranger.send_to(target(), number(5) + number(1));
            break;
        default:
            stranger.send_to(target(), random_octets(static_cast<std::size_t>(count) % 600));
        }
    }
    EXPECT_EQ(get("name"), 0) << session.text(-1); // repeats what the flood has pushed out
    expect_complete(id, 7);
    EXPECT_EQ(stranger.receive(0), "");
    EXPECT_LE(own_threads(), threads + 1); // that of the transfer
    EXPECT_TRUE(is_silent());
}

class ReceiverServiceWithFewTransfers : public ReceiverService {
  protected:
    ReceiverServiceWithFewTransfers() : ReceiverService(2) {}
};

TEST_F(ReceiverServiceWithFewTransfers, FurtherRequestsWait) {
    const UniqueFd file = file_in_memory("content");
    std::array<std::uint32_t, 3> ids{};
    std::array<Client, 3> clients;
    for (std::size_t which = 0; which < ids.size(); ++which) {
        ids[which] = sends("name" + std::to_string(which), file);
    }
    for (std::size_t which = 0; which < ids.size(); ++which) {
        clients[which].send_to(target(), request(1, "name" + std::to_string(which)));
        EXPECT_EQ(clients[which].receive(500).empty(), which == 2) << which;
    }
    clients[0].answer(ack(1));
    expect_complete(ids[0], 7);
    std::string answer;
    for (int turn = 0; turn < 50 && answer.empty(); ++turn) {
        clients[2].send_to(target(), request(1, "name2"));
        answer = clients[2].receive(100);
    }
    EXPECT_EQ(answer, data(1, "content"));
}
