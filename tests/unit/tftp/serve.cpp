// The answers to a client's requests: our own client on a line that may lose packets, and clients
// that follow a script.
#include "tests/unit/tftp/fixture.h"

#include "tftp/transfer.h"

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <optional>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>

using namespace std::chrono_literals;
using namespace tftp_test;
namespace tftp = ulmo::tftp;
using ulmo::UniqueFd;

namespace {

sockaddr_in loopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A socket on a port of its own, which it returns.
std::pair<UniqueFd, sockaddr_in> open_socket() {
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback();
    socklen_t octets = sizeof address;
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), octets), 0);
    EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &octets), 0);
    return {std::move(socket), address};
}

tftp::Endpoint endpoint_of(const sockaddr_in &client) {
    tftp::Endpoint endpoint;
    std::memcpy(&endpoint.address, &client, sizeof client);
    endpoint.address_octets = sizeof client;
    endpoint.timeout = 2s;
    endpoint.name = "switch";
    return endpoint;
}

tftp::Octets octets_of(const std::string &packet) {
    return {reinterpret_cast<const std::uint8_t *>(packet.data()), packet.size()};
}

// The file that is served, and what came of it.
struct Served {
    std::string content;
    std::string taken;
    std::atomic<int> completed = 0;
    std::string result; // of the last transfer: "done", or the reason

    // For the moment after the last acknowledgment; a second at most.
    void wait_until_completed() const {
        for (int turn = 0; completed == 0 && turn < 1000; ++turn) {
            std::this_thread::sleep_for(1ms);
        }
    }

    void answer(const tftp::Endpoint &client, const std::string &datagram) {
        const auto request = tftp::decode_request(octets_of(datagram));
        ASSERT_TRUE(request);
        try {
            if (request->opcode == tftp::Opcode::read_request) {
                tftp::answer_read(client, *request, content.size(),
                                  [this](std::uint64_t offset, std::span<std::uint8_t> block) {
                                      return content.copy(reinterpret_cast<char *>(block.data()),
                                                          block.size(),
                                                          static_cast<std::size_t>(offset));
                                  });
            } else {
                tftp::answer_write(
                    client, *request,
                    [this](tftp::Octets block) {
                        taken.append(reinterpret_cast<const char *>(block.data()), block.size());
                    },
                    [this] { ++completed; });
            }
            result = "done";
        } catch (const std::exception &error) {
            result = error.what();
        }
    }
};

using Losses = std::function<bool(unsigned)>; // whether the n-th packet is lost, from 1

// Between one client and the served file: it loses packets either way. To the client it is the
// server, and to the server the client.
class Line {
  public:
    Line(Served &served, Losses to_server, Losses to_client, std::chrono::seconds silence)
        : served_(served), silence_(silence), losses_{std::move(to_server), std::move(to_client)} {
        std::tie(near_, near_address_) = open_socket();
        std::tie(far_, far_address_) = open_socket();
        thread_ = std::thread([this] { run(); });
    }
    ~Line() { end(); }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    [[nodiscard]] int port() const { return ntohs(near_address_.sin_port); }
    // The client has ended: its port is closed. Waits until the transfer has ended too.
    void end() {
        ended_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        far_.reset();
        if (served_.completed > 0) {
            stop_.request_stop(); // it need not wait for repetitions
        }
        if (transfer_.joinable()) {
            transfer_.join();
        }
    }

  private:
    void run() {
        while (!ended_) {
            std::array<pollfd, 2> ready{pollfd{near_.get(), POLLIN, 0},
                                        pollfd{far_.get(), POLLIN, 0}};
            ::poll(ready.data(), ready.size(), 5);
            if (ready[0].revents != 0) {
                forward(near_, client_, 0);
            }
            if (ready[1].revents != 0) {
                forward(far_, server_, 1);
            }
        }
    }
    void forward(const UniqueFd &from, sockaddr_in &source, std::size_t way) {
        std::array<char, 65536> buffer;
        socklen_t octets = sizeof source;
        const ssize_t received = ::recvfrom(from.get(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                            reinterpret_cast<sockaddr *>(&source), &octets);
        if (received < 0 || (losses_[way] && losses_[way](++counts_[way]))) {
            return;
        }
        const std::string packet(buffer.data(), static_cast<std::size_t>(received));
        if (opcode_of(packet) <= 2) {
            if (!transfer_.joinable()) { // otherwise the answer was lost
                transfer_ = std::thread([this, packet] {
                    tftp::Endpoint client = endpoint_of(far_address_);
                    client.timeout = silence_;
                    client.stop = stop_.get_token();
                    served_.answer(client, packet);
                });
            }
            return;
        }
        const auto &[socket, target] =
            way == 0 ? std::tie(far_, server_) : std::tie(near_, client_);
        ::sendto(socket.get(), packet.data(), packet.size(), 0,
                 reinterpret_cast<const sockaddr *>(&target), sizeof target);
    }

    Served &served_;
    std::chrono::seconds silence_;
    std::array<Losses, 2> losses_;
    std::array<unsigned, 2> counts_{};
    UniqueFd near_; // towards the client
    UniqueFd far_;
    sockaddr_in near_address_{};
    sockaddr_in far_address_{};
    sockaddr_in client_{};
    sockaddr_in server_{};
    std::stop_source stop_;
    std::atomic<bool> ended_ = false;
    std::thread transfer_;
    std::thread thread_;
};

class TftpServe : public TftpTest {
  protected:
    TftpServe() { session.set_timeout(2); }

    // The client reads the content and writes it back, each over a line with these losses.
    void expect_there_and_back(const std::string &content, const Losses &to_server = {},
                               const Losses &to_client = {}) {
        Served reading;
        reading.content = content;
        {
            Line line(reading, to_server, to_client, silence);
            ASSERT_EQ(session.connect("127.0.0.1", line.port()), 0);
            const int result = session.get("file", path("got"));
            EXPECT_EQ(result, 0) << session.text(result);
            line.end();
        }
        EXPECT_EQ(reading.result, "done");
        EXPECT_TRUE(read("got") == content);
        Served writing;
        {
            Line line(writing, to_server, to_client, silence);
            ASSERT_EQ(session.connect("127.0.0.1", line.port()), 0);
            const int result = session.put(write("local", content), "file");
            EXPECT_EQ(result, 0) << session.text(result);
            writing.wait_until_completed();
            line.end();
        }
        EXPECT_EQ(writing.result, "done");
        EXPECT_EQ(writing.completed, 1);
        EXPECT_TRUE(writing.taken == content);
    }

    std::chrono::seconds silence = 2s; // of the client, until it is given up
};

// A client that sends what a test says.
class TftpServeScript : public TftpTest {
  protected:
    TftpServeScript() { std::tie(socket, address) = open_socket(); }

    // Answers the request, on a thread of its own.
    void begin(const std::string &request, const tftp::Limits &limits = {}) {
        tftp::Endpoint client = endpoint_of(address);
        client.limits = limits;
        client.stop = stop.get_token();
        transfer = std::async(std::launch::async,
                              [this, client, request] { served.answer(client, request); });
    }
    void send(const std::string &packet) const {
        ::sendto(socket.get(), packet.data(), packet.size(), 0,
                 reinterpret_cast<const sockaddr *>(&server), sizeof server);
    }
    // The next packet; empty when none comes.
    std::string receive(int milliseconds = 3000) {
        pollfd readable{socket.get(), POLLIN, 0};
        std::array<char, 65536> buffer;
        socklen_t octets = sizeof server;
        if (::poll(&readable, 1, milliseconds) <= 0) {
            return {};
        }
        const ssize_t received = ::recvfrom(socket.get(), buffer.data(), buffer.size(), 0,
                                            reinterpret_cast<sockaddr *>(&server), &octets);
        return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(received, 0))};
    }
    std::string result() {
        transfer.wait();
        return served.result;
    }

    Served served;
    UniqueFd socket;
    sockaddr_in address{};
    sockaddr_in server{};
    std::stop_source stop;
    std::future<void> transfer; // last: it uses the others
};

std::string request(unsigned opcode, const std::vector<std::string> &options = {},
                    const std::string &mode = "octet") {
    std::string packet = number(opcode) + "file" + '\0' + mode + '\0';
    for (const std::string &text : options) {
        packet += text + '\0';
    }
    return packet;
}

} // namespace

class TftpServeSizes : public TftpServe,
                       public testing::WithParamInterface<
                           std::tuple<std::size_t, std::pair<std::uint16_t, std::uint16_t>>> {};

TEST_P(TftpServeSizes, ArriveWhole) {
    const auto &[size, limits] = GetParam();
    session.limit(limits.first, limits.second);
    expect_there_and_back(content_of(size));
}

INSTANTIATE_TEST_SUITE_P(
    AllWays, TftpServeSizes,
    testing::Combine(testing::Values(0U, 1U, 511U, 512U, 513U, 1024U, 4 * 512U, 4 * 512U + 1,
                                     8 * 512U - 1, 20000U),
                     testing::Values(std::pair<std::uint16_t, std::uint16_t>{512, 1},
                                     std::pair<std::uint16_t, std::uint16_t>{512, 4},
                                     std::pair<std::uint16_t, std::uint16_t>{65464, 170})));

TEST_F(TftpServe, BlockNumbersGoOnWithZeroAfter65535) {
    session.limit(8, 50); // 65536 is not a multiple, so a window spans the wrap
    expect_there_and_back(content_of(8 * 65590 + 3));
}

// Each packet once, with and without a window: requests, answers, blocks and acknowledgments, the
// last ones, too.
class TftpServeLosses : public TftpServe,
                        public testing::WithParamInterface<std::tuple<unsigned, std::uint16_t>> {};

TEST_P(TftpServeLosses, EachPacketOnce) {
    const auto &[lost, window] = GetParam();
    session.limit(512, window);
    const auto loses = [lost = lost](unsigned turn) { return turn == lost; };
    const std::string content = content_of(7 * 512 + 100);
    expect_there_and_back(content, loses, {});
    expect_there_and_back(content, {}, loses);
}

// Without a window the transfer has ten packets each way, and so all of them are lost once.
INSTANTIATE_TEST_SUITE_P(All, TftpServeLosses,
                         testing::Combine(testing::Range(1U, 12U),
                                          testing::Values(std::uint16_t{1}, std::uint16_t{3})));

TEST_F(TftpServe, EachThirdPacketLost) {
    session.limit(512, 4);
    session.set_timeout(20);
    silence = 20s;
    const auto loses = [](unsigned turn) { return turn % 3 == 0; };
    expect_there_and_back(content_of(8'000), loses, loses);
}

TEST_F(TftpServeScript, PlainReadRequest) {
    served.content = content_of(600);
    begin(request(1));
    EXPECT_EQ(receive(), data(1, served.content.substr(0, 512)));
    send(ack(1));
    EXPECT_EQ(receive(), data(2, served.content.substr(512)));
    send(ack(2));
    EXPECT_EQ(result(), "done");
}

TEST_F(TftpServeScript, PlainWriteRequest) {
    begin(request(2));
    EXPECT_EQ(receive(), ack(0));
    send(data(1, content_of(512)));
    EXPECT_EQ(receive(), ack(1));
    EXPECT_EQ(served.completed, 0);
    send(data(2, ""));
    EXPECT_EQ(receive(), ack(2));
    stop.request_stop();
    EXPECT_EQ(result(), "done");
    EXPECT_EQ(served.completed, 1);
    EXPECT_EQ(served.taken, content_of(512));
}

TEST_F(TftpServeScript, AgreesToWhatItCan) {
    served.content = content_of(1000);
    begin(request(
        1, {"BLKSIZE", "800", "tsize", "0", "timeout", "3", "WindowSize", "9", "color", "blue"}));
    EXPECT_EQ(receive(),
              oack({{"blksize", "800"}, {"timeout", "3"}, {"tsize", "1000"}, {"windowsize", "9"}}));
    send(ack(0));
    EXPECT_EQ(receive(), data(1, served.content.substr(0, 800)));
    EXPECT_EQ(receive(), data(2, served.content.substr(800)));
    send(ack(2));
    EXPECT_EQ(result(), "done");
}

TEST_F(TftpServeScript, LowersTheBlockSizeAndTheWindow) {
    begin(request(2, {"blksize", "999999", "windowsize", "65535", "tsize", "5"}));
    EXPECT_EQ(receive(), oack({{"blksize", "65464"}, {"tsize", "5"}, {"windowsize", "6"}}));
    send(data(1, "five!"));
    EXPECT_EQ(receive(), ack(1));
    stop.request_stop();
    EXPECT_EQ(result(), "done");
    EXPECT_EQ(served.taken, "five!");
}

// As if they were not there: without a good one the answer is that of RFC 1350.
TEST_F(TftpServeScript, IgnoresOptionsThatAreNotAllowed) {
    begin(request(2, {"blksize", "7", "blksize", "", "windowsize", "0", "windowsize", "65536",
                      "timeout", "0", "timeout", "256", "tsize", "-1", "tsize", "1x", "x"}));
    EXPECT_EQ(receive(), ack(0));
    send(data(1, "x"));
    EXPECT_EQ(receive(), ack(1));
    stop.request_stop();
    EXPECT_EQ(result(), "done");
}

TEST_F(TftpServeScript, TakesTheFirstOfRepeatedOptions) {
    begin(request(2, {"blksize", "100", "blksize", "200"}));
    EXPECT_EQ(receive(), oack({{"blksize", "100"}}));
    send(error(8, "no"));
    EXPECT_EQ(result(), "the switch reports error 8, no");
}

TEST_F(TftpServeScript, RepeatsItsAnswerToARequest) {
    begin(request(2, {"blksize", "100"}));
    EXPECT_EQ(receive(), oack({{"blksize", "100"}}));
    EXPECT_EQ(receive(), oack({{"blksize", "100"}}));
    send(data(1, "x"));
    EXPECT_EQ(receive(), ack(1));
    stop.request_stop();
    EXPECT_EQ(result(), "done");
}

// The client may have lost the last acknowledgment, and then repeats its last block.
TEST_F(TftpServeScript, AnswersRepetitionsOfTheLastBlock) {
    begin(request(2));
    EXPECT_EQ(receive(), ack(0));
    send(data(1, "x"));
    for (int repetition = 0; repetition < 3; ++repetition) {
        EXPECT_EQ(receive(), ack(1));
        served.wait_until_completed();
        EXPECT_EQ(served.completed, 1);
        send(data(1, "x"));
    }
    EXPECT_EQ(receive(), ack(1));
    EXPECT_EQ(result(), "done"); // after two seconds of silence
    EXPECT_EQ(served.completed, 1);
    EXPECT_EQ(served.taken, "x");
}

TEST_F(TftpServeScript, AnnouncedFileThatIsTooLargeIsRefusedAtOnce) {
    begin(request(2, {"tsize", "1025", "blksize", "512"}), {.received_octets = 1024});
    const std::string refusal = receive();
    EXPECT_EQ(opcode_of(refusal), 5U);
    EXPECT_EQ(block_of(refusal), 3U);
    EXPECT_EQ(result(), "more than 1024 octets, the most that is taken: File too large");
    EXPECT_EQ(served.taken, "");
}

TEST_F(TftpServeScript, FileThatTurnsOutTooLargeIsRefused) {
    begin(request(2), {.received_octets = 1024});
    EXPECT_EQ(receive(), ack(0));
    for (unsigned block = 1; block <= 2; ++block) {
        send(data(block, std::string(512, 'x')));
        EXPECT_EQ(receive(), ack(block));
    }
    send(data(3, "x"));
    EXPECT_EQ(receive().substr(0, 4), number(5) + number(3));
    EXPECT_EQ(result(), "more than 1024 octets, the most that is taken: File too large");
    EXPECT_EQ(served.taken.size(), 1024U);
    EXPECT_EQ(served.completed, 0);
}

TEST_F(TftpServeScript, FileOtherThanAnnouncedIsRefused) {
    begin(request(2, {"tsize", "10"}));
    EXPECT_EQ(receive(), oack({{"tsize", "10"}}));
    send(data(1, "five!"));
    EXPECT_EQ(opcode_of(receive()), 5U);
    EXPECT_EQ(result(), "File of 5 octets, announced were 10: Protocol error");
    EXPECT_EQ(served.completed, 0);
}

TEST_F(TftpServeScript, UnknownSizeIsAnnouncedAsZero) {
    begin(request(2, {"tsize", "0"}));
    EXPECT_EQ(receive(), oack({{"tsize", "0"}}));
    send(data(1, "five!"));
    EXPECT_EQ(receive(), ack(1));
    stop.request_stop();
    EXPECT_EQ(result(), "done");
    EXPECT_EQ(served.taken, "five!");
}

TEST_F(TftpServeScript, EndsWhenItIsToStop) {
    for (const unsigned opcode : {1U, 2U}) {
        stop = {};
        begin(request(opcode));
        ASSERT_NE(receive(), "");
        const auto since = std::chrono::steady_clock::now();
        stop.request_stop();
        EXPECT_EQ(result(), "Operation canceled");
        EXPECT_LT(std::chrono::steady_clock::now() - since, 1s);
        EXPECT_EQ(opcode_of(receive()), 5U);
    }
}

TEST_F(TftpServeScript, StopsWithoutAnErrorAfterTheLastBlock) {
    begin(request(2));
    EXPECT_EQ(receive(), ack(0));
    send(data(1, "x"));
    EXPECT_EQ(receive(), ack(1));
    served.wait_until_completed();
    stop.request_stop();
    EXPECT_EQ(result(), "done");
    EXPECT_EQ(receive(100), "");
}

TEST_F(TftpServeScript, GivesASilentClientUp) {
    served.content = "x";
    begin(request(1));
    for (unsigned repetition = 0; repetition < 3; ++repetition) {
        EXPECT_EQ(receive(), data(1, "x"));
    }
    EXPECT_EQ(result(), "Connection timed out");
}

TEST_F(TftpServeScript, ClientThatLeavesBeforeTheLastBlockHasNotGotTheFile) {
    served.content = content_of(2000);
    begin(request(1));
    EXPECT_EQ(opcode_of(receive()), 3U);
    socket.reset();
    EXPECT_EQ(result(), "Connection refused");
}

TEST_F(TftpServeScript, FileThatShrinksWhileItIsSent) {
    served.content = content_of(2000);
    begin(request(1));
    EXPECT_EQ(opcode_of(receive()), 3U);
    served.content.resize(600); // the transfer waits for us
    send(ack(1));
    EXPECT_EQ(opcode_of(receive()), 5U);
    EXPECT_EQ(result(), "the file became shorter while it was sent: Input/output error");
}

TEST_F(TftpServeScript, BlocksFromElsewhereAreRefused) {
    begin(request(2));
    EXPECT_EQ(receive(), ack(0));
    const UniqueFd own = std::exchange(socket, open_socket().first);
    send(data(1, "forged"));
    EXPECT_EQ(receive().substr(0, 4), number(5) + number(5));
    socket.reset(::dup(own.get()));
    send(data(1, "right"));
    EXPECT_EQ(receive(), ack(1));
    stop.request_stop();
    EXPECT_EQ(result(), "done");
    EXPECT_EQ(served.taken, "right");
}
